// Every command family hands its rows to the command table here. The order of registration
// is the order in which rows of the same name are tried.
#pragma once

class CCommandTable;

void RegisterGeneralCommands(CCommandTable& table);
void RegisterSessionCommands(CCommandTable& table);

// Calls every family's registration, in order.
void RegisterAllCommandFamilies(CCommandTable& table);
