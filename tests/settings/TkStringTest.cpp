#include "settings/TkString.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Command handlers read their arguments as columns and the dispatcher counts them: these
// cases decide how every client command is understood.
TEST(TkString, ColumnsSplitAtRunsOfWhiteCharacters) {
  const CTkString args("  12\t 34   56");
  EXPECT_EQ((std::vector<std::string>{args.GetCol(0), args.GetCol(1), args.GetCol(3), args.GetCol(4)}),
            (std::vector<std::string>{"", "12", "56", ""}));
  // "   " is counted before collapsing: one empty column.
  EXPECT_EQ((std::vector<int>{args.GetNumCols(), CTkString("").GetNumCols(), CTkString(" a  b ").GetNumCols(), CTkString("   ").GetNumCols()}),
            (std::vector<int>{3, 0, 2, 1}));
  EXPECT_EQ(CTkString("a\r\nb\n").GetCol(2), "b");  // line ends separate like spaces
  CTkString line("#SET_X=5");
  EXPECT_EQ(line.GetNumCols(), 1);
  line.AddWhiteChar('=');
  EXPECT_EQ(line.GetCol(2), "5");
}

}  // namespace
