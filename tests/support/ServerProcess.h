// Runs the real vr480d as a child process for end-to-end tests: its own root directory and
// port, its console output collected in the background, and a bounded wait for every step.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CServerProcess {
 public:
  // Starts `vr480d --root ROOT --port PORT` plus `extraArgs`.
  CServerProcess(const std::string& root, int port, std::vector<std::string> extraArgs = {});
  ~CServerProcess();  // SIGKILL if still running

  // Waits until the console output contains `text` (true) or the time runs out / the process
  // ends without it (false).
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Sends a signal and waits for the exit status (-1 on time-out).
  int Stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Waits for the process to end by itself; its exit status, or -1 on time-out.
  int WaitExit(std::chrono::milliseconds timeout = std::chrono::seconds(20));

  std::string Output() const;
  int Port() const { return PortNumber; }
  pid_t Pid() const { return Child; }

 private:
  void ReadLoop(int fd);

  pid_t Child = -1;
  int PortNumber;
  int ExitStatus = -1;
  bool bExited = false;
  mutable std::mutex Lock;
  std::string Console;
  std::thread Reader;
};

// A TCP port that nothing on this machine listens on right now.
int FreePort();
// Binds and listens on a free port on every address (standing for the connections a killed
// server leaves lingering on its port); the descriptor, or -1. *port receives the port.
int HoldPort(int* port);
// Runs vr480d with these arguments to completion; returns its exit status and output.
int RunServerToExit(const std::vector<std::string>& args, std::string* output,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));
