// The data commands: processed records, spectra and raw data for clients. They arrive with
// the data-retrieval work; a record reply's ring slot is only forgotten for now.
#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

void CVr480Server::ReleaseClientRecord(uint16_t client) { ClientRecordInUse[client] = -1; }

void RegisterDataCommands(CCommandTable& table) {}
