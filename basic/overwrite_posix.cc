#include "basic/overwrite.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "basic/files.h"

namespace qcr {

namespace {

int openOnce(const std::string& path, int flags, int mode) {
  int fd;
  do {
    fd = open(path.c_str(), flags | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Opens the existing file, or creates it (*createdP set) when there is none. A
// symbolic link at path is refused with ELOOP.
int openForOverwrite(const std::string& path, int mode, int* fdP, bool* createdP) {
  *createdP = false;
  for (int tries = 0; tries < 2; ++tries) {
    *fdP = openOnce(path, 0, mode);
    if (*fdP >= 0 || errno != ENOENT) break;
    *fdP = openOnce(path, O_CREAT | O_EXCL, mode);
    *createdP = *fdP >= 0;
    if (*fdP >= 0 || errno != EEXIST) break;  // EEXIST: created meanwhile, open it
  }
  return *fdP >= 0 ? 0 : ioError(errno);
}

// Writes data at the start of fd and forces it to disk: 0 or the error.
int writeAndSync(int fd, std::string_view data) {
  int rc = 0;
  size_t done = 0;
  while (rc == 0 && done < data.size()) {
    const ssize_t n = pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(done));
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      rc = errno != 0 ? errno : EIO;
    } else if (n == 0) {
      rc = EIO;
    }
  }
  if (rc == 0 && fdatasync(fd) != 0) rc = errno != 0 ? errno : EIO;
  return rc;
}

}  // namespace

int overwriteFile(const std::string& path, std::string_view data, int mode) {
  int fd = -1;
  bool created = false;
  if (const int rc = openForOverwrite(path, mode, &fd, &created); rc != 0) return rc;
  int rc = writeAndSync(fd, data);
  if (close(fd) != 0 && rc == 0) rc = errno != 0 ? errno : EIO;
  // A new file's name must reach the disk too, or a crash could lose the file.
  if (rc == 0 && created) rc = syncDirectory(parentDirectory(path));
  return rc;
}

KeptFile::~KeptFile() {
  if (fd_ >= 0) (void)close(fd_);
}

int KeptFile::overwrite(std::string_view data) {
  // A file removed under the kept descriptor is made anew at the path, not
  // written where nobody would ever read it.
  // Only the link count is asked for: a query of the file's times makes the
  // next write stamp them finely, which dirties the inode on every write and
  // costs fdatasync one more disk write.
  struct statx st {};
  if (fd_ >= 0 && (statx(fd_, "", AT_EMPTY_PATH, STATX_NLINK, &st) != 0 ||
                   (st.stx_mask & STATX_NLINK) == 0 || st.stx_nlink == 0)) {
    (void)close(fd_);
    fd_ = -1;
  }
  if (fd_ < 0) {
    bool created = false;
    if (const int rc = openForOverwrite(path_, mode_, &fd_, &created); rc != 0) return rc;
    if (created) {
      if (const int rc = syncDirectory(parentDirectory(path_)); rc != 0) {
        (void)close(fd_);
        fd_ = -1;
        return rc;
      }
    }
  }
  const int rc = writeAndSync(fd_, data);
  if (rc != 0) {
    (void)close(fd_);
    fd_ = -1;
  }
  return rc;
}

}  // namespace qcr
