#include "settings/TkString.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

// Command handlers read their arguments as columns, so these are the cases that decide how
// every client command is understood.
TEST(TkString, ColumnsSplitAtRunsOfWhiteCharacters) {
  const CTkString args("  12\t 34   56");
  EXPECT_EQ(args.GetCol(1), "12");
  EXPECT_EQ(args.GetCol(2), "34");
  EXPECT_EQ(args.GetCol(3), "56");
  EXPECT_EQ(args.GetCol(4), "");
  EXPECT_EQ(args.GetCol(0), "");
  EXPECT_EQ(args.GetNumCols(), 3);

  EXPECT_EQ(CTkString("").GetCol(1), "");
  EXPECT_EQ(CTkString("").GetNumCols(), 0);
  EXPECT_EQ(CTkString("x").GetNumCols(), 1);
  EXPECT_EQ(CTkString(" a  b ").GetNumCols(), 2);
  // Counted before collapsing: all-white text is one empty column.
  EXPECT_EQ(CTkString("   ").GetNumCols(), 1);
  EXPECT_EQ(CTkString("   ").GetCol(1), "");

  // Line feeds and carriage returns separate like spaces (program output is split this way).
  EXPECT_EQ(CTkString("a\r\nb\n").GetCol(2), "b");
}

TEST(TkString, ExtraWhiteCharacterSplitsAssignments) {
  CTkString line("#SET_X=5");
  EXPECT_EQ(line.GetNumCols(), 1);
  line.AddWhiteChar('=');
  EXPECT_EQ(line.GetCol(1), "#SET_X");
  EXPECT_EQ(line.GetCol(2), "5");
  EXPECT_EQ(line.GetNumCols(), 2);

  // Without any white characters the whole text is the single column.
  CTkString solid("a b");
  solid.ClearWhiteCharList();
  EXPECT_EQ(solid.GetNumCols(), 1);
  EXPECT_EQ(solid.GetCol(1), "a b");
  EXPECT_EQ(solid.GetCol(2), "");
}

TEST(TkString, GetColsJoinsChosenColumnsEachFollowedBySeparator) {
  const CTkString args(" ch1\t 7  on ");
  const uint16_t picks[] = {3, 1, 9};
  EXPECT_EQ(args.GetCols(3, picks, ','), "on,ch1,,");
  EXPECT_EQ(args.GetCols(0, picks, ','), "");
}

TEST(TkString, ParseStringCollapsesAndTrims) {
  CTkString text("  a\t\tb  c ");
  text.ParseString(' ');
  EXPECT_EQ(text, "a b c");

  // A separator that is not white is replaced by the first white character (space).
  CTkString other("x\t\ty");
  other.ParseString('_');
  EXPECT_EQ(other, "x y");

  CTkString tabbed("x  y");
  tabbed.ParseString('\t');
  EXPECT_EQ(tabbed, "x\ty");

  CTkString blank(" \t ");
  blank.ParseString(' ');
  EXPECT_EQ(blank, "");

  CTkString untouched(" a  b ");
  untouched.ClearWhiteCharList();
  untouched.ParseString(' ');
  EXPECT_EQ(untouched, " a  b ");

  CTkString trimmed("\t ab c \r\n");
  trimmed.TrimLeft();
  EXPECT_EQ(trimmed, "ab c \r\n");
  trimmed.TrimRight();
  EXPECT_EQ(trimmed, "ab c");

  CTkString allWhite("  \t");
  allWhite.TrimRight();
  EXPECT_EQ(allWhite, "");
  allWhite = " \n";
  allWhite.TrimLeft();
  EXPECT_EQ(allWhite, "");
}

TEST(TkString, LeftRightMid) {
  const CTkString abc("abc");
  EXPECT_EQ(abc.Left(2), "ab");
  EXPECT_EQ(abc.Right(2), "bc");
  EXPECT_EQ(abc.Left(10), "abc");
  EXPECT_EQ(abc.Right(10), "abc");
  EXPECT_EQ(abc.Left(0), "");
  EXPECT_EQ(CTkString("").Left(3), "");
  EXPECT_EQ(CTkString("").Right(3), "");

  const CTkString letters("abcdef");
  EXPECT_EQ(letters.Mid(3, 0), "def");
  EXPECT_EQ(letters.Mid(1, 2), "bc");
  EXPECT_EQ(letters.Mid(4, 10), "ef");
  EXPECT_EQ(letters.Mid(6, 0), "");
  EXPECT_EQ(letters.Mid(20, 2), "");
  EXPECT_EQ(CTkString("").Mid(0, 0), "");
}

TEST(TkString, FindWordAndReplace) {
  EXPECT_EQ(CTkString("ch").FindWord("ch"), 0);
  EXPECT_EQ(CTkString("ch 1").FindWord("ch"), 0);
  EXPECT_EQ(CTkString("set ch").FindWord("ch"), 4);
  EXPECT_EQ(CTkString("chan ch 2").FindWord("ch"), 5);
  EXPECT_EQ(CTkString("chan\tmatch").FindWord("ch"), -1);
  EXPECT_EQ(CTkString("abc").FindWord("x"), -1);

  CTkString dots("a....b");
  EXPECT_EQ(dots.Replace("..", "."), 0);
  EXPECT_EQ(dots, "a..b");

  CTkString growing("aXbX");
  growing.Replace("X", "XX");
  EXPECT_EQ(growing, "aXXbXX");

  CTkString words("on one on\ton");
  EXPECT_EQ(words.ReplaceWord("on", "off"), 0);
  EXPECT_EQ(words, "off one off\toff");

  CTkString chars("abc");
  EXPECT_EQ(chars.ReplaceCharAt(1, 'X'), 0);
  EXPECT_EQ(chars, "aXc");
  EXPECT_EQ(chars.ReplaceCharAt(3, 'Y'), -1);
  EXPECT_EQ(chars, "aXc");

  CTkString mixed("Ch1 = on, \xe9!");
  mixed.MakeUpper();
  EXPECT_EQ(mixed, "CH1 = ON, \xe9!");
  mixed.MakeLower();
  EXPECT_EQ(mixed, "ch1 = on, \xe9!");
}

TEST(TkString, CharacterSets) {
  CTkString text;
  EXPECT_EQ(text.GetWhiteListCount(), 4);
  EXPECT_EQ(text.GetNumericListCount(), 28);

  text.AddWhiteChar(' ');  // already there
  EXPECT_EQ(text.GetWhiteListCount(), 4);
  text.AddWhiteChar(';');
  EXPECT_EQ(text.GetWhiteListCount(), 5);
  EXPECT_TRUE(text.IsWhiteChar(';'));
  text.DeleteWhiteChar(';');
  text.DeleteWhiteChar('#');  // not there: nothing happens
  EXPECT_EQ(text.GetWhiteListCount(), 4);
  EXPECT_FALSE(text.IsWhiteChar(';'));

  EXPECT_TRUE(text.IsNumericChar('F'));
  EXPECT_TRUE(text.IsNumericChar('\t'));  // white counts as numeric
  EXPECT_FALSE(text.IsNumericChar('g'));
  text.AddNumericChar('e');  // already there
  EXPECT_EQ(text.GetNumericListCount(), 28);
  text.AddNumericChar('g');
  EXPECT_TRUE(text.IsNumericChar('g'));
  text.DeleteNumericChar('g');
  EXPECT_EQ(text.GetNumericListCount(), 28);
  text.ClearNumericCharList();
  EXPECT_EQ(text.GetNumericListCount(), 0);
  EXPECT_FALSE(text.IsNumericChar('1'));
  EXPECT_TRUE(text.IsNumericChar(' '));

  text = "1 x";
  EXPECT_TRUE(text.IsWhiteCharAt(1));
  EXPECT_FALSE(text.IsWhiteCharAt(0));
  EXPECT_FALSE(text.IsWhiteCharAt(3));
  EXPECT_FALSE(text.IsNumericCharAt(7));

  EXPECT_EQ(CTkString("0x1F, -2.5").IsProbablyNumeric(), 1);
  EXPECT_EQ(CTkString(" 12\t").IsProbablyNumeric(), 1);
  EXPECT_EQ(CTkString("").IsProbablyNumeric(), 1);
  EXPECT_EQ(CTkString("12 kg").IsProbablyNumeric(), 0);

  std::ostringstream dump;
  CTkString("").DumpWhiteCharList(dump);
  EXPECT_EQ(dump.str(),
            "\nWhiteCharList[0]=32 ( )\nWhiteCharList[1]=9 (\t)\n"
            "WhiteCharList[2]=10 (\n)\nWhiteCharList[3]=13 (\r)\n");

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

  const CTkString copy(splitter);
  EXPECT_EQ(copy.GetWhiteListCount(), 5);
  EXPECT_EQ(copy.GetCol(1), "B");

  CTkString assigned;
  assigned = splitter;
  EXPECT_EQ(assigned.GetWhiteListCount(), 5);
  EXPECT_EQ(assigned, "B=2");

  // Each object owns its sets: changing the copy leaves the original alone.
  assigned.DeleteWhiteChar('=');
  EXPECT_EQ(assigned.GetNumCols(), 1);
  EXPECT_EQ(splitter.GetNumCols(), 2);

  // Results carry the sets of their source, so they split the same way.
  CTkString pair("k=v w=x");
  pair.AddWhiteChar('=');
  EXPECT_EQ(pair.Left(3).GetCol(2), "v");
  EXPECT_EQ(pair.GetCol(2).GetWhiteListCount(), 5);
}

}  // namespace
