// CTagManager: the settings tag store.
//
// A tag is one command line that the command interpreter accepts, kept because it changed a
// setting that must survive a restart. Setters record their tag after the value has taken
// effect; #SAVE_SETTINGS writes the list to the tag file ("vr480.tag"), and at start-up every
// tag of that file is executed again as if a client had sent it. The file is thus both the
// store and a replayable script.
//
// Canonical form: setters store `COMMAND = "argument"` (command, space, "=", space, double
// quote, the argument text as received, double quote), e.g. `#SET_CH_ENABLE = "3 0"`.
//
// Split rule (AnalyzeTag; the dispatcher cuts every incoming line the same way, so a stored
// tag and the same command typed by a client split alike):
//  - command: the first word, ended by white space or "=", upper-cased (ASCII only);
//  - argument: the text after the first "=", or, without "=", the text after the command
//    word; if that contains a double quote, the text between the first quote and the next
//    one (or the end), untouched; otherwise trimmed of space, tab, LF and CR at both ends.
//
// One tag per setting: ReplaceTag finds the first tag with the same command and overwrites
// it, so replaying the file at start-up does not grow the list. Per-channel settings use
// ReplaceTagOnArg, which also compares the chosen argument columns. A removed tag is never
// deleted: it is commented out with "//", stays in the list and the saved file, never matches
// a command again and is skipped when the file is read.
//
// Console messages (adding, removing, file errors) go to standard output.
//
// Thread safety: client service threads record tags while another client may read the list
// (#GET_TAGS) or save it, so every public operation holds the object's mutex for its whole
// duration. The split functions touch no list and are static. GetTag(i) calls in a loop may
// see changes between calls; use GetTagsText() for a consistent copy of the whole list.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct STag {
  std::string Tag;     // the command line, as stored and as written to the file
  std::string Remark;  // help text, held in memory only
};

class CTagManager {
 public:
  CTagManager();
  CTagManager(const CTagManager&) = delete;
  CTagManager& operator=(const CTagManager&) = delete;

  // ---- Splitting a command line (no list access) ------------------------------------------
  // Splits `line` into its command and argument (see above). Always returns 0.
  static int AnalyzeTag(const std::string& line, std::string* command, std::string* argument);
  static std::string GetCommand(const std::string& line);
  static std::string GetArgument(const std::string& line);
  // The same for the tag at `index`; "" when there is no such tag.
  std::string GetCommand(uint16_t index) const;
  std::string GetArgument(uint16_t index) const;

  // ---- Changing the list ------------------------------------------------------------------
  // Appends `line` unchanged (no duplicate check). -1 and "TagList allocation error." when
  // memory runs out or the list already holds 65535 tags; the list is then unchanged.
  int AddTag(const std::string& line);
  // Stores `line` in canonical form over the first tag with the same command, or appends it
  // ("Adding Tag [...]"). Returns 0.
  int ReplaceTag(const std::string& line);
  // As ReplaceTag, but a tag matches only if, for each of the `count` column numbers (1-based),
  // that column of its argument equals the same column of the new argument. With {1} this
  // keeps one tag per command and channel. A count of 0 behaves like ReplaceTag. Returns 0.
  int ReplaceTagOnArg(const std::string& line, short count, const short* columns);
  // Overwrites the text of the tag at `index` with `line` as given (no canonical form); its
  // place and remark stay. Out of range: "Invalid Tag #..." and nothing changes. Returns 0.
  int ReplaceTag(short index, const std::string& line);
  // Comments out ("//" prefix) the first tag with the command of `line`: 1, or -1 and
  // "Could not remove Tag ..." when there is none. Repeated calls remove the tags one by one.
  int RemoveTag(const std::string& line);
  // As RemoveTag, but the argument must match too.
  int RemoveTagEntry(const std::string& line);
  int ClearTags();  // empties the list; returns 0

  // ---- Reading the list -------------------------------------------------------------------
  std::string GetTag(uint16_t index) const;     // "" at or beyond GetNumTags()
  std::string GetRemark(uint16_t index) const;  // "" at or beyond GetNumTags()
  uint16_t GetNumTags() const;
  // Every tag's text followed by "\n", in list order, taken under one lock (#GET_TAGS).
  std::string GetTagsText() const;

  // ---- Files --------------------------------------------------------------------------------
  // `base` is a file name without extension (a host path, e.g. from Host().Path()); the tag
  // file is base + ".tag". LoadTags appends every line whose first non-white character is "#"
  // (left-trimmed; anything after, a trailing CR included, is kept) to the tags already held;
  // lines longer than 999 characters are cut there. 0, or -1 when the file cannot be opened.
  int LoadTags(const std::string& base);
  // Writes every tag followed by "\n" (commented-out ones included) to base + ".tag",
  // replacing the old file atomically: a temporary file in the same directory is written,
  // fsynced and renamed over it, so a crash leaves either the old or the new file. Remounting
  // the settings file system around the call is the caller's job. 0, or -1 on failure, when
  // the old file is left as it was.
  int SaveTags(const std::string& base);
  // Remarks are never stored on disk; kept for the interface. Returns 0.
  int LoadRems(const std::string& remFileName);
  // Lists the tags on the console as "Tag[i] text".
  void DumpTags() const;
  // The same lines into `fileName`, ended by "\n" (mode 0) or "\r\n" (mode 1); the file is
  // replaced like the tag file. 0, -1 when it cannot be written, -2 for an unknown mode.
  int DumpTags(const std::string& fileName, int mode) const;

 private:
  int AddTagLocked(const std::string& line);
  int ReplaceMatching(const std::string& line, short count, const short* columns);
  int RemoveMatching(const std::string& line, bool bMatchArgument);
  void SetFileNames(const std::string& base);

  std::vector<STag> TagList;  // the tags in file order; grows geometrically, never shrinks by removal
  uint16_t NumTags = 0;       // TagList.size(), at most 65535
  std::string FileName;       // base name of the tag and remark files; "default" until loaded or saved
  std::string RemFileName;    // FileName + ".rem"; never opened
  std::string TagFileName;    // FileName + ".tag"
  mutable std::mutex Lock;    // held by every public operation that reads or changes the fields above
};
