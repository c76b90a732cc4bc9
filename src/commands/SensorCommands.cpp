#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterSensorCommands(CCommandTable& table) { (void)table; }
