// System and identification commands: shell, reboot, shut-down, watchdogs, console, variables, identification, versions, serial number.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterSystemCommands(CCommandTable&) {}
