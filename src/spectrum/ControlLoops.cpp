// The laser's two control loops: the bias loop keeps the reference grating at its target
// position in the sweep, the scan-amplitude loop keeps the comb spanning the sweep as wanted
// and decides when the instrument is ready. They arrive with the laser commands.
#include "server/Vr480Server.h"

int CVr480Server::AutoBias() { return 0; }
int CVr480Server::AutoScanAmp() { return 0; }
