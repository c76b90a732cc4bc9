// Network and clock commands: addresses, DHCP, embedded mode, date and NTP.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterNetworkCommands(CCommandTable&) {}
