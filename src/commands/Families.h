// Every command family hands its rows to the command table here. The order of registration
// is the order in which rows of the same name are tried.
#pragma once

class CCommandTable;

void RegisterGeneralCommands(CCommandTable& table);       // src/commands/GeneralCommands.cpp
void RegisterSessionCommands(CCommandTable& table);       // src/commands/SessionCommands.cpp
void RegisterAcquisitionCommands(CCommandTable& table);   // src/commands/AcquisitionCommands.cpp
void RegisterLoopCommands(CCommandTable& table);          // src/commands/LoopCommands.cpp
void RegisterDataCommands(CCommandTable& table);          // src/protocol/DataCommands.cpp
void RegisterSettingsCommands(CCommandTable& table);      // src/commands/SettingsCommands.cpp

// Calls every family's registration, in order.
void RegisterAllCommandFamilies(CCommandTable& table);
