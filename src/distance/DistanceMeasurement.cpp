// Sensor distances: the time-of-flight table that compensates each sensor's wavelength for
// its distance along the fibre, and the two-rate measurement that finds those distances.
// They arrive with the distance work.
#include "server/Vr480Server.h"

void CVr480Server::BuildTimeOfFlightLUT() {}
int CVr480Server::DistMeas_GeneratePlot() { return 0; }
int CVr480Server::MeasureSensorDistances() { return 0; }
