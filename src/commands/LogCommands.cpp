// Event log and command history commands.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterLogCommands(CCommandTable&) {}
