// Commands that save, list and remove settings. They arrive with the settings-file work.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterSettingsCommands(CCommandTable& table) {}
