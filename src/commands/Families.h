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
void RegisterScaleCommands(CCommandTable& table);         // src/commands/ScaleCommands.cpp
void RegisterSensorCommands(CCommandTable& table);        // src/commands/SensorCommands.cpp
void RegisterChannelCommands(CCommandTable& table);       // src/commands/ChannelCommands.cpp
void RegisterDeviceCommands(CCommandTable& table);        // src/commands/DeviceCommands.cpp
void RegisterFileCommands(CCommandTable& table);          // src/commands/FileCommands.cpp
void RegisterDistanceCommands(CCommandTable& table);      // src/commands/DistanceCommands.cpp
void RegisterNetworkCommands(CCommandTable& table);       // src/commands/NetworkCommands.cpp
void RegisterLogCommands(CCommandTable& table);           // src/commands/LogCommands.cpp
void RegisterSystemCommands(CCommandTable& table);        // src/commands/SystemCommands.cpp
void RegisterBundleCommands(CCommandTable& table);        // src/commands/BundleCommands.cpp

// Calls every family's registration, in order.
void RegisterAllCommandFamilies(CCommandTable& table);
