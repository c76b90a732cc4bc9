#include "host/Host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "server/Options.h"
#include "support/TempDir.h"

TEST(HostPaths, WorkstationPathsStayInsideTheRootInstrumentPathsAreUnchanged) {
  CTempDir root;
  CHost host(root.Path());
  EXPECT_FALSE(host.IsInstrument());  // the working directory is /vr480
  const std::pair<const char*, const char*> rows[] = {
      {"/vr480/vr480.tag", "vr480/vr480.tag"},   {"references.dat", "vr480/references.dat"},
      {"/tmp//./a/../DistMeas.log", "tmp/DistMeas.log"}, {"/../../etc/passwd", "etc/passwd"},
      {"../../../etc/shadow", "etc/shadow"},
  };
  for (const auto& [path, inside] : rows) EXPECT_EQ(host.Path(path), root / inside) << path;
  EXPECT_EQ(host.Path("/"), root.Path());
  CHost instrument("/");
  EXPECT_TRUE(instrument.IsInstrument());
  EXPECT_EQ(instrument.Path("/mnt/ram7/ntp/ntp.conf"), "/mnt/ram7/ntp/ntp.conf");
  EXPECT_EQ(instrument.Path("vr480.log"), "/vr480/vr480.log");
}

TEST(HostCommands, WorkstationRecordsCommandsRunsNoneAndAnswersFromScripts) {
  CTempDir root;
  CHost host(root.Path());
  const std::string victim = root / "must-not-exist";
  EXPECT_EQ(host.Run("/bin/mount -o,remount /vr480"), 0);
  EXPECT_EQ(host.Run("touch " + victim), 0);
  std::string out = "stale";
  EXPECT_EQ(host.Capture("/sbin/hwclock --systohc", &out), 0);
  EXPECT_TRUE(out.empty() && !std::filesystem::exists(victim));
  EXPECT_EQ(host.CommandLog(),
            (std::vector<std::string>{"/bin/mount -o,remount /vr480", "touch " + victim, "/sbin/hwclock --systohc"}));
  // Each log line carries a time stamp before a tab, then the exact text.
  EXPECT_NE(ReadFile(root / "tmp/host-commands.log").find("\t/bin/mount -o,remount /vr480\n"), std::string::npos);
  // Scripted answers match by prefix, newest first.
  host.Script("ntpq", 0, "remote refid\n*10.0.0.1 .GPS.\n");
  host.Script("pgrep ntpd", 1);
  host.Script("pgrep", 0, "1234\n");
  auto capture = [&](const std::string& line) {
    std::string out;
    return std::to_string(host.Capture(line, &out)) + ":" + out;
  };
  EXPECT_EQ(capture("ntpq -p"), "0:remote refid\n*10.0.0.1 .GPS.\n");
  EXPECT_EQ(capture("pgrep ntpd"), "0:1234\n");  // the newer, shorter script wins
  host.ClearScripts();
  EXPECT_EQ(capture("pgrep ntpd"), "0:");
  EXPECT_EQ(host.CommandLog().size(), 6u);
}

// On the instrument commands really run, through bash, and the child inherits neither the
// server's descriptors nor its output beyond what it was asked for.
TEST(HostCommands, InstrumentRunsThroughBashWithoutLeakingDescriptors) {
  CHost host("/");
  std::string out;
  EXPECT_EQ(host.Capture("echo one &>/dev/null; echo two", &out), 0);
  EXPECT_EQ(out, "two\n");
  EXPECT_EQ(host.Run("exit 3"), 3);
  int fd = ::open("/dev/null", O_RDONLY);  // deliberately without close-on-exec
  ASSERT_GE(fd, 3);
  EXPECT_EQ(host.Capture("test -e /proc/self/fd/" + std::to_string(fd) + " && echo open || echo closed", &out), 0);
  EXPECT_EQ(out, "closed\n");
  ::close(fd);
}

// No argument: the instrument's defaults and the window; any argument suppresses the window.
TEST(ServerOptions, ParsesWorkstationOptions) {
  auto parse = [](std::vector<std::string> args, CServerOptions& o) {
    static std::string name = "vr480d";
    std::vector<char*> argv = {name.data()};
    for (auto& a : args) argv.push_back(a.data());
    std::string err;
    const bool ok = ParseOptions(static_cast<int>(argv.size()), argv.data(), o, err);
    EXPECT_EQ(err.empty(), ok) << args[0];
    return ok;
  };
  CServerOptions o, w, any, fp;
  ASSERT_TRUE(parse({}, o));
  EXPECT_TRUE(o.bFrontPanel && o.Port == 1852 && o.Root == "/");
  ASSERT_TRUE(parse({"--root", "/tmp/x", "--port", "8520", "--sim", "--scene", "s.txt"}, w));
  EXPECT_TRUE(!w.bFrontPanel && w.Port == 8520 && w.ListenAddress == "127.0.0.1" && w.bForceSim && w.SceneFile == "s.txt");
  ASSERT_TRUE(parse({"nogui"}, any));
  EXPECT_FALSE(any.bFrontPanel);
  ASSERT_TRUE(parse({"--listen", "0.0.0.0", "--front-panel"}, fp));
  EXPECT_TRUE(fp.bFrontPanel && fp.ListenAddress == "0.0.0.0");
  for (std::vector<std::string> bad : {std::vector<std::string>{"--port", "0"}, {"--port", "10000"},
                                       {"--port", "12x"}, {"--port"}, {"--bogus"}}) {
    CServerOptions b;
    EXPECT_FALSE(parse(bad, b)) << bad[0];
  }
}

TEST(ServerOptions, NewRootGetsSkeletonAndBaselineTagsButKeepsExistingOnes) {
  CTempDir root;
  std::string err;
  ASSERT_TRUE(PrepareWorkstationRoot(root.Path(), err)) << err;
  EXPECT_TRUE(std::filesystem::is_directory(root / "vr480") && std::filesystem::is_directory(root / "tmp"));
  const std::string tags = ReadFile(root / "vr480/vr480.tag");
  EXPECT_NE(tags.find("#SET_SOA_DRIVE = \"30000\"\n"), std::string::npos);
  EXPECT_NE(tags.find("#SET_ZOR_LOC_MEAS_ENABLE = \"1\"\n"), std::string::npos);
  WriteFile(root / "vr480/vr480.tag", "#SET_SCAN_AMP = \"1\"\n");
  ASSERT_TRUE(PrepareWorkstationRoot(root.Path(), err));
  EXPECT_EQ(ReadFile(root / "vr480/vr480.tag"), "#SET_SCAN_AMP = \"1\"\n");
}
