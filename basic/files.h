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
// sync is set, forces it to disk before closing.
[[nodiscard]] int writeFile(const std::string& path, std::string_view data, int mode, bool sync);

// rename(2): an existing dst is replaced.
[[nodiscard]] int renameFile(const std::string& src, const std::string& dst);
[[nodiscard]] int removeFile(const std::string& path);
[[nodiscard]] int makeDirectory(const std::string& path, int mode);
// Names in the directory, without "." and "..", in no particular order.
[[nodiscard]] int listDirectory(const std::string& path, std::vector<std::string>* namesP);

// An open file descriptor; closed by the destructor when still open. Each read and
// write is one system call (restarted on EINTR), so callers see short transfers.
class File final {
 public:
  File() = default;
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  [[nodiscard]] int openRead(const std::string& path);
  // Write-only, created when missing, truncated.
  [[nodiscard]] int openWrite(const std::string& path, int mode);
  [[nodiscard]] int size(int64_t* sizeP) const;
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
