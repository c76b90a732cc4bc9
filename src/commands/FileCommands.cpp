// File transfer commands: #DOWNLOAD and #UPLOAD move whole files over the command connection.
//
// A download is one ordinary reply frame: the ten digits of the file's size, then the file's
// bytes unchanged. An upload is the command line "#UPLOAD <bytes> <path>" followed at once by
// exactly that many raw bytes; the client then waits for the text reply. The bytes are read by
// the client's own service thread, so no command line of that client is read meanwhile, while
// other clients are served as usual.
//
// Paths are the client's and go through host/ConfinedPath.h: off the instrument nothing
// outside the root is read or written, and only regular files are transferred.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "commands/Families.h"
#include "host/ConfinedPath.h"
#include "protocol/CommandTable.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

constexpr int64_t kLargestFrame = 9999999999;  // what ten frame digits can announce
constexpr int kUploadChunk = 16384;            // bytes taken from the socket per read
constexpr int kUploadWaitMs = 200;             // how long one wait for upload data lasts
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

int Download(CCommandContext& c) {
  const std::string& path = c.ArgText;
  int64_t size = 0;
  const int fd = OpenClientFileForReading(path, &size);
  if (fd < 0) return c.Reply("!File Not Found.\n");
  if (size > kLargestFrame) {
    ::close(fd);
    std::printf("%s is too large for one reply (%lld bytes).\n", path.c_str(), static_cast<long long>(size));
    std::fflush(stdout);
    return c.Reply("!File Not Found.\n");
  }
  const uint16_t client = static_cast<uint16_t>(c.Client);
  char digits[16];
  std::snprintf(digits, sizeof digits, "%10.10lu", static_cast<unsigned long>(size));
  if (c.Server.Socket.WriteData(client, digits, 10) == 0) c.Server.Socket.TransferFile(client, fd, size, path.c_str());
  ::close(fd);
  return kReplyNone;
}

// A byte count is a plain decimal number: no sign, no trailing text, no overflow.
bool ParseByteCount(const std::string& text, int64_t* count) {
  if (text.empty()) return false;
  int64_t v = 0;
  for (char ch : text) {
    if (ch < '0' || ch > '9') return false;
    if (v > (INT64_MAX - (ch - '0')) / 10) return false;
    v = v * 10 + (ch - '0');
  }
  *count = v;
  return true;
}

int RefuseUpload(CCommandContext& c, const std::string& path, const std::string& why) {
  std::printf("Upload of %s refused: %s.\n", path.c_str(), why.c_str());
  std::printf("Failed to open output file.");
  std::fflush(stdout);
  c.Reply("!Failed to open output file >>%s<<.\n", path.c_str());
  return kReplyInvalid;
}

int Upload(CCommandContext& c) {
  const std::string sizeText = c.Col(1);
  const std::string path = c.Col(2);
  int64_t size = 0;
  const bool counted = ParseByteCount(sizeText, &size);
  if (counted) std::printf("Beginning upload of %s... awaiting %lld bytes.\n", path.c_str(), static_cast<long long>(size));
  else std::printf("Beginning upload of %s... awaiting %s bytes.\n", path.c_str(), sizeText.c_str());
  std::fflush(stdout);

  CVr480Server& s = c.Server;
  const int client = c.Client;
  if (client < 0 || client >= kClientSlots) return RefuseUpload(c, path, "there is no connection to receive from");
  if (!counted)
    return RefuseUpload(c, path, "the byte count \"" + sizeText + "\" is not a whole number of bytes within range");
  CUploadTarget target;
  std::string why;
  if (!target.Open(path, size, &why)) return RefuseUpload(c, path, why);

  std::printf("\n");
  std::unique_ptr<char[]> chunk(new char[kUploadChunk]);
  std::string writeError;  // once set, the rest of the announced bytes is read and dropped
  int64_t received = 0;
  int shownPercent = -1;
  auto shownAt = std::chrono::steady_clock::now() - kProgressInterval;
  bool gone = false;
  while (received < size) {
    if (s.bClientDisconnect[client] || s.bClosingSessions) {
      gone = true;
      break;
    }
    const int want = static_cast<int>(std::min<int64_t>(kUploadChunk, size - received));
    errno = 0;
    const int n = s.Socket.ReadData(static_cast<uint16_t>(client), chunk.get(), want);
    if (n > 0) {
      received += n;
      if (writeError.empty()) target.Write(chunk.get(), static_cast<size_t>(n), &writeError);
      // Progress for the console and the front panel at most ten times a second, and at the end.
      const int percent = static_cast<int>(static_cast<unsigned __int128>(received) * 100 / size);
      const auto now = std::chrono::steady_clock::now();
      if (received == size || (percent != shownPercent && now - shownAt >= kProgressInterval)) {
        shownPercent = percent;
        shownAt = now;
        char status[32];
        std::snprintf(status, sizeof status, "Uploading...%d%%", percent);
        s.SetStatusText(status);
        bUpdateGui = true;
        std::printf("%lld bytes transfered (%d%%).                         \r", static_cast<long long>(received), percent);
        std::fflush(stdout);
      }
      continue;
    }
    const int err = n < 0 ? errno : 0;
    if (n < 0 && (err == EAGAIN || err == EWOULDBLOCK || err == EINTR)) {
      if (s.Socket.WaitReadable(static_cast<uint16_t>(client), kUploadWaitMs) < 0) {
        gone = true;
        break;
      }
      continue;
    }
    // End of file (the client went away mid-upload) or a hard error: the session ends as it
    // does whenever its connection closes. errno 0 with -1 means the slot was closed already.
    if (n == 0) {
      std::printf("\nUpload of %s ended: the client closed the connection after %lld of %lld bytes.\n", path.c_str(),
                  static_cast<long long>(received), static_cast<long long>(size));
    } else if (err != 0) {
      std::printf("\nUpload of %s ended: read error #%d after %lld of %lld bytes.\n", path.c_str(), err,
                  static_cast<long long>(received), static_cast<long long>(size));
    }
    std::fflush(stdout);
    if (n == 0 || err != 0) s.Socket.close_client(static_cast<uint16_t>(client));
    gone = true;
    break;
  }

  if (gone) {
    target.Discard();
    std::printf("Upload of %s abandoned; nothing was written under that name.\n", path.c_str());
    std::fflush(stdout);
    return kReplyNone;
  }
  if (!writeError.empty() || !target.Commit(&writeError)) return RefuseUpload(c, path, writeError);
  c.Reply("%lld bytes received.\n", static_cast<long long>(received));
  s.SetStatusText("Please power down and re-start.");
  bUpdateGui = true;
  return kReplyText;
}

const SCommandRow kFileRows[] = {
    {"#DOWNLOAD", kAnyArgs, kAnyArgs, kNone, Download},
    {"#UPLOAD", 2, 2, kNone, Upload},
};

}  // namespace

void RegisterFileCommands(CCommandTable& table) { table.Add(kFileRows); }
