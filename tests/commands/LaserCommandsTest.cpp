// The acquisition, laser, timing and loop-setting commands through a real client, against the
// whole server running in process on the simulated card: exact replies and refusals, what the
// card received, and which settings were recorded as tags. One server serves the suite; each
// test leaves it as it found it (laser ready, loops on).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"

namespace {

using namespace laser_test;
using Words = std::vector<uint32_t>;

class LaserCommands : public CSharedServerSuite<LaserCommands> {
 protected:

  std::string Cmd(const std::string& line) { return Client.Command(line); }
  bool HasTag(const std::string& tag) {
    return S().TagManager.GetTagsText().find(tag + "\n") != std::string::npos;
  }
  bool HasTagOf(const std::string& command) {
    return S().TagManager.GetTagsText().find(command + " = ") != std::string::npos;
  }
  // Waits until the card has applied what was sent (settings apply at a sweep boundary).
  template <class Condition>
  bool CardShows(Condition condition) {
    return WaitFor(condition, std::chrono::seconds(2));
  }

};

TEST_F(LaserCommands, ReadyLightsTheReadyLedAndTheLoopRelightsIt) {
  EXPECT_EQ(Cmd("#READY?"), "1");
  EXPECT_TRUE(CardShows([&] { return Card().ReadyLed(); }));
  EXPECT_TRUE(S().Driver.GetReadyLed());

  // Switched off by hand, the LED comes back at the scan loop's next satisfied check.
  EXPECT_EQ(Cmd("#READY_LED 0"), "'Ready' LED off.\n");
  EXPECT_TRUE(CardShows([&] { return Card().ReadyLed(); }));
  EXPECT_EQ(Cmd("#CLIENT_LED 1"), "'Client' LED on.\n");
  EXPECT_TRUE(CardShows([&] { return Card().ClientLed(); }));
  EXPECT_EQ(Cmd("#CLIENT_LED 0"), "'Client' LED off.\n");
  EXPECT_TRUE(CardShows([&] { return !Card().ClientLed(); }));
}

TEST_F(LaserCommands, ScanAmplitudeAndSoaDriveRampInSteps) {
  // Hold both loops while the sweep is taken away, so that they do not chase it.
  EXPECT_EQ(Cmd("#SET_AUTOBIAS 0"), "Autobias turned off.\n");
  EXPECT_EQ(Cmd("#SET_AUTO_SCAN_AMP 0"), "Auto-ScanAmp turned off.\n");
  // The scan loop clears ready at its next pass once it is off.
  EXPECT_TRUE(WaitFor([&] { return Cmd("#READY?") == "0"; }, std::chrono::seconds(2)));
  EXPECT_TRUE(CardShows([&] { return !Card().ReadyLed(); }));
  const std::string bias = Cmd("#GET_BIAS");
  const std::string amp = Cmd("#GET_SCAN_AMP");

  size_t from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SCAN_AMP 0"), "Scan amp set to 0.\n");
  EXPECT_EQ(Server->Sent(kScanAmpCode, from).back(), 0u);
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SCAN_AMP 2000"), "Scan amp set to 2000.\n");
  EXPECT_EQ(Server->Sent(kScanAmpCode, from), (Words{0, 500, 1000, 2000}));
  EXPECT_EQ(Cmd("#GET_SCAN_AMP"), "2000");
  from = Server->LogSize();
  Cmd("#SET_SCAN_AMP 0");
  EXPECT_EQ(Server->Sent(kScanAmpCode, from), (Words{2000, 1500, 1000, 0}));
  from = Server->LogSize();
  Cmd("#SET_SCAN_AMP 300");
  EXPECT_EQ(Server->Sent(kScanAmpCode, from), (Words{300}));
  EXPECT_TRUE(HasTag("#SET_SCAN_AMP = \"300\""));

  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SOA_DRIVE 31200"), "SOA drive set to 31200.\n");
  EXPECT_EQ(Server->Sent(kSoaDriveCode, from), (Words{30000, 30500, 31200}));
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SOA_DRIVE 30000"), "SOA drive set to 30000.\n");
  EXPECT_EQ(Server->Sent(kSoaDriveCode, from), (Words{31200, 30700, 30000}));
  EXPECT_EQ(Cmd("#GET_SOA_DRIVE"), "30000");

  // The bias is sent as given and not saved.
  EXPECT_EQ(Cmd("#SET_BIAS 70000"), "Bias set to 4464.\n");
  EXPECT_FALSE(HasTagOf("#SET_BIAS"));

  Cmd("#SET_SCAN_AMP " + amp);
  Cmd("#SET_BIAS " + bias);
  EXPECT_EQ(Cmd("#SET_AUTOBIAS 1"), "Autobias turned on.\n");
  EXPECT_EQ(Cmd("#SET_AUTO_SCAN_AMP 1"), "Auto-ScanAmp turned on.\n");
  EXPECT_TRUE(WaitReady(Client));
}

TEST_F(LaserCommands, RatesDividersAndOperatingMode) {
  EXPECT_EQ(Cmd("#GET_DEVICE_MAX_SCAN_RATE"), "1000.00");
  EXPECT_EQ(Cmd("#SET_MIN_DATA_RATE_DIVIDER 2"), "Setting Min data rate divider to 2.\n");
  EXPECT_EQ(Cmd("#GET_USER_MAX_SCAN_RATE"), "500.00");
  EXPECT_EQ(Cmd("#GET_DATA_RATE_DIVIDER"), "1");
  EXPECT_TRUE(CardShows([&] { return Card().Applied().DataRateDivider == 2; }));

  // While the card runs behind a minimum divider it cannot hand its rate to a master.
  EXPECT_EQ(Cmd("#SET_OPERATING_MODE 1"), "!Function Unavailable.");
  EXPECT_EQ(Cmd("#GET_OPERATING_MODE"), "0");
  EXPECT_FALSE(HasTagOf("#SET_OPERATING_MODE"));

  // The client's divider stays as given, the card's is the product.
  size_t from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_DATA_RATE_DIVIDER 3"), "data rate divider set to 3.\n");
  EXPECT_EQ(Server->Sent(kDataRateDividerCode, from), Words{6});
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_MIN_DATA_RATE_DIVIDER 0"), "Setting Min data rate divider to 1.\n");
  EXPECT_EQ(Cmd("#GET_MIN_DATA_RATE_DIVIDER"), "1");
  EXPECT_EQ(Cmd("#GET_DATA_RATE_DIVIDER"), "3");
  EXPECT_EQ(Server->Sent(kDataRateDividerCode, from), Words{3});
  EXPECT_TRUE(HasTag("#SET_MIN_DATA_RATE_DIVIDER = \"0\""));

  EXPECT_EQ(Cmd("#SET_OPERATING_MODE 0"), "Setting Operating mode to 0.\n");
  EXPECT_TRUE(HasTag("#SET_OPERATING_MODE = \"0\""));
  EXPECT_EQ(Cmd("#SET_DATA_RATE_DIVIDER 1"), "data rate divider set to 1.\n");

  // The hardware clock divider: only 1 or 2.
  EXPECT_EQ(Cmd("#SET_HWCLK_DIVIDER 3"), "!Invalid argument.  Valid values are 1 or 2.\n");
  EXPECT_FALSE(HasTagOf("#SET_HWCLK_DIVIDER"));
  EXPECT_EQ(Cmd("#SET_HWCLK_DIVIDER 2"), "Setting HwClk divider to 2.\n");
  EXPECT_EQ(Cmd("#GET_HWCLK_DIVIDER"), "1");
  EXPECT_EQ(Cmd("#GET_DEVICE_MAX_SCAN_RATE"), "500.00");
  EXPECT_TRUE(CardShows([&] { return Card().Applied().bClockDivider; }));
  EXPECT_EQ(Cmd("#SET_HWCLK_DIVIDER 1"), "Setting HwClk divider to 1.\n");
  EXPECT_EQ(Cmd("#GET_HWCLK_DIVIDER"), "0");

  // Capabilities: full spectrum, distance measurement, 2 kHz sweeps.
  const bool locMeas = S().bLocMeasEnable;
  S().bLocMeasEnable = false;
  EXPECT_EQ(Cmd("#SET_ZOR_FS_ENABLE 0"), "FS Mode Disabled.\n");
  EXPECT_EQ(Cmd("#SET_2KHZ_MODE 1"), "2khz operation enabled.\n");
  EXPECT_EQ(Cmd("#GET_CAPABILITIES"), "4");
  EXPECT_EQ(Cmd("#GET_DEVICE_MAX_SCAN_RATE"), "2000.00");
  EXPECT_EQ(Cmd("#SET_2KHZ_MODE 0"), "2khz operation disabled.\n");
  EXPECT_EQ(Cmd("#SET_ZOR_FS_ENABLE 1"), "FS Mode Enabled.\n");
  EXPECT_EQ(Cmd("#GET_CAPABILITIES"), "1");
  S().bLocMeasEnable = locMeas;

  // Levels that are not a multiplexer level select level 1.
  EXPECT_EQ(Cmd("#SET_MUX_LEVEL 3"), "Mux Level Set to 1.\n");
  EXPECT_EQ(Cmd("#GET_MUX_LEVEL"), "1");
  EXPECT_TRUE(WaitReady(Client));
}

TEST_F(LaserCommands, LoopSettingsRangesAndClamps) {
  EXPECT_EQ(Cmd("#SET_GRATING_TARGET_LOCATION 0.25"), "Target Location set to 0.250000.\n");
  EXPECT_EQ(S().GratingTargetLocationCounts, 16384);
  for (const char* bad : {"1.0", "0", "-0.5", "nan", "abc"}) {
    EXPECT_EQ(Cmd(std::string("#SET_GRATING_TARGET_LOCATION ") + bad), "!Invalid:  Legal range is {0.0 to 1.0}.\n")
        << bad;
    EXPECT_EQ(Cmd("#GET_GRATING_TARGET_LOCATION"), "0.250000");
  }
  EXPECT_TRUE(HasTag("#SET_GRATING_TARGET_LOCATION = \"0.25\""));
  EXPECT_EQ(Cmd("#SET_GRATING_TARGET_LOCATION 0.5"), "Target Location set to 0.500000.\n");

  EXPECT_EQ(Cmd("#SET_AUTO_SCAN_SPAN 1"), "!Invalid parameter:  Legal range is {0.0 to 1.0}.\n");
  EXPECT_EQ(Cmd("#GET_AUTO_SCAN_SPAN"), "0.700000");
  EXPECT_EQ(S().AutoScanTargetCounts, 45875);

  // Sixteen-bit fields keep the low 16 bits.
  EXPECT_EQ(Cmd("#SET_MAX_BIAS_ERROR 65556"), "Max bias error set to 20.\n");
  EXPECT_EQ(Cmd("#GET_MAX_BIAS_ERROR"), "20");
  // Once acquisition runs, the initial bias no longer moves the loops' fall-back bias.
  EXPECT_EQ(Cmd("#GET_INITIAL_BIAS"), "28440");
  EXPECT_EQ(S().Bias, 28440);
  EXPECT_EQ(Cmd("#SET_INITIAL_BIAS 28500"), "Initial bias set to 28500.\n");
  EXPECT_EQ(Cmd("#GET_INITIAL_BIAS"), "28500");
  EXPECT_EQ(S().Bias, 28440);
  EXPECT_EQ(Cmd("#SET_INITIAL_BIAS 28440"), "Initial bias set to 28440.\n");

  EXPECT_EQ(Cmd("#SET_PEAK_AMP_BUF_DEPTH 500"), "Setting Peak Amplitude Buffer Depth to 128.\n");
  EXPECT_EQ(Cmd("#GET_PEAK_AMP_BUF_DEPTH"), "128");

  // Switch-down: dividers above 9 share entry 9; divider 0 reads entry 1.
  EXPECT_EQ(Cmd("#SET_AUTO_SWITCHDOWN 12 300"), "Setting sensor count auto-switchdown for DataRateDivider 9 to 300");
  EXPECT_EQ(Cmd("#GET_AUTO_SWITCHDOWN 9"), "300");
  EXPECT_EQ(Cmd("#GET_AUTO_SWITCHDOWN 40"), "300");
  EXPECT_EQ(Cmd("#GET_AUTO_SWITCHDOWN 0"), "500");
  EXPECT_EQ(S().SwitchdownLimit[9], 300);
  EXPECT_TRUE(HasTag("#SET_AUTO_SWITCHDOWN = \"12 300\""));
  Cmd("#SET_AUTO_SWITCHDOWN 3 1600");
  EXPECT_TRUE(HasTag("#SET_AUTO_SWITCHDOWN = \"12 300\""));  // one tag per divider given
  EXPECT_TRUE(HasTag("#SET_AUTO_SWITCHDOWN = \"3 1600\""));
  Cmd("#SET_AUTO_SWITCHDOWN 9 4500");
  Cmd("#SET_AUTO_SWITCHDOWN 3 1500");
  EXPECT_EQ(Cmd("#SET_SWITCHDOWN_ENABLE 0"), "Auto SwitchDown disabled.\n");
  EXPECT_EQ(Cmd("#GET_SWITCHDOWN_ENABLE"), "0");

  EXPECT_EQ(Cmd("#SET_FS_WVL_OFFSET_NM 0.123456"), "Setting FS Wvl Offset to 0.12346 nm.\n");
  EXPECT_EQ(Cmd("#GET_FS_WVL_OFFSET_NM"), "0.12346");
  Cmd("#SET_FS_WVL_OFFSET_NM 0");
  EXPECT_TRUE(WaitReady(Client));
}

TEST_F(LaserCommands, SyncOutputFollowsCountsOrWavelengths) {
  EXPECT_EQ(Cmd("#SET_SYNC_CTRL_MODE 2"), "!Illegal sync cntrl value.\n");
  EXPECT_EQ(Cmd("#GET_SYNC_CTRL_MODE"), "0");
  EXPECT_FALSE(HasTagOf("#SET_SYNC_CTRL_MODE"));

  // Mode 0: counts go straight to the card.
  size_t from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SYNC_LO_COUNT 60000"), "Sync lo count set to 60000.\n");
  EXPECT_EQ(Server->Sent(kSyncLoCode, from), Words{60000});

  // Mode 1: the stored count waits; the acquisition loop drives the edges from wavelengths.
  EXPECT_EQ(Cmd("#SET_SYNC_CTRL_MODE 1"), "Sync cntrl mode set to 1.\n");
  const std::string hi = Cmd("#SET_SYNC_HI_WVL 1545");
  int hiCounts = 0;
  ASSERT_EQ(std::sscanf(hi.c_str(), "Sync hi wvl set to 1545.000000 [%d counts].\n", &hiCounts), 1) << hi;
  EXPECT_EQ(hi, "Sync hi wvl set to 1545.000000 [" + std::to_string(hiCounts) + " counts].\n");
  EXPECT_GT(hiCounts, 1000);
  EXPECT_LT(hiCounts, 64000);
  const std::string lo = Cmd("#SET_SYNC_LO_WVL 1550.5");
  EXPECT_EQ(lo.substr(0, 29), "Sync lo wvl set to 1550.50000") << lo;
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SYNC_HI_COUNT 100"), "Sync hi count set to 100.\n");
  EXPECT_EQ(Cmd("#GET_SYNC_HI_COUNT"), "100");
  EXPECT_TRUE(CardShows([&] { return std::abs(int(Card().Applied().SyncHiCount) - hiCounts) <= 3; }))
      << Card().Applied().SyncHiCount << " vs " << hiCounts;
  for (uint32_t w : Server->Sent(kSyncHiCode, from)) EXPECT_NE(w, 100u);
  EXPECT_EQ(Cmd("#GET_SYNC_HI_WVL"), "1545.000000");
  EXPECT_EQ(Cmd("#GET_SYNC_LO_WVL"), "1550.500000");

  // Back to mode 0: the stored counts are sent at once.
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SYNC_CTRL_MODE 0"), "Sync cntrl mode set to 0.\n");
  const Words hiSent = Server->Sent(kSyncHiCode, from), loSent = Server->Sent(kSyncLoCode, from);
  EXPECT_NE(std::find(hiSent.begin(), hiSent.end(), 100u), hiSent.end());
  EXPECT_NE(std::find(loSent.begin(), loSent.end(), 60000u), loSent.end());
  EXPECT_TRUE(CardShows([&] { return Card().Applied().SyncHiCount == 100; }));
  EXPECT_TRUE(HasTag("#SET_SYNC_CTRL_MODE = \"0\""));
}

TEST_F(LaserCommands, SoaWindowInWavelengths) {
  // Far above the sweep's short-wavelength end: no count on this sweep.
  EXPECT_EQ(Cmd("#SET_SOA_ON_WVL 1400"), "!Wavelength out of range.");
  EXPECT_EQ(Cmd("#GET_SOA_ON_WVL"), "0.000000");
  EXPECT_FALSE(HasTagOf("#SET_SOA_ON_WVL"));

  size_t from = Server->LogSize();
  const std::string on = Cmd("#SET_SOA_ON_WVL 1545.5");
  int counts = 0;
  ASSERT_EQ(std::sscanf(on.c_str(), "SOA on wvl set to 1545.500000 [count value %d].\n", &counts), 1) << on;
  EXPECT_GT(counts, 0);
  EXPECT_EQ(Server->Sent(kSoaOnCountCode, from), Words{uint32_t(counts)});
  EXPECT_EQ(Cmd("#GET_SOA_ON_WVL"), "1545.500000");
  EXPECT_EQ(Cmd("#GET_SOA_ON_COUNT"), std::to_string(counts));
  // A wavelength the count cannot represent is refused and leaves the window as it was, so the
  // window can always be set back.
  from = Server->LogSize();
  EXPECT_EQ(Cmd("#SET_SOA_ON_WVL -1"), "!Wavelength out of range.");
  EXPECT_EQ(Cmd("#SET_SOA_ON_WVL nan"), "!Illegal parameters.  Not a finite number: nan.\n");
  EXPECT_TRUE(Server->Sent(kSoaOnCountCode, from).empty());
  EXPECT_EQ(Cmd("#GET_SOA_ON_WVL"), "1545.500000");
  EXPECT_EQ(Cmd("#SET_SOA_ON_COUNT 131073"), "SOA on count set to 1.\n");  // 17 bits
  EXPECT_EQ(Cmd("#SET_SOA_ON_COUNT 0"), "SOA on count set to 0.\n");
  EXPECT_TRUE(WaitReady(Client));
}

TEST_F(LaserCommands, AnalogOutputs) {
  EXPECT_EQ(Cmd("#SET_AVO_CHANNEL 1 6"), "Referencing AVO Ch 1 to optical Ch 6.\n");
  EXPECT_EQ(Cmd("#GET_AVO_CHANNEL 1"), "2.2");
  EXPECT_EQ(Cmd("#SET_AVO_CHANNEL 2 3.1"), "Referencing AVO Ch 2 to optical Ch 3.1.\n");
  EXPECT_EQ(Cmd("#GET_AVO_CHANNEL 2"), "3.1");
  EXPECT_EQ(Cmd("#SET_AVO_CHANNEL 7 1"),
            "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and optical Ch# 1 to 4.\n");
  EXPECT_EQ(Cmd("#SET_AVO_CHANNEL 1 1.5"),
            "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and optical Ch# 1.1 to 4.1.\n");
  EXPECT_EQ(Cmd("#GET_AVO_CHANNEL 0"), "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6.\n");
  EXPECT_TRUE(HasTag("#SET_AVO_CHANNEL = \"2 3.1\""));  // one tag per output
  EXPECT_TRUE(HasTag("#SET_AVO_CHANNEL = \"1 6\""));

  EXPECT_EQ(Cmd("#SET_AVO_SENSOR 3 250"), "Referencing AVO Ch 3 to optical sensor 250.\n");
  EXPECT_EQ(Cmd("#GET_AVO_SENSOR 3"), "250");
  EXPECT_EQ(Cmd("#SET_AVO_SENSOR 3 251"),
            "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and sensor# 1 to 250.\n");
  // A sensor that has no values yet gives the averaging store's empty mark.
  EXPECT_EQ(Cmd("#SET_AVO_REFERENCE 3"), "Setting AVO Ch 3 reference loc to -2147.483648.\n");
  EXPECT_EQ(Cmd("#GET_AVO_REFERENCE 3"), "-2147.483648");
  EXPECT_EQ(S().AvoReference[2], -2147483648.0);
  EXPECT_FALSE(HasTagOf("#SET_AVO_REFERENCE "));
  EXPECT_EQ(Cmd("#SET_AVO_SENSOR 3 3"), "Referencing AVO Ch 3 to optical sensor 3.\n");

  EXPECT_EQ(Cmd("#SET_AVO_SCALING_FACTOR 4 250.5"), "Setting AVO Ch 4 scaling factor to 250.500000.\n");
  EXPECT_EQ(Cmd("#GET_AVO_SCALING_FACTOR 4"), "250.500000");
  EXPECT_EQ(Cmd("#SET_AVO_REFERENCE_VOUT 4 0.25"), "Setting AVO Ch 4 scaling factor to 0.250000.\n");
  EXPECT_EQ(Cmd("#GET_AVO_REFERENCE_VOUT 4"), "0.250000");
  EXPECT_EQ(Cmd("#SET_AVO_REFERENCE_VOUT 4 1.5"),
            "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to 6 and Reference Voltage from 0.0 to 1.0.\n");
  EXPECT_EQ(Cmd("#GET_AVO_REFERENCE_VOUT 4"), "0.250000");
  EXPECT_EQ(Cmd("#SET_ANALOG_VOUT 2 300"), "User analog Vout[2] set to 300.\n");
}

TEST_F(LaserCommands, TriggerFanAndServiceSwitches) {
  EXPECT_EQ(Cmd("#SET_TRIG_START_EDGE 1"), "Trig Start Edge set to falling edge.\n");
  EXPECT_EQ(Cmd("#GET_TRIG_START_EDGE"), "1");
  EXPECT_EQ(Cmd("#SET_TRIG_START_EDGE 0"), "Trig Start Edge set to rising edge.\n");
  EXPECT_EQ(Cmd("#SET_TRIG_STOP_EDGE 7"), "Trig Stop Edge set to falling edge.\n");
  EXPECT_EQ(Cmd("#SET_TRIG_STOP_EDGE 0"), "Trig Stop Edge set to rising edge.\n");
  EXPECT_EQ(Cmd("#SET_TRIG_STOP_TYPE 2"), "Trig Stop Type set to 'Edge'.\n");
  EXPECT_EQ(Cmd("#GET_TRIG_STOP_TYPE"), "2");
  EXPECT_EQ(Cmd("#SET_TRIG_STOP_TYPE 0"), "Trig Stop Type set to '# Acquisitions'.\n");
  EXPECT_EQ(Cmd("#SET_TRIG_NUM_ACQ 16777217"), "Trigg acquisition set to 1 samples.\n");  // 24 bits
  EXPECT_EQ(Cmd("#GET_TRIG_NUM_ACQ"), "1");
  EXPECT_EQ(Cmd("#SET_AUTO_RETRIG 5"), "Auto-Retriggering enabled.\n");
  EXPECT_EQ(Cmd("#SET_AUTO_RETRIG 0"), "Auto-Retriggering disabled.\n");
  EXPECT_EQ(Cmd("#SET_EXT_SYNC_EDGE 0"), "Ext Sync Edge set to rising edge.\n");
  EXPECT_EQ(Cmd("#SET_EXT_SYNC_EDGE 1"), "Ext Sync Edge set to falling edge.\n");
  EXPECT_EQ(Cmd("#GET_EXT_SYNC_EDGE"), "1");
  EXPECT_EQ(Cmd("#SET_EXT_SYNC_EDGE 0"), "Ext Sync Edge set to rising edge.\n");

  // Software-triggered acquisition: the card opens a window on the software start and keeps
  // it open until stopped (an acquisition count of 0).
  EXPECT_EQ(Cmd("#SET_TRIG_NUM_ACQ 0"), "Trigg acquisition set to 0 samples.\n");
  EXPECT_EQ(Cmd("#SET_TRIG_MODE 1"), "Setting triggering mode to 1.\n");
  EXPECT_EQ(Cmd("#GET_TRIG_MODE"), "1");
  EXPECT_EQ(Cmd("#SW_TRIG_START"), "Start of Acquisition Triggered.\n");
  EXPECT_TRUE(CardShows([&] { return Card().TriggerState() == sim::ETriggerState::Window; }));
  EXPECT_EQ(Cmd("#SW_TRIG_STOP"), "Stopping Triggered Acquisition.\n");
  EXPECT_EQ(Cmd("#SET_TRIG_MODE 0"), "Setting triggering mode to 0.\n");
  EXPECT_TRUE(HasTag("#SET_TRIG_MODE = \"0\""));

  // Fan control temperatures are kept inside 1-150 degC.
  EXPECT_EQ(Cmd("#SET_FAN1_CONTROL_TEMP 200"), "Fan1 Control Temp set to 150.\n");
  EXPECT_EQ(Cmd("#SET_FAN2_CONTROL_TEMP 0"), "Fan2 Control Temp set to 1.\n");
  EXPECT_EQ(Cmd("#SET_FAN1_CONTROL_TEMP 30"), "Fan1 Control Temp set to 30.\n");
  EXPECT_EQ(Cmd("#SET_FAN2_CONTROL_TEMP 40"), "Fan2 Control Temp set to 40.\n");
  EXPECT_EQ(Cmd("#SET_FAN1_TEMP_HYSTERESIS 4"), "Fan1 Temp Hysteresis set to 4.\n");
  EXPECT_EQ(Cmd("#GET_FAN1_TEMP_HYSTERESIS"), "4");

  EXPECT_EQ(Cmd("#SET_FPGA_DEBUG 16777217"), "Setting FPGA Debug to 1.\n");
  EXPECT_EQ(Cmd("#GET_FPGA_DEBUG"), "1\n");
  EXPECT_EQ(Cmd("#SET_FPGA_DEBUG 0"), "Setting FPGA Debug to 0.\n");
  EXPECT_FALSE(HasTagOf("#SET_FPGA_DEBUG"));
  EXPECT_EQ(Cmd("#SET_SWAP_P68_P155 1"), "Swap P68 & P155 set to true.\n");
  EXPECT_EQ(Cmd("#SET_SWAP_P68_P155 0"), "Swap P68 & P155 set to false.\n");
  EXPECT_EQ(Cmd("#SET_TEST_SYNC_OUTPUT_DIVIDER 7"), "Test Sync Output divider set to 7.\n");
  EXPECT_EQ(Cmd("#GET_TEST_SYNC_OUTPUT_DIVIDER"), "7");
  EXPECT_EQ(Cmd("#SET_TEST_SYNC_OUTPUT_DIVIDER 0"), "Test Sync Output divider set to 0.\n");
  EXPECT_EQ(Cmd("#SET_PZT_SYNC_OFFSET 123"), "PZT sync offset set to 123.\n");
  EXPECT_EQ(Cmd("#GET_PZT_SYNC_OFFSET"), "123");
  EXPECT_EQ(Cmd("#ENABLE_SOA 1"), "SOA enabled.\n");
  EXPECT_EQ(Cmd("#ENABLE_DMA 1"), "DMA Enabled.\n");
  EXPECT_TRUE(WaitReady(Client));
}

TEST_F(LaserCommands, WrongArgumentCountsAreInvalidAndChangeNothing) {
  const std::string amp = Cmd("#GET_SCAN_AMP");
  EXPECT_EQ(Cmd("#SET_SCAN_AMP"), "!Invalid command or argument: #SET_SCAN_AMP .");
  EXPECT_EQ(Cmd("#SET_SCAN_AMP 1 2"), "!Invalid command or argument: #SET_SCAN_AMP 1 2.");
  EXPECT_EQ(Cmd("#GET_SCAN_AMP 1"), "!Invalid command or argument: #GET_SCAN_AMP 1.");
  EXPECT_EQ(Cmd("#SET_AUTO_SWITCHDOWN 3"), "!Invalid command or argument: #SET_AUTO_SWITCHDOWN 3.");
  EXPECT_EQ(Cmd("#SET_AVO_CHANNEL 1"), "!Invalid command or argument: #SET_AVO_CHANNEL 1.");
  EXPECT_EQ(Cmd("#GET_SCAN_AMP"), amp);
  // Text that is no number reads 0.
  EXPECT_EQ(Cmd("#SET_PEAK_AMP_SEARCH_WND abc"), "Setting Peak Amplitude Search Window Size to 0.\n");
  EXPECT_EQ(Cmd("#SET_PEAK_AMP_SEARCH_WND 1"), "Setting Peak Amplitude Search Window Size to 1.\n");
}

}  // namespace
