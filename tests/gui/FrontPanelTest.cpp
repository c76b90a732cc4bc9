// The front panel on a virtual X display: widgets against the server's state, the embedded-mode
// page, the watchdog on the window's timer and the quit button in one server's life, and beside
// it vr480d processes with and without a display. VR480_SCREENSHOTS=1 saves the README's pictures.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "gui/FrontPanel.h"
#include "system/Clock.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using namespace laser_test;

constexpr const char* kXvfb = "/usr/bin/Xvfb";
constexpr const char* kRed = "#d00010001000";
constexpr const char* kBlack = "#000000000000";

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

// A virtual X server on the first free display number from :91.
class CXvfb {
 public:
  CXvfb() {
    for (int n = 91; n < 200 && Display.empty(); ++n) {
      const std::string num = std::to_string(n), display = ":" + num;
      if (Exists("/tmp/.X" + num + "-lock") || Exists("/tmp/.X11-unix/X" + num)) continue;
      const char* argv[] = {kXvfb, display.c_str(), "-screen", "0", "1024x768x24", "-nolisten", "tcp", nullptr};
      if (posix_spawn(&Pid, kXvfb, nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return;
      if (WaitFor([&] { return Exists("/tmp/.X11-unix/X" + num); }, 30s)) Display = display;
      else Stop();
    }
  }
  ~CXvfb() { Stop(); }
  void Stop() {
    if (Pid > 0) kill(Pid, SIGTERM), waitpid(Pid, nullptr, 0), Pid = -1;
  }
  std::string Display;

 private:
  pid_t Pid = -1;
};

std::string Field(const std::string& line, int index) {  // 1-based, "$"-separated
  size_t start = 0;
  for (int i = 1; i < index; ++i) start = line.find('$', start) + 1;
  return line.substr(start, line.find('$', start) - start);
}

uint16_t U16(const std::string& bytes, size_t offset) {
  uint16_t v = 0;
  if (bytes.size() >= offset + 2) std::memcpy(&v, bytes.data() + offset, 2);
  return v;
}

// Saves a picture for the README when asked to.
void Screenshot(const char* name) {
  if (!std::getenv("VR480_SCREENSHOTS")) return;
  std::string source = __FILE__;
  source.resize(source.rfind("/tests/gui/"));
  const std::string path = source + "/docs/" + name;
  EXPECT_TRUE(FrontPanelScreenshot(path)) << path;
}

class FrontPanelTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { X = new CXvfb(); }
  static void TearDownTestSuite() { delete X; }
  void SetUp() override {
    if (!Exists(kXvfb)) GTEST_SKIP() << "Xvfb is not installed (Debian package xvfb)";
    ASSERT_FALSE(X->Display.empty()) << "Xvfb did not start";
    setenv("DISPLAY", X->Display.c_str(), 1);
  }
  void TearDown() override {
    Server.reset();  // the stop path closes the window
    EndFrontPanel();
  }
  // Starts the server in 2 kHz mode with a header text and its window, as vr480d does without
  // arguments.
  void Start() {
    auto tags = laser_test::ReadyLaserTags();
    tags.push_back("#SET_2KHZ_MODE = \"1\"");
    Server = std::make_unique<CInProcessServer>(
        tags, sim::CSimOptions{},
        [](const std::string& root) { WriteFile(root + "/vr480/instid", "Bench interrogator 7\nsecond line\n"); },
        [&](CVr480Server& s) { WindowStart = StartFrontPanel(s); });
    ASSERT_TRUE(Server->Started());
    ASSERT_EQ(WindowStart, 0) << "the window did not come up";
  }
  // Waits until the widget `name` shows `text` (after a full refresh).
  ::testing::AssertionResult Shows(const std::string& name, const std::string& text) {
    std::string seen;
    if (WaitFor([&] { return (seen = FrontPanelSnapshot().Widgets[name].Text) == text; }, 30s))
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << name << " shows \"" << seen << "\"";
  }
  static inline CXvfb* X = nullptr;
  std::unique_ptr<CInProcessServer> Server;
  int WindowStart = -2;
};

TEST_F(FrontPanelTest, WidgetTreeWatchdogAndQuit) {
  // Meanwhile vr480d as a process, taking DISPLAY as it starts: with a display the window comes
  // up (its display commands recorded); without one, one console line and it goes on headless.
  CTempDir roots[2];
  std::vector<std::unique_ptr<CServerProcess>> processes;
  for (int withDisplay = 0; withDisplay < 2; ++withDisplay) {
    if (withDisplay) setenv("DISPLAY", X->Display.c_str(), 1);
    else unsetenv("DISPLAY");
    processes.push_back(std::make_unique<CServerProcess>(roots[withDisplay].Path(), FreePort(),
                                                         std::vector<std::string>{"--front-panel"}));
  }
  Start();
  CTestClient a, b;
  ASSERT_TRUE(a.Connect(Server->Port()));
  ASSERT_TRUE(b.Connect(Server->Port()));
  ASSERT_TRUE(WaitReady(a, 60s));
  ASSERT_TRUE(WaitFor([] { return msg.Get() == "Ready."; }, 30s)) << msg.Get();
  CVr480Server& s = Server->S();
  SPanelSnapshot p = FrontPanelSnapshot();
  EXPECT_EQ((std::vector<int>{p.Width, p.Height, p.Page}), (std::vector<int>{640, 480, 0}));
  for (const char* name :
       {"window1", "notebook1", "fixed1", "image1", "label_header", "hseparator1", "hseparator2", "vseparator1",
        "viewport1", "label_msg", "viewport2", "label_Hz", "label_SN", "button_shell", "button_quit", "label_num_duts",
        "label_num_duts2", "label_num_duts3", "label_num_duts4", "label_num_clients", "label_dhcp", "label_ip_address",
        "label_netmask", "label_synthesis_release", "label_driver_release", "label_firmware_release", "label_cfc_build",
        "label_time", "label_time_source", "label_triggering_mode", "label_operating_mode", "label_auto_retrigger",
        "label_temperature", "label_mux_level", "label_embedded_mode"})
    EXPECT_EQ(p.Widgets.count(name), 1u) << name << " is not registered";
  EXPECT_EQ(p.Widgets["image1"].Type, "GtkImage");
  auto& w = p.Widgets;
  std::string ip, mask, gateway;
  GetIfConfig(ip, mask, gateway);
  const std::pair<const char*, std::string> texts[] = {
      {"button_quit", "Quit"}, {"label_header", "Bench interrogator 7"}, {"label_Hz", "2000.0 Hz"}, {"label_ip_address", ip},
      {"label_netmask", mask}, {"label_dhcp", bUseDhcp[0] ? "Enabled" : "Disabled"},
      {"label_time_source", bNtpRunning ? "NTP" : "System Clock"}, {"label_SN", "No S/N"},
      {"label_firmware_release", "2.0h"}, {"label_driver_release", std::to_string(s.Driver.GetDriverVersion())},
      {"label_synthesis_release", std::to_string(s.LatestStatus.SynthesisRelease())},
      {"label_cfc_build", "1"},  // no /cfc_build.dat
      {"label_num_clients", "2"}, {"label_msg", "Ready."}, {"label_operating_mode", "Stand-Alone"},
      {"label_triggering_mode", "Untriggered"}, {"label_auto_retrigger", "N/A"}, {"label_mux_level", "1"}};
  for (const auto& [name, text] : texts) EXPECT_EQ(w[name].Text, text) << name;
  // Dark blue header; releases black, the CFC build red below build 10.
  EXPECT_EQ(w["label_header"].Colour + w["label_driver_release"].Colour + w["label_synthesis_release"].Colour +
                w["label_cfc_build"].Colour, std::string("#10001000d000") + kBlack + kBlack + kRed);
  EXPECT_TRUE(w["label_num_duts"].bVisible && !w["label_num_duts2"].bVisible);
  EXPECT_TRUE(Shows("label_temperature", a.Command("#GET_TX_DEGC") + " \u00b0C"));
  EXPECT_EQ(w["label_time"].Text.size(), 24u) << w["label_time"].Text;
  Screenshot("front-panel.png");
  // Sensor counts of the newest record, plainly, then in brackets while binning.
  auto showsCounts = [&](const char* open, const char* close) {
    return WaitFor([&] {
      const std::string rec = a.Command("#GET_UNBUFFERED_DATA");
      std::string line;
      for (int ch = 0; ch < 4; ++ch) line += open + std::to_string(U16(rec, 16 + 2 * ch)) + close + (ch < 3 ? "\t" : "");
      return FrontPanelSnapshot().Widgets["label_num_duts"].Text == line && line.find_first_of("123456789") != std::string::npos;
    }, 30s);  // the scene has sensors
  };
  EXPECT_TRUE(showsCounts("", "")) << FrontPanelSnapshot().Widgets["label_num_duts"].Text;
  a.Command("#SET_ENABLE_SENSOR_BINS 1");
  EXPECT_TRUE(showsCounts("[", "]")) << FrontPanelSnapshot().Widgets["label_num_duts"].Text;
  a.Command("#SET_ENABLE_SENSOR_BINS 0");
  // The web status page reads what the window last showed.
  const std::string web = a.Command("#WEB_STATUS");
  p = FrontPanelSnapshot(false);
  EXPECT_EQ(Field(web, 2) + "|" + Field(web, 7) + "|" + Field(web, 14) + "|" + Field(web, 15),
            p.Widgets["label_Hz"].Text + "|" + ip + "|Stand-Alone|Untriggered");
  EXPECT_FALSE(Field(web, 12).empty());
  // Rate: halved by the clock divider, divided by the data-rate divider and the mux level.
  EXPECT_EQ(a.Command("#SET_HWCLK_DIVIDER 2"), "Setting HwClk divider to 2.\n");
  EXPECT_TRUE(Shows("label_Hz", "1000.0 Hz"));
  a.Command("#SET_DATA_RATE_DIVIDER 4");
  EXPECT_TRUE(Shows("label_Hz", "250.0 Hz"));
  a.Command("#SET_MUX_LEVEL 2");  // a multiplexer takes every sweep: the divider goes back to 1
  EXPECT_TRUE(Shows("label_Hz", "500.0 Hz"));
  p = FrontPanelSnapshot();
  EXPECT_EQ(p.Widgets["label_mux_level"].Text, "2");
  EXPECT_TRUE(p.Widgets["label_num_duts2"].bVisible && !p.Widgets["label_num_duts3"].bVisible);
  a.Command("#SET_MUX_LEVEL 4");
  EXPECT_TRUE(Shows("label_Hz", "250.0 Hz"));
  p = FrontPanelSnapshot();
  EXPECT_TRUE(p.Widgets["label_mux_level"].Text == "4" && p.Widgets["label_num_duts4"].bVisible);
  b.Close();
  for (int withDisplay = 0; withDisplay < 2; ++withDisplay) {
    CServerProcess& server = *processes[withDisplay];
    ASSERT_TRUE(server.WaitForOutput("**** FS is optimized ****", 60s)) << server.Output();
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    EXPECT_EQ(client.Command("#IDN?").substr(0, 7), "Zorvane");
    const std::string out = server.Output();
    int displayLines = 0;  // the toolkit adds no warnings of its own to the server's line
    for (size_t at = out.find("isplay"); at != std::string::npos; at = out.find("isplay", out.find('\n', at))) ++displayLines;
    EXPECT_EQ(displayLines, 1 - withDisplay) << out;
    EXPECT_EQ(out.find("Front panel: cannot open display") != std::string::npos, !withDisplay) << out;
    const std::string log = ReadFile(roots[withDisplay].Path() + "/tmp/host-commands.log");
    EXPECT_EQ(log.find("/usr/X11R6/bin/xset -d :0 s off") != std::string::npos, withDisplay == 1);
    EXPECT_EQ(server.Stop(SIGTERM, 60s), 0);
  }
  // Embedded mode shows page one with the status text, and no status field is refreshed.
  EXPECT_EQ(a.Command("#SET_EMBEDDED_MODE 1"), "Embedded Mode enabled (network restart or reboot required).\n");
  a.Command("#SET_MUX_LEVEL 1");
  p = FrontPanelSnapshot();
  EXPECT_EQ(p.Page, 1);
  EXPECT_EQ(p.Widgets["label_embedded_mode"].Text, s.GetStatusText());
  EXPECT_NE(s.GetStatusText().find("monitor"), std::string::npos);
  EXPECT_EQ(p.Widgets["label_Hz"].Text, "250.0 Hz");  // not refreshed
  Screenshot("front-panel-embedded.png");
  // The window's timer alone counts the watchdog (a headless tick beside it would double the
  // count), and five seconds without records log the reset as the headless tick does.
  ASSERT_TRUE(FrontPanelServicesWatchdog());
  bFpgaWatchDogEnabled = false;
  EXPECT_EQ(a.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  std::this_thread::sleep_for(1s);  // the last record has been taken
  ASSERT_TRUE(FrontPanelInvoke([&] { FpgaWatchDog = 0, bFpgaWatchDogEnabled = true; }));
  // About 2 s of ticks, below the 20 that reset; the window ticks at most 4 times a second (a
  // loaded machine delays its timer, never hurries it).
  const auto from = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(2s);
  uint32_t counter = 0;
  ASSERT_TRUE(FrontPanelInvoke([&] { counter = FpgaWatchDog; }));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
  EXPECT_TRUE(counter >= 1u && counter <= 4 * seconds + 3) << counter << ": a headless tick runs beside the window's";
  EXPECT_TRUE(WaitFor([&] { return ReadFile(Server->RootPath() + "/vr480/vr480.log").find(":\tFPGA Watchdog reset.\n") != std::string::npos; }, 30s));
  // The quit button stops the server and closes the window.
  ASSERT_TRUE(bGuiRunning.load());
  ASSERT_TRUE(FrontPanelClick("button_quit"));
  ASSERT_TRUE(WaitFor([&] { return Server->RunEnded(); }, 60s)) << "Run did not return";
  EXPECT_TRUE(Server->RunResultCode() == 0 && !bGuiRunning);
  EXPECT_TRUE(FrontPanelSnapshot().Widgets.empty()) << "the window is closed";
}

}  // namespace
