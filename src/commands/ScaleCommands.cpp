#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterScaleCommands(CCommandTable& table) { (void)table; }
