#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterDeviceCommands(CCommandTable& table) { (void)table; }
