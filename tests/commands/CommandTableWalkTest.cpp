// Walks every row of the server's command table through a real client: argument counts no row
// accepts, and wild numbers (NaN, the infinities, values past every integer width) in every
// argument of every command, a setter read back through its getter. Whatever a client sends,
// a reply is one whole frame, no getter shows a NaN or an infinity, no card word overflows its
// field and the server goes on answering.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "protocol/CommandTable.h"

namespace {

using namespace laser_test;

// Commands the wild walk leaves alone: they end or restart the process, the network or the
// test machine, rewrite the card's identity or its bridge, or wait for the next record.
const std::set<std::string> kNotWalked = {
    "#QUIT!", "#SHUTDOWN", "#REBOOT", "#SYSTEM", "#DUMP_CORE",
    "#CLEAR_ZOR_DEVICE", "#BUILD_ZOR_DEVICE", "#WRITE_S5335_REGISTER", "#MEASURE_LOCATIONS", "#ENABLE_DMA",
    "#GET_DATA", "#GET_DATA_AND_LEVELS", "#GET_UNBUFFERED_DATA", "#GET_UNBUFFERED_DATA_AND_LEVELS",
    "#GET_SPECTRUM", "#GET_RAW_SPECTRUM", "#GET_WVL_LVL_CNTS",
    // A streaming client gets no ordinary replies: the walk could not read its getters.
    "#SET_STREAMING_DATA",
    // Text, not a number: the card's serial number in its NVRAM.
    "#SET_NVRAM_SN",
    // Answered once a spectrum of the new amplitude channel is out: up to 10 s each on a card
    // the walk has left idle.
    "#SET_ZOR_AMP_CH", "#SET_AMP_CH",
};
bool Walked(const std::string& name) {
  return !kNotWalked.count(name) && name.rfind("#UPLOAD", 0) != 0 && name.rfind("#DOWNLOAD", 0) != 0;
}

const std::vector<std::string> kWildNumbers = {"nan", "inf", "-inf", "1e999", "-1", "4294967296", "99999999999999999999"};

// Getters whose range the code states: whatever was sent, the value stays inside.
struct SRange {
  double Low, High;
};
const std::map<std::string, SRange> kStatedRanges = {
    {"#GET_LOWER_WVL_LIMIT", {500.0, 1e300}},  {"#GET_UPPER_WVL_LIMIT", {500.0, 1e300}},
    {"#GET_FBG_CHANNEL", {0, 5}},              {"#GET_ZOR_NUM_DUT_CHANNELS", {1, 4}},
    {"#GET_NUM_AVERAGES", {1, 10000}},         {"#GET_MIN_NUM_AVERAGES", {1, 10000}},
    {"#GET_GRANULARITY", {1, 2147483647.0}},   {"#GET_PEAK_AMP_BUF_DEPTH", {-2147483648.0, 128}},
    {"#GET_AUTO_SCAN_SPAN", {0, 1}},           {"#GET_GRATING_TARGET_LOCATION", {0, 1}},
    {"#GET_AVO_REFERENCE_VOUT", {0, 1}},       {"#GET_MIN_DATA_RATE_DIVIDER", {1, 65535}},
    {"#GET_MUX_LEVEL", {1, 4}},                {"#GET_DATA_INTERLEAVE", {1, 2147483647.0}},
};

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
  return s;
}
bool ShowsNonFinite(const std::string& text) {
  const std::string l = Lower(text);
  return l.find("nan") != std::string::npos || l.find("inf") != std::string::npos;
}
std::string Join(const std::vector<std::string>& args) {
  std::string text;
  for (const std::string& a : args) text += (text.empty() ? "" : " ") + a;
  return text;
}

class CommandTableWalk : public CSharedServerSuite<CommandTableWalk> {
 protected:

  // One command and its whole reply frame; a torn or missing frame fails the test and starts
  // a fresh connection, so that one fault does not hide behind the next.
  std::string Cmd(const std::string& line) {
    bool ok = false;
    std::string reply;
    if (Client.Send(line)) reply = Client.ReadFrame(&ok, std::chrono::seconds(30));
    if (!ok) {
      ADD_FAILURE() << "no whole reply frame to \"" << line << "\"";
      Client.Close();
      EXPECT_TRUE(Client.Connect(Server->Port()));
    }
    return reply;
  }
  void ExpectAnswers(const std::string& after) {
    EXPECT_EQ(Cmd("#IDN?").substr(0, 7), "Zorvane") << "after \"" << after << "\"";
  }

};

TEST_F(CommandTableWalk, ArgumentCountsNoRowTakesGetTheInvalidCommandReply) {
  struct SBounds {
    int Min = 1 << 30, Max = -1;
    bool bAny = false;
  };
  std::map<std::string, SBounds> names;
  for (const SCommandRow& row : Commands().All()) {
    SBounds& b = names[row.Name];
    if (row.MinArgs == kAnyArgs) b.bAny = true;
    b.Min = std::min(b.Min, row.MinArgs);
    b.Max = std::max(b.Max, row.MaxArgs);
  }
  for (const auto& [name, b] : names) {
    if (b.bAny) continue;
    std::vector<int> counts = {b.Max + 1};
    if (b.Min > 0) counts.push_back(b.Min - 1);
    for (int count : counts) {
      const std::string args = Join(std::vector<std::string>(static_cast<size_t>(count), "1"));
      const std::string line = args.empty() ? name : name + " " + args;
      EXPECT_EQ(Cmd(line), "!Invalid command or argument: " + name + " " + args + ".");
      ExpectAnswers(line);
    }
  }
}

TEST_F(CommandTableWalk, WildNumbersReachNoGetterAndNoCardWord) {
  size_t walked = 0;
  for (const SCommandRow& row : Commands().All()) {
    const std::string name = row.Name;
    if (row.MinArgs == kAnyArgs || row.MaxArgs < 1 || !Walked(name)) continue;
    const int count = std::max(row.MinArgs, 1);
    // Every command with arguments takes the walk; a setter is read back through its getter.
    const bool setter = name.rfind("#SET_", 0) == 0;
    const std::string getter = setter ? "#GET_" + name.substr(5) : "";
    const auto* getterRows = setter ? Commands().Find(getter) : nullptr;
    const int getterCount = getterRows ? std::max(getterRows->front()->MinArgs, 0) : 0;
    const bool soaWindow = name == "#SET_SOA_ON_WVL" || name == "#SET_SOA_OFF_WVL";

    for (int position = 0; position < count; ++position) {
      for (const std::string& wild : kWildNumbers) {
        std::vector<std::string> args(static_cast<size_t>(count), "1");
        args[static_cast<size_t>(position)] = wild;
        const std::string line = name + " " + Join(args);
        const size_t from = Server->LogSize();
        Cmd(line);
        ++walked;
        // A window count outside the measured half of the sweep never reaches the card.
        if (soaWindow) {
          for (uint8_t code : {kSoaOnCountCode, uint8_t{0x2E}})
            for (uint32_t n : Server->Sent(code, from)) EXPECT_TRUE(n >= 1 && n <= 65535) << line << " sent " << n;
        }
        if (getterRows) {
          std::vector<std::string> getterArgs(args.begin(), args.begin() + std::min(getterCount, count));
          getterArgs.resize(static_cast<size_t>(getterCount), "1");
          const std::string query = getterArgs.empty() ? getter : getter + " " + Join(getterArgs);
          const std::string value = Cmd(query);
          const bool refused = value.empty() || value[0] == '!';  // a refusal may echo the argument
          EXPECT_TRUE(refused || !ShowsNonFinite(value)) << line << " then " << query << " gives \"" << value << "\"";
          const auto range = kStatedRanges.find(getter);
          if (!refused && range != kStatedRanges.end()) {
            const double v = std::strtod(value.c_str(), nullptr);
            EXPECT_TRUE(v >= range->second.Low && v <= range->second.High)
                << line << " then " << query << " gives \"" << value << "\"";
          }
        }
        ExpectAnswers(line);
      }
    }
  }
  EXPECT_GT(walked, 500u);

  // No word overflowed its field on the card.
  for (uint8_t code : {kBiasCode, kScanAmpCode, kSoaDriveCode})
    for (uint32_t n : Server->Sent(code, 0)) EXPECT_LE(n, 0xFFFFu) << "code " << int{code};
  for (uint8_t code : {kSoaOnCountCode, uint8_t{0x2E}, kSyncHiCode, kSyncLoCode})
    for (uint32_t n : Server->Sent(code, 0)) EXPECT_LE(n, 0x1FFFFu) << "code " << int{code};
}

}  // namespace
