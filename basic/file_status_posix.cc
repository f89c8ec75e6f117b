#include "basic/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "basic/files.h"

namespace qcr {

namespace {

void describe(const struct stat& st, FileStatus* statusP) {
  statusP->regular = S_ISREG(st.st_mode);
  statusP->directory = S_ISDIR(st.st_mode);
  statusP->symlink = S_ISLNK(st.st_mode);
  statusP->size = static_cast<int64_t>(st.st_size);
  statusP->mode = static_cast<uint32_t>(st.st_mode & 0777);
  statusP->uid = static_cast<uint32_t>(st.st_uid);
  statusP->gid = static_cast<uint32_t>(st.st_gid);
  statusP->atime = static_cast<int64_t>(st.st_atime);
  statusP->mtime = static_cast<int64_t>(st.st_mtime);
}

}  // namespace

int fileStatus(const std::string& path, FileStatus* statusP) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return ioError(errno);
  describe(st, statusP);
  return 0;
}

int linkStatus(const std::string& path, FileStatus* statusP) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return ioError(errno);
  describe(st, statusP);
  return 0;
}

int applyFileStatus(const std::string& path, const FileStatus& status, bool withOwner) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return ioError(errno);
  struct stat st;
  int rc = fstat(fd, &st) != 0 ? ioError(errno) : 0;
  if (rc == 0 && !S_ISREG(st.st_mode)) rc = EINVAL;
  if (rc == 0 && withOwner && fchown(fd, status.uid, status.gid) != 0 && errno != EPERM) {
    rc = ioError(errno);
  }
  if (rc == 0 && fchmod(fd, static_cast<mode_t>(status.mode & 0777)) != 0) rc = ioError(errno);
  const timespec times[2] = {{static_cast<time_t>(status.atime), 0},
                             {static_cast<time_t>(status.mtime), 0}};
  if (rc == 0 && futimens(fd, times) != 0) rc = ioError(errno);
  close(fd);
  return rc;
}

}  // namespace qcr
