#include "settings/TkString.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <new>
#include <utility>

namespace {

// Function-local so that a CTkString built during static initialisation elsewhere still
// finds its defaults.
const std::vector<char>& DefaultWhiteChars() {
  static const std::vector<char> chars{' ', '\t', '\n', '\r'};
  return chars;
}

const std::vector<char>& DefaultNumericChars() {
  static const std::string text = "0123456789aAbBcCdDeEfFxX.,-+";
  static const std::vector<char> chars(text.begin(), text.end());
  return chars;
}

// Running out of memory while changing a character set leaves no sensible way to split
// text, so outside the constructors the process stops rather than carry on with a wrong set.
[[noreturn]] void AllocationFailed(const std::string& message) {
  std::cerr << message << '\n';
  std::exit(1);
}

bool TryCopy(std::vector<char>& to, const std::vector<char>& from) {
  try {
    to = from;
    return true;
  } catch (const std::bad_alloc&) {
    to.clear();
    return false;
  }
}

// `name` is "WhiteChar" or "NumericChar"; it names the set in the error texts.
void AppendToSet(std::vector<char>& set, uint16_t& count, char c, const std::string& name) {
  try {
    set.push_back(c);
  } catch (const std::bad_alloc&) {
    AllocationFailed("temp Allocation Error in Add" + name + ".");
  }
  count = static_cast<uint16_t>(set.size());
}

void RemoveFromSet(std::vector<char>& set, uint16_t& count, char c, const std::string& name) {
  std::vector<char> kept;
  try {
    kept.reserve(set.size());
  } catch (const std::bad_alloc&) {
    AllocationFailed("temp Allocation Error in Delete" + name + ".");
  }
  std::copy_if(set.begin(), set.end(), std::back_inserter(kept), [c](char x) { return x != c; });
  // Adding never duplicates an entry, so more than one removal means the set was corrupted
  // somehow; say so, but the shortened set is still the right one to keep.
  if (set.size() - kept.size() > 1) {
    std::cerr << "There's been an error in Delete" << name << '\n'
              << "Check " << name << " list for multiple entries\n";
  }
  set.swap(kept);
  count = static_cast<uint16_t>(set.size());
}

}  // namespace

CTkString::CTkString() : CTkString(std::string()) {}

CTkString::CTkString(const char* text) : CTkString(std::string(text ? text : "")) {}

CTkString::CTkString(const std::string& text) : std::string(text) {
  CopySets(DefaultWhiteChars(), DefaultNumericChars(), true);
}

CTkString::CTkString(const CTkString& other) : std::string(other) {
  CopySets(other.WhiteCharList, other.NumericCharList, true);
}

CTkString::CTkString(const CTkString& sets, std::string text) : std::string(std::move(text)) {
  CopySets(sets.WhiteCharList, sets.NumericCharList, true);
}

CTkString& CTkString::operator=(const CTkString& other) {
  if (this != &other) {
    std::string::operator=(other);
    CopySets(other.WhiteCharList, other.NumericCharList, false);
  }
  return *this;
}

CTkString& CTkString::operator=(const std::string& text) {
  std::string::operator=(text);
  return *this;
}

CTkString& CTkString::operator=(const char* text) {
  std::string::operator=(text ? text : "");
  return *this;
}

// A constructor that cannot get a set goes on without it (the object then simply has no
// white or numeric characters); assignment has no such fallback.
void CTkString::CopySets(const std::vector<char>& white, const std::vector<char>& numeric,
                         bool bInConstructor) {
  if (!TryCopy(WhiteCharList, white)) {
    std::cerr << "WhiteCharList Allocation Error.\n";
    if (!bInConstructor) std::exit(1);
  }
  WhiteListCount = static_cast<uint16_t>(WhiteCharList.size());
  if (!TryCopy(NumericCharList, numeric)) {
    std::cerr << "NumericCharList Allocation Error.\n";
    if (!bInConstructor) std::exit(1);
  }
  NumericListCount = static_cast<uint16_t>(NumericCharList.size());
}

CTkString CTkString::Left(uint16_t n) const { return CTkString(*this, substr(0, n)); }

CTkString CTkString::Right(uint16_t n) const {
  if (n >= size()) return *this;
  return CTkString(*this, substr(size() - n));
}

CTkString CTkString::Mid(uint16_t start, uint16_t count) const {
  // The server never asks for a start past the end; an empty result is the least surprising
  // answer if a future caller does.
  if (start >= size()) return CTkString(*this, "");
  CTkString tail(*this, substr(start));
  return count != 0 ? tail.Left(count) : tail;
}

void CTkString::TrimLeft() {
  size_t first = 0;
  while (first < size() && IsWhiteChar((*this)[first])) ++first;
  erase(0, first);
}

void CTkString::TrimRight() {
  size_t end = size();  // one past the last non-white character
  while (end > 0 && IsWhiteChar((*this)[end - 1])) --end;
  erase(end);  // all-white text ends up "", matching TrimLeft
}

void CTkString::ParseString(char sep) {
  if (WhiteCharList.empty()) return;
  if (!IsWhiteChar(sep)) sep = WhiteCharList[0];
  TrimLeft();
  TrimRight();
  if (empty()) return;

  std::string collapsed(1, front());
  for (size_t i = 1; i < size(); ++i) {
    const char c = (*this)[i];
    if (!IsWhiteChar(c)) {
      collapsed += c;
    } else if (!IsWhiteChar((*this)[i - 1])) {
      collapsed += sep;  // first white character of a run stands for the whole run
    }
  }
  std::string::operator=(std::move(collapsed));
}

CTkString CTkString::GetCol(uint16_t n) const {
  if (n == 0) return CTkString(*this, "");
  // Without separators the whole text is the only column.
  if (WhiteCharList.empty()) return CTkString(*this, n == 1 ? std::string(*this) : "");

  const char sep = WhiteCharList[0];
  CTkString collapsed(*this);
  collapsed.ParseString(sep);

  // After collapsing, the only white character left is sep, one between each two columns.
  size_t start = 0;
  for (uint16_t passed = 0; passed < n - 1; ++passed) {
    const size_t next = collapsed.find(sep, start);
    if (next == npos) return CTkString(*this, "");
    start = next + 1;
  }
  const size_t end = collapsed.find(sep, start);
  return CTkString(*this, collapsed.substr(start, end == npos ? npos : end - start));
}

uint16_t CTkString::GetNumCols() const {
  // Tested before collapsing on purpose: text of white characters only counts as one
  // (empty) column, not zero.
  if (empty()) return 0;
  if (WhiteCharList.empty()) return 1;
  CTkString collapsed(*this);
  collapsed.ParseString(WhiteCharList[0]);
  const auto seps = std::count_if(collapsed.begin(), collapsed.end(),
                                  [this](char c) { return IsWhiteChar(c); });
  return static_cast<uint16_t>(seps + 1);
}

CTkString CTkString::GetCols(uint16_t count, const uint16_t* numbers, char sep) const {
  CTkString collapsed(*this);
  collapsed.ParseString(' ');
  std::string result;
  for (uint16_t i = 0; i < count; ++i) {
    result += collapsed.GetCol(numbers[i]);
    result += sep;
  }
  return CTkString(*this, std::move(result));
}

int CTkString::IsProbablyNumeric() const {
  CTkString collapsed(*this);
  collapsed.ParseString(' ');
  const bool bAllNumeric = std::all_of(collapsed.begin(), collapsed.end(),
                                       [this](char c) { return IsNumericChar(c); });
  return bAllNumeric ? 1 : 0;
}

void CTkString::MakeUpper() {
  for (char& c : *this) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
}

void CTkString::MakeLower() {
  for (char& c : *this) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

// An occurrence is a whole word when each of its ends touches either an end of the text or a
// white character. The whole text equal to `word` is the case where both ends are the text's.
size_t CTkString::FindWordFrom(const std::string& word, size_t from) const {
  for (size_t pos = find(word, from); pos != npos; pos = find(word, pos + 1)) {
    const size_t end = pos + word.size();
    const bool bStartFree = pos == 0 || IsWhiteChar((*this)[pos - 1]);
    const bool bEndFree = end == size() || IsWhiteChar((*this)[end]);
    if (bStartFree && bEndFree) return pos;
  }
  return npos;
}

int CTkString::FindWord(const std::string& word) const {
  const size_t pos = FindWordFrom(word, 0);
  return pos == npos ? -1 : static_cast<int>(pos);
}

int CTkString::Replace(const std::string& findText, const std::string& replText) {
  if (findText.empty()) return 0;  // would match everywhere and never advance
  for (size_t pos = find(findText); pos != npos; pos = find(findText, pos)) {
    replace(pos, findText.size(), replText);
    pos += replText.size();
  }
  return 0;
}

int CTkString::ReplaceWord(const std::string& findText, const std::string& replText) {
  if (findText.empty()) return 0;
  for (size_t pos = FindWordFrom(findText, 0); pos != npos; pos = FindWordFrom(findText, pos)) {
    replace(pos, findText.size(), replText);
    pos += replText.size();
  }
  return 0;
}

int CTkString::ReplaceCharAt(uint16_t i, char c) {
  if (i >= size()) return -1;
  (*this)[i] = c;
  return 0;
}

bool CTkString::IsWhiteChar(char c) const {
  return std::find(WhiteCharList.begin(), WhiteCharList.end(), c) != WhiteCharList.end();
}

bool CTkString::IsWhiteCharAt(uint16_t i) const { return i < size() && IsWhiteChar((*this)[i]); }

bool CTkString::IsNumericChar(char c) const {
  return IsWhiteChar(c) ||
         std::find(NumericCharList.begin(), NumericCharList.end(), c) != NumericCharList.end();
}

bool CTkString::IsNumericCharAt(uint16_t i) const {
  return i < size() && IsNumericChar((*this)[i]);
}

void CTkString::AddWhiteChar(char c) {
  if (std::find(WhiteCharList.begin(), WhiteCharList.end(), c) == WhiteCharList.end()) {
    AppendToSet(WhiteCharList, WhiteListCount, c, "WhiteChar");
  }
}

void CTkString::AddNumericChar(char c) {
  if (std::find(NumericCharList.begin(), NumericCharList.end(), c) == NumericCharList.end()) {
    AppendToSet(NumericCharList, NumericListCount, c, "NumericChar");
  }
}

void CTkString::DeleteWhiteChar(char c) {
  RemoveFromSet(WhiteCharList, WhiteListCount, c, "WhiteChar");
}

void CTkString::DeleteNumericChar(char c) {
  RemoveFromSet(NumericCharList, NumericListCount, c, "NumericChar");
}

void CTkString::ClearWhiteCharList() {
  WhiteCharList.clear();
  WhiteListCount = 0;
}

void CTkString::ClearNumericCharList() {
  NumericCharList.clear();
  NumericListCount = 0;
}

void CTkString::DumpWhiteCharList(std::ostream& out) const {
  out << '\n';
  for (size_t i = 0; i < WhiteCharList.size(); ++i) {
    const char c = WhiteCharList[i];
    out << "WhiteCharList[" << i << "]=" << static_cast<int>(static_cast<unsigned char>(c))
        << " (" << c << ")\n";
  }
}

CTkString CTkString::ExtractFileName() const { return CTkString(*this, "junk"); }
