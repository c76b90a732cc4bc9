#include "settings/TagManager.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <limits>
#include <new>

#include "settings/SettingsWrite.h"
#include "settings/TkString.h"

namespace {

constexpr size_t kMaxTags = std::numeric_limits<uint16_t>::max();  // the count is 16-bit
constexpr size_t kMaxLineLength = 999;  // longer tag-file lines are cut here
const char* const kNoRemark = "No Help Available.";

std::string Canonical(const std::string& command, const std::string& argument) {
  return command + " = \"" + argument + "\"";
}

// Column n of an argument text as the handlers read it (1-based; missing or n <= 0 gives "").
std::string ArgumentColumn(const std::string& argument, short n) {
  if (n <= 0) return "";
  return CTkString(argument).GetCol(static_cast<uint16_t>(n));
}

}  // namespace

CTagManager::CTagManager() { SetFileNames("default"); }

void CTagManager::SetFileNames(const std::string& base) {
  FileName = base;
  RemFileName = base + ".rem";
  TagFileName = base + ".tag";
}

// ---- Splitting ------------------------------------------------------------------------------

int CTagManager::AnalyzeTag(const std::string& line, std::string* command, std::string* argument) {
  // The command word ends at white space or "=", so "#set_dhcp=1" and "#SET_DHCP = 1" name
  // the same command.
  CTkString words(line);
  words.AddWhiteChar('=');
  words.ParseString(' ');
  CTkString cmd = words.GetCol(1);
  cmd.MakeUpper();

  CTkString rest(line);
  rest.TrimLeft();
  const size_t equals = rest.find('=');
  std::string raw;
  if (equals != std::string::npos) {
    raw = rest.substr(equals + 1);
  } else if (cmd.size() < rest.size()) {
    raw = rest.substr(cmd.size());
  }

  // Quotes protect an argument's own white space (identification texts, NTP server names):
  // what lies between them is taken as it is.
  std::string arg;
  const size_t open = raw.find('"');
  if (open != std::string::npos) {
    const size_t close = raw.find('"', open + 1);
    arg = raw.substr(open + 1, close == std::string::npos ? std::string::npos : close - open - 1);
  } else {
    CTkString trimmed(raw);
    trimmed.TrimLeft();
    trimmed.TrimRight();
    arg = trimmed;
  }

  if (command) *command = cmd;
  if (argument) *argument = std::move(arg);
  return 0;
}

std::string CTagManager::GetCommand(const std::string& line) {
  std::string command;
  AnalyzeTag(line, &command, nullptr);
  return command;
}

std::string CTagManager::GetArgument(const std::string& line) {
  std::string argument;
  AnalyzeTag(line, nullptr, &argument);
  return argument;
}

std::string CTagManager::GetCommand(uint16_t index) const { return GetCommand(GetTag(index)); }

std::string CTagManager::GetArgument(uint16_t index) const { return GetArgument(GetTag(index)); }

// ---- Changing the list ----------------------------------------------------------------------

int CTagManager::AddTagLocked(const std::string& line) {
  // A full list is refused like a failed allocation: the 16-bit count must stay exact.
  if (TagList.size() >= kMaxTags) {
    std::cout << "TagList allocation error.\n";
    return -1;
  }
  try {
    TagList.push_back(STag{line, kNoRemark});  // strong guarantee: unchanged if it throws
  } catch (const std::bad_alloc&) {
    std::cout << "TagList allocation error.\n";
    return -1;
  }
  NumTags = static_cast<uint16_t>(TagList.size());
  return 0;
}

int CTagManager::AddTag(const std::string& line) {
  std::lock_guard<std::mutex> guard(Lock);
  return AddTagLocked(line);
}

// The first tag with the same command whose listed argument columns equal the new ones takes
// the canonical line; without one the line is appended. Stored tags are split afresh on every
// scan: the lists are a few hundred tags long and are changed only by setters.
int CTagManager::ReplaceMatching(const std::string& line, short count, const short* columns) {
  std::string command;
  std::string argument;
  AnalyzeTag(line, &command, &argument);
  const std::string canonical = Canonical(command, argument);

  std::lock_guard<std::mutex> guard(Lock);
  for (STag& tag : TagList) {
    std::string tagCommand;
    std::string tagArgument;
    AnalyzeTag(tag.Tag, &tagCommand, &tagArgument);
    if (tagCommand != command) continue;

    bool bKeysMatch = true;
    for (short i = 0; i < count && bKeysMatch; ++i) {
      bKeysMatch = ArgumentColumn(tagArgument, columns[i]) == ArgumentColumn(argument, columns[i]);
    }
    if (bKeysMatch) {
      tag.Tag = canonical;
      return 0;
    }
  }

  std::printf("Adding Tag [%s]\n", canonical.c_str());
  AddTagLocked(canonical);
  return 0;
}

int CTagManager::ReplaceTag(const std::string& line) { return ReplaceMatching(line, 0, nullptr); }

int CTagManager::ReplaceTagOnArg(const std::string& line, short count, const short* columns) {
  return ReplaceMatching(line, columns ? count : 0, columns);
}

int CTagManager::ReplaceTag(short index, const std::string& line) {
  std::lock_guard<std::mutex> guard(Lock);
  if (index < 0 || index >= NumTags) {
    std::cout << "Invalid Tag #" << index << ".  There are only " << NumTags << " Tags.\n";
    return 0;
  }
  TagList[static_cast<size_t>(index)].Tag = line;
  return 0;
}

// A removed tag is commented out rather than deleted so that it stays visible in the saved
// file (an operator can see what was removed) while no longer splitting to its command.
int CTagManager::RemoveMatching(const std::string& line, bool bMatchArgument) {
  std::string command;
  std::string argument;
  AnalyzeTag(line, &command, &argument);

  std::lock_guard<std::mutex> guard(Lock);
  for (STag& tag : TagList) {
    std::string tagCommand;
    std::string tagArgument;
    AnalyzeTag(tag.Tag, &tagCommand, &tagArgument);
    if (tagCommand != command || (bMatchArgument && tagArgument != argument)) continue;
    // One call per console line: other threads print too, and a line written in pieces can be
    // split by theirs.
    std::printf("Removing Tag [%s]\n", tag.Tag.c_str());
    tag.Tag = "//" + tag.Tag;
    return 1;
  }
  std::printf("Could not remove Tag %s.  Tag not found.\n", command.c_str());
  return -1;
}

int CTagManager::RemoveTag(const std::string& line) { return RemoveMatching(line, false); }

int CTagManager::RemoveTagEntry(const std::string& line) { return RemoveMatching(line, true); }

int CTagManager::ClearTags() {
  std::lock_guard<std::mutex> guard(Lock);
  TagList.clear();
  TagList.shrink_to_fit();
  NumTags = 0;
  return 0;
}

// ---- Reading the list -----------------------------------------------------------------------

std::string CTagManager::GetTag(uint16_t index) const {
  std::lock_guard<std::mutex> guard(Lock);
  return index < NumTags ? TagList[index].Tag : std::string();
}

std::string CTagManager::GetRemark(uint16_t index) const {
  std::lock_guard<std::mutex> guard(Lock);
  return index < NumTags ? TagList[index].Remark : std::string();
}

uint16_t CTagManager::GetNumTags() const {
  std::lock_guard<std::mutex> guard(Lock);
  return NumTags;
}

std::string CTagManager::GetTagsText() const {
  std::lock_guard<std::mutex> guard(Lock);
  std::string text;
  for (const STag& tag : TagList) {
    text += tag.Tag;
    text += '\n';
  }
  return text;
}

// ---- Files ----------------------------------------------------------------------------------

int CTagManager::LoadTags(const std::string& base) {
  std::lock_guard<std::mutex> guard(Lock);
  SetFileNames(base);
  std::ifstream in(TagFileName, std::ios::binary);
  if (!in) {
    std::printf("Error opening input Tag File %s\n", TagFileName.c_str());
    return -1;
  }

  // Only lines that start (after white space) with "#" are commands. Remarks, blank lines and
  // commented-out tags are dropped here and so vanish at the next save. The rest of the line
  // is kept as it is: a file edited on a PC keeps its CRs, which the split rule ignores.
  std::string line;
  while (std::getline(in, line)) {
    if (line.size() > kMaxLineLength) line.resize(kMaxLineLength);
    CTkString trimmed(line);
    trimmed.TrimLeft();
    if (!trimmed.empty() && trimmed.front() == '#') AddTagLocked(trimmed);
  }
  LoadRems(RemFileName);
  return 0;
}

int CTagManager::SaveTags(const std::string& base) {
  std::lock_guard<std::mutex> guard(Lock);
  SetFileNames(base);
  std::string content;
  for (const STag& tag : TagList) {
    content += tag.Tag;
    content += '\n';
  }

  switch (ReplaceFileAtomically(TagFileName, content)) {
    case EFileWrite::kOk:
      return 0;
    case EFileWrite::kOpenFailed:
      std::printf("Error opening output Tag File %s\n", TagFileName.c_str());
      return -1;
    case EFileWrite::kWriteFailed:
      std::printf("Error writing output Tag File %s\n", TagFileName.c_str());
      return -1;
  }
  return -1;
}

int CTagManager::LoadRems(const std::string& /*remFileName*/) { return 0; }

void CTagManager::DumpTags() const {
  std::lock_guard<std::mutex> guard(Lock);
  for (size_t i = 0; i < TagList.size(); ++i) {
    std::printf("Tag[%zu] %s\n", i, TagList[i].Tag.c_str());
  }
}

int CTagManager::DumpTags(const std::string& fileName, int mode) const {
  // Mode 1 gives a listing that opens cleanly on a PC.
  const char* lineEnd = nullptr;
  if (mode == 0) {
    lineEnd = "\n";
  } else if (mode == 1) {
    lineEnd = "\r\n";
  } else {
    std::cout << "CTagManager: Unknown file mode: " << mode << "\n";
    return -2;
  }

  std::lock_guard<std::mutex> guard(Lock);
  std::string content;
  for (size_t i = 0; i < TagList.size(); ++i) {
    content += "Tag[" + std::to_string(i) + "] " + TagList[i].Tag + lineEnd;
  }
  if (ReplaceFileAtomically(fileName, content) != EFileWrite::kOk) {
    std::printf("Error opening %s.\n", fileName.c_str());
    return -1;
  }
  return 0;
}
