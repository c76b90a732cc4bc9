// Writing to the settings file system.
//
// On the instrument "/vr480" is a small flash file system that stays mounted read-only, so
// that a power cut in normal operation can never damage it. Every write is therefore made
// inside a bracket of shell commands: "/bin/mount -o,remount /vr480" (read-write) before,
// "/bin/sync" and "/bin/mount -o,remount,ro /vr480" after. Two clients may save at once, and
// the event log, the identification file and configuration uploads write there too; were two
// brackets to overlap, the first to finish would remount read-only under the other's feet.
// So one process-wide lock, SettingsFileLock(), covers each bracket from the read-write
// remount to the read-only one.
//
// Inside the bracket a file is replaced crash-safely (ReplaceFileAtomically): the new content
// goes to a temporary file in the same directory, is flushed and fsynced, and is renamed over
// the old file. A crash or power cut at any moment leaves either the old or the complete new
// file, never a truncated one that the next start-up would load as zeros.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

// The one lock around every write bracket of "/vr480" (saves, log entries, identification
// file, uploads of configuration). Not recursive: code inside a bracket must not open another.
std::mutex& SettingsFileLock();

// Holds SettingsFileLock() and the read-write remount for the life of the object.
//
//   CSettingsWriteBracket bracket;           // lock, "/bin/mount -o,remount /vr480"
//   ... ReplaceFileAtomically(...) ...
//   bracket.Close();                         // "/bin/sync", "/bin/mount -o,remount,ro /vr480"
//
// A failed remount prints "/bin/mount returned N." and is remembered (MountStatus()); whether
// to go on is the caller's decision. Close() (or the destructor) runs the closing commands
// with their warnings and releases the lock; Abandon() releases the lock without them, for a
// caller that gives up when the remount failed.
class CSettingsWriteBracket {
 public:
  CSettingsWriteBracket();
  ~CSettingsWriteBracket();
  CSettingsWriteBracket(const CSettingsWriteBracket&) = delete;
  CSettingsWriteBracket& operator=(const CSettingsWriteBracket&) = delete;

  int MountStatus() const { return Mount; }  // exit status of the read-write remount (0 = done)
  // Runs "/bin/sync" ("WARNING: /bin/sync returned N.") and the read-only remount ("WARNING:
  // /bin/mount -o,remout,ro returned N."), then releases the lock. Returns the status of the
  // read-only remount. A second call does nothing and returns 0.
  int Close();
  // Releases the lock without running the closing commands.
  void Abandon();

 private:
  std::unique_lock<std::mutex> Guard;
  int Mount = 0;
};

enum class EFileWrite {
  kOk,
  kOpenFailed,   // the temporary file could not be created
  kWriteFailed,  // writing, fsync or rename failed; the old file is untouched
};

// Replaces the file at `hostPath` (a host path, see Host().Path) with `content`: temporary
// file "<path>.tmp" beside it, written, fsynced, renamed over the old file, directory fsynced.
// The temporary name is fixed (not random) so that crashes never leave more than one stray
// file per settings file on the small file system; SettingsFileLock() keeps two writers of
// one file apart. The new file takes the old file's permission bits, or 0644.
EFileWrite ReplaceFileAtomically(const std::string& hostPath, std::string_view content);
