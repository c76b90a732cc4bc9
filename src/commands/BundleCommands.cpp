// The diagnostic bundle: #DUMP_CORE.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterBundleCommands(CCommandTable&) {}
