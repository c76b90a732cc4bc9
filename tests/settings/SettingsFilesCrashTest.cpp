// A save killed at any moment (a child saving two versions in turn, SIGKILLed at random moments)
// leaves each settings file one of the two complete versions, never a mixture or a truncated file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "host/Host.h"
#include "server/Vr480Server.h"
#include "settings/SettingsFilesAccess.h"
#include "support/TempDir.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kFiles[] = {"vr480.tag",    "references.dat", "locations.dat",
                              "averages.dat", "db2counts.dat",  "gain_wvl_offsets.dat"};
std::string Read(const CTempDir& root, const char* f) { return ReadFile(root / (std::string("vr480/") + f)); }
std::unique_ptr<CVr480Server> NewServer() {
  auto s = std::make_unique<CVr480Server>();
  s->WvlAvg.Init(kOpticalChannels, kSensorsPerChannel, kDefaultAveragingDepth);
  return s;
}

// Version v of everything that is saved. The versions differ in every file and in length, so
// that a torn write could not pass for either.
void Apply(CVr480Server& s, int v) {
  for (int ch = 0; ch < kLogicalChannels; ++ch)
    for (int i = 0; i < kSensorsPerChannel; ++i) {
      s.SensorReferences[ch][i] = v ? 1550000000 + ch * 1000 + i : 7 + i;
      s.SensorDistances[ch][i] = v ? 1234.5 + ch + i * 0.5 : i * 0.25;
      s.SensorAverages[ch][i] = static_cast<uint16_t>(v ? 100 + i : 1 + ch);
    }
  for (int t = 0; t < kOpticalChannels; ++t) {
    for (int i = 0; i < kDbTableEntries; ++i) s.Db2Counts[t][i] = static_cast<uint16_t>(v ? 60000 - i : i);
    for (int code = 0; code < kGainCodes; ++code) s.GainWvlOffset[t][code] = v ? 0xA5A50000u + code : code * 3u;
  }
  s.TagManager.ClearTags();
  s.TagManager.AddTag("#SET_DHCP = \"" + std::string(v ? "1" : "0") + "\"");
  for (int i = 0; i < (v ? 40 : 25); ++i)
    s.TagManager.AddTag("#SET_USER_VAR = \"" + std::to_string(i) + " " + std::to_string(v * 1000 + i) + "\"");
}

}  // namespace

TEST(SettingsFilesCrash, AKilledSaveLeavesEveryFileOldOrNewAndComplete) {
  CTempDir root;
  InstallHost(root.Path());
  std::filesystem::create_directories(root / "vr480");
  std::filesystem::create_directories(root / "tmp");
  auto server = NewServer();

  // The two complete versions of each file, and how long one round of saving takes.
  std::map<std::string, std::string> known[2];
  testing::internal::CaptureStdout();
  const auto started = Clock::now();
  for (int v = 0; v < 2; ++v) {
    Apply(*server, v);
    server->SaveSettings();
    server->SaveWvlGains();
    for (const char* f : kFiles) known[v][f] = Read(root, f);
  }
  const auto round = (Clock::now() - started) / 2;
  testing::internal::GetCapturedStdout();
  for (const char* f : kFiles) ASSERT_TRUE(!known[0][f].empty() && known[0][f] != known[1][f]) << f;

  // Kill moments spread over two rounds of saving, so that they fall into every stage: the
  // temporary file half written, written but not renamed, renamed, and between files.
  const auto spread = std::max<long long>(2 * std::chrono::duration_cast<std::chrono::microseconds>(round).count(), 2000);
  std::mt19937 random(480);
  std::uniform_int_distribution<long long> delayUs(0, spread);

  std::map<std::string, std::string> last;
  for (const char* f : kFiles) last[f] = known[1][f];
  int kills = 0, changes = 0;
  // At least ten kills however slow the machine forks (a sanitizer's process forks slowly).
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (kills < 100 && (kills < 10 || Clock::now() < deadline)) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const int devNull = ::open("/dev/null", O_WRONLY);
      ::dup2(devNull, STDOUT_FILENO);
      for (int i = kills;; ++i) {
        Apply(*server, i % 2);
        server->SaveSettings();
        server->SaveWvlGains();
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_TRUE(::waitpid(child, &status, 0) == child && WIFSIGNALED(status));
    ++kills;

    for (const char* f : kFiles) {
      const std::string content = Read(root, f);
      ASSERT_TRUE(content == known[0][f] || content == known[1][f])
          << f << " after kill " << kills << " holds " << content.size() << " bytes that are neither version";
      if (content != last[f]) ++changes;
      last[f] = content;
    }
  }
  EXPECT_GT(changes, 0) << "no kill came late enough to let a save finish";

  // Whatever mixture of versions the kills left, start-up loads every file.
  auto loaded = NewServer();
  testing::internal::CaptureStdout();
  loaded->TagManager.LoadTags(root / "vr480/vr480");
  SettingsFilesAccess::Load(*loaded);
  const std::string messages = testing::internal::GetCapturedStdout();
  const std::string tags = loaded->TagManager.GetTagsText();
  EXPECT_TRUE(tags == known[0]["vr480.tag"] || tags == known[1]["vr480.tag"]);
  EXPECT_EQ(messages, "Locations data loaded.\nReferences data loaded.\nAverages data loaded.\n"
                      "Wvl gain offsets data loaded.\nDB2COUNTS_FILE contains 401 entries.\nDb2Counts data loaded.\n");
  server.reset();
  loaded.reset();
  InstallHost("/");
}
