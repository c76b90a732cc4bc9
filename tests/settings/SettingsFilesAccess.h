// The start-up loader of the settings data files is private to the server; the settings-file
// tests run it as Init does.
#pragma once

#include "server/Vr480Server.h"

struct SettingsFilesAccess {
  static void Load(CVr480Server& s) { s.LoadSettingsDataFiles(); }
};
