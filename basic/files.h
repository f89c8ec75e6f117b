// File-system wrappers. Every function returns 0 or a result code: the system's
// error number, translated in one place (ioError), so callers never see errno.
// Paths are POSIX paths. Nothing here logs; callers log in their own words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qcr {

// The result code for a failed call whose system error number is err: err itself,
// or 5 (EIO) when the system left none.
int ioError(int err);

bool fileExists(const std::string& path);
bool isDirectory(const std::string& path);
[[nodiscard]] int fileSize(const std::string& path, int64_t* sizeP);

// Reads the whole file into *dataP (replacing its content).
[[nodiscard]] int readFile(const std::string& path, std::string* dataP);
// Creates or truncates path with mode (before the umask), writes data and, when
// sync is set, forces it to disk before closing. A symbolic link at path is not
// followed: the call fails with ELOOP (see File::openWrite).
[[nodiscard]] int writeFile(const std::string& path, std::string_view data, int mode, bool sync);

// rename(2): an existing dst is replaced.
[[nodiscard]] int renameFile(const std::string& src, const std::string& dst);
[[nodiscard]] int removeFile(const std::string& path);
[[nodiscard]] int makeDirectory(const std::string& path, int mode);
// Names in the directory, without "." and "..", in no particular order.
[[nodiscard]] int listDirectory(const std::string& path, std::vector<std::string>* namesP);
// symlink(2): a link at linkPath that names target.
[[nodiscard]] int makeSymlink(const std::string& target, const std::string& linkPath);

// The directory part of path: what precedes its last "/" ("/" for a name in the
// root directory, "." for a name without "/").
std::string parentDirectory(const std::string& path);
// Forces the entries of directory dir (names created, renamed or removed in it) to
// disk, so that a file renamed into it survives a crash as the rename left it.
// 0 or the error of opening or syncing dir (ENOENT for a missing one).
[[nodiscard]] int syncDirectory(const std::string& dir);

// An open file descriptor; closed by the destructor when still open. Each read and
// write is one system call (restarted on EINTR), so callers see short transfers.
class File final {
 public:
  File() = default;
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  [[nodiscard]] int openRead(const std::string& path);
  // Write-only, created when missing, truncated. Every file opened so is one this
  // process creates or replaces as its own, so a symbolic link at path is never
  // followed (ELOOP): a link planted in a shared directory cannot redirect the
  // write to another file.
  [[nodiscard]] int openWrite(const std::string& path, int mode);
  // Write-only, appending, created with mode when missing. Refuses a symbolic link
  // at path (ELOOP) and anything but a regular file: EINVAL, or the open's own
  // error (EISDIR; ENXIO for a fifo without a reader, which never blocks the call).
  [[nodiscard]] int openAppend(const std::string& path, int mode);
  // Read-write, created with mode when missing, never truncated, never through a
  // symbolic link (ELOOP); anything but a regular file is refused (EINVAL). For
  // files written in place at fixed offsets.
  [[nodiscard]] int openReadWrite(const std::string& path, int mode);
  [[nodiscard]] int size(int64_t* sizeP) const;
  // The whole n bytes at offset, or an error: EIO when the file ends before them.
  [[nodiscard]] int readAllAt(void* buf, size_t n, int64_t offset);
  [[nodiscard]] int writeAllAt(const void* buf, size_t n, int64_t offset);
  // *doneP gets the byte count moved; the result is 0 or the call's error.
  [[nodiscard]] int read(void* buf, size_t n, size_t* doneP);
  [[nodiscard]] int write(const void* buf, size_t n, size_t* doneP);
  [[nodiscard]] int sync();
  [[nodiscard]] int close();
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace qcr
