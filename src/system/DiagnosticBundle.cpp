// The diagnostic bundle (#DUMP_CORE): one zip archive from which a service engineer can judge an
// instrument remotely. It holds a summary of the instrument's identity and state, the stored and
// the active settings, one raw peaks record per multiplexer layer, the raw spectrum of every
// channel, the replies of every harmless query and the per-sensor data files.
//
// Everything is taken through the command interpreter as the internal client, exactly as a
// client would see it. The archive is built with zip and the text files are converted for a PC
// with unix2dos. On a workstation the host seam only records the command texts, so the bundle
// does the same work itself under the root: files are copied, renamed and removed directly and
// the tools run without a shell. The zip tool never runs through a shell at all, not even on the
// instrument: its password is client text.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/Host.h"
#include "protocol/CommandTable.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "system/Clock.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kIndexFile = "/tmp/index.txt";
constexpr const char* kStoredTagsFile = "/tmp/stored_tags.txt";
constexpr const char* kActiveTagsFile = "/tmp/active_tags.txt";
constexpr const char* kCmdFile = "/tmp/cmd.dat";
constexpr const char* kFbgSpectrumFile = "/tmp/raw_fbg_spectrum.dat";
constexpr const char* kFfpiSpectrumFile = "/tmp/raw_ffpi_spectrum.dat";
// Files named by layer or channel, "raw_data_sw0.dat" and so on.
constexpr const char* kRawDataPrefix = "raw_data_sw";
constexpr const char* kRawSpectrumPrefix = "raw_spectrum_dut";

// A card that has not locked gets a wide sweep and a fixed bias, and time to settle on them.
constexpr uint16_t kUnlockedScanAmp = 40000;
constexpr uint16_t kUnlockedBias = 32000;
constexpr auto kSettleTime = 15s;
// The card delivers the layers in turn; a layer's record that does not come within this time
// (a card stopped by triggering, a layer the card skips) is taken as it last was.
constexpr auto kLayerRecordWait = 5s;
// A raw spectrum takes 128 sweeps and the channel change drops the first three; a card that
// delivers no sweeps at all (stopped, or waiting for triggers) would keep the query waiting.
constexpr auto kSpectrumWait = 20s;

// Queries that would wait for data, stream or take their reply from the data ring: their
// replies say nothing a service engineer needs and some of them block the caller.
constexpr const char* kExcludedQueries[] = {
    "#GET_DATA",          "#GET_DATA_AND_LEVELS",          "#GET_SPECTRUM",
    "#GET_WVL_LVL_CNTS",  "#GET_RAW_DATA",                 "#GET_RAW_SPECTRUM",
    "#GET_UNBUFFERED_DATA", "#GET_UNBUFFERED_DATA_AND_LEVELS", "#GET_HIGH_SPEED_FS",
};

// What the archive takes besides the generated files: the settings data files from the working
// directory.
constexpr const char* kDataFiles[] = {"averages.dat", "references.dat", "locations.dat", "db2counts.dat"};

// "%s%d.dat": the file of a layer or channel.
std::string Numbered(const std::string& prefix, int n) { return prefix + std::to_string(n) + ".dat"; }

// Runs one command line as the internal client and returns its reply bytes exactly.
std::string Internal(CVr480Server& s, const std::string& line) {
  std::lock_guard<std::recursive_mutex> g(s.InternalClientLock);
  char* reply = nullptr;
  unsigned length = 0;
  const int code = s.ProcessCmd(kInternalClient, line.c_str(), &reply, &length);
  std::string bytes = reply && length ? std::string(reply, length) : std::string();
  if (code == kReplyRecord) s.ReleaseClientRecord(kInternalClient);
  return bytes;
}

// As Internal, for a query that waits for the card: it is given up after `limit`, through the
// internal caller's disconnect flag that the data waits watch as they watch a client's.
std::string InternalWithin(CVr480Server& s, const std::string& line, std::chrono::seconds limit) {
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  std::thread guard([&] {
    std::unique_lock<std::mutex> lock(m);
    if (!cv.wait_for(lock, limit, [&] { return done; })) s.bClientDisconnect[kInternalClient] = true;
  });
  std::string reply = Internal(s, line);
  {
    std::lock_guard<std::mutex> g(m);
    done = true;
  }
  cv.notify_one();
  guard.join();
  if (s.bClientDisconnect[kInternalClient].exchange(false))
    std::printf("%s gave up after %lld s.\n", line.c_str(), static_cast<long long>(limit.count()));
  return reply;
}

void WriteFile(const std::string& instrumentPath, const std::string& bytes) {
  std::ofstream out(Host().Path(instrumentPath), std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// One command with its reply, as cmd.dat holds them: the command, "\n", the reply length in ten
// digits and the reply bytes.
void AppendRecord(std::string& out, const std::string& command, const std::string& reply) {
  char length[16];
  std::snprintf(length, sizeof length, "%10.10lu", static_cast<unsigned long>(reply.size()));
  out += command;
  out += '\n';
  out += length;
  out += reply;
}

// Host paths of the files in an instrument directory whose names start with `prefix`, sorted
// as the shell sorts a glob.
std::vector<std::string> Glob(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> paths;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(Host().Path(dir), ec)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

// Off the instrument the shell commands are only recorded; these do their work under the root.
void Remove(const std::vector<std::string>& hostPaths) {
  std::error_code ec;
  for (const std::string& p : hostPaths) fs::remove_all(p, ec);
}

void Unix2Dos(const std::string& instrumentPath) {
  Host().Run("cd /tmp; unix2dos " + instrumentPath);
  if (Host().IsInstrument()) return;
  const int status = CHost::Exec({"unix2dos", "-q", Host().Path(instrumentPath)});
  if (status != 0) std::printf("unix2dos failed on %s (status %d).\n", instrumentPath.c_str(), status);
}

// cmd.dat: the reply of every query of the full command list, except the data queries, then
// the identification queries.
std::string QueryReplies(CVr480Server& s) {
  const std::string list = Internal(s, "#ZOR_HELP");
  std::string out;
  size_t pos = 0;
  while (pos < list.size()) {
    const size_t start = list.find_first_not_of(" \t\r\n", pos);
    if (start == std::string::npos) break;
    size_t end = list.find_first_of(" \t\r\n", start);
    if (end == std::string::npos) end = list.size();
    const std::string word = list.substr(start, end - start);
    pos = end;
    std::printf("[%zu]>>%s<<\n", start, word.c_str());
    bool rejected = true;
    if (word.compare(0, 4, "#GET") != 0) {
      std::printf("Rejecting...Not a #GET cmd.\n");
    } else if (std::find(std::begin(kExcludedQueries), std::end(kExcludedQueries), word) !=
               std::end(kExcludedQueries)) {
      std::printf("Rejecting...on exclusion list\n");
    } else {
      rejected = false;
    }
    if (rejected) {
      std::printf("Excluding >>%s<<\n", word.c_str());
      continue;
    }
    std::printf("processing >>%s<<\n", word.c_str());
    AppendRecord(out, word, Internal(s, word));
  }
  for (const char* query : {"#READY?", "#IDN?", "#WHO?", "#WHOAMI?"}) AppendRecord(out, query, Internal(s, query));
  return out;
}

// The newest record of multiplexer layer `layer` as #GET_RAW_DATA replies it: the card delivers
// the layers in turn, so the query is repeated until that layer's record comes (byte 6 carries
// the layer in its two low bits).
std::string RawRecordOfLayer(CVr480Server& s, int layer) {
  const auto deadline = std::chrono::steady_clock::now() + kLayerRecordWait;
  for (;;) {
    std::string reply = Internal(s, "#GET_RAW_DATA");
    if (reply.size() > 6 && (static_cast<uint8_t>(reply[6]) & 0x03) == layer) return reply;
    if (std::chrono::steady_clock::now() > deadline || !bRun) {
      std::printf("No record of layer %d came; the last record is kept.\n", layer);
      return reply;
    }
    std::this_thread::sleep_for(2ms);
  }
}

}  // namespace

int CVr480Server::DumpCore(const std::string& zipFile, const std::string& password) {
  const bool workstation = !Host().IsInstrument();

  std::printf("Removing %s...", zipFile.c_str());
  Host().Run("rm -rf " + zipFile);
  if (workstation) Remove({Host().Path(zipFile)});
  std::printf("Done.\n");

  // A laser that has not locked still gives data with a wide sweep and a centred bias.
  if (!bReady) {
    bAutoScanAmp = false;
    Driver.SetScanAmp(kUnlockedScanAmp);
    std::this_thread::sleep_for(kSettleTime);
    if (RunAutoBiasOnAcquisitionThread(std::chrono::seconds(5)) != 0) {
      bAutoBias = false;
      Driver.SetBias(kUnlockedBias);
      std::this_thread::sleep_for(kSettleTime);
    }
  }

  std::FILE* index = std::fopen(Host().Path(kIndexFile).c_str(), "wb");
  if (!index) {
    std::printf("Error opening %s.\n", kIndexFile);
    return -1;
  }

  std::fprintf(index, "Instrument:vr480\n");
  {
    std::lock_guard<std::mutex> g(IdentityLock);
    std::fprintf(index, "SN:%s\n", SerialNumber);
  }
  std::fprintf(index, "System Time:%s", LocalTimeText().c_str());
  std::fprintf(index, "NumDutChannels:%d\n", NumDutChannels.load());
  std::fprintf(index, "MuxLevel:%d\n", MuxLevel.load());
  {
    // The rate at which each layer's records come, as the front panel shows it.
    const int divider = std::max<int>(1, DataRateDivider.load());
    std::fprintf(index, "Operating Speed (Hz):%0.1f\n",
                 static_cast<double>(SweepRate()) / divider / std::max(1, MuxLevel.load()));
  }
  std::fprintf(index, "Internal Temparture (C):%f\n", LatestStatus.InternalTempC());
  std::fprintf(index, "Time Source:%s\n", bNtpRunning ? "NTP" : "System Clock");
  {
    std::string ip, netmask, gateway, dns;
    GetIfConfig(ip, netmask, gateway, dns);
    std::fprintf(index, "IP Address:%s\nNetmask:%s\nGateway:%s\nDNS:%s\n", ip.c_str(), netmask.c_str(),
                 gateway.c_str(), dns.c_str());
    std::fprintf(index, "DHCP:%s\n", bUseDhcp[CurrentNetworkConfig.load() == 1 ? 1 : 0] ? "Enabled" : "Disabled");
  }
  std::fprintf(index, "Firmware Version:%s\n", Internal(*this, "#GET_FIRMWARE_VER").c_str());
  std::fprintf(index, "Driver Version:%s\n", Internal(*this, "#GET_DRIVER_VER").c_str());
  std::fprintf(index, "FPGA Synthesis:%s\n", Internal(*this, "#GET_SYNTHESIS_VER").c_str());
  std::fprintf(index, "CFC Build:%s\n", Internal(*this, "#GET_CFC_VER").c_str());
  std::fprintf(index, "Operating Mode:%d\n", Driver.GetOperatingMode());
  std::fprintf(index, "//Operating Modes: 0 = Stand Alone; 1 = Master; 2 = End Slave; 3 = Middle Slave\n");
  std::fprintf(index, "Trigger Mode:%d\n", GetTriggeringMode());
  std::fprintf(index, "//Trigger Modes: 0 = Free Running; 1 = SW Triggered; 2 = HW Triggered\n");
  std::fprintf(index, "Auto Retrigger:%d\n", Driver.GetAutoReTrig() ? 1 : 0);

  // The settings as stored, and as in force now (commands since the last save included).
  Host().Run(std::string("cp /vr480/vr480.tag ") + kStoredTagsFile);
  if (workstation) {
    std::error_code ec;
    fs::copy_file(Host().Path("/vr480/vr480.tag"), Host().Path(kStoredTagsFile), fs::copy_options::overwrite_existing, ec);
  }
  Unix2Dos(kStoredTagsFile);
  std::fprintf(index, "Stored Tags File:stored_tags.txt\n");
  TagManager.SaveTags(Host().Path(kActiveTagsFile));
  Host().Run(std::string("mv ") + kActiveTagsFile + ".tag " + kActiveTagsFile);
  if (workstation) {
    std::error_code ec;
    fs::rename(Host().Path(kActiveTagsFile) + ".tag", Host().Path(kActiveTagsFile), ec);
  }
  Unix2Dos(kActiveTagsFile);
  std::fprintf(index, "Active Tags File:active_tags.txt\n");

  for (int layer = 0; layer < MuxLevel.load(); ++layer) {
    const std::string file = Numbered(std::string("/tmp/") + kRawDataPrefix, layer);
    WriteFile(file, RawRecordOfLayer(*this, layer));
    std::fprintf(index, "Raw Data File %d:%s\n", layer, Numbered(kRawDataPrefix, layer).c_str());
    std::printf("%s\n", file.c_str());
  }

  for (int dut = 1; dut <= kOpticalChannels; ++dut) {
    Internal(*this, "#SET_AMP_CH " + std::to_string(dut));
    WriteFile(Numbered(std::string("/tmp/") + kRawSpectrumPrefix, dut), InternalWithin(*this, "#GET_RAW_SPECTRUM", kSpectrumWait));
    std::fprintf(index, "DUT %d Raw Spectrum:%s\n", dut, Numbered(kRawSpectrumPrefix, dut).c_str());
  }
  Internal(*this, "#SET_ZOR_AMP_CH 0");
  WriteFile(kFbgSpectrumFile, InternalWithin(*this, "#GET_RAW_SPECTRUM", kSpectrumWait));
  std::fprintf(index, "FBG Spectrum:raw_fbg_spectrum.dat\n");
  Internal(*this, "#SET_ZOR_AMP_CH 1");
  WriteFile(kFfpiSpectrumFile, InternalWithin(*this, "#GET_RAW_SPECTRUM", kSpectrumWait));
  std::fprintf(index, "FFPI Spectrum:raw_ffpi_spectrum.dat\n");

  std::fprintf(index, "CMD File:cmd.dat\n");
  WriteFile(kCmdFile, QueryReplies(*this));
  std::fprintf(index, "Sensor averages file:averages.dat\n");
  std::fprintf(index, "Sensor references file:references.dat\n");
  std::fprintf(index, "Sensor locations file:locations.dat\n");
  std::fprintf(index, "dB to counts file:db2counts.dat\n");
  std::fclose(index);
  Unix2Dos(kIndexFile);

  std::printf("Building ZIP file...\n");
  const char* const generated =
      " /tmp/index.txt /tmp/stored_tags.txt /tmp/active_tags.txt /tmp/raw_data_sw* /tmp/raw_spectrum_dut*"
      " /tmp/raw_fbg_spectrum.dat /tmp/raw_ffpi_spectrum.dat averages.dat references.dat locations.dat"
      " db2counts.dat /tmp/cmd.dat";
  const bool protect = !password.empty();
  const std::string zipText = std::string("zip -j ") + (protect ? "-P" : "") + " " + password + " " + zipFile + generated;
  std::printf(">>%s<<\n", zipText.c_str());
  // The text is what an engineer would type; the tool itself gets the same arguments directly,
  // so that no character of the password means anything to a shell.
  if (workstation) Host().Run(zipText);
  std::vector<std::string> argv = {"zip", "-q", "-j"};
  if (protect) argv.insert(argv.end(), {"-P", password});
  argv.push_back(Host().Path(zipFile));
  std::vector<std::string> members = {Host().Path(kIndexFile), Host().Path(kStoredTagsFile), Host().Path(kActiveTagsFile)};
  for (const char* prefix : {kRawDataPrefix, kRawSpectrumPrefix})
    for (const std::string& p : Glob("/tmp", prefix)) members.push_back(p);
  members.push_back(Host().Path(kFbgSpectrumFile));
  members.push_back(Host().Path(kFfpiSpectrumFile));
  for (const char* name : kDataFiles) members.push_back(Host().Path(name));
  members.push_back(Host().Path(kCmdFile));
  struct stat st {};
  for (const std::string& m : members)
    if (::stat(m.c_str(), &st) == 0) argv.push_back(m);  // a missing file stays out of the archive
  const int zipStatus = CHost::Exec(argv);
  if (zipStatus != 0) std::printf("zip failed (status %d).\n", zipStatus);
  std::printf("Done.\n");

  std::printf("Cleaning up files...");
  Host().Run(
      "rm -rf /tmp/index.txt /tmp/stored_tags.txt /tmp/active_tags.txt /tmp/raw_data_sw* /tmp/raw_spectrum_dut*"
      " /tmp/raw_fbg_spectrum.dat /tmp/raw_ffpi_spectrum.dat /tmp/cmd.dat");
  if (workstation) {
    std::vector<std::string> scratch = {Host().Path(kIndexFile), Host().Path(kStoredTagsFile),
                                        Host().Path(kActiveTagsFile), Host().Path(kFbgSpectrumFile),
                                        Host().Path(kFfpiSpectrumFile), Host().Path(kCmdFile)};
    for (const char* prefix : {kRawDataPrefix, kRawSpectrumPrefix})
      for (const std::string& p : Glob("/tmp", prefix)) scratch.push_back(p);
    Remove(scratch);
  }
  std::printf("Done.\n");
  return 0;
}
