// Commands that save, list and remove settings. Saving writes to the settings file system
// (settings/SettingsFiles.cpp), which explains every failure on the console.
#include <cstdio>
#include <cstring>
#include <string>

#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

// A save that could not write a file answers "!" and names the files, e.g.
//   "!Failed to save settings: vr480.tag, references.dat.\n"
//   "!Failed to save wvl offsets: gain_wvl_offsets.dat.\n"
// The instrument always confirmed, leaving the client to believe in settings that a restart
// would lose. A failed remount alone does not count: the files may still have been written.
int SaveSettings(CCommandContext& c) {
  std::string unwritten;
  if (c.Server.SaveSettings(&unwritten) != 0) return c.Reply("!Failed to save settings: %s.\n", unwritten.c_str());
  return c.Reply("Settings Saved.\n");
}

int SaveWvlOffsets(CCommandContext& c) {
  std::string unwritten;
  if (c.Server.SaveWvlGains(&unwritten) != 0) return c.Reply("!Failed to save wvl offsets: %s.\n", unwritten.c_str());
  return c.Reply("Wvl Offsets Saved.\n");
}

// The tag list can outgrow a reply. The check is made here rather than left to Reply(), whose
// buffer also needs room for a terminating zero: a list of exactly the maximum length is still
// sent, as a body of explicit length.
int GetTags(CCommandContext& c) {
  const std::string text = c.Server.TagManager.GetTagsText();
  if (text.size() > kResponseTextBytes) {
    const std::string stars(57, '*');
    std::printf("\n%s\nThe Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\nMAX_RESPONSE_LENGTH =%zu\n"
                "#GET_TAGS response_length = %zu\n%s\n",
                stars.c_str(), kResponseTextBytes, text.size(), stars.c_str());
    return c.Reply("!The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n");
  }
  std::memcpy(c.Text(), text.data(), text.size());
  if (text.size() < kResponseTextBytes) c.Text()[text.size()] = '\0';
  c.SetBody(c.Text(), static_cast<unsigned>(text.size()));
  return kReplyText;
}

int DumpTags(CCommandContext& c) {
  c.Server.TagManager.DumpTags();
  std::fflush(stdout);
  return c.Reply("Dumping Tags...\n");
}

// Every tag of the named command goes, one RemoveTag call each; the last call finds none and
// says so on the console.
int RemoveTag(CCommandContext& c) {
  int removed = 0;
  while (c.Server.TagManager.RemoveTag(c.ArgText) != -1) ++removed;
  return c.Reply("Removing %d tag(s).\n", removed);
}

const SCommandRow kRows[] = {
    {"#SAVE_SETTINGS", 0, 0, kNone, SaveSettings},
    {"#SAVE_WVL_OFFSETS", 0, 0, kNone, SaveWvlOffsets},
    {"#GET_TAGS", 0, 0, kNone, GetTags},
    {"#DUMP_TAGS", 0, 0, kNone, DumpTags},
    {"#REMOVE_TAG", 1, 1, kNone, RemoveTag},
};

}  // namespace

void RegisterSettingsCommands(CCommandTable& table) { table.Add(kRows); }
