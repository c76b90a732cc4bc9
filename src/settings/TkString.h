// CTkString: the text type that cuts command lines, tag lines and program output into columns.
//
// It is a std::string with two small character sets attached to each object:
//  - white characters separate words and columns. The default set is space, tab, LF and CR.
//    The first white character is special: it is the separator that collapsing writes and
//    that GetCol looks for, so a run of mixed white characters counts as one separator.
//  - numeric characters may appear in a number: decimal and hexadecimal digits, "x", ".", ",",
//    "-" and "+". White characters always count as numeric too.
//
// Columns are numbered from 1; a missing column (or column 0) is "". Positions and lengths
// are 16-bit, which is plenty for any line the server handles.
//
// Copying a CTkString copies its character sets with the text; assigning a std::string or a
// C string replaces only the text and keeps the sets. Texts returned by Left, GetCol and the
// like carry the sets of the object they came from, so they can be split further the same way.
#pragma once

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

class CTkString : public std::string {
 public:
  CTkString();
  // Implicit on purpose: literals and std::strings can be passed wherever text is wanted.
  CTkString(const char* text);
  CTkString(const std::string& text);
  CTkString(const CTkString& other);
  CTkString& operator=(const CTkString& other);
  CTkString& operator=(const std::string& text);
  CTkString& operator=(const char* text);

  // Pieces of the text; n or count larger than what is there gives what is there.
  CTkString Left(uint16_t n) const;
  CTkString Right(uint16_t n) const;
  // From `start` on; with count not 0, at most count characters of that. A start past the
  // end gives "".
  CTkString Mid(uint16_t start, uint16_t count) const;

  void TrimLeft();
  void TrimRight();  // a text made only of white characters becomes ""

  // Trims the text and turns every run of white characters into one `sep`. A `sep` that is
  // not a white character is replaced by the first white character. No-op without white chars.
  void ParseString(char sep);

  CTkString GetCol(uint16_t n) const;
  // 0 for "", 1 for any other text without a separator (including text that is all white).
  uint16_t GetNumCols() const;
  // The listed columns in order, each followed by `sep` (so a non-empty result ends in sep).
  CTkString GetCols(uint16_t count, const uint16_t* numbers, char sep) const;

  // 1 when every character is numeric or white ("" included), else 0. A cheap filter, not a
  // parser: "1-2,3" passes.
  int IsProbablyNumeric() const;

  void MakeUpper();  // ASCII letters only; other bytes are left alone
  void MakeLower();

  // Position of the first occurrence of `word` bounded by white characters or the ends of
  // the text, or -1.
  int FindWord(const std::string& word) const;
  // Replace every occurrence left to right; replaced text is never searched again, so
  // Replace("..", ".") on "a....b" gives "a..b". Both return 0.
  int Replace(const std::string& findText, const std::string& replText);
  int ReplaceWord(const std::string& findText, const std::string& replText);
  // 0, or -1 when i is not inside the text.
  int ReplaceCharAt(uint16_t i, char c);

  bool IsWhiteChar(char c) const;
  bool IsWhiteCharAt(uint16_t i) const;  // false past the end
  bool IsNumericChar(char c) const;      // numeric or white
  bool IsNumericCharAt(uint16_t i) const;

  void AddWhiteChar(char c);  // no effect if c is already in the set
  void AddNumericChar(char c);
  void DeleteWhiteChar(char c);
  void DeleteNumericChar(char c);
  void ClearWhiteCharList();
  void ClearNumericCharList();
  uint16_t GetWhiteListCount() const { return WhiteListCount; }
  uint16_t GetNumericListCount() const { return NumericListCount; }

  // Lists the white characters with their codes, for debugging a split that went wrong.
  void DumpWhiteCharList(std::ostream& out = std::cout) const;

  // Kept for interface completeness; nothing uses it and it always returns "junk".
  CTkString ExtractFileName() const;

 private:
  CTkString(const CTkString& sets, std::string text);  // a result carrying this object's sets

  size_t FindWordFrom(const std::string& word, size_t from) const;
  void CopySets(const std::vector<char>& white, const std::vector<char>& numeric,
                bool bInConstructor);

  std::vector<char> WhiteCharList;    // separators; [0] is the one collapsing writes
  std::vector<char> NumericCharList;  // characters accepted in a number besides white ones
  uint16_t WhiteListCount = 0;        // entries in WhiteCharList
  uint16_t NumericListCount = 0;      // entries in NumericCharList
};
