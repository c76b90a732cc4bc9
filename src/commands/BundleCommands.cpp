// The diagnostic bundle: #DUMP_CORE builds the archive a service engineer asks a customer for,
// optionally protected by a password the client gives; the client then fetches it with
// #DOWNLOAD. The reply names the archive whatever happened while it was built: the console
// tells what went wrong.
#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

constexpr const char* kCoreFile = "/tmp/vr_core.zip";

int DumpCore(CCommandContext& c) {
  c.Server.DumpCore(kCoreFile, c.NumArgs() == 1 ? c.Col(1) : std::string());
  return c.Reply("Core File is %s.  Now, #DOWNLOAD %s", kCoreFile, kCoreFile);
}

const SCommandRow kRows[] = {
    {"#DUMP_CORE", 0, 1, kNone, DumpCore},
};

}  // namespace

void RegisterBundleCommands(CCommandTable& table) { table.Add(kRows); }
