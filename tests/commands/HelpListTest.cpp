// Every command the full help list names is one the server answers, except three names the
// list has always carried without a handler (they get the invalid-command reply).
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "protocol/CommandTable.h"
#include "protocol/HelpTexts.h"

TEST(HelpList, EveryListedCommandHasARow) {
  const std::set<std::string> listedWithoutHandler = {"#GET_EMBEDDED_NETMASK", "#SET_EMBEDDED_NETMASK", "#GET_HEADER_TXT"};
  std::istringstream words(std::string(kFullHelpText, kFullHelpLength));
  std::string word, missing;
  int listed = 0;
  while (words >> word) {
    if (word[0] != '#') continue;
    ++listed;
    const bool answered = Commands().Find(word) != nullptr;
    if (answered == (listedWithoutHandler.count(word) > 0)) missing += word + " ";
  }
  EXPECT_GT(listed, 250);
  EXPECT_EQ(missing, "") << "listed but not answered, or answered though the list has no handler for it";
}
