// Saving and loading the settings data files (formats in SettingsFiles.h) and the
// identification file.
#include "settings/SettingsFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>
#include <vector>

#include "host/Host.h"
#include "server/Vr480Server.h"
#include "settings/SettingsWrite.h"
#include "settings/TagManager.h"
#include "sim/SimCard.h"

namespace {

constexpr int kTableEntries = kLogicalChannels * kSensorsPerChannel;  // lines of the per-sensor files
// The last gain code of each table is never stored: the files have always held 65535 entries.
constexpr int kStoredGainCodes = kGainCodes - 1;
constexpr size_t kGainFileBytes = size_t{kOpticalChannels} * kStoredGainCodes * 4;
constexpr size_t kMaxLineChars = 99;              // longest line the reader takes
constexpr size_t kMaxTextFileBytes = 4u << 20;    // what is read of a text table at most
constexpr size_t kMaxTagFileBytes = 64u << 20;    // 65535 tags of 999 characters fit
constexpr int kDbShortLastIndex = 201;            // the short dB table form ends here
constexpr int kDbLongLastIndex = kDbTableEntries - 1;
constexpr size_t kListedBadLines = 10;            // line numbers named per file at most

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

// Writes one file of a save; a file that could not be written is named in `unwritten`.
void SaveFile(const char* name, const char* what, std::string_view content, std::string* unwritten) {
  const EFileWrite result = ReplaceFileAtomically(Host().Path(name), content);
  if (result == EFileWrite::kOk) return;
  std::printf(result == EFileWrite::kOpenFailed ? "Error opening %s File.\n" : "Error writing %s File.\n", what);
  if (!unwritten->empty()) *unwritten += ", ";
  *unwritten += name;
}

// ---- Reading ----------------------------------------------------------------------------------

// Reads at most `limit` bytes of a regular file into `content`. Anything else that bears the
// name (a directory, a FIFO that would block, a device that never ends) does not count. False
// with errno's reason in `why` when the file cannot be opened or read.
bool ReadFileHead(const std::string& path, size_t limit, std::string* content, std::string* why = nullptr) {
  content->clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (why) *why = std::strerror(errno);
    return false;
  }
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0;
  if (ok && !S_ISREG(st.st_mode)) {
    if (why) *why = S_ISDIR(st.st_mode) ? "it is a directory" : "it is not a regular file";
    ok = false;
  }
  char buf[65536];
  while (ok && content->size() < limit) {
    const ssize_t n = ::read(fd, buf, std::min(sizeof buf, limit - content->size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (why) *why = std::strerror(errno);
      ok = false;
    }
    if (n <= 0) break;
    content->append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return ok;
}

// The lines of a text file without their LF. Blank lines at the end are dropped: an editor
// that leaves an empty last line must not count as a bad line.
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

constexpr std::string_view kCWhite = " \t\n\v\f\r";  // what the C library's isspace() skips

// The position after the white space that the C library skips before a number.
size_t SkipWhite(std::string_view line) { return std::min(line.find_first_not_of(kCWhite), line.size()); }

bool OnlyWhiteFrom(std::string_view line, const char* at) {
  return line.substr(static_cast<size_t>(at - line.data())).find_first_not_of(kCWhite) == std::string_view::npos;
}

// strtoul(line, NULL, 10) of the line's first 99 characters: white space, an optional sign,
// decimal digits. A negative number wraps; an overflow gives the maximum; no digits give 0.
// True when the line is that number and nothing else.
bool CUnsigned(std::string_view line, uint64_t* value) {
  const bool bLong = line.size() > kMaxLineChars;
  line = line.substr(0, kMaxLineChars);
  size_t i = SkipWhite(line);
  bool bNegative = false;
  if (i < line.size() && (line[i] == '+' || line[i] == '-')) bNegative = line[i++] == '-';
  uint64_t v = 0;
  const std::from_chars_result r = std::from_chars(line.data() + i, line.data() + line.size(), v);
  if (r.ec == std::errc::invalid_argument) {
    *value = 0;
    return false;
  }
  const bool bOverflow = r.ec == std::errc::result_out_of_range;
  *value = bOverflow ? UINT64_MAX : bNegative ? 0 - v : v;
  return !bLong && !bOverflow && OnlyWhiteFrom(line, r.ptr);
}

// strtod(line, NULL) of the line's first 99 characters, in the "C" convention; infinite and
// NaN results read 0 (see SettingsFiles.h). True when the line is one finite number.
bool CReal(std::string_view line, double* value) {
  const bool bLong = line.size() > kMaxLineChars;
  line = line.substr(0, kMaxLineChars);
  size_t i = SkipWhite(line);
  // from_chars takes a minus sign but not a plus.
  if (i + 1 < line.size() && line[i] == '+' && line[i + 1] != '-') ++i;
  double v = 0;
  const std::from_chars_result r = std::from_chars(line.data() + i, line.data() + line.size(), v);
  if (r.ec != std::errc() || !std::isfinite(v)) {
    *value = 0;
    return false;
  }
  *value = v;
  return !bLong && OnlyWhiteFrom(line, r.ptr);
}

// The bad lines of one file, named on the console in one line.
class CBadLines {
 public:
  explicit CBadLines(const char* file) : File(file) {}
  void Add(size_t index) { Lines.push_back(index + 1); }
  void Report() const {
    if (Lines.empty()) return;
    if (Lines.size() == 1) {
      std::printf("%s: line %zu is not a number; read as the C library reads it.\n", File, Lines[0]);
      return;
    }
    std::string list;
    for (size_t k = 0; k < Lines.size() && k < kListedBadLines; ++k) {
      if (k > 0) list += ", ";
      list += std::to_string(Lines[k]);
    }
    if (Lines.size() > kListedBadLines) list += " and " + std::to_string(Lines.size() - kListedBadLines) + " more";
    std::printf("%s: lines %s are not numbers; read as the C library reads them.\n", File, list.c_str());
  }

 private:
  const char* File;
  std::vector<size_t> Lines;  // 1-based
};

// One line of a table: the value as the C library reads it; the line is bad unless it is one
// number that fits the entry.
int32_t ReadReference(std::string_view line, bool* bClean) {
  uint64_t v = 0;
  // Negative references written by hand are taken as the same 32 bits.
  *bClean = CUnsigned(line, &v) && (v <= UINT32_MAX || v >= uint64_t{0} - (uint64_t{1} << 31));
  return static_cast<int32_t>(static_cast<uint32_t>(v));
}

uint16_t ReadU16(std::string_view line, bool* bClean) {
  uint64_t v = 0;
  *bClean = CUnsigned(line, &v) && v <= UINT16_MAX;
  return static_cast<uint16_t>(v);
}

double ReadDistance(std::string_view line, bool* bClean) {
  double v = 0;
  *bClean = CReal(line, &v);
  return v;
}

// Reads `count` entries from the lines starting at `first`: entry k from line first + k through
// `read`, or `fill` once the lines run out. Bad lines go to `bad`.
template <class T, class Read>
std::vector<T> ReadEntries(const std::vector<std::string_view>& lines, size_t first, size_t count, T fill,
                           CBadLines& bad, Read&& read) {
  std::vector<T> values(count, fill);
  for (size_t k = 0; k < count && first + k < lines.size(); ++k) {
    bool bClean = true;
    values[k] = read(lines[first + k], &bClean);
    if (!bClean) bad.Add(first + k);
  }
  return values;
}

uint32_t LittleEndian32(const unsigned char* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

// ---- Saving --------------------------------------------------------------------------------------

int CVr480Server::SaveSettings(std::string* unwritten) {
  // A failed remount is reported but the save goes on: on a file system that happens to be
  // writable already the files still get written, and only a file that was not counts.
  std::string failed;
  CSettingsWriteBracket bracket;
  if (TagManager.SaveTags(Host().Path(std::string("/vr480/") + kSettingsName)) != 0)
    failed = std::string(kSettingsName) + ".tag";
  std::printf("Setting saved.\n");

  SaveFile("references.dat", "references", SensorTableText([this](char* first, char* last, int ch, int s) {
             return std::to_chars(first, last, static_cast<uint32_t>(SensorReferences[ch][s]));
           }), &failed);
  SaveFile("locations.dat", "locations", SensorTableText([this](char* first, char* last, int ch, int s) {
             return NineDigits(first, last, SensorDistances[ch][s]);
           }), &failed);
  SaveFile("averages.dat", "averages", SensorTableText([this](char* first, char* last, int ch, int s) {
             return std::to_chars(first, last, SensorAverages[ch][s].load());
           }), &failed);

  std::string db;
  db.reserve(kOpticalChannels * kDbTableEntries * 6);
  char buf[8];
  for (int t = 0; t < kOpticalChannels; ++t)
    for (int i = 0; i < kDbTableEntries; ++i) {
      db.append(buf, std::to_chars(buf, buf + sizeof buf, Db2Counts[t][i]).ptr);
      db += '\n';
    }
  SaveFile("db2counts.dat", "db2counts", db, &failed);

  bracket.Close();
  if (unwritten) *unwritten = failed;
  return failed.empty() ? 0 : -1;
}

int CVr480Server::SaveWvlGains(std::string* unwritten) {
  std::string failed;
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
  SaveFile("gain_wvl_offsets.dat", "gain wvl offsets", bytes, &failed);
  bracket.Close();
  if (unwritten) *unwritten = failed;
  return failed.empty() ? 0 : -1;
}

// ---- Loading ------------------------------------------------------------------------------------

void LoadTagFile(CTagManager& tags) {
  const std::string base = Host().Path(std::string("/vr480/") + kSettingsName);
  const std::string path = base + ".tag";
  std::string text, why;
  if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
    tags.LoadTags(base);  // says that there is no tag file; the built-in defaults stay
    return;
  }
  const bool bRead = ReadFileHead(path, kMaxTagFileBytes + 1, &text, &why);
  if (bRead && text.size() <= kMaxTagFileBytes) {
    tags.LoadTags(base);
    return;
  }
  if (bRead) why = "it is larger than 64 MiB";
  std::printf("Cannot read settings file %s: %s. Using the baseline settings.\n", path.c_str(), why.c_str());
  for (const std::string& line : sim::BaselineTagLines()) tags.AddTag(line);
}

// Clients may already be connected while start-up loads the tables; holding the settings lock
// keeps a save from writing half-loaded tables.
void CVr480Server::LoadSettingsDataFiles() {
  std::lock_guard<std::mutex> guard(SettingsFileLock());
  std::string text;
  auto read = [&](const char* name) { return ReadFileHead(Host().Path(name), kMaxTextFileBytes, &text); };

  if (!read("locations.dat")) {
    std::printf("Error opening locations file.\n");
  } else {
    CBadLines bad("locations.dat");
    const std::vector<double> values = ReadEntries(SplitLines(text), 0, kTableEntries, 0.0, bad, ReadDistance);
    for (int i = 0; i < kTableEntries; ++i) SensorDistances[i / kSensorsPerChannel][i % kSensorsPerChannel] = values[i];
    bad.Report();
    std::printf("Locations data loaded.\n");
  }

  if (!read("references.dat")) {
    std::printf("Error opening reference file.\n");
  } else {
    CBadLines bad("references.dat");
    const std::vector<int32_t> values = ReadEntries(SplitLines(text), 0, kTableEntries, int32_t{0}, bad, ReadReference);
    for (int i = 0; i < kTableEntries; ++i) SensorReferences[i / kSensorsPerChannel][i % kSensorsPerChannel] = values[i];
    bad.Report();
    std::printf("References data loaded.\n");
  }

  // Averages go through the setter, which sizes each sensor's running average. A count of 0
  // means "no preference" and, like a sensor the file does not reach, takes MinNumAverages (the
  // averaging store would otherwise raise it to 1 on its own).
  if (!read("averages.dat")) {
    std::printf("Error opening averages file.\n");
  } else {
    CBadLines bad("averages.dat");
    const uint16_t minimum = MinNumAverages;
    const std::vector<uint16_t> values = ReadEntries(SplitLines(text), 0, kTableEntries, minimum, bad, ReadU16);
    for (int i = 0; i < kTableEntries; ++i) {
      const auto ch = static_cast<uint8_t>(i / kSensorsPerChannel);
      const auto s = static_cast<uint16_t>(i % kSensorsPerChannel);
      SetNumAverages(ch, s, values[i] == 0 ? minimum : values[i]);
      if (GetNumAverages(ch, s) == 0) SetNumAverages(ch, s, MinNumAverages);
    }
    bad.Report();
    std::printf("Averages data loaded.\n");
  }

  // Whole 4-byte entries, table after table, as far as the file reaches.
  if (!ReadFileHead(Host().Path("gain_wvl_offsets.dat"), kGainFileBytes + 1, &text)) {
    std::printf("Error opening wvl gain offsets file.\n");
  } else {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t entries = std::min(text.size(), kGainFileBytes) / 4;
    for (size_t e = 0; e < entries; ++e)
      GainWvlOffset[e / kStoredGainCodes][e % kStoredGainCodes] = LittleEndian32(p + 4 * e);
    if (text.size() > kGainFileBytes)
      std::printf("gain_wvl_offsets.dat is longer than %zu bytes; the rest is ignored.\n", kGainFileBytes);
    else if (text.size() < kGainFileBytes)
      std::printf("gain_wvl_offsets.dat holds %zu of %zu entries; the others are unchanged.\n", entries,
                  kGainFileBytes / 4);
    std::printf("Wvl gain offsets data loaded.\n");
  }

  // The dB table is cleared first, so a missing file leaves it all 0. Its line count tells the
  // long form (402 indexes per table) from the short one (202); a missing file counts as -1
  // line feeds, which gives the short form.
  for (auto& table : Db2Counts) std::fill(std::begin(table), std::end(table), uint16_t{0});
  const bool bDbOpened = read("db2counts.dat");
  const long lineFeeds = bDbOpened ? static_cast<long>(std::count(text.begin(), text.end(), '\n')) : -1;
  const int last = lineFeeds / 4 < kDbLongLastIndex ? kDbShortLastIndex : kDbLongLastIndex;
  std::printf("DB2COUNTS_FILE contains %d entries.\n", last);
  if (!bDbOpened) {
    std::printf("Error opening db2counts file.\n");
  } else {
    CBadLines bad("db2counts.dat");
    const std::vector<std::string_view> lines = SplitLines(text);
    const size_t perTable = static_cast<size_t>(last) + 1;
    for (int t = 0; t < kOpticalChannels; ++t) {
      const std::vector<uint16_t> values = ReadEntries(lines, t * perTable, perTable, uint16_t{0}, bad, ReadU16);
      std::copy(values.begin(), values.end(), Db2Counts[t]);
    }
    bad.Report();
    std::printf("Db2Counts data loaded.\n");
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
