// Keeps the server's console lines (allocation reports, driver start-up) out of a benchmark's
// table while the object lives.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

class CQuietStdout {
 public:
  CQuietStdout() {
    std::fflush(stdout);
    Saved = dup(STDOUT_FILENO);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~CQuietStdout() {
    std::fflush(stdout);
    dup2(Saved, STDOUT_FILENO);
    close(Saved);
  }
  CQuietStdout(const CQuietStdout&) = delete;
  CQuietStdout& operator=(const CQuietStdout&) = delete;

 private:
  int Saved;
};
