#include "settings/TkString.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Command handlers read their arguments as columns and the dispatcher counts them: these
// cases decide how every client command is understood.
TEST(TkString, ColumnsSplitAtRunsOfWhiteCharacters) {
  const CTkString args("  12\t 34   56");
  EXPECT_EQ(args.GetCol(1), "12");
  EXPECT_EQ(args.GetCol(3), "56");
  EXPECT_EQ(args.GetCol(4), "");
  EXPECT_EQ(args.GetCol(0), "");
  EXPECT_EQ(args.GetNumCols(), 3);
  EXPECT_EQ(CTkString("").GetNumCols(), 0);
  EXPECT_EQ(CTkString(" a  b ").GetNumCols(), 2);
  EXPECT_EQ(CTkString("   ").GetNumCols(), 1);  // counted before collapsing: one empty column
  EXPECT_EQ(CTkString("a\r\nb\n").GetCol(2), "b");  // line ends separate like spaces
  CTkString line("#SET_X=5");
  EXPECT_EQ(line.GetNumCols(), 1);
  line.AddWhiteChar('=');
  EXPECT_EQ(line.GetCol(2), "5");
}

// The tag splitter collapses, trims and upper-cases (bytes above ASCII stay).
TEST(TkString, ParseTrimAndUpperCase) {
  CTkString text("  a\t\tb  c ");
  text.ParseString(' ');
  EXPECT_EQ(text, "a b c");
  CTkString trimmed("\t ab c \r\n");
  trimmed.TrimLeft();
  EXPECT_EQ(trimmed, "ab c \r\n");
  trimmed.TrimRight();
  EXPECT_EQ(trimmed, "ab c");
  CTkString mixed("Ch1 = on, \xe9!");
  mixed.MakeUpper();
  EXPECT_EQ(mixed, "CH1 = ON, \xe9!");
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
  EXPECT_EQ(assigned.GetCol(2), "2");
  assigned.DeleteWhiteChar('=');  // each object owns its sets
  EXPECT_EQ(assigned.GetNumCols(), 1);
  EXPECT_EQ(splitter.GetNumCols(), 2);
}

}  // namespace
