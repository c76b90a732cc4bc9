// Saving and loading the settings data files (formats in SettingsFiles.h) and the
// identification file.
#include "settings/SettingsFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string_view>
#include <vector>

#include "host/Host.h"
#include "server/Vr480Server.h"
#include "settings/SettingsWrite.h"

namespace {

constexpr int kTableEntries = kLogicalChannels * kSensorsPerChannel;  // lines of the per-sensor files
// The last gain code of each table is never stored: the files have always held 65535 entries.
constexpr int kStoredGainCodes = kGainCodes - 1;
constexpr size_t kGainFileBytes = size_t{kOpticalChannels} * kStoredGainCodes * 4;
constexpr size_t kMaxLineChars = 99;      // longest line the reader takes
constexpr int kDbShortLastIndex = 201;    // the short dB table form ends here
constexpr int kDbLongLastIndex = kDbTableEntries - 1;

// ---- Text of the files ------------------------------------------------------------------------

// One value per line, channel-major, as all three per-sensor files are laid out.
template <class Format>
std::string SensorTableText(Format&& format) {
  std::string text;
  text.reserve(kTableEntries * 12);
  char buf[40];
  for (int ch = 0; ch < kLogicalChannels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s) {
      const std::to_chars_result r = format(buf, buf + sizeof buf, ch, s);
      text.append(buf, r.ptr);
      text += '\n';
    }
  return text;
}

// "%.9g" in the "C" convention: std::to_chars is defined as printf in the "C" locale, whatever
// locale the process runs in.
std::to_chars_result NineDigits(char* first, char* last, double value) {
  return std::to_chars(first, last, value, std::chars_format::general, 9);
}

void SaveFile(const char* name, const char* what, std::string_view content) {
  switch (ReplaceFileAtomically(Host().Path(name), content)) {
    case EFileWrite::kOk:
      return;
    case EFileWrite::kOpenFailed:
      std::printf("Error opening %s File.\n", what);
      return;
    case EFileWrite::kWriteFailed:
      std::printf("Error writing %s File.\n", what);
      return;
  }
}

// ---- Reading ----------------------------------------------------------------------------------

// Only a regular file counts: a directory of the same name would open and read as empty.
bool ReadWholeFile(const std::string& path, std::string* content) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  content->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// The lines of a text file without their LF. Blank lines at the end are dropped: an editor
// that leaves an empty last line must not make the file malformed.
std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  while (!lines.empty() && lines.back().find_first_not_of(" \t\r") == std::string_view::npos) lines.pop_back();
  return lines;
}

std::string_view Trim(std::string_view s) {
  const size_t first = s.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// A table file being read: its name for messages and the reason the current line was refused.
struct SLineReader {
  const char* File;
  std::string Why;

  bool CheckLength(std::string_view line) {
    if (line.size() <= kMaxLineChars) return true;
    Why = "is longer than 99 characters";
    return false;
  }

  // A whole number in [min, max], optionally signed; no fraction, no trailing text.
  bool Integer(std::string_view line, long long min, long long max, long long* value) {
    if (!CheckLength(line)) return false;
    std::string_view t = Trim(line);
    if (!t.empty() && t[0] == '+') t.remove_prefix(1);
    long long v = 0;
    const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
    if (t.empty() || r.ec == std::errc::invalid_argument || r.ptr != t.data() + t.size()) {
      Why = "is not a whole number";
      return false;
    }
    if (r.ec == std::errc::result_out_of_range || v < min || v > max) {
      Why = "is out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")";
      return false;
    }
    *value = v;
    return true;
  }

  bool Real(std::string_view line, double* value) {
    if (!CheckLength(line)) return false;
    std::string_view t = Trim(line);
    if (!t.empty() && t[0] == '+') t.remove_prefix(1);
    double v = 0;
    const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
    if (t.empty() || r.ec != std::errc() || r.ptr != t.data() + t.size() || !std::isfinite(v)) {
      Why = "is not a finite number";
      return false;
    }
    *value = v;
    return true;
  }

  void Refuse(size_t index, std::string_view line) const {
    const bool cut = line.size() > 40;
    std::printf("Error in %s, line %zu: \"%.*s%s\" %s. The file is ignored.\n", File, index + 1,
                static_cast<int>(cut ? 40 : line.size()), line.data(), cut ? "..." : "", Why.c_str());
  }
};

// Reads the per-sensor values of a table file: at most kTableEntries lines, each checked by
// `parse`; lines beyond the end of the file stay `fill`. False (after the message) when a line
// is malformed.
template <class T, class Parse>
bool ReadSensorTable(SLineReader& reader, std::string_view text, T fill, Parse&& parse, std::vector<T>* values) {
  const std::vector<std::string_view> lines = SplitLines(text);
  values->assign(kTableEntries, fill);
  const size_t n = std::min(lines.size(), static_cast<size_t>(kTableEntries));
  for (size_t i = 0; i < n; ++i) {
    if (!parse(lines[i], &(*values)[i])) {
      reader.Refuse(i, lines[i]);
      return false;
    }
  }
  return true;
}

// The stored form of a reference is unsigned; the table holds the same 32 bits as a signed
// value. Negative numbers are taken too, for files written by hand.
bool ParseReference(SLineReader& reader, std::string_view line, int32_t* out) {
  long long v = 0;
  if (!reader.Integer(line, INT32_MIN, UINT32_MAX, &v)) return false;
  *out = static_cast<int32_t>(static_cast<uint32_t>(v));
  return true;
}

bool ParseU16(SLineReader& reader, std::string_view line, uint16_t* out) {
  long long v = 0;
  if (!reader.Integer(line, 0, UINT16_MAX, &v)) return false;
  *out = static_cast<uint16_t>(v);
  return true;
}

uint32_t LittleEndian32(const unsigned char* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

// ---- Saving --------------------------------------------------------------------------------------

int CVr480Server::SaveSettings() {
  // A failed remount is reported but the save goes on: on a file system that happens to be
  // writable already the files still get written.
  CSettingsWriteBracket bracket;
  TagManager.SaveTags(Host().Path(std::string("/vr480/") + kSettingsName));
  std::printf("Setting saved.\n");

  SaveFile("references.dat", "references", SensorTableText([this](char* first, char* last, int ch, int s) {
             return std::to_chars(first, last, static_cast<uint32_t>(SensorReferences[ch][s]));
           }));
  SaveFile("locations.dat", "locations", SensorTableText([this](char* first, char* last, int ch, int s) {
             return NineDigits(first, last, SensorDistances[ch][s]);
           }));
  SaveFile("averages.dat", "averages", SensorTableText([this](char* first, char* last, int ch, int s) {
             return std::to_chars(first, last, SensorAverages[ch][s]);
           }));

  std::string db;
  db.reserve(kOpticalChannels * kDbTableEntries * 6);
  char buf[8];
  for (int t = 0; t < kOpticalChannels; ++t)
    for (int i = 0; i < kDbTableEntries; ++i) {
      db.append(buf, std::to_chars(buf, buf + sizeof buf, Db2Counts[t][i]).ptr);
      db += '\n';
    }
  SaveFile("db2counts.dat", "db2counts", db);

  bracket.Close();
  return 0;
}

int CVr480Server::SaveWvlGains() {
  CSettingsWriteBracket bracket;
  std::string bytes;
  bytes.reserve(kGainFileBytes);
  for (int t = 0; t < kOpticalChannels; ++t)
    for (int code = 0; code < kStoredGainCodes; ++code) {
      const uint32_t v = GainWvlOffset[t][code];
      const char entry[4] = {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                             static_cast<char>(v >> 24)};
      bytes.append(entry, sizeof entry);
    }
  SaveFile("gain_wvl_offsets.dat", "gain wvl offsets", bytes);
  bracket.Close();
  return 0;
}

// ---- Loading ------------------------------------------------------------------------------------

// Clients may already be connected while start-up loads the tables; holding the settings lock
// keeps a save from writing half-loaded tables.
void CVr480Server::LoadSettingsDataFiles() {
  std::lock_guard<std::mutex> guard(SettingsFileLock());
  std::string text;

  if (!ReadWholeFile(Host().Path("locations.dat"), &text)) {
    std::printf("Error opening locations file.\n");
  } else {
    SLineReader reader{"locations.dat", {}};
    std::vector<double> values;
    if (ReadSensorTable(reader, text, 0.0, [&](std::string_view l, double* v) { return reader.Real(l, v); },
                        &values)) {
      for (int i = 0; i < kTableEntries; ++i) SensorDistances[i / kSensorsPerChannel][i % kSensorsPerChannel] = values[i];
      std::printf("Locations data loaded.\n");
    }
  }

  if (!ReadWholeFile(Host().Path("references.dat"), &text)) {
    std::printf("Error opening reference file.\n");
  } else {
    SLineReader reader{"references.dat", {}};
    std::vector<int32_t> values;
    if (ReadSensorTable(reader, text, int32_t{0},
                        [&](std::string_view l, int32_t* v) { return ParseReference(reader, l, v); }, &values)) {
      for (int i = 0; i < kTableEntries; ++i) SensorReferences[i / kSensorsPerChannel][i % kSensorsPerChannel] = values[i];
      std::printf("References data loaded.\n");
    }
  }

  // Averages go through the setter, which sizes each sensor's running average. A count of 0
  // means "no preference" and, like a sensor the file does not reach, takes MinNumAverages (the
  // averaging store would otherwise raise it to 1 on its own).
  if (!ReadWholeFile(Host().Path("averages.dat"), &text)) {
    std::printf("Error opening averages file.\n");
  } else {
    SLineReader reader{"averages.dat", {}};
    std::vector<uint16_t> values;
    const uint16_t minimum = MinNumAverages;
    if (ReadSensorTable(reader, text, minimum, [&](std::string_view l, uint16_t* v) { return ParseU16(reader, l, v); },
                        &values)) {
      for (int i = 0; i < kTableEntries; ++i) {
        const auto ch = static_cast<uint8_t>(i / kSensorsPerChannel);
        const auto s = static_cast<uint16_t>(i % kSensorsPerChannel);
        SetNumAverages(ch, s, values[i] == 0 ? minimum : values[i]);
        if (GetNumAverages(ch, s) == 0) SetNumAverages(ch, s, MinNumAverages);
      }
      std::printf("Averages data loaded.\n");
    }
  }

  // A short gain file fills the entries it reaches; one that cannot be whole 4-byte entries of
  // the four tables is not this file at all.
  if (!ReadWholeFile(Host().Path("gain_wvl_offsets.dat"), &text)) {
    std::printf("Error opening wvl gain offsets file.\n");
  } else if (text.size() > kGainFileBytes || text.size() % 4 != 0) {
    std::printf("Error in gain_wvl_offsets.dat: %zu bytes, expected %zu. The file is ignored.\n", text.size(),
                kGainFileBytes);
  } else {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t entries = text.size() / 4;
    for (size_t e = 0; e < entries; ++e)
      GainWvlOffset[e / kStoredGainCodes][e % kStoredGainCodes] = LittleEndian32(p + 4 * e);
    if (text.size() < kGainFileBytes)
      std::printf("gain_wvl_offsets.dat holds %zu of %zu entries; the others are unchanged.\n", entries,
                  kGainFileBytes / 4);
    std::printf("Wvl gain offsets data loaded.\n");
  }

  // The dB table is cleared first, so a missing or refused file leaves it all 0. Its line
  // count tells the long form (402 indexes per table) from the short one (202); a missing file
  // counts as -1 line feeds, which gives the short form.
  for (auto& table : Db2Counts) std::fill(std::begin(table), std::end(table), uint16_t{0});
  const bool bDbOpened = ReadWholeFile(Host().Path("db2counts.dat"), &text);
  const long lineFeeds = bDbOpened ? static_cast<long>(std::count(text.begin(), text.end(), '\n')) : -1;
  const int last = lineFeeds / 4 < kDbLongLastIndex ? kDbShortLastIndex : kDbLongLastIndex;
  std::printf("DB2COUNTS_FILE contains %d entries.\n", last);
  if (!bDbOpened) {
    std::printf("Error opening db2counts file.\n");
  } else {
    SLineReader reader{"db2counts.dat", {}};
    const std::vector<std::string_view> lines = SplitLines(text);
    uint16_t values[kOpticalChannels][kDbTableEntries] = {};
    bool ok = true;
    size_t next = 0;
    for (int t = 0; ok && t < kOpticalChannels; ++t)
      for (int i = 0; ok && i <= last; ++i, ++next) {
        if (next >= lines.size()) break;
        if (!ParseU16(reader, lines[next], &values[t][i])) {
          reader.Refuse(next, lines[next]);
          ok = false;
        }
      }
    if (ok) {
      std::copy(&values[0][0], &values[0][0] + kOpticalChannels * kDbTableEntries, &Db2Counts[0][0]);
      std::printf("Db2Counts data loaded.\n");
    }
  }
  std::fflush(stdout);
}

// ---- Identification file -------------------------------------------------------------------------

int WriteInstID(const std::string& text) {
  CSettingsWriteBracket bracket;
  if (const int mount = bracket.MountStatus(); mount != 0) {
    bracket.Abandon();
    return -1;
  }

  // The command as the instrument has always shown it. "echo " and " > /vr480/instid" take 21
  // of the 99 characters, so the text is cut to 78: cutting the whole line instead would
  // drop the redirection and write nothing.
  constexpr std::string_view kEcho = "echo ";
  constexpr std::string_view kTarget = " > /vr480/instid";
  const std::string shown = text.substr(0, 99 - kEcho.size() - kTarget.size());
  const std::string command = std::string(kEcho) + shown + std::string(kTarget);
  std::printf("Executing command >>%s<<.\n", command.c_str());

  // What the unquoted echo prints: the words, one space apart, and a line feed.
  std::string content;
  size_t i = 0;
  while (true) {
    i = shown.find_first_not_of(" \t\n", i);
    if (i == std::string::npos) break;
    const size_t end = std::min(shown.find_first_of(" \t\n", i), shown.size());
    if (!content.empty()) content += ' ';
    content.append(shown, i, end - i);
    i = end;
  }
  content += '\n';
  // A failed redirection makes the shell's echo end with status 1.
  if (ReplaceFileAtomically(Host().Path("/vr480/instid"), content) != EFileWrite::kOk)
    std::printf("WARNING: >>%s<< returned %d.\n", command.c_str(), 1);

  return bracket.Close() == 0 ? 0 : -1;
}
