// Commands of acquisition, laser and timing. They arrive with the laser work.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterAcquisitionCommands(CCommandTable& table) {}
