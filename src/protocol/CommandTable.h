// Commands are data. Every command the server understands is one row: its name, the argument
// counts it accepts, how it persists itself, and its handler. Each command family
// (src/commands/*.cpp) hands its rows to the table once at start-up; the dispatcher then
// checks argument counts, answers unknown commands and records settings as tags from the
// rows, so a handler does only its own work:
//
//   parse its arguments -> validate (the exact "!" reply) -> apply through the server or the
//   driver -> write its reply text -> return the reply-mode code.
//
// One name may carry several rows for different argument counts: the first row (in
// registration order) whose name matches and whose count check passes runs.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "settings/TkString.h"

class CVr480Server;

// Reply-mode codes: how the session layer sends what a handler left behind.
enum : int {
  kReplyInvalid = -1,   // the invalid-command reply (text)
  kReplyText = 0,       // ordinary text reply; not sent while the client streams
  kReplyNone = 10,      // nothing to send
  kReplyConstant = 11,  // body outside any response buffer: length sent from a separate buffer
  kReplyAlways = 12,    // framed even while the client streams
  kReplyRecord = 13,    // a measurement record (in the data ring, a private copy or the error header)
  // Not a reply: the handler declines its arguments (a getter's channel out of range), so the
  // dispatcher goes on with the next row of the name and answers the invalid-command reply
  // when none takes the line. Nothing is recorded as a tag.
  kReplyNoMatch = -100,
};

// How a setter persists itself after it has taken effect.
enum class ETagPolicy : uint8_t {
  None,              // volatile: session settings, queries, one-shot actions
  PerCommand,        // one tag per command
  PerCommandAndArg1, // one tag per command and first argument (a channel, an output, an index)
};

// Short names for the rows of the family tables.
constexpr ETagPolicy kNone = ETagPolicy::None;
constexpr ETagPolicy kTag = ETagPolicy::PerCommand;
constexpr ETagPolicy kTagPerArg1 = ETagPolicy::PerCommandAndArg1;

constexpr int kAnyArgs = -1;  // the row accepts any argument text, unchecked

// What a handler sees of the command it runs.
class CCommandContext {
 public:
  CCommandContext(CVr480Server& server, int client, const std::string& command, const std::string& argText);

  CVr480Server& Server;
  const int Client;             // 0-9 a client, 10 the server itself
  const int Row;                // the caller's row in the per-client tables
  const std::string& Command;   // upper case
  const std::string& ArgText;   // argument text as split from the line
  CTkString Args;               // the argument text, for its columns

  // Column n (from 1) of the argument text; "" when missing.
  std::string Col(int n) const;
  int NumArgs() const { return Args.GetNumCols(); }
  // A column read as the C library reads a number prefix: text that is no number reads 0.
  long Int(int n) const;
  double Dbl(int n) const;
  // A real column for a setter: NaN and the infinities (also "1e999") are refused with one
  // reply for every command, "!Illegal parameters.  Not a finite number: <text>.\n", since a
  // wild value would poison the scale or a card word. False after writing that reply.
  bool FiniteDbl(int n, double& value);

  // Writes the reply text (printf-style) into the caller's response buffer and returns
  // kReplyText. A reply longer than the buffer is replaced by a "!" reply naming the command.
  int Reply(const char* format, ...) __attribute__((format(printf, 2, 3)));
  int ReplyV(const char* format, va_list args);
  char* Text() const;  // the caller's response buffer

  // A binary or constant body instead of the response text.
  void SetBody(const char* body, unsigned length) {
    Body = body;
    Length = length;
    bExplicitBody = true;
  }
  // Keeps the table from recording a tag for this call (the setter refused the value
  // without a "!" reply, or applied nothing).
  void SkipTag() { bSkipTag = true; }

  const char* Body = nullptr;
  unsigned Length = 0;
  bool bExplicitBody = false;
  bool bSkipTag = false;
};

using CommandHandler = int (*)(CCommandContext&);

struct SCommandRow {
  const char* Name;  // "#SET_NUM_AVERAGES"
  int MinArgs;       // kAnyArgs: no check
  int MaxArgs;
  ETagPolicy Tag;
  CommandHandler Handler;
};

class CCommandTable {
 public:
  void Add(const SCommandRow* rows, size_t count);
  template <size_t N>
  void Add(const SCommandRow (&rows)[N]) {
    Add(rows, N);
  }
  // The rows registered under a name, in registration order (nullptr when none).
  const std::vector<const SCommandRow*>* Find(const std::string& name) const;
  size_t Size() const { return Rows.size(); }
  // Every row, in registration order.
  const std::vector<SCommandRow>& All() const { return Rows; }

 private:
  std::vector<SCommandRow> Rows;
  std::unordered_map<std::string, std::vector<const SCommandRow*>> ByName;
  void Reindex();
};

// The server's table, filled once by every command family (first use builds it).
const CCommandTable& Commands();
