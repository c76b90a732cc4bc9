// The diagnostic bundle end to end: "#DUMP_CORE" on a ready simulated instrument builds a real
// zip archive under the root, with and without a password, the host commands are recorded in
// their order (the password only ever in the recorded text), and "#DOWNLOAD" hands the archive
// out byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "host/Host.h"

namespace {

using namespace std::chrono_literals;
using laser_test::CSharedServerSuite;
using laser_test::WaitReady;

constexpr const char* kReply = "Core File is /tmp/vr_core.zip.  Now, #DOWNLOAD /tmp/vr_core.zip";
constexpr const char* kMembers =
    " /tmp/vr_core.zip /tmp/index.txt /tmp/stored_tags.txt /tmp/active_tags.txt /tmp/raw_data_sw*"
    " /tmp/raw_spectrum_dut* /tmp/raw_fbg_spectrum.dat /tmp/raw_ffpi_spectrum.dat averages.dat references.dat"
    " locations.dat db2counts.dat /tmp/cmd.dat";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The bundle's own host commands among those recorded since `from` (other parts of the server
// may record theirs meanwhile, e.g. the settings remounts of a log entry).
std::vector<std::string> BundleCommands(size_t from) {
  const std::vector<std::string> log = Host().CommandLog();
  std::vector<std::string> out;
  for (size_t i = from; i < log.size(); ++i)
    for (const char* prefix : {"rm -rf /tmp/", "cp /vr480/vr480.tag", "cd /tmp; unix2dos", "mv /tmp/", "zip "})
      if (log[i].rfind(prefix, 0) == 0) out.push_back(log[i]);
  return out;
}

std::vector<std::string> ExpectedCommands(const std::string& zipOptions) {
  return {"rm -rf /tmp/vr_core.zip",
          "cp /vr480/vr480.tag /tmp/stored_tags.txt",
          "cd /tmp; unix2dos /tmp/stored_tags.txt",
          "mv /tmp/active_tags.txt.tag /tmp/active_tags.txt",
          "cd /tmp; unix2dos /tmp/active_tags.txt",
          "cd /tmp; unix2dos /tmp/index.txt",
          "zip -j " + zipOptions + kMembers,
          "rm -rf /tmp/index.txt /tmp/stored_tags.txt /tmp/active_tags.txt /tmp/raw_data_sw* /tmp/raw_spectrum_dut*"
          " /tmp/raw_fbg_spectrum.dat /tmp/raw_ffpi_spectrum.dat /tmp/cmd.dat"};
}

class DiagnosticBundle : public CSharedServerSuite<DiagnosticBundle> {
 protected:
  std::string Root(const std::string& path) const { return Server->RootPath() + path; }
};

TEST_F(DiagnosticBundle, ArchiveHoldsTheSummarySettingsRawDataAndQueryReplies) {
  // The data files come from the last save.
  ASSERT_EQ(Client.Command("#SAVE_SETTINGS", 30s), "Settings Saved.\n");
  const size_t from = Host().CommandLog().size();
  ASSERT_EQ(Client.Command("#DUMP_CORE", 120s), kReply);
  EXPECT_EQ(BundleCommands(from), ExpectedCommands(" "));

  const std::string zip = Root("/tmp/vr_core.zip");
  const std::string listing = Root("/tmp/listing.txt");
  ASSERT_EQ(std::system(("unzip -Z1 " + zip + " > " + listing).c_str()), 0);
  std::vector<std::string> names;
  std::istringstream lines(ReadFile(listing));
  for (std::string name; std::getline(lines, name);) names.push_back(name);
  std::vector<std::string> expected = {"index.txt", "stored_tags.txt", "active_tags.txt", "raw_data_sw0.dat",
                                       "raw_spectrum_dut1.dat", "raw_spectrum_dut2.dat", "raw_spectrum_dut3.dat",
                                       "raw_spectrum_dut4.dat", "raw_fbg_spectrum.dat", "raw_ffpi_spectrum.dat",
                                       "averages.dat", "references.dat", "locations.dat", "db2counts.dat",
                                       "cmd.dat"};
  EXPECT_EQ(names, expected);
  // The working files are gone again; the archive stays.
  EXPECT_FALSE(std::filesystem::exists(Root("/tmp/index.txt")));
  EXPECT_FALSE(std::filesystem::exists(Root("/tmp/raw_data_sw0.dat")));

  const std::string out = Root("/tmp/unpacked");
  ASSERT_EQ(CHost::Exec({"unzip", "-q", "-o", zip, "-d", out}), 0);
  const std::string index = ReadFile(out + "/index.txt");
  EXPECT_EQ(index.rfind("Instrument:vr480\r\nSN:", 0), 0u) << index;
  EXPECT_EQ(index.find("\r\nMuxLevel:1\r\n") != std::string::npos, true) << index;
  EXPECT_EQ(index.find('\n'), index.find("\r\n") + 1);
  EXPECT_EQ(std::count(index.begin(), index.end(), '\n'), std::count(index.begin(), index.end(), '\r'));
  EXPECT_NE(ReadFile(out + "/active_tags.txt").find("#SET_SCAN_AMP = \"40800\"\r\n"), std::string::npos);
  EXPECT_EQ(ReadFile(out + "/raw_data_sw0.dat").size(), 6176u);
  EXPECT_GT(ReadFile(out + "/raw_ffpi_spectrum.dat").size(), 88u);

  // cmd.dat: records of command, line feed, ten-digit length and reply, back to back.
  const std::string cmd = ReadFile(out + "/cmd.dat");
  std::vector<std::string> commands;
  size_t at = 0;
  while (at < cmd.size()) {
    const size_t lf = cmd.find('\n', at);
    ASSERT_NE(lf, std::string::npos);
    ASSERT_LE(lf + 11, cmd.size());
    const std::string digits = cmd.substr(lf + 1, 10);
    ASSERT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << digits;
    commands.push_back(cmd.substr(at, lf - at));
    at = lf + 11 + std::stoul(digits);
  }
  EXPECT_EQ(at, cmd.size());
  EXPECT_NE(std::find(commands.begin(), commands.end(), "#GET_SCAN_AMP"), commands.end());
  EXPECT_EQ(std::find(commands.begin(), commands.end(), "#GET_DATA"), commands.end());
  EXPECT_EQ(std::find(commands.begin(), commands.end(), "#GET_RAW_SPECTRUM"), commands.end());
  ASSERT_GE(commands.size(), 4u);
  EXPECT_EQ(std::vector<std::string>(commands.end() - 4, commands.end()),
            (std::vector<std::string>{"#READY?", "#IDN?", "#WHO?", "#WHOAMI?"}));

  // The client fetches the archive as it is.
  const std::string downloaded = Client.Command("#DOWNLOAD /tmp/vr_core.zip", 30s);
  EXPECT_TRUE(downloaded == ReadFile(zip)) << downloaded.size() << " bytes: " << downloaded.substr(0, 80);
}

TEST_F(DiagnosticBundle, PasswordReachesOnlyTheArchive) {
  const std::string password = "s3cr;et";
  const size_t from = Host().CommandLog().size();
  ASSERT_EQ(Client.Command("#DUMP_CORE " + password, 120s), kReply);
  EXPECT_EQ(BundleCommands(from), ExpectedCommands("-P " + password));

  const std::string zip = Root("/tmp/vr_core.zip");
  EXPECT_NE(CHost::Exec({"unzip", "-q", "-o", "-P", "wrong", zip, "index.txt", "-d", Root("/tmp/wrong")}), 0);
  ASSERT_EQ(CHost::Exec({"unzip", "-q", "-o", "-P", password, zip, "-d", Root("/tmp/opened")}), 0);
  EXPECT_EQ(ReadFile(Root("/tmp/opened/index.txt")).rfind("Instrument:vr480\r\n", 0), 0u);
}

}  // namespace
