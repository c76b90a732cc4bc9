// Stages of the server that its later subsystems fill: the command interpreter and tag
// replay, the TCP server, the wavelength scale, the peak pipeline, the full spectrum, the
// control loops and the distance measurement. Each keeps its name and place in the sequence
// so that start-up and the acquisition loop already run in their final order; each moves to
// its subsystem's folder when it is built.
#include <chrono>
#include <cstdio>
#include <thread>

#include "server/Vr480Server.h"

void CVr480Server::LoadSettingsDataFiles() {}
void CVr480Server::BuildTimeOfFlightLUT() {}

void CVr480Server::BuildRawFSBuffer() {}
int CVr480Server::AutoBias() { return 0; }
int CVr480Server::AutoScanAmp() { return 0; }
void CVr480Server::BuildSpectrum() {}
int CVr480Server::CalibrateFsOffset() { return 0; }
int CVr480Server::DistMeas_GeneratePlot() { return 0; }
int CVr480Server::MeasureSensorDistances() { return 0; }

// The in-use mark of a ring slot arrives with the data commands; until then a client's record
// reply only forgets which slot it used.
void CVr480Server::ReleaseClientRecord(uint16_t client) { ClientRecordInUse[client] = -1; }

// The calibration thread waits for completed raw spectra. Until spectra are built it only
// waits, waking once a second to notice the stop.
void* CVr480Server::CalibrateSpectrumThread(void* arg) {
  auto* server = static_cast<CVr480Server*>(arg);
  std::unique_lock<std::mutex> lock(server->FsCalMutex);
  while (!server->bFsCalCancel) server->FsCalCond.wait_for(lock, std::chrono::seconds(1));
  server->bFsCalRunning = false;
  return nullptr;
}

bool CVr480Server::StartCalibrationThread() {
  bFsCalCancel = false;
  bFsCalRunning = true;
  if (pthread_create(&FsCalThread, nullptr, &CVr480Server::CalibrateSpectrumThread, this) != 0) {
    bFsCalRunning = false;
    return false;
  }
  pthread_detach(FsCalThread);
  return true;
}

// Cancels the calibration thread: it ends at its next wake-up.
bool CVr480Server::StopCalibrationThread() {
  {
    std::lock_guard<std::mutex> g(FsCalMutex);
    bFsCalCancel = true;
  }
  FsCalCond.notify_all();
  for (int i = 0; i < 200 && bFsCalRunning; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return !bFsCalRunning;
}
