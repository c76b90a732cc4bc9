// Full-spectrum acquisition: the raw samples of 128 consecutive sweeps interleave into one
// spectrum, which the calibration thread turns into a wavelength-linear spectrum for clients.
// The assembly and calibration arrive with the spectrum work; the thread already runs and
// stops as it will.
#include <chrono>
#include <thread>

#include "server/Vr480Server.h"

void CVr480Server::BuildRawFSBuffer() {}
void CVr480Server::BuildSpectrum() {}
int CVr480Server::CalibrateFsOffset() { return 0; }

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

// Cancels the calibration thread: it ends at its next wake-up, within a second.
bool CVr480Server::StopCalibrationThread() {
  {
    std::lock_guard<std::mutex> g(FsCalMutex);
    bFsCalCancel = true;
  }
  FsCalCond.notify_all();
  for (int i = 0; i < 200 && bFsCalRunning; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return !bFsCalRunning;
}
