// The settings data files beside the tag file (references, locations, averages, gain offsets,
// dB tables). Loading and saving arrive with the settings-file work.
#include "server/Vr480Server.h"

void CVr480Server::LoadSettingsDataFiles() {}
