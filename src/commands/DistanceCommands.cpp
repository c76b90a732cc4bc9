// Sensor locations and their measurement.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterDistanceCommands(CCommandTable&) {}
