// The status of a file as a file copy announces it: type, size, permission bits,
// owner and times. (The general file wrappers live in basic/files.h.)
#pragma once

#include <cstdint>
#include <string>

namespace qcr {

struct FileStatus {
  bool regular = false;  // a regular file (not a directory, device, ...)
  bool directory = false;
  bool symlink = false;  // only from linkStatus: fileStatus follows links
  int64_t size = 0;
  uint32_t mode = 0;  // the permission bits (mode & 0777)
  uint32_t uid = 0;
  uint32_t gid = 0;
  int64_t atime = 0;  // seconds since the epoch
  int64_t mtime = 0;
};

// 0 or the system's error (as basic/files.h translates it).
[[nodiscard]] int fileStatus(const std::string& path, FileStatus* statusP);
// The same for path itself: a symbolic link there is described, not followed.
[[nodiscard]] int linkStatus(const std::string& path, FileStatus* statusP);

// Gives the regular file at path (a symbolic link there is not followed: ELOOP)
// the permission bits, times and, when withOwner is set, the owner of status; an
// owner this process may not give is left as it is. 0 or the system's error.
[[nodiscard]] int applyFileStatus(const std::string& path, const FileStatus& status,
                                  bool withOwner);

}  // namespace qcr
