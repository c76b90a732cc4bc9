// Files named by a client: the downloads and uploads of the command connection.
//
// A client path is an instrument path (absolute, or relative to "/vr480") and reaches the host
// through the host seam. On the instrument (root "/") it is used as given, relative to the
// server's working directory. On a workstation it must never leave the root: a path with a
// ".." segment is refused before it is mapped, and what the kernel finally opens is checked,
// not the text, so a symbolic link inside the root that points out of it is refused too.
//
// Only regular files are transferred, on the instrument as well: a directory, FIFO or device
// is refused without ever blocking the caller (a FIFO is opened non-blocking and let go).
//
// Reading: OpenClientFileForReading returns one open descriptor and the size taken from it
// (fstat), so the file checked is the file sent; there is no window between check and open.
//
// Writing: CUploadTarget receives the bytes into a temporary file in the target's directory
// (the directory itself is held open, so it cannot be swapped underneath) and renames it onto
// the final name only when Commit is called. A target that is not kept (Discard, or the
// object going without Commit) leaves no file behind, and an existing file under the final
// name is untouched until the rename.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// Opens a client's file for reading. The descriptor (close-on-exec, owned by the caller), with
// its size in *size; or -1 with errno ENOENT when there is no such file, EACCES when the path
// is refused (outside the root, a ".." segment off the instrument, not a regular file), or the
// error of the failed call.
int OpenClientFileForReading(const std::string& clientPath, int64_t* size);

class CUploadTarget {
 public:
  CUploadTarget() = default;
  ~CUploadTarget();  // discards what was not committed
  CUploadTarget(const CUploadTarget&) = delete;
  CUploadTarget& operator=(const CUploadTarget&) = delete;

  // Prepares to receive `size` bytes for the client path: checks the path as described above
  // (an existing target must be a regular file; off the instrument not a symbolic link), checks
  // that the file system has room for `size` bytes and creates the temporary file. False with
  // a one-line reason (no line feed) in *why.
  bool Open(const std::string& clientPath, int64_t size, std::string* why);
  // Appends bytes to the temporary file. False with the reason when the write failed.
  bool Write(const char* data, size_t length, std::string* why);
  // Flushes the temporary file to disk and renames it onto the final name. False with the
  // reason (the temporary file is then removed).
  bool Commit(std::string* why);
  // Removes the temporary file; the final name keeps what it had.
  void Discard();

 private:
  int DirFd = -1;         // the target's directory, held open from Open to Commit or Discard
  int Fd = -1;            // the temporary file
  std::string TempName;   // within DirFd
  std::string FinalName;  // within DirFd
  mode_t Mode = 0644;     // the mode an existing target had
  void CloseAll();
};
