// The settings data files in process: a server on a temporary host root saves its tables, a
// second one loads them back; the loader's messages are compared byte for byte.
#include "settings/SettingsFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/Host.h"
#include "server/Vr480Server.h"
#include "settings/SettingsWrite.h"
#include "support/TempDir.h"
#include "settings/SettingsFilesAccess.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const std::vector<std::string> kBracket = {"/bin/mount -o,remount /vr480", "/bin/sync",
                                           "/bin/mount -o,remount,ro /vr480"};

constexpr const char* kAllMissing =
    "Error opening locations file.\n"
    "Error opening reference file.\n"
    "Error opening averages file.\n"
    "Error opening wvl gain offsets file.\n"
    "DB2COUNTS_FILE contains 201 entries.\n"
    "Error opening db2counts file.\n";

constexpr const char* kAllLoaded =
    "Locations data loaded.\n"
    "References data loaded.\n"
    "Averages data loaded.\n"
    "Wvl gain offsets data loaded.\n"
    "DB2COUNTS_FILE contains 401 entries.\n"
    "Db2Counts data loaded.\n";

std::string Lines(int count, const std::function<std::string(int)>& line) {
  std::string text;
  for (int i = 0; i < count; ++i) text += line(i) + "\n";
  return text;
}

// Values that differ from every default and from each other, with distances that survive nine
// significant digits exactly.
int32_t RefValue(int ch, int s) { return (ch == 3 && s == 7) ? -5 : 1540000000 + ch * 100000 + s * 13; }
double DistValue(int ch, int s) { return ch * 1000.0 + s * 0.25 + 0.125; }
uint16_t AvgValue(int ch, int s) { return static_cast<uint16_t>(1 + (ch * 7 + s) % 500); }
uint16_t DbValue(int t, int i) { return static_cast<uint16_t>(t * 10000 + i * 3 + 1); }
uint32_t GainValue(int t, int code) { return 0x01000000u * (t + 1) + static_cast<uint32_t>(code) * 7u; }

class SettingsFilesTest : public testing::Test {
 protected:
  void SetUp() override {
    InstallHost(Root.Path());
    std::filesystem::create_directories(Root / "vr480");
    std::filesystem::create_directories(Root / "tmp");
    Server = MakeServer();
  }
  void TearDown() override {
    Server.reset();
    InstallHost("/");
  }

  // A server with what start-up gives the loader: an averaging store for one layer.
  static std::unique_ptr<CVr480Server> MakeServer() {
    auto s = std::make_unique<CVr480Server>();
    s->WvlAvg.Init(kOpticalChannels, kSensorsPerChannel, kDefaultAveragingDepth);
    return s;
  }

  std::string Load(CVr480Server& s) {
    CaptureStdout();
    SettingsFilesAccess::Load(s);
    return GetCapturedStdout();
  }
  std::string Load() { return Load(*Server); }
  // What a call returned, then what it printed: "0 text".
  template <class F>
  static std::string Printed(F&& f) {
    CaptureStdout();
    const int r = f();
    return std::to_string(r) + " " + GetCapturedStdout();
  }

  void Fill(CVr480Server& s) {
    for (int ch = 0; ch < kLogicalChannels; ++ch)
      for (int i = 0; i < kSensorsPerChannel; ++i) {
        s.SensorReferences[ch][i] = RefValue(ch, i);
        s.SensorDistances[ch][i] = DistValue(ch, i);
        s.SensorAverages[ch][i] = AvgValue(ch, i);
      }
    for (int t = 0; t < kOpticalChannels; ++t) {
      for (int i = 0; i < kDbTableEntries; ++i) s.Db2Counts[t][i] = DbValue(t, i);
      for (int code = 0; code < kGainCodes; ++code) s.GainWvlOffset[t][code] = GainValue(t, code);
    }
  }

  std::string Dat(const std::string& name) const { return Root / ("vr480/" + name); }
  std::vector<std::string> CommandLog() const { return CHost(Root.Path()).CommandLog(); }

  CTempDir Root;
  std::unique_ptr<CVr480Server> Server;
};

// Formats byte for byte (a missing newline, a value off by one, no rename), the remount bracket
// around each save, and a load that restores every table.
TEST_F(SettingsFilesTest, SaveWritesEveryFileInsideTheBracketAndLoadRestoresTheTables) {
  Fill(*Server);
  Printed([&] { return Server->TagManager.ReplaceTag("#SET_DHCP 1") + Server->TagManager.ReplaceTag("#SET_IDN_TXT = \"  Lab 7 \""); });
  EXPECT_EQ(Printed([&] { return Server->SaveSettings(); }), "0 Setting saved.\n");
  EXPECT_EQ(CommandLog(), kBracket);
  EXPECT_EQ(ReadFile(Dat("vr480.tag")), "#SET_DHCP = \"1\"\n#SET_IDN_TXT = \"  Lab 7 \"\n");
  EXPECT_EQ(ReadFile(Dat("references.dat")), Lines(4000, [](int i) {
              return std::to_string(static_cast<uint32_t>(RefValue(i / 250, i % 250)));
            }));
  EXPECT_EQ(ReadFile(Dat("locations.dat")), Lines(4000, [](int i) {
              char buf[40];
              std::snprintf(buf, sizeof buf, "%.9g", DistValue(i / 250, i % 250));
              return std::string(buf);
            }));
  EXPECT_EQ(ReadFile(Dat("averages.dat")),
            Lines(4000, [](int i) { return std::to_string(AvgValue(i / 250, i % 250)); }));
  EXPECT_EQ(ReadFile(Dat("db2counts.dat")), Lines(1608, [](int i) { return std::to_string(DbValue(i / 402, i % 402)); }));
  EXPECT_FALSE(std::filesystem::exists(Dat("gain_wvl_offsets.dat")));
  for (const char* name : {"vr480.tag", "references.dat", "locations.dat", "averages.dat", "db2counts.dat"})
    EXPECT_FALSE(std::filesystem::exists(Dat(std::string(name) + ".tmp"))) << name;

  EXPECT_EQ(Printed([&] { return Server->SaveWvlGains(); }), "0 ");
  const std::string gains = ReadFile(Dat("gain_wvl_offsets.dat"));
  ASSERT_EQ(gains.size(), 1048560u);
  // Little-endian, table after table, 65535 entries each: the last code is not stored.
  auto entry = [&](size_t index) {
    const auto* p = reinterpret_cast<const unsigned char*>(gains.data()) + 4 * index;
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
  };
  EXPECT_EQ((std::vector<uint32_t>{entry(0), entry(65534), entry(65535), entry(4 * 65535 - 1)}),
            (std::vector<uint32_t>{GainValue(0, 0), GainValue(0, 65534), GainValue(1, 0), GainValue(3, 65534)}));
  EXPECT_EQ(CommandLog().size(), 6u);

  // A fresh server loads exactly what was saved.
  auto loaded = MakeServer();
  loaded->GainWvlOffset[2][65535] = 99;  // never stored, so never touched
  EXPECT_EQ(Load(*loaded), kAllLoaded);
  for (int ch = 0; ch < kLogicalChannels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s)
      ASSERT_TRUE(loaded->SensorReferences[ch][s] == RefValue(ch, s) && loaded->SensorDistances[ch][s] == DistValue(ch, s) &&
                  loaded->SensorAverages[ch][s] == AvgValue(ch, s)) << ch << " " << s;
  // Averages of the layer in use also size the running averages, with the next record.
  loaded->ApplyAveragingDepths();
  EXPECT_EQ(loaded->WvlAvg.GetTargetNumAvg(2, 9), AvgValue(2, 9));
  for (int t = 0; t < kOpticalChannels; ++t) {
    for (int i = 0; i < kDbTableEntries; ++i) ASSERT_EQ(loaded->Db2Counts[t][i], DbValue(t, i));
    for (int code = 0; code < kGainCodes - 1; ++code) ASSERT_EQ(loaded->GainWvlOffset[t][code], GainValue(t, code));
  }
  EXPECT_EQ(loaded->GainWvlOffset[2][65535], 99u);
}

// Missing files keep the defaults but clear the dB table. Each row: one file's content, the
// console line naming its bad lines ("" when none), and entries of its table with what they read. Line i gives entry i, read as strtoul/strtod read
// the start of the line; the rest of the table takes the defaults.
TEST_F(SettingsFilesTest, DataFilesLoadLineByLineAsTheCLibraryReadsThem) {
  enum ETable { kRef, kDist, kAvg, kDb };
  struct SProbe {
    int Entry;  // line order: channel * 250 + sensor, or table * 402 + index for the dB table
    double Value;
  };
  struct SRow {
    ETable Table;
    std::string Content;
    std::string Console;
    std::vector<SProbe> Probes;
  };
  const std::string tooLong(150, '1');
  const SRow kRows[] = {
      {kRef, "1\n2\nabc\n99999999999\n-7\n",
       "references.dat: lines 3, 4 are not numbers; read as the C library reads them.\n",
       {{0, 1}, {2, 0}, {3, 1215752191}, {4, -7}, {5, 0}, {3999, 0}}},
      {kRef, "12abc\n 34 \r\n4294967295\n+5\n", "references.dat: line 1 is not a number; read as the C library reads it.\n",
       {{0, 12}, {1, 34}, {2, -1}, {3, 5}}},
      {kRef, std::string("12\0\xff\n\xff\xfe\n7\n", 10),
       "references.dat: lines 1, 2 are not numbers; read as the C library reads them.\n", {{0, 12}, {1, 0}, {2, 7}}},
      {kRef, Lines(4100, [](int i) { return std::to_string(i); }), "", {{3999, 3999}}},  // extra lines ignored
      {kDist, "1.5\n\n2.5e1x\ninf\n-0.125\n1e999\n",
       "locations.dat: lines 2, 3, 4, 6 are not numbers; read as the C library reads them.\n",
       {{0, 1.5}, {1, 0}, {2, 25}, {3, 0}, {4, -0.125}, {5, 0}, {6, 0}}},
      {kDist, tooLong + "\n12.5\n", "locations.dat: line 1 is not a number; read as the C library reads it.\n",
       {{0, std::stod(tooLong.substr(0, 99))}, {1, 12.5}}},
      {kDist, "1.5\r\n 2.5 \r\n\r\n\n", "", {{0, 1.5}, {1, 2.5}}},  // CR LF and blank lines at the end are fine
      // MinNumAverages is 2 here: 0, a sensor beyond the file and a count that wraps to 0 take it.
      {kAvg, "4\n65539\n0\n65536\n-65535\nx\n",
       "averages.dat: lines 2, 4, 5, 6 are not numbers; read as the C library reads them.\n",
       {{0, 4}, {1, 3}, {2, 2}, {3, 2}, {4, 1}, {5, 2}, {6, 2}, {3999, 2}}},
      {kDb, "1\n2\n3.5\nnan\n", "db2counts.dat: lines 3, 4 are not numbers; read as the C library reads them.\n",
       {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {402, 0}}},
      // 808 lines are the short form: indexes 0-201 of each table, the rest zero.
      {kDb, Lines(808, [](int i) { return std::to_string(i + 1); }), "DB2COUNTS_FILE contains 201 entries.\nDb2Counts data loaded.\n",
       {{201, 202}, {202, 0}, {402, 203}, {1407, 808}, {1607, 0}}},
      {kDb, Lines(1608, [](int) { return std::string("x"); }),
       "db2counts.dat: lines 1, 2, 3, 4, 5, 6, 7, 8, 9, 10 and 1598 more are not numbers; read as the C library "
       "reads them.\n",
       {{401, 0}, {1607, 0}}},
  };
  // Missing files (or a directory in a file's place) keep the defaults, but the dB table is cleared.
  Server->SensorDistances[1][2] = 7.5;
  Server->GainWvlOffset[1][2] = 1234;
  Server->Db2Counts[1][2] = 77;
  std::filesystem::create_directories(Dat("locations.dat"));
  EXPECT_EQ(Load(), kAllMissing);
  EXPECT_EQ((std::vector<double>{Server->SensorDistances[1][2], double(Server->GainWvlOffset[1][2]), double(Server->Db2Counts[1][2])}),
            (std::vector<double>{7.5, 1234, 0}));
  EXPECT_TRUE(CommandLog().empty());  // loading needs no remount
  std::filesystem::remove(Dat("locations.dat"));

  const char* kFiles[] = {"references.dat", "locations.dat", "averages.dat", "db2counts.dat"};
  Server->MinNumAverages = 2;
  for (const SRow& row : kRows) {
    for (const char* name : kFiles) std::filesystem::remove(Dat(name));
    WriteFile(Dat(kFiles[row.Table]), row.Content);
    const std::string out = Load();
    EXPECT_NE(out.find(row.Console), std::string::npos) << out;
    EXPECT_EQ(out.find(" not a") == std::string::npos, row.Console.find(" not a") == std::string::npos) << out;
    for (const SProbe& p : row.Probes) {
      const int ch = p.Entry / kSensorsPerChannel, s = p.Entry % kSensorsPerChannel;
      const double value = row.Table == kRef    ? static_cast<double>(Server->SensorReferences[ch][s])
                           : row.Table == kDist ? static_cast<double>(Server->SensorDistances[ch][s])
                           : row.Table == kAvg  ? static_cast<double>(Server->SensorAverages[ch][s])
                                                : static_cast<double>(Server->Db2Counts[p.Entry / 402][p.Entry % 402]);
      EXPECT_EQ(value, p.Value) << kFiles[row.Table] << " entry " << p.Entry << "\n" << row.Content.substr(0, 60);
    }
  }

  // Gain offsets take whole entries as far as the file reaches, and no more than the tables.
  WriteFile(Dat("gain_wvl_offsets.dat"), std::string("\x01\0\0\0\x02\0\0", 7));
  Server->GainWvlOffset[0][1] = 55;
  EXPECT_NE(Load().find("gain_wvl_offsets.dat holds 1 of 262140 entries; the others are unchanged.\n"
                        "Wvl gain offsets data loaded.\n"),
            std::string::npos);
  EXPECT_EQ(Server->GainWvlOffset[0][0], 1u);
  EXPECT_EQ(Server->GainWvlOffset[0][1], 55u);
  WriteFile(Dat("gain_wvl_offsets.dat"), std::string(1048560, '\0') + std::string("\x09\0\0\0", 4));
  Server->GainWvlOffset[3][65535] = 77;
  EXPECT_NE(Load().find("gain_wvl_offsets.dat is longer than 1048560 bytes; the rest is ignored.\n"
                        "Wvl gain offsets data loaded.\n"),
            std::string::npos);
  EXPECT_EQ(Server->GainWvlOffset[0][0], 0u);
  EXPECT_EQ(Server->GainWvlOffset[3][65535], 77u);

  // Never a hang or a huge read: a FIFO is not a file; a runaway file is read to 4 MiB.
  std::filesystem::remove(Dat("references.dat"));
  ASSERT_EQ(::mkfifo(Dat("references.dat").c_str(), 0644), 0);
  EXPECT_NE(Load().find("Error opening reference file.\n"), std::string::npos);
  std::filesystem::remove(Dat("references.dat"));
  WriteFile(Dat("locations.dat"), std::string(8u << 20, '7'));
  EXPECT_NE(Load().find("locations.dat: line 1 is not a number; read as the C library reads it.\n"
                        "Locations data loaded.\n"),
            std::string::npos);
}

// What cannot be written or read: the save goes on with the other files, reports on the console
// and names the files it could not write; an unusable tag file gives the baseline tags.
TEST_F(SettingsFilesTest, FileFailuresAreReportedAndTheOtherFilesStillWritten) {
  Fill(*Server);
  // A directory where the temporary file would go makes that one file impossible to write.
  std::filesystem::create_directories(Dat("references.dat.tmp"));
  CHost& host = Host();
  host.Script("/bin/mount -o,remount /vr480", 32);
  host.Script("/bin/sync", 1);
  host.Script("/bin/mount -o,remount,ro /vr480", 2);
  std::string unwritten;
  EXPECT_EQ(Printed([&] { return Server->SaveSettings(&unwritten); }),
            "-1 /bin/mount returned 32.\n"
            "Setting saved.\n"
            "Error opening references File.\n"
            "WARNING: /bin/sync returned 1.\n"
            "WARNING: /bin/mount -o,remout,ro returned 2.\n");
  EXPECT_EQ(unwritten, "references.dat");
  EXPECT_EQ(CommandLog(), kBracket);
  for (const char* name : {"references.dat", "locations.dat", "averages.dat", "db2counts.dat"})
    EXPECT_EQ(std::filesystem::exists(Dat(name)), name[0] != 'r') << name;

  // The tag file's name taken by a directory: the rename over it fails, the directory stays.
  std::filesystem::remove(Dat("vr480.tag"));
  std::filesystem::create_directories(Dat("vr480.tag"));
  const std::string out = Printed([&] { return Server->SaveSettings(&unwritten); });
  EXPECT_TRUE(out.rfind("-1 ", 0) == 0 && out.find("Error writing output Tag File " + Dat("vr480.tag") + "\n") != std::string::npos) << out;
  EXPECT_EQ(unwritten, "vr480.tag, references.dat");
  EXPECT_TRUE(std::filesystem::is_directory(Dat("vr480.tag")));

  std::filesystem::create_directories(Dat("gain_wvl_offsets.dat.tmp"));
  EXPECT_EQ(Printed([&] { return Server->SaveWvlGains(&unwritten); }),
            "-1 /bin/mount returned 32.\n"
            "Error opening gain wvl offsets File.\n"
            "WARNING: /bin/sync returned 1.\n"
            "WARNING: /bin/mount -o,remout,ro returned 2.\n");
  EXPECT_EQ(unwritten, "gain_wvl_offsets.dat");
  host.ClearScripts();

  // Start-up: an unreadable tag file (a directory, a FIFO that would block) is named and the baseline
  // tags of a new instrument are used; a missing one leaves the list empty.
  for (const std::string why : {"it is a directory", "it is not a regular file"}) {
    CTagManager tags;
    EXPECT_EQ(Printed([&] { LoadTagFile(tags); return 0; }),
              "0 Cannot read settings file " + Dat("vr480.tag") + ": " + why + ". Using the baseline settings.\n");
    EXPECT_EQ(tags.GetTagsText().rfind("#SET_SOA_DRIVE = \"30000\"\n#SET_SCAN_AMP = \"40000\"\n", 0), 0u);
    std::filesystem::remove(Dat("vr480.tag"));
    if (why == "it is a directory") {
      ASSERT_EQ(::mkfifo(Dat("vr480.tag").c_str(), 0644), 0);
    }
  }
  CTagManager tags;
  EXPECT_EQ(Printed([&] { LoadTagFile(tags); return 0; }), "0 Error opening input Tag File " + Dat("vr480.tag") + "\n");
  EXPECT_EQ(tags.GetNumTags(), 0);
}

// Two clients saving at once: each bracket runs whole, never interleaved with another.
TEST_F(SettingsFilesTest, ConcurrentSavesNeverInterleaveTheirBrackets) {
  Fill(*Server);
  CaptureStdout();
  std::vector<std::thread> savers;
  for (int t = 0; t < 3; ++t)
    savers.emplace_back([&, t] {
      for (int i = 0; i < 8; ++i) t == 2 ? Server->SaveWvlGains() : Server->SaveSettings();
    });
  for (auto& t : savers) t.join();
  GetCapturedStdout();
  const auto log = CommandLog();
  ASSERT_EQ(log.size(), 3u * 3u * 8u);
  for (size_t i = 0; i < log.size(); ++i) EXPECT_EQ(log[i], kBracket[i % 3]) << i;
  auto loaded = MakeServer();
  EXPECT_EQ(Load(*loaded), kAllLoaded);
  EXPECT_EQ(loaded->SensorDistances[15][249], DistValue(15, 249));
}

// The identification file is written like an unquoted echo (shell characters kept as text, cut to
// 99 characters) inside the bracket; a failed remount gives up; the lock is free after either.
TEST_F(SettingsFilesTest, IdentificationFileIsWrittenLikeAnUnquotedEcho) {
  auto write = [](const std::string& id) { return Printed([&] { return WriteInstID(id); }); };
  EXPECT_EQ(write("  Lab   unit\t7 "), "0 Executing command >>echo   Lab   unit\t7  > /vr480/instid<<.\n");
  EXPECT_EQ(ReadFile(Dat("instid")), "Lab unit 7\n");
  EXPECT_EQ(CommandLog(), kBracket);
  EXPECT_EQ(write("$(reboot); `halt` | x > y").substr(0, 2), "0 ");
  EXPECT_EQ(write(std::string(120, 'a')), "0 Executing command >>echo " + std::string(78, 'a') + " > /vr480/instid<<.\n");
  EXPECT_EQ(ReadFile(Dat("instid")), std::string(78, 'a') + "\n");
  EXPECT_EQ(CommandLog().size(), 9u);  // nothing but the brackets reaches the host

  Host().Script("/bin/mount -o,remount /vr480", 5);
  EXPECT_EQ(write("new"), "-1 /bin/mount returned 5.\n");
  EXPECT_EQ(ReadFile(Dat("instid")), std::string(78, 'a') + "\n");
  Host().ClearScripts();
  Host().Script("/bin/mount -o,remount,ro /vr480", 3);
  EXPECT_EQ(write("new"), "-1 Executing command >>echo new > /vr480/instid<<.\nWARNING: /bin/mount -o,remout,ro returned 3.\n");
  EXPECT_EQ(ReadFile(Dat("instid")), "new\n");
  Host().ClearScripts();
  EXPECT_TRUE(SettingsFileLock().try_lock());
  SettingsFileLock().unlock();
}

}  // namespace
