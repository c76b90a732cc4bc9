// File transfer commands: #DOWNLOAD and #UPLOAD move whole files over the command connection.
#include "commands/Families.h"
#include "protocol/CommandTable.h"

void RegisterFileCommands(CCommandTable&) {}
