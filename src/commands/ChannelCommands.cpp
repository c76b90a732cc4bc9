#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterChannelCommands(CCommandTable& table) { (void)table; }
