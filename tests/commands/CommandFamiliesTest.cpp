// The command families through a real client against the in-process server on the simulated card
// (three sensors per DUT channel): command lines, exact replies, card words, tags. One server serves
// the suite; each test leaves it as found (laser ready, loops on; channel tests touch detectors 2-5).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "protocol/CommandTable.h"
#include "protocol/DataWire.h"
#include "protocol/HelpTexts.h"

namespace {

using namespace laser_test;
using namespace std::chrono_literals;
using data_wire::SRecord;
using Words = std::vector<uint32_t>;

constexpr uint8_t kGainCode = 0x06, kThreshCode = 0x0D, kLockoutCode = 0x0E, kNoiseEnableCode = 0x0F;
constexpr uint8_t kNtvPeriodCode = 0x10, kNtvResetCode = 0x11, kSoaOffCountCode = 0x2E;
constexpr double kPm = 1000.0;  // integer units (1 fm) per pm

const char* const kRange04 = "!Illegal parameters.  Acceptable ranges are: Ch# 0 to 5 .\n";
const char* const kRange14 = "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 .\n";
const char* const kSubchannel = "!Illegal parameters.  This function requires a channel # (not a subchannel).";
const char* const kAvoRange = "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and optical Ch# 1 to 4.\n";
const char* const kNotFinite = "!Illegal parameters.  Not a finite number: nan.\n";
const std::string kAveragesRange =
    "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4, sensor# 1 to 250 and NumAvg from 1 to ";

// A command line, its exact reply, and the words of FPGA code `Code` (if not 0) the card then received.
struct Row {
  std::string Line, Reply;
  uint8_t Code = 0;
  Words Sent = {};
};

uint32_t ChWord(int detector, uint32_t v) { return (static_cast<uint32_t>(0x30 + detector) << 16) + v; }
uint32_t PlainWord(int detector, uint32_t v) { return (static_cast<uint32_t>(detector) << 16) + v; }

// Commands the wild walk leaves alone: they end or restart the process, network or machine, rewrite
// the card's identity or bridge, wait for a record or a spectrum (10 s), stream, or take text.
const std::set<std::string> kNotWalked = {
    "#QUIT!", "#SHUTDOWN", "#REBOOT", "#SYSTEM", "#DUMP_CORE", "#CLEAR_ZOR_DEVICE", "#BUILD_ZOR_DEVICE",
    "#WRITE_S5335_REGISTER", "#MEASURE_LOCATIONS", "#ENABLE_DMA", "#GET_DATA", "#GET_DATA_AND_LEVELS",
    "#GET_UNBUFFERED_DATA", "#GET_UNBUFFERED_DATA_AND_LEVELS", "#GET_SPECTRUM", "#GET_RAW_SPECTRUM",
    "#GET_WVL_LVL_CNTS", "#SET_STREAMING_DATA", "#SET_NVRAM_SN", "#SET_ZOR_AMP_CH", "#SET_AMP_CH"};
bool Walked(const std::string& name) {
  return !kNotWalked.count(name) && name.rfind("#UPLOAD", 0) != 0 && name.rfind("#DOWNLOAD", 0) != 0;
}

// Getters whose range the code states: whatever was sent, the value stays inside.
const std::map<std::string, std::pair<double, double>> kStatedRanges = {
    {"#GET_LOWER_WVL_LIMIT", {500.0, 1e300}},  {"#GET_UPPER_WVL_LIMIT", {500.0, 1e300}},
    {"#GET_FBG_CHANNEL", {0, 5}},              {"#GET_ZOR_NUM_DUT_CHANNELS", {1, 4}},
    {"#GET_NUM_AVERAGES", {1, 10000}},         {"#GET_MIN_NUM_AVERAGES", {1, 10000}},
    {"#GET_GRANULARITY", {1, 2147483647.0}},   {"#GET_PEAK_AMP_BUF_DEPTH", {-2147483648.0, 128}},
    {"#GET_AUTO_SCAN_SPAN", {0, 1}},           {"#GET_GRATING_TARGET_LOCATION", {0, 1}},
    {"#GET_AVO_REFERENCE_VOUT", {0, 1}},       {"#GET_MIN_DATA_RATE_DIVIDER", {1, 65535}},
    {"#GET_MUX_LEVEL", {1, 4}},                {"#GET_DATA_INTERLEAVE", {1, 2147483647.0}},
};

bool ShowsNonFinite(const std::string& text) { return std::regex_search(text, std::regex("nan|inf", std::regex::icase)); }
std::string Join(const std::string& name, const std::vector<std::string>& args) {
  std::string text = name;
  for (const std::string& a : args) text += " " + a;
  return text;
}

class CommandFamilies : public CSharedServerSuite<CommandFamilies> {
 protected:
  std::string Cmd(const std::string& line) { return Client.Command(line, 30s); }
  void Run(const std::vector<Row>& rows) {
    for (const Row& r : rows) {
      const size_t from = Server->LogSize();
      EXPECT_EQ(Cmd(r.Line), r.Reply) << r.Line;
      if (r.Code) {
        EXPECT_EQ(Server->Sent(r.Code, from), r.Sent) << r.Line;
      }
    }
  }
  void RunQuietly(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) Cmd(line);
  }
  // Each of `present` is a whole recorded tag; no tag starts with any of `absent`.
  void ExpectTags(const std::vector<std::string>& present, const std::vector<std::string>& absent = {}) {
    const std::string tags = "\n" + S().TagManager.GetTagsText();
    for (const std::string& t : present) EXPECT_NE(tags.find("\n" + t + "\n"), std::string::npos) << t;
    for (const std::string& t : absent) EXPECT_EQ(tags.find("\n" + t), std::string::npos) << t;
  }
  // Settings apply at a sweep boundary: waits until the card shows them.
  template <class Condition>
  bool CardShows(Condition condition) { return WaitFor(condition, 20s); }
  SRecord Next() { return SRecord{Client.Command("#GET_DATA")}; }
  // A record taken after everything sent so far has reached the pipeline.
  SRecord Fresh() {
    Client.Command("#FLUSH_BUFFER");
    Next();
    return Next();
  }
  double Number(const std::string& line) { return std::strtod(Cmd(line).c_str(), nullptr); }
  // One command's whole reply frame; a torn or missing one fails and reconnects (no fault hides the next).
  std::string Frame(const std::string& line) {
    bool ok = false;
    std::string reply;
    if (Client.Send(line)) reply = Client.ReadFrame(&ok, 30s);
    if (!ok) {
      ADD_FAILURE() << "no whole reply frame to \"" << line << "\"";
      Client.Close();
      EXPECT_TRUE(Client.Connect(Server->Port()));
    }
    return reply;
  }
  void ExpectAnswering(const std::string& after) { EXPECT_EQ(Frame("#IDN?").substr(0, 7), "Zorvane") << after; }
};

// ---- Laser, timing and loop settings --------------------------------------------------------

// The LEDs follow their commands (the scan loop lights a switched-off ready LED again); wrong
// command codes, ramps skipped, a bias not stored, ready not cleared with the loops off.
TEST_F(CommandFamilies, LedsScanAmplitudeSoaDriveAndBiasRampInSteps) {
  EXPECT_EQ(Cmd("#READY_LED 0"), "'Ready' LED off.\n");
  EXPECT_TRUE(CardShows([&] { return Card().ReadyLed(); }));
  EXPECT_EQ(Cmd("#CLIENT_LED 1"), "'Client' LED on.\n");
  EXPECT_TRUE(CardShows([&] { return Card().ClientLed(); }));
  EXPECT_EQ(Cmd("#CLIENT_LED 0"), "'Client' LED off.\n");
  EXPECT_TRUE(CardShows([&] { return !Card().ClientLed(); }));
  EXPECT_EQ(Cmd("#SET_AUTOBIAS 0"), "Autobias turned off.\n");
  EXPECT_EQ(Cmd("#SET_AUTO_SCAN_AMP 0"), "Auto-ScanAmp turned off.\n");
  EXPECT_TRUE(WaitFor([&] { return Cmd("#READY?") == "0"; }, 2s));
  EXPECT_TRUE(CardShows([&] { return !Card().ReadyLed(); }));
  const std::string bias = Cmd("#GET_BIAS"), amp = Cmd("#GET_SCAN_AMP");
  Cmd("#SET_SCAN_AMP 0");
  Run({
      {"#SET_SCAN_AMP 2000", "Scan amp set to 2000.\n", kScanAmpCode, {0, 500, 1000, 2000}},
      {"#SET_SCAN_AMP 0", "Scan amp set to 0.\n", kScanAmpCode, {2000, 1500, 1000, 0}},
      {"#SET_SCAN_AMP 300", "Scan amp set to 300.\n", kScanAmpCode, {300}},
      {"#SET_SOA_DRIVE 31200", "SOA drive set to 31200.\n", kSoaDriveCode, {30000, 30500, 31200}},
      {"#SET_SOA_DRIVE 30000", "SOA drive set to 30000.\n", kSoaDriveCode, {31200, 30700, 30000}},
      {"#SET_BIAS 70000", "Bias set to 4464.\n", kBiasCode, {4464}},  // sent as given, low 16 bits
      {"#GET_BIAS", "4464"},
  });
  ExpectTags({"#SET_SCAN_AMP = \"300\""}, {"#SET_BIAS ="});
  RunQuietly({"#SET_SCAN_AMP " + amp, "#SET_BIAS " + bias});
  EXPECT_EQ(Cmd("#SET_AUTOBIAS 1"), "Autobias turned on.\n");
  EXPECT_EQ(Cmd("#SET_AUTO_SCAN_AMP 1"), "Auto-ScanAmp turned on.\n");
  EXPECT_TRUE(WaitReady(Client));
}

// The card's divider is the product of the client's and the minimum; modes that exclude each other.
TEST_F(CommandFamilies, RatesDividersAndOperatingMode) {
  Run({
      {"#GET_DEVICE_MAX_SCAN_RATE", "1000.00"},
      {"#SET_MIN_DATA_RATE_DIVIDER 2", "Setting Min data rate divider to 2.\n"},
      {"#GET_USER_MAX_SCAN_RATE", "500.00"},
      {"#SET_OPERATING_MODE 1", "!Function Unavailable."},  // no master behind a minimum divider
      {"#GET_OPERATING_MODE", "0"},
      {"#SET_DATA_RATE_DIVIDER 3", "data rate divider set to 3.\n", kDataRateDividerCode, {6}},
      {"#SET_MIN_DATA_RATE_DIVIDER 0", "Setting Min data rate divider to 1.\n", kDataRateDividerCode, {3}},
      {"#SET_OPERATING_MODE 0", "Setting Operating mode to 0.\n"},
      {"#SET_DATA_RATE_DIVIDER 1", "data rate divider set to 1.\n"},
      {"#SET_HWCLK_DIVIDER 3", "!Invalid argument.  Valid values are 1 or 2.\n"},
      {"#SET_HWCLK_DIVIDER 2", "Setting HwClk divider to 2.\n"},
      {"#GET_HWCLK_DIVIDER", "1"},
      {"#GET_DEVICE_MAX_SCAN_RATE", "500.00"},
  });
  EXPECT_TRUE(CardShows([&] { return Card().Applied().bClockDivider; }));
  ExpectTags({"#SET_MIN_DATA_RATE_DIVIDER = \"0\"", "#SET_OPERATING_MODE = \"0\""});
  const bool locMeas = S().bLocMeasEnable;
  S().bLocMeasEnable = false;
  Run({
      {"#SET_HWCLK_DIVIDER 1", "Setting HwClk divider to 1.\n"},
      {"#GET_HWCLK_DIVIDER", "0"},
      // Capabilities: full spectrum, distance measurement, 2 kHz sweeps.
      {"#SET_ZOR_FS_ENABLE 0", "FS Mode Disabled.\n"},
      {"#SET_2KHZ_MODE 1", "2khz operation enabled.\n"},
      {"#GET_CAPABILITIES", "4"},
      {"#GET_DEVICE_MAX_SCAN_RATE", "2000.00"},
      {"#SET_2KHZ_MODE 0", "2khz operation disabled.\n"},
      {"#SET_ZOR_FS_ENABLE 1", "FS Mode Enabled.\n"},
      {"#GET_CAPABILITIES", "1"},
      {"#SET_MUX_LEVEL 3", "Mux Level Set to 1.\n"},  // not a multiplexer level: level 1
  });
  S().bLocMeasEnable = locMeas;
  EXPECT_TRUE(WaitReady(Client));
}

// Open range ends, sixteen-bit fields, the peak-amplitude and switch-down clamps and replies.
TEST_F(CommandFamilies, LoopSettingsRangesAndClamps) {
  for (const char* bad : {"1.0", "0", "-0.5", "nan", "abc"})
    EXPECT_EQ(Cmd(std::string("#SET_GRATING_TARGET_LOCATION ") + bad), "!Invalid:  Legal range is {0.0 to 1.0}.\n");
  Run({
      {"#SET_GRATING_TARGET_LOCATION 0.25", "Target Location set to 0.250000.\n"},
      {"#SET_AUTO_SCAN_SPAN 1", "!Invalid parameter:  Legal range is {0.0 to 1.0}.\n"},
      {"#GET_AUTO_SCAN_SPAN", "0.700000"},
      {"#SET_MAX_BIAS_ERROR 65556", "Max bias error set to 20.\n"},  // sixteen-bit fields keep the low bits
      // Once acquisition runs, the initial bias no longer moves the loops' fall-back bias.
      {"#SET_INITIAL_BIAS 28500", "Initial bias set to 28500.\n"},
      {"#SET_PEAK_AMP_BUF_DEPTH 129", "Setting Peak Amplitude Buffer Depth to 128.\n"},
      // Switch-down: dividers above 9 share entry 9; divider 0 reads entry 1.
      {"#SET_AUTO_SWITCHDOWN 12 300", "Setting sensor count auto-switchdown for DataRateDivider 9 to 300"},
      {"#GET_AUTO_SWITCHDOWN 40", "300"},
      {"#GET_AUTO_SWITCHDOWN 0", "500"},
      {"#SET_AUTO_SWITCHDOWN 3 1600", "Setting sensor count auto-switchdown for DataRateDivider 3 to 1600"},
      {"#SET_SWITCHDOWN_ENABLE 0", "Auto SwitchDown disabled.\n"},
      {"#SET_FS_WVL_OFFSET_NM 0.123456", "Setting FS Wvl Offset to 0.12346 nm.\n"},
      {"#SET_PEAK_AMP_SEARCH_WND abc", "Setting Peak Amplitude Search Window Size to 0.\n"},  // text reads 0
  });
  EXPECT_EQ(S().GratingTargetLocationCounts, 16384);
  EXPECT_EQ(S().AutoScanTargetCounts, 45875);
  EXPECT_EQ(S().Bias, 28440);
  EXPECT_EQ(S().SwitchdownLimit[9], 300);
  // One tag per divider given.
  ExpectTags({"#SET_GRATING_TARGET_LOCATION = \"0.25\"", "#SET_AUTO_SWITCHDOWN = \"12 300\"",
              "#SET_AUTO_SWITCHDOWN = \"3 1600\""});
  RunQuietly({"#SET_GRATING_TARGET_LOCATION 0.5", "#SET_INITIAL_BIAS 28440", "#SET_AUTO_SWITCHDOWN 9 4500",
              "#SET_AUTO_SWITCHDOWN 3 1500", "#SET_FS_WVL_OFFSET_NM 0", "#SET_PEAK_AMP_SEARCH_WND 1"});
  EXPECT_TRUE(WaitReady(Client));
}

// Mode 0 sends counts at once; mode 1 holds them and drives the edges from wavelengths.
TEST_F(CommandFamilies, SyncOutputFollowsCountsOrWavelengths) {
  Run({
      {"#SET_SYNC_CTRL_MODE 2", "!Illegal sync cntrl value.\n"},
      {"#GET_SYNC_CTRL_MODE", "0"},
      {"#SET_SYNC_LO_COUNT 60000", "Sync lo count set to 60000.\n", kSyncLoCode, {60000}},
      {"#SET_SYNC_CTRL_MODE 1", "Sync cntrl mode set to 1.\n"},
  });
  ExpectTags({}, {"#SET_SYNC_CTRL_MODE = \"2\""});
  const std::string hi = Cmd("#SET_SYNC_HI_WVL 1545");
  int hiCounts = 0;
  ASSERT_EQ(std::sscanf(hi.c_str(), "Sync hi wvl set to 1545.000000 [%d counts].\n", &hiCounts), 1) << hi;
  EXPECT_EQ(hi, "Sync hi wvl set to 1545.000000 [" + std::to_string(hiCounts) + " counts].\n");
  EXPECT_TRUE(hiCounts > 1000 && hiCounts < 64000) << hiCounts;
  EXPECT_EQ(Cmd("#SET_SYNC_LO_WVL 1550.5").substr(0, 29), "Sync lo wvl set to 1550.50000");
  size_t from = Server->LogSize();
  Run({{"#SET_SYNC_HI_COUNT 100", "Sync hi count set to 100.\n"}, {"#GET_SYNC_HI_COUNT", "100"}});
  // The loop sends the count the wavelength has on the scale of the moment; a previous test's
  // loop settings may still be moving the scale, so the setter's reply gives the count again.
  EXPECT_TRUE(CardShows([&] {
    int now = -1;
    std::sscanf(Cmd("#SET_SYNC_HI_WVL 1545").c_str(), "Sync hi wvl set to 1545.000000 [%d counts].\n", &now);
    return std::abs(int(Card().Applied().SyncHiCount) - now) <= 3;
  }));
  for (uint32_t w : Server->Sent(kSyncHiCode, from)) EXPECT_NE(w, 100u);
  EXPECT_EQ(Cmd("#GET_SYNC_HI_WVL"), "1545.000000");
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SYNC_CTRL_MODE 0"), "Sync cntrl mode set to 0.\n");
  const Words loSent = Server->Sent(kSyncLoCode, from);  // both held counts go out
  EXPECT_NE(std::find(loSent.begin(), loSent.end(), 60000u), loSent.end());
  EXPECT_TRUE(CardShows([&] { return Card().Applied().SyncHiCount == 100; }));
  ExpectTags({"#SET_SYNC_CTRL_MODE = \"0\""});
}

// A wavelength the sweep's count cannot represent is refused, never sent, never tagged.
TEST_F(CommandFamilies, SoaWindowInWavelengths) {
  EXPECT_EQ(Cmd("#SET_SOA_ON_WVL 1400"), "!Wavelength out of range.");
  ExpectTags({}, {"#SET_SOA_ON_WVL ="});
  size_t from = Server->LogSize();
  const std::string on = Cmd("#SET_SOA_ON_WVL 1545.5");
  int counts = 0;
  ASSERT_EQ(std::sscanf(on.c_str(), "SOA on wvl set to 1545.500000 [count value %d].\n", &counts), 1) << on;
  EXPECT_GT(counts, 0);
  EXPECT_EQ(Server->Sent(kSoaOnCountCode, from), Words{uint32_t(counts)});
  Run({
      {"#SET_SOA_ON_WVL -1", "!Wavelength out of range.", kSoaOnCountCode, {}},
      {"#SET_SOA_ON_WVL nan", kNotFinite, kSoaOnCountCode, {}},
      {"#GET_SOA_ON_WVL", "1545.500000"},
      {"#SET_SOA_ON_COUNT 131073", "SOA on count set to 1.\n"},  // 17 bits
      {"#SET_SOA_ON_COUNT 0", "SOA on count set to 0.\n"},
  });
  EXPECT_TRUE(WaitReady(Client));
}

// Analog outputs: channel and sensor bounds, subchannel names, one tag per output.
TEST_F(CommandFamilies, AnalogOutputs) {
  Run({
      {"#SET_AVO_CHANNEL 1 6", "Referencing AVO Ch 1 to optical Ch 6.\n"},
      {"#GET_AVO_CHANNEL 1", "2.2"},
      {"#SET_AVO_CHANNEL 2 3.1", "Referencing AVO Ch 2 to optical Ch 3.1.\n"},
      {"#SET_AVO_CHANNEL 7 1", kAvoRange},
      {"#SET_AVO_CHANNEL 1 0", kAvoRange},
      {"#SET_AVO_CHANNEL 1 1.5", "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and optical Ch# 1.1 to 4.1.\n"},
      {"#GET_AVO_CHANNEL 0", "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6.\n"},
      {"#SET_AVO_SENSOR 3 250", "Referencing AVO Ch 3 to optical sensor 250.\n"},
      {"#SET_AVO_SENSOR 3 251", "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and sensor# 1 to 250.\n"},
      // A sensor with no values yet gives the averaging store's empty mark.
      {"#SET_AVO_REFERENCE 3", "Setting AVO Ch 3 reference loc to -2147.483648.\n"},
      {"#SET_AVO_SENSOR 3 3", "Referencing AVO Ch 3 to optical sensor 3.\n"},
      {"#SET_AVO_SCALING_FACTOR 4 250.5", "Setting AVO Ch 4 scaling factor to 250.500000.\n"},
      {"#SET_AVO_REFERENCE_VOUT 4 0.25", "Setting AVO Ch 4 scaling factor to 0.250000.\n"},
      {"#SET_AVO_REFERENCE_VOUT 4 1.5",
       "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and Reference Voltage from 0.0 to 1.0.\n"},
      {"#GET_AVO_REFERENCE_VOUT 4", "0.250000"},
      {"#SET_ANALOG_VOUT 2 300", "User analog Vout[2] set to 300.\n"},
  });
  ExpectTags({"#SET_AVO_CHANNEL = \"2 3.1\"", "#SET_AVO_CHANNEL = \"1 6\""}, {"#SET_AVO_REFERENCE ="});
}

// Edge and type texts, field widths, the software trigger window, fan temperature clamps.
TEST_F(CommandFamilies, TriggerFanAndServiceSwitches) {
  Run({
      {"#SET_TRIG_START_EDGE 1", "Trig Start Edge set to falling edge.\n"},
      {"#SET_TRIG_START_EDGE 0", "Trig Start Edge set to rising edge.\n"},
      {"#SET_TRIG_STOP_EDGE 7", "Trig Stop Edge set to falling edge.\n"},
      {"#SET_TRIG_STOP_EDGE 0", "Trig Stop Edge set to rising edge.\n"},
      {"#SET_TRIG_STOP_TYPE 2", "Trig Stop Type set to 'Edge'.\n"},
      {"#SET_TRIG_STOP_TYPE 0", "Trig Stop Type set to '# Acquisitions'.\n"},
      {"#SET_TRIG_NUM_ACQ 16777217", "Trigg acquisition set to 1 samples.\n"},  // 24 bits
      {"#SET_AUTO_RETRIG 5", "Auto-Retriggering enabled.\n"},
      {"#SET_AUTO_RETRIG 0", "Auto-Retriggering disabled.\n"},
      {"#SET_EXT_SYNC_EDGE 1", "Ext Sync Edge set to falling edge.\n"},
      {"#SET_EXT_SYNC_EDGE 0", "Ext Sync Edge set to rising edge.\n"},
      // A window opened by the software start stays open until stopped (a count of 0).
      {"#SET_TRIG_NUM_ACQ 0", "Trigg acquisition set to 0 samples.\n"},
      {"#SET_TRIG_MODE 1", "Setting triggering mode to 1.\n"},
      {"#SW_TRIG_START", "Start of Acquisition Triggered.\n"},
  });
  EXPECT_TRUE(CardShows([&] { return Card().TriggerState() == sim::ETriggerState::Window; }));
  Run({
      {"#SW_TRIG_STOP", "Stopping Triggered Acquisition.\n"},
      {"#SET_TRIG_MODE 0", "Setting triggering mode to 0.\n"},
      {"#SET_FAN1_CONTROL_TEMP 200", "Fan1 Control Temp set to 150.\n"},  // kept inside 1-150 degC
      {"#SET_FAN2_CONTROL_TEMP 0", "Fan2 Control Temp set to 1.\n"},
      {"#SET_FAN1_CONTROL_TEMP 30", "Fan1 Control Temp set to 30.\n"},
      {"#SET_FAN2_CONTROL_TEMP 40", "Fan2 Control Temp set to 40.\n"},
      {"#SET_FAN1_TEMP_HYSTERESIS 4", "Fan1 Temp Hysteresis set to 4.\n"},
      {"#SET_FPGA_DEBUG 33554431", "Setting FPGA Debug to 16777215.\n"},  // 24 bits
      {"#GET_FPGA_DEBUG", "16777215\n"},
      {"#SET_FPGA_DEBUG 0", "Setting FPGA Debug to 0.\n"},
      {"#SET_SWAP_P68_P155 1", "Swap P68 & P155 set to true.\n"},
      {"#SET_SWAP_P68_P155 0", "Swap P68 & P155 set to false.\n"},
      {"#SET_TEST_SYNC_OUTPUT_DIVIDER 7", "Test Sync Output divider set to 7.\n"},
      {"#SET_TEST_SYNC_OUTPUT_DIVIDER 0", "Test Sync Output divider set to 0.\n"},
      {"#SET_PZT_SYNC_OFFSET 123", "PZT sync offset set to 123.\n"},
      {"#ENABLE_SOA 1", "SOA enabled.\n"},
      {"#ENABLE_DMA 1", "DMA Enabled.\n"},
  });
  ExpectTags({"#SET_TRIG_MODE = \"0\""}, {"#SET_FPGA_DEBUG ="});
  EXPECT_TRUE(WaitReady(Client));
}

// ---- Detector channels and device maintenance -----------------------------------------------

// Detector bounds, each DUT detector's own gain limit, the dB step search, forwarded tags.
TEST_F(CommandFamilies, GainsInCountsAndDecibels) {
  // Gain tables of DUT channels 1 and 2: 100 counts at 0 dB, 150 more per 0.1 dB.
  for (int ch = 0; ch < 2; ++ch)
    for (int k = 0; k < kDbTableEntries; ++k) S().Db2Counts[ch][k] = static_cast<uint16_t>(100 + 150 * k);
  S().Db2Counts[1][6] = S().Db2Counts[1][7] = S().Db2Counts[1][5];  // channel 2 flat from 0.5 to 0.7 dB
  Run({
      {"#SET_ZOR_CH_GAIN 2 70000", "Channel 2 gain set to 4464.\n", kGainCode, {ChWord(2, 4464)}},
      {"#SET_ZOR_CH_GAIN -1 5", kRange04, kGainCode, {}},
      {"#SET_ZOR_CH_GAIN 6 5", kRange04, kGainCode, {}},
      {"#GET_ZOR_CH_GAIN 6", "!Invalid command or argument: #GET_ZOR_CH_GAIN 6."},
      {"#SET_MAX_DUT_CH_GAIN 1 3000", "Max Ch 1 gain set to 3000.\n"},
      {"#SET_ZOR_CH_GAIN 2 5000", "Channel 2 gain set to 3000.\n", kGainCode, {ChWord(2, 3000)}},
      {"#SET_MAX_DUT_CH_GAIN 2 2000", "Max Ch 2 gain set to 2000.\n"},
      {"#SET_ZOR_CH_GAIN 3 5000", "Channel 3 gain set to 2000.\n", kGainCode, {ChWord(3, 2000)}},
      {"#SET_MAX_DUT_CH_GAIN 1 65535", "Max Ch 1 gain set to 65535.\n"},
      {"#SET_MAX_DUT_CH_GAIN 2 65535", "Max Ch 2 gain set to 65535.\n"},
      {"#GET_MAX_DUT_CH_GAIN 0", "!Invalid command or argument: #GET_MAX_DUT_CH_GAIN 0."},
      // User channels forward to the detector behind them.
      {"#SET_CH_GAIN 1 1234", "Setting DUT channel 1 gain to 1234.\n", kGainCode, {ChWord(2, 1234)}},
      {"#SET_CH_GAIN 5 1", kRange14, kGainCode, {}},
      {"#GET_CH_GAIN 5", "!Invalid command or argument: #GET_CH_GAIN 5."},
      // dB through the tables; 2.3 dB held as a float falls to the 2.2 dB step.
      {"#SET_CH_GAIN_DB 1 2.3", "Setting Ch 1 gain to 2.300000 dB.\n", kGainCode, {ChWord(2, 100 + 150 * 22)}},
      {"#GET_CH_GAIN_DB 1", "2.200000"},
      {"#SET_CH_GAIN_DB 2 50", "Setting Ch 2 gain to 40.099998 dB.\n", kGainCode, {ChWord(3, 100 + 150 * 400)}},
      {"#SET_CH_GAIN_DB 1 -1", "Setting Ch 1 gain to -1.000000 dB.\n", kGainCode, {ChWord(2, 0)}},
      {"#SET_CH_GAIN_DB 1.2 10", kSubchannel, kGainCode, {}},
      {"#SET_CH_GAIN_DB 5 10",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and db -40.100000 to 40.100000.\n", kGainCode, {}},
      {"#GET_CH_GAIN_DB 0", "!Invalid command or argument: #GET_CH_GAIN_DB 0."},
      {"#SET_ZOR_MAX_GAIN_DB 30", "Max dB gain set to 30.000000.\n"},
      {"#SET_CH_GAIN_DB 2 35", "Setting Ch 2 gain to 30.000000 dB.\n", kGainCode, {ChWord(3, 100 + 150 * 300)}},
      {"#SET_ZOR_MAX_GAIN_DB nan", kNotFinite},
      {"#SET_ZOR_MAX_GAIN_DB 40.1", "Max dB gain set to 40.100000.\n"},
      {"#SET_MIN_CH_PWR_LEVEL 3 222", "Min Ch 3 Pwr Level set to 222.\n"},
      {"#SET_MAX_CH_PWR_LEVEL 0 1", kRange14},
      {"#SET_CH_GAIN 2 850", "Setting DUT channel 2 gain to 850.\n", kGainCode, {ChWord(3, 850)}},
      {"#GET_CH_GAIN_DB 2", "0.500000"},  // a flat stretch reads as its lowest step
      {"#SET_ZOR_CH_GAIN 2 0", "Channel 2 gain set to 0.\n"},
      {"#SET_ZOR_CH_GAIN 3 0", "Channel 3 gain set to 0.\n"},
  });
  // The forwarded command keeps the setting; the user-level one is no tag of its own.
  ExpectTags({"#SET_ZOR_CH_GAIN = \"2 0\"", "#SET_MAX_DUT_CH_GAIN = \"1 65535\""}, {"#SET_CH_GAIN ="});
}

// Threshold offsets, channel-coded words (a lockout on the wrong detector), forwarded tags.
TEST_F(CommandFamilies, ThresholdsAndPeakTiming) {
  Run({
      {"#SET_ZOR_CH_NOISE_THRESH 2 0", "ZOR Channel 2 noise threshold set to 0.\n", kThreshCode, {ChWord(2, 32768)}},
      {"#SET_ZOR_CH_NOISE_THRESH 2 100", "ZOR Channel 2 noise threshold set to 100.\n", kThreshCode, {ChWord(2, 33256)}},
      {"#SET_ZOR_CH_NOISE_THRESH 6 1", kRange04, kThreshCode, {}},
      {"#SET_CH_NOISE_THRESH 2 50", "Setting Ch 2 Noise Threshold to 50.\n", kThreshCode, {ChWord(3, 33012)}},
      {"#GET_CH_NOISE_THRESH 2", "50"},
      {"#GET_CH_NOISE_THRESH 0", kRange14},
      {"#SET_CH_NOISE_THRESH 1.2 5", kSubchannel, kThreshCode, {}},
      {"#SET_CH_NOISE_THRESH_ENABLE 3 0", "Channel 3 noise threshold disabled.\n", kNoiseEnableCode, {PlainWord(3, 0)}},
      {"#SET_CH_NOISE_THRESH_ENABLE 3 7", "Channel 3 noise threshold enabled.\n", kNoiseEnableCode, {PlainWord(3, 1)}},
      {"#SET_CH_LOCKOUT_PERIOD 2 300", "Channel 2 lockout period set to 300.\n", kLockoutCode, {PlainWord(2, 300)}},
      // The driver refuses a channel above 5 silently; the reply confirms regardless.
      {"#SET_CH_LOCKOUT_PERIOD 9 5", "Channel 9 lockout period set to 5.\n", kLockoutCode, {}},
      {"#SET_CH_NTV_PERIOD 4 1600", "Channel 4 N/T valid period set to 1600.\n", kNtvPeriodCode, {PlainWord(4, 1600)}},
      {"#SET_CH_NTV_RESET_ON_ZC 4 0", "Channel 4 NTV Reset on ZC disabled.\n", kNtvResetCode, {PlainWord(4, 0)}},
  });
  ExpectTags({"#SET_ZOR_CH_NOISE_THRESH = \"3 50\""}, {"#SET_CH_NOISE_THRESH ="});
  RunQuietly({"#SET_CH_LOCKOUT_PERIOD 2 200", "#SET_CH_NTV_PERIOD 4 1500", "#SET_CH_NTV_RESET_ON_ZC 4 1"});
}

// Each change is answered once a spectrum on the new channel is out (the spectra the thread
// was told to drop are gone by then); the transmitter temperature follows the card's.
TEST_F(CommandFamilies, AmplitudeChannelAndTransmitterTemperature) {
  const std::string original = Cmd("#GET_ZOR_AMP_CH");
  Run({
      {"#SET_ZOR_AMP_CH 1", "Selected amplitude channel set to 1.\n"},
      {"#GET_AMP_CH", "0"},
      {"#SET_ZOR_AMP_CH 9", "Selected amplitude channel set to 5.\n"},
      {"#SET_AMP_CH 3", "Setting Amp channel to 3.\n"},
      {"#GET_ZOR_AMP_CH", "4"},
      {"#SET_AMP_CH 0", kRange14},
      {"#SET_AMP_CH 2.1", kSubchannel},
  });
  EXPECT_EQ(S().FsSkipCount, 0);
  ExpectTags({"#SET_ZOR_AMP_CH = \"4\""}, {"#SET_AMP_CH ="});
  Cmd("#SET_ZOR_AMP_CH " + original);
  Card().SetInternalTemperature(41.5);
  EXPECT_TRUE(WaitFor([&] { return Cmd("#GET_TX_DEGC") == "41.50"; }, 30s));
}

// Register names in either case, a dump that never drains the FIFO, the NVRAM image and serial.
TEST_F(CommandFamilies, BridgeRegistersAndConfigurationMemory) {
  Run({
      {"#LIST_S5335_REGISTERS",
       "OMB1, OMB2, OMB3, OMB4, IMB1, IMB2, IMB3, IMB4 FIFO, MWAR, MWTC, MRAR, MRTC, MBEF, INTCSR, MCSR\n"},
      {"#WRITE_S5335_REGISTER fifo 1234", "Writing 1234 to S5335 register fifo\n"},
      {"#WRITE_S5335_REGISTER FIFO 5678", "Writing 5678 to S5335 register FIFO\n"},
      {"#WRITE_S5335_REGISTER mwar 4096", "Writing 4096 to S5335 register mwar\n"},
      {"#WRITE_S5335_REGISTER mrar -1", "Writing -1 to S5335 register mrar\n"},
      {"#READ_S5335_REGISTER mrar", "-1"},
      {"#INTERPRET_S5335_REGISTER mwar", "PCI controlled bus master write address = 4096."},
      {"#READ_S5335_REGISTER status", "!Unknown Register status.\n"},
      {"#INTERPRET_S5335_REGISTER status", "Invalid register\n"},
  });
  const uint32_t fifoReads = Card().Device().FifoReads();
  const std::string dump = Cmd("#DUMP_S5335_REGISTERS");
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 16);
  EXPECT_NE(dump.find("\nfifo ...Skipped\nmwar = 4096 { 0000 0000 0000 0000 0001 0000 0000 0000}\n"), std::string::npos);
  EXPECT_NE(dump.find("\nmrar = 4294967295 { 1111 1111 1111 1111 1111 1111 1111 1111}\n"), std::string::npos);
  EXPECT_EQ(Card().Device().FifoReads(), fifoReads);
  Run({{"#READ_S5335_REGISTER fifo", "1234"}, {"#READ_S5335_REGISTER fifo", "5678"}});  // both words still there

  auto serial = [&] {
    const auto nv = Card().Nvram();
    return std::string(nv.begin() + sim::kNvramSerialAddress, nv.begin() + sim::kNvramSerialAddress + 16);
  };
  Run({
      {"#SET_NVRAM_SN 0123456789ABCDEFGH", "Setting NvRAM S/N to '0123456789ABCDE'.\n"},
      {"#GET_NVRAM_SN", "0123456789ABCDE"},
      {"#READ_NVRAM_BYTE 72", "NvRAM offset 72 reads 3.\n"},
      {"#CLEAR_ZOR_DEVICE", "ZOR Device cleared.\n"},  // erases the bridge's image, keeps the serial
  });
  auto nv = Card().Nvram();
  for (int a = 0; a < 128; ++a) ASSERT_EQ(nv[a], 0xFF) << a;
  EXPECT_EQ(serial(), std::string("0123456789ABCDE") + '\0');
  // Building writes the image of the revision asked for (by default 3) and erases the serial.
  EXPECT_EQ(Cmd("#BUILD_ZOR_DEVICE 2"), "ZOR Device built.\n");
  nv = Card().Nvram();
  EXPECT_EQ(std::vector<int>({nv[0x40], nv[0x43], nv[0x45], nv[0x48]}), std::vector<int>({0xE8, 0x88, 0x81, 2}));
  EXPECT_EQ(serial(), std::string(16, '\xFF'));
  EXPECT_EQ(Cmd("#BUILD_ZOR_DEVICE"), "ZOR Device built.\n");
  EXPECT_EQ(Card().Nvram()[0x45], 0x01);
  EXPECT_EQ(Cmd("#READ_NVRAM_BYTE 72"), "NvRAM offset 72 reads 3.\n");
}

// ---- Processing configuration ---------------------------------------------------------------

// Scale and grating settings, sensor limits and channel selection; a disabled channel's
// sensors vanish from the records while the others keep theirs.
TEST_F(CommandFamilies, ScaleGratingAndSensorSelection) {
  Run({
      {"#SET_FFPI_FSR_GHZ 100", "Setting FFPI FSR to peak to 100.000000 Ghz.\n"},
      {"#SET_FFPI_FSR_GHZ nan", kNotFinite},
      {"#SET_FFPI_REF_PEAK_THZ 194", "Setting FFPI ref peak to 194.000000 Thz.\n"},
      {"#SET_STEINHART_B0 0.001111626146876", "Steinhart-Hart B0 set to 1.11162614687600e-03.\n"},
      {"#GET_STEINHART_B3", "7.54233759059000e-08"},
      {"#SET_FBG_REF_VTH 65535", "fbg reference thermistor voltage (Vth) set to -1.\n"},
      {"#SET_FBG_REF_VTH 32767", "fbg reference thermistor voltage (Vth) set to 32767.\n"},
      {"#SET_FBG_REF_WVL_NM 1550", "fbg reference Wvl set to  1550.0000 nm.\n"},
      {"#SET_FBG_NM_PER_DEGC 0.01", "fbg nm/degC set to     0.0100 nm.\n"},
      {"#REBUILD_FBG_VTH_LUT", "Rebuilding FBG Vth LUT\n"},
      {"#SET_PEAK2USE 3", "Setting Peak2Use to 3.\n"},
      {"#SET_PEAK2USE 0", "Setting Peak2Use to 0.\n"},
      {"#SET_MONITORED_FBG 256", "Monitored FBG turned off (Applying Peak2Use).\n"},  // low 8 bits
      {"#SET_MONITORED_FBG 1", "Monitored FBG turned on.\n"},
      {"#SET_MAX_WVL_CORR_COEF_ERROR 0.15", "Corr Coef errof window set to +/- 0.150000.\n"},
      {"#SET_GRANULARITY 0", "!Illegal parameters.  Granularity must be at least 1.\n"},
      {"#SET_GRANULARITY 4294967296", "!Illegal parameters.  Granularity must be at least 1.\n"},
      {"#SET_GRANULARITY 1000000", "Granularity set to 1000000.\n"},
      {"#SET_FBG_CHANNEL 9", "Setting FBG channels to 5.\n"},
      {"#SET_FBG_CHANNEL 0", "Setting FBG channels to 0.\n"},
      {"#SET_LOWER_WVL_LIMIT 100", "LowerWvlLimit set to 500.000000.\n"},
      {"#SET_LOWER_WVL_LIMIT 1520", "LowerWvlLimit set to 1520.000000.\n"},
      {"#SET_UPPER_WVL_LIMIT -inf", "!Illegal parameters.  Not a finite number: -inf.\n"},
      {"#GET_UPPER_WVL_LIMIT", "1570.000000"},
      {"#SET_CH_ENABLE 1.2 0", "Ch 1.2 disbled.\n"},
      {"#GET_CH_ENABLE 5", "0"},
      {"#SET_CH_ENABLE 5 3", "Ch 5 enabled.\n"},  // flag & 1
      {"#SET_CH_ENABLE 17 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4.\n"},
      {"#SET_CH_ENABLE 5.1 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1.\n"},
      {"#SET_ZOR_NUM_DUT_CHANNELS 0", "Setting # DUT channels to 1.\n"},
      {"#SET_ZOR_NUM_DUT_CHANNELS 9", "Setting # DUT channels to 4.\n"},
  });
  ExpectTags({"#SET_CH_ENABLE = \"1.2 0\"", "#SET_FFPI_FSR_GHZ = \"100\""});
  EXPECT_EQ(Cmd("#SET_CH_ENABLE 2 0"), "Ch 2 disbled.\n");
  const SRecord off = Fresh();
  EXPECT_EQ(off.Count(1), 0u);
  EXPECT_EQ(off.Count(0), 3u);
  EXPECT_EQ(Cmd("#SET_CH_ENABLE 2 1"), "Ch 2 enabled.\n");
  EXPECT_EQ(Fresh().Count(1), 3u);
}

// Reference, averaging, gain-offset and dB-table bounds; a cleared channel loses sensor 1's
// reference too; averages in units of the minimum; none of these tables becomes a tag.
TEST_F(CommandFamilies, ReferencesAveragesGainOffsetsAndBinning) {
  const std::string db = Cmd("#GET_DB2COUNTS 1 400");
  Run({
      {"#SET_REFERENCE 1 2 1545.123456789", "Setting Ch 1, Sensor 2 Reference to 1545.123456.\n"},
      {"#SET_REFERENCE 16 250 -0.5", "Setting Ch 16, Sensor 250 Reference to -0.500000.\n"},
      {"#SET_REFERENCE 1 2 nan", kNotFinite},
      {"#GET_REFERENCE 17 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and sensor# 1 to 250.\n"},
      {"#GET_REFERENCE 1.1 251", "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1 and sensor# 1 to 250.\n"},
      {"#CLEAR_REFERENCE 1 2", "Zeroing reference (1, 2).\n"},
      {"#GET_REFERENCE 1 2", "0.000000"},
      {"#SET_REFERENCE 4 1 1.5", "Setting Ch 4, Sensor 1 Reference to 1.500000.\n"},
      {"#CLEAR_REFERENCE 4.1", "Zeroing channel 4 references.\n"},  // read as a plain number
      {"#GET_REFERENCE 4 1", "0.000000"},
      {"#CLEAR_REFERENCE", "Zeroing all DUT refrences.\n"},
      {"#GET_REFERENCE 16 250", "-0.500000"},  // a layer not in use keeps its references
      {"#SET_REFERENCE 16 250 0", "Setting Ch 16, Sensor 250 Reference to 0.000000.\n"},
      {"#SET_USE_REFERENCES 0", "References disabled.\n"},
      {"#SET_NUM_AVERAGES 10001", kAveragesRange + "10000.\n"},
      {"#SET_NUM_AVERAGES 1.1 0",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1, sensor# 1 to 250 and NumAvg from 1 to 10000.\n"},
      {"#SET_NUM_AVERAGES 1 3 10", "Setting Ch 1, Sensor 3 # Averages to 10.\n"},
      {"#SET_NUM_AVERAGES 2 5", "Setting Ch 2, # Avgs to 5.\n"},
      {"#SET_MIN_NUM_AVERAGES 4", "Setting Min averages to 4.\n"},
      {"#GET_NUM_AVERAGES 1 3", "10"},  // the client's count stays; its ring grew to 40
      {"#SET_NUM_AVERAGES 2501", kAveragesRange + "2500.\n"},
      {"#GET_NUM_AVERAGES 0 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and sensor# 1 to 250.\n"},
      {"#SET_MIN_NUM_AVERAGES 20000", "Setting Min averages to 10000.\n"},
      {"#SET_MIN_NUM_AVERAGES 0", "Setting Min averages to 1.\n"},
      {"#SET_NUM_AVERAGES 1", "Setting averaging for all sensors on all channels to 1.\n"},
      {"#GET_NUM_AVERAGES 1 3", "1"},
      {"#SET_GAIN_WVL_OFFSET 2 65537 0.0125", "Setting Ch 2, Gain 1 wvl offset to 0.012500.\n"},  // low 16 bits
      {"#SET_GAIN_WVL_OFFSET 5 1 0.1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and Gain  0 to 65535.\n"},
      {"#SET_GAIN_WVL_OFFSET 2 1 0", "Setting Ch 2, Gain 1 wvl offset to 0.000000.\n"},
      {"#SET_ENABLE_WVL_OFFSETS 0", "Wvl Offsets disabled.\n"},
      {"#SET_ENABLE_WVL_OFFSETS 1", "Wvl Offsets enabled.\n"},
      {"#SET_DB2COUNTS 1 400 70000", "Setting Db2Counts[1][400] to 4464"},
      {"#SET_DB2COUNTS 1 401 5", "!Invalid command or argument: #SET_DB2COUNTS 1 401 5."},
      // Sensor binning (switched on and off end to end below).
      {"#SET_ENABLE_SENSOR_BINS 2", "Sensor binning disabled.\n"},
      {"#RESET_SENSOR_BINS", "Sensor binning Reset.\n"},
      {"#SET_SENSOR_BIN_WIDTH 0", "Roving Bin Width set to 200.\n"},
      {"#SET_SENSOR_BIN_WIDTH 150", "Roving Bin Width set to 150.\n"},
      {"#SET_SENSOR_BIN_WIDTH 200", "Roving Bin Width set to 200.\n"},
      {"#GET_LAST_BIN_FAULT_CNT 17", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4.\n"},
      {"#SET_DB2COUNTS 1 400 " + db, "Setting Db2Counts[1][400] to " + db},
  });
  ExpectTags({"#SET_MIN_NUM_AVERAGES = \"0\"", "#SET_SENSOR_BIN_WIDTH = \"200\""}, {"#SET_REFERENCE"});

  // The store takes a new depth with the next record; its lock keeps the look race-free.
  auto ringOf = [&](uint8_t ch, uint16_t sensor, uint16_t want) {
    return WaitFor([&] {
      std::lock_guard<std::mutex> g(S().AveragingLock);
      return S().WvlAvg.GetTargetNumAvg(ch, sensor) == want;
    }, 10s);
  };
  RunQuietly({"#SET_MIN_NUM_AVERAGES 4", "#SET_NUM_AVERAGES 1 1 2"});
  EXPECT_TRUE(ringOf(0, 0, 8));
  Cmd("#SET_MIN_NUM_AVERAGES 8");  // doubling the unit doubles every ring, keeps the client's counts
  EXPECT_TRUE(ringOf(0, 0, 16));
  EXPECT_TRUE(ringOf(3, 249, 8));
  EXPECT_EQ(Cmd("#GET_NUM_AVERAGES 1 1"), "2");
  RunQuietly({"#SET_MIN_NUM_AVERAGES 1", "#SET_NUM_AVERAGES 1"});
  EXPECT_TRUE(ringOf(0, 0, 1));
}

// Binning switched on learns the sensors from the next record, then marks each record it
// re-sorted (header bit 0) until switched off; the fault count answers per channel.
TEST_F(CommandFamilies, SensorBinningMarksTheRecordsItSorts) {
  auto rebuilt = [](const SRecord& r) { return (data_wire::U16(r.Bytes, 26) & 1) != 0; };
  EXPECT_EQ(Cmd("#SET_SENSOR_BIN_WIDTH 1000"), "Roving Bin Width set to 1000.\n");
  EXPECT_EQ(Cmd("#SET_ENABLE_SENSOR_BINS 1"), "Sensor binning enabled.\n");
  EXPECT_TRUE(WaitFor([&] { return Cmd("#GET_ENABLE_SENSOR_BINS") == "1"; }, 30s));
  SRecord r;
  EXPECT_TRUE(WaitFor([&] { return rebuilt(r = Fresh()) && r.Count(0) == 3 && r.Count(3) == 3; }, 30s));
  EXPECT_EQ(Cmd("#GET_LAST_BIN_FAULT_CNT 1"), "0");
  RunQuietly({"#SET_ENABLE_SENSOR_BINS 0", "#SET_SENSOR_BIN_WIDTH 200"});
  EXPECT_TRUE(WaitFor([&] { return !rebuilt(Fresh()); }, 30s));
}

// A reference taken from the current value makes the sensor read 0 in the following records;
// taken again, it adds to the old one (the value it sees is already relative).
TEST_F(CommandFamilies, ReferenceToTheCurrentValueZeroesTheSensor) {
  EXPECT_EQ(Cmd("#SET_USE_REFERENCES 1"), "References enabled.\n");
  const SRecord before = Fresh();
  ASSERT_EQ(before.Count(0), 3u);
  const double wvl = before.Value(0, 1) / 1e6;
  const std::string reply = Cmd("#SET_REFERENCE 1 2");
  const std::string head = "Setting Ch 1, Sensor 2 reference to current wvl value (";
  ASSERT_EQ(reply.substr(0, head.size()), head) << reply;
  EXPECT_NEAR(std::strtod(reply.c_str() + head.size(), nullptr), wvl, 1e-6);
  for (int i = 0; i < 20; ++i) {
    const SRecord r = i == 0 ? Fresh() : Next();
    ASSERT_EQ(r.Count(0), 3u);
    EXPECT_NEAR(r.Value(0, 1), 0, 5 * kPm) << "record " << i;
    EXPECT_NEAR(r.Value(0, 0), before.Value(0, 0), 5 * kPm);  // its neighbours keep their wavelengths
  }
  Cmd("#SET_REFERENCE 1 2");
  EXPECT_NEAR(Number("#GET_REFERENCE 1 2"), wvl, 0.005);  // within the noise of one reading
  EXPECT_EQ(Cmd("#SET_REFERENCE 3"), "Setting Ch 3 references to current wvl values.\n");
  SRecord r = Fresh();
  for (uint32_t j = 0; j < 3; ++j) EXPECT_NEAR(r.Value(2, j), 0, 5 * kPm) << j;
  EXPECT_NEAR(r.Value(3, 0), before.Value(3, 0), 5 * kPm);
  EXPECT_EQ(Cmd("#SET_REFERENCE"), "Setting all DUT references to current wvl values.\n");
  r = Fresh();
  for (int ch = 0; ch < 4; ++ch)
    for (uint32_t j = 0; j < 3; ++j) EXPECT_NEAR(r.Value(ch, j), 0, 5 * kPm) << ch << "." << j;
  Cmd("#CLEAR_REFERENCE");
  EXPECT_EQ(Cmd("#SET_USE_REFERENCES 0"), "References disabled.\n");
  EXPECT_NEAR(Fresh().Value(0, 1) / 1e6, wvl, 0.005);
}

// The conversions answer on the comb the pipeline used, and the thermistor table agrees with
// the grating frequency in use.
TEST_F(CommandFamilies, ConversionsAgreeWithTheLiveScale) {
  EXPECT_TRUE(WaitFor([&] {
    const std::string vth = Cmd("#GET_FBG_VTH");
    return Cmd("#VTH2THZ " + std::to_string((std::atoi(vth.c_str()) + 32768) & 0xFFFF)) == Cmd("#GET_FBG_THZ") &&
           Cmd("#VTH2DEGC " + vth) == Cmd("#GET_FBG_DEGC") && Cmd("#GET_FBG_VTH") == vth;
  }, 30s));
  EXPECT_NEAR(Number("#GET_FBG_THZ"), 193.4, 0.5);  // a grating near 1550 nm
  EXPECT_TRUE(WaitFor([&] {
    const SRecord r = Fresh();
    const double fbgNm = Number("#GET_CALCULATED_FBG");
    return std::abs(Number("#WVL2COUNTS " + std::to_string(fbgNm)) - r.FbgPosition()) <= 3 &&
           std::abs(Number("#COUNTS2WVL " + std::to_string(r.FbgPosition())) - fbgNm) < 0.005;
  }, 30s));
  const double nm = Number("#COUNTS2WVL 30000");
  EXPECT_TRUE(nm > 1500.0 && nm < 1600.0) << nm;
  EXPECT_NEAR(Number("#WVL2COUNTS " + std::to_string(nm)), 30000, 3);
}

// ---- The whole command table ----------------------------------------------------------------
// Whatever a client sends, a reply is one whole frame and the server answers on. These run
// last: they leave the settings wherever the wild numbers put them.

// One argument too many or too few for every row gets the invalid-command reply.
TEST_F(CommandFamilies, ArgumentCountsNoRowTakesGetTheInvalidCommandReply) {
  std::map<std::string, std::pair<int, int>> names;  // the widest range of any row of the name
  std::set<std::string> anyCount;
  for (const SCommandRow& row : Commands().All()) {
    if (row.MinArgs == kAnyArgs) anyCount.insert(row.Name);
    auto [it, fresh] = names.try_emplace(row.Name, row.MinArgs, row.MaxArgs);
    it->second = {std::min(it->second.first, row.MinArgs), std::max(it->second.second, row.MaxArgs)};
  }
  for (const auto& [name, range] : names) {
    if (anyCount.count(name)) continue;
    for (int count : {range.second + 1, range.first - 1}) {
      if (count < 0) continue;
      const std::string line = Join(name, std::vector<std::string>(static_cast<size_t>(count), "1"));
      EXPECT_EQ(Frame(line), "!Invalid command or argument: " + line + (count ? "." : " ."));
      ExpectAnswering(line);
    }
  }
}

// Wild numbers (NaN, infinities, values past every integer width) in every argument of every
// command: no getter then shows a NaN, an infinity or a value outside its stated range, and no
// card word overflows its field.
TEST_F(CommandFamilies, WildNumbersReachNoGetterAndNoCardWord) {
  size_t walked = 0;
  for (const SCommandRow& row : Commands().All()) {
    const std::string name = row.Name;
    if (row.MinArgs == kAnyArgs || row.MaxArgs < 1 || !Walked(name)) continue;
    const int count = std::max(row.MinArgs, 1);
    const bool setter = name.rfind("#SET_", 0) == 0;
    const std::string getter = setter ? "#GET_" + name.substr(5) : "";
    const auto* getterRows = setter ? Commands().Find(getter) : nullptr;
    const int getterCount = getterRows ? std::max(getterRows->front()->MinArgs, 0) : 0;
    const bool soaWindow = name == "#SET_SOA_ON_WVL" || name == "#SET_SOA_OFF_WVL";
    for (int position = 0; position < count; ++position) {
      for (const char* wild : {"nan", "inf", "-inf", "1e999", "-1", "4294967296", "99999999999999999999"}) {
        std::vector<std::string> args(static_cast<size_t>(count), "1");
        args[static_cast<size_t>(position)] = wild;
        const std::string line = Join(name, args);
        const size_t from = Server->LogSize();
        Frame(line);
        ++walked;
        // A window count outside the measured half of the sweep never reaches the card.
        for (uint8_t code : {kSoaOnCountCode, kSoaOffCountCode})
          for (uint32_t n : soaWindow ? Server->Sent(code, from) : Words{})
            EXPECT_TRUE(n >= 1 && n <= 65535) << line << " sent " << n;
        if (getterRows) {
          std::vector<std::string> getterArgs(args.begin(), args.begin() + std::min(getterCount, count));
          getterArgs.resize(static_cast<size_t>(getterCount), "1");
          const std::string query = Join(getter, getterArgs), value = Frame(query);
          const bool refused = value.empty() || value[0] == '!';  // a refusal may echo the argument
          EXPECT_TRUE(refused || !ShowsNonFinite(value)) << line << " then " << query << " gives \"" << value << "\"";
          const auto range = kStatedRanges.find(getter);
          const double v = std::strtod(value.c_str(), nullptr);
          if (!refused && range != kStatedRanges.end()) {
            EXPECT_TRUE(v >= range->second.first && v <= range->second.second) << line << " then " << query << ": " << value;
          }
        }
        ExpectAnswering(line);
      }
    }
  }
  EXPECT_GT(walked, 500u);
  for (uint8_t code : {kBiasCode, kScanAmpCode, kSoaDriveCode})
    for (uint32_t n : Server->Sent(code, 0)) EXPECT_LE(n, 0xFFFFu) << "code " << int{code};
  for (uint8_t code : {kSoaOnCountCode, kSoaOffCountCode, kSyncHiCode, kSyncLoCode})
    for (uint32_t n : Server->Sent(code, 0)) EXPECT_LE(n, 0x1FFFFu) << "code " << int{code};
}

// Every command the full help list names is one the server answers, except three names the
// list has always carried without a handler (they get the invalid-command reply).
TEST(HelpList, EveryListedCommandHasARow) {
  const std::set<std::string> listedWithoutHandler = {"#GET_EMBEDDED_NETMASK", "#SET_EMBEDDED_NETMASK", "#GET_HEADER_TXT"};
  std::istringstream words(std::string(kFullHelpText, kFullHelpLength));
  std::string missing;
  int listed = 0;
  for (std::string word; words >> word;) {
    if (word[0] != '#') continue;
    ++listed;
    if ((Commands().Find(word) != nullptr) == (listedWithoutHandler.count(word) > 0)) missing += word + " ";
  }
  EXPECT_GT(listed, 250);
  EXPECT_EQ(missing, "") << "listed but not answered, or answered though the list has no handler for it";
}

}  // namespace
