#include "commands/Families.h"

void RegisterAllCommandFamilies(CCommandTable& table) {
  RegisterGeneralCommands(table);
  RegisterSessionCommands(table);
  RegisterAcquisitionCommands(table);
  RegisterLoopCommands(table);
  RegisterDataCommands(table);
  RegisterSettingsCommands(table);
  RegisterScaleCommands(table);
  RegisterSensorCommands(table);
  RegisterChannelCommands(table);
  RegisterDeviceCommands(table);
  RegisterFileCommands(table);
  RegisterDistanceCommands(table);
  RegisterNetworkCommands(table);
  RegisterLogCommands(table);
  RegisterSystemCommands(table);
  RegisterBundleCommands(table);
}
