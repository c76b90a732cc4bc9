// The host seam: the one way the server reaches its host computer.
//
// On the instrument the server owns the whole machine: it remounts its settings file system,
// sets the clock, reconfigures the network and reboots, all by running standard Linux tools
// with fixed command texts. On a workstation (and in every test) none of that may happen, so
// every absolute path and every shell command goes through a CHost:
//
//  - Path("/vr480/vr480.tag") gives the host path of an instrument path. With root "/" it is
//    unchanged; otherwise it is joined under the root directory. Paths are normalised
//    lexically, so ".." can never climb out of the root. Relative names resolve against the
//    server's working directory "/vr480".
//  - Run(text) and Capture(text, &out) run a command as `/bin/bash -c text` on the instrument.
//    On a workstation nothing is run: the text is appended with a time stamp to
//    Path("/tmp/host-commands.log") and answered with status 0 and empty output, or with the
//    status and output that a test scripted for it. Tests read the log back to assert the
//    exact command texts and their order. A recorded command that ends in a redirection of
//    its output to an absolute path ("... &>/tmp/sys.cmd") leaves that output in the file
//    under the root, as the shell would.
//
// One process-wide host is installed at start-up (Host()); tests build their own instances.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

class CHost {
 public:
  explicit CHost(std::string root = "/");

  // True when the root is "/": paths are used as they are and commands really run.
  bool IsInstrument() const { return bInstrument; }
  const std::string& Root() const { return RootDir; }

  // Host path of an instrument path (absolute, or relative to "/vr480").
  std::string Path(std::string_view instrumentPath) const;

  // Runs a command text and returns its exit status (-1 when it could not be started or was
  // killed by a signal). On a workstation the text is recorded instead.
  int Run(const std::string& command);
  // As Run, and collects the command's standard output.
  int Capture(const std::string& command, std::string* output);

  // Runs a program directly, without a shell: argv[0] is looked up on PATH and every other
  // element reaches the program as one argument, whatever characters it holds, so client text
  // (an archive password, a file name) can be handed to a tool safely. Runs on a workstation
  // too, unlike Run: the caller maps every path with Path() first. The tool's standard output
  // and error are discarded. Returns its exit status; 127 when it could not be found, -1 when
  // it could not be started or was killed by a signal.
  static int Exec(const std::vector<std::string>& argv);

  // Workstation only: the next commands whose text starts with `prefix` answer with this
  // status and output (the newest matching script wins; scripts stay until cleared).
  void Script(const std::string& prefix, int status, std::string output = "");
  void ClearScripts();

  // The command texts recorded so far, oldest first, read back from the log file.
  std::vector<std::string> CommandLog() const;
  std::string CommandLogPath() const { return Path("/tmp/host-commands.log"); }

 private:
  struct ScriptedAnswer {
    std::string Prefix;
    int Status;
    std::string Output;
  };

  int Record(const std::string& command, std::string* output);
  static int Execute(const std::string& command, std::string* output);

  std::string RootDir;      // "/" on the instrument, else an absolute directory without trailing '/'
  bool bInstrument;         // RootDir == "/"
  mutable std::mutex Lock;  // guards Scripts and appends to the command log
  std::vector<ScriptedAnswer> Scripts;
};

// The process-wide host. Until InstallHost is called it is the instrument's ("/").
CHost& Host();
void InstallHost(const std::string& root);
