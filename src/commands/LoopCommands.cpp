// Commands of the control loops, the full spectrum and the analog outputs. They arrive with
// the laser work.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterLoopCommands(CCommandTable& table) {}
