#include "basic/overwrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace qcr {

int overwriteFile(const std::string& path, std::string_view data, int mode) {
  int fd;
  do {
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno != 0 ? errno : EIO;
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
  if (close(fd) != 0 && rc == 0) rc = errno != 0 ? errno : EIO;
  return rc;
}

}  // namespace qcr
