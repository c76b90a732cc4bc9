#include "settings/TkString.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Command handlers read their arguments as columns, so these are the cases that decide how
// every client command is understood.
TEST(TkString, ColumnsSplitAtRunsOfWhiteCharacters) {
  const CTkString args("  12\t 34   56");
  EXPECT_EQ(args.GetCol(1), "12");
  EXPECT_EQ(args.GetCol(3), "56");
  EXPECT_EQ(args.GetCol(4), "");
  EXPECT_EQ(args.GetCol(0), "");
  EXPECT_EQ(args.GetNumCols(), 3);
  EXPECT_EQ(CTkString("").GetNumCols(), 0);
  EXPECT_EQ(CTkString("x").GetNumCols(), 1);
  EXPECT_EQ(CTkString(" a  b ").GetNumCols(), 2);
  // Counted before collapsing: all-white text is one empty column.
  EXPECT_EQ(CTkString("   ").GetNumCols(), 1);
  EXPECT_EQ(CTkString("   ").GetCol(1), "");
  // Line feeds and carriage returns separate like spaces (program output is split this way).
  EXPECT_EQ(CTkString("a\r\nb\n").GetCol(2), "b");

  const uint16_t picks[] = {3, 1, 9};
  EXPECT_EQ(CTkString(" ch1\t 7  on ").GetCols(3, picks, ','), "on,ch1,,");

  CTkString line("#SET_X=5");
  EXPECT_EQ(line.GetNumCols(), 1);
  line.AddWhiteChar('=');
  EXPECT_EQ(line.GetCol(2), "5");
  // Without any white characters the whole text is the single column.
  CTkString solid("a b");
  solid.ClearWhiteCharList();
  EXPECT_EQ(solid.GetNumCols(), 1);
  EXPECT_EQ(solid.GetCol(1), "a b");
}

TEST(TkString, ParseTrimAndSubstrings) {
  CTkString text("  a\t\tb  c ");
  text.ParseString(' ');
  EXPECT_EQ(text, "a b c");
  CTkString other("x\t\ty");
  other.ParseString('_');  // not white: the first white character (space) instead
  EXPECT_EQ(other, "x y");
  CTkString blank(" \t ");
  blank.ParseString(' ');
  EXPECT_EQ(blank, "");
  CTkString trimmed("\t ab c \r\n");
  trimmed.TrimLeft();
  EXPECT_EQ(trimmed, "ab c \r\n");
  trimmed.TrimRight();
  EXPECT_EQ(trimmed, "ab c");

  const CTkString letters("abcdef");
  EXPECT_EQ(letters.Left(2), "ab");
  EXPECT_EQ(letters.Right(10), "abcdef");
  EXPECT_EQ(letters.Mid(3, 0), "def");
  EXPECT_EQ(letters.Mid(4, 10), "ef");
  EXPECT_EQ(letters.Mid(20, 2), "");
  EXPECT_EQ(CTkString("").Right(3), "");

  EXPECT_EQ(CTkString("chan ch 2").FindWord("ch"), 5);
  EXPECT_EQ(CTkString("chan\tmatch").FindWord("ch"), -1);
  CTkString dots("a....b");
  EXPECT_EQ(dots.Replace("..", "."), 0);
  EXPECT_EQ(dots, "a..b");
  CTkString words("on one on\ton");
  EXPECT_EQ(words.ReplaceWord("on", "off"), 0);
  EXPECT_EQ(words, "off one off\toff");
  CTkString chars("abc");
  EXPECT_EQ(chars.ReplaceCharAt(3, 'Y'), -1);
  CTkString mixed("Ch1 = on, \xe9!");
  mixed.MakeUpper();
  EXPECT_EQ(mixed, "CH1 = ON, \xe9!");
  EXPECT_EQ(CTkString("0x1F, -2.5").IsProbablyNumeric(), 1);
  EXPECT_EQ(CTkString("12 kg").IsProbablyNumeric(), 0);
  EXPECT_EQ(CTkString("/vr480/a.tag").ExtractFileName(), "junk");
}

// Sets travel with copies, but a plain text assigned into an object must not reset them:
// callers set up a splitter once and feed it line after line.
TEST(TkString, CopiesKeepCharacterSetsAndTextAssignmentKeepsOwn) {
  CTkString splitter;
  splitter.AddWhiteChar('=');
  splitter = std::string("A=1");
  EXPECT_EQ(splitter.GetCol(2), "1");
  splitter = "B=2";
  EXPECT_EQ(splitter.GetCol(2), "2");
  CTkString assigned;
  assigned = splitter;
  EXPECT_EQ(assigned.GetWhiteListCount(), 5);
  // Each object owns its sets: changing the copy leaves the original alone.
  assigned.DeleteWhiteChar('=');
  EXPECT_EQ(assigned.GetNumCols(), 1);
  EXPECT_EQ(splitter.GetNumCols(), 2);
  // Results carry the sets of their source, so they split the same way.
  CTkString pair("k=v w=x");
  pair.AddWhiteChar('=');
  EXPECT_EQ(pair.Left(3).GetCol(2), "v");
}

}  // namespace
