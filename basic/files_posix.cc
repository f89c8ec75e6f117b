#include "basic/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qcr {

namespace {

// The error of the call that just failed.
int lastError() { return ioError(errno); }

}  // namespace

int ioError(int err) { return err != 0 ? err : EIO; }

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int fileSize(const std::string& path, int64_t* sizeP) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return lastError();
  *sizeP = static_cast<int64_t>(st.st_size);
  return 0;
}

int readFile(const std::string& path, std::string* dataP) {
  File file;
  int64_t size = 0;
  int rc = file.openRead(path);
  if (rc == 0) rc = file.size(&size);
  if (rc != 0) return rc;
  dataP->resize(static_cast<size_t>(size));
  size_t have = 0;
  // The size is a hint: read until end of file so a growing file is read whole.
  for (;;) {
    if (have == dataP->size()) dataP->resize(have + 4096);
    size_t got = 0;
    rc = file.read(dataP->data() + have, dataP->size() - have, &got);
    if (rc != 0) return rc;
    if (got == 0) break;
    have += got;
  }
  dataP->resize(have);
  return file.close();
}

int writeFile(const std::string& path, std::string_view data, int mode, bool sync) {
  File file;
  int rc = file.openWrite(path, mode);
  size_t done = 0;
  while (rc == 0 && done < data.size()) {
    size_t put = 0;
    rc = file.write(data.data() + done, data.size() - done, &put);
    if (rc == 0 && put == 0) rc = EIO;
    done += put;
  }
  if (rc == 0 && sync) rc = file.sync();
  if (rc != 0) return rc;
  return file.close();
}

int renameFile(const std::string& src, const std::string& dst) {
  return rename(src.c_str(), dst.c_str()) == 0 ? 0 : lastError();
}

int removeFile(const std::string& path) { return unlink(path.c_str()) == 0 ? 0 : lastError(); }

int makeDirectory(const std::string& path, int mode) {
  return mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 ? 0 : lastError();
}

int makeSymlink(const std::string& target, const std::string& linkPath) {
  return symlink(target.c_str(), linkPath.c_str()) == 0 ? 0 : lastError();
}

std::string parentDirectory(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

int syncDirectory(const std::string& dir) {
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return lastError();
  const int rc = fsync(fd) == 0 ? 0 : lastError();
  ::close(fd);
  return rc;
}

int listDirectory(const std::string& path, std::vector<std::string>* namesP) {
  namesP->clear();
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return lastError();
  errno = 0;
  while (const struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      namesP->emplace_back(entry->d_name);
  }
  const int err = errno;
  closedir(dir);
  return err;
}

File::~File() {
  if (fd_ >= 0) ::close(fd_);
}

int File::openRead(const std::string& path) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return fd_ >= 0 ? 0 : lastError();
}

int File::openWrite(const std::string& path, int mode) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
             static_cast<mode_t>(mode));
  return fd_ >= 0 ? 0 : lastError();
}

int File::openAppend(const std::string& path, int mode) {
  if (fd_ >= 0) ::close(fd_);
  // Non-blocking only for the open: a fifo would otherwise wait for a reader.
  fd_ = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
             static_cast<mode_t>(mode));
  if (fd_ < 0) return lastError();
  struct stat st;
  int rc = fstat(fd_, &st) != 0 ? lastError() : S_ISREG(st.st_mode) ? 0 : EINVAL;
  if (rc == 0 && fcntl(fd_, F_SETFL, O_APPEND) != 0) rc = lastError();
  if (rc != 0) {
    ::close(fd_);
    fd_ = -1;
  }
  return rc;
}

int File::openReadWrite(const std::string& path, int mode) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
             static_cast<mode_t>(mode));
  if (fd_ < 0) return lastError();
  struct stat st;
  int rc = fstat(fd_, &st) != 0 ? lastError() : S_ISREG(st.st_mode) ? 0 : EINVAL;
  if (rc == 0 && fcntl(fd_, F_SETFL, 0) != 0) rc = lastError();
  if (rc != 0) {
    ::close(fd_);
    fd_ = -1;
  }
  return rc;
}

int File::readAllAt(void* buf, size_t n, int64_t offset) {
  auto* p = static_cast<uint8_t*>(buf);
  while (n > 0) {
    const ssize_t got = ::pread(fd_, p, n, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return lastError();
    if (got == 0) return EIO;
    p += got;
    n -= static_cast<size_t>(got);
    offset += got;
  }
  return 0;
}

int File::writeAllAt(const void* buf, size_t n, int64_t offset) {
  const auto* p = static_cast<const uint8_t*>(buf);
  while (n > 0) {
    const ssize_t put = ::pwrite(fd_, p, n, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return lastError();
    p += put;
    n -= static_cast<size_t>(put);
    offset += put;
  }
  return 0;
}

int File::size(int64_t* sizeP) const {
  struct stat st;
  if (fstat(fd_, &st) != 0) return lastError();
  *sizeP = static_cast<int64_t>(st.st_size);
  return 0;
}

int File::read(void* buf, size_t n, size_t* doneP) {
  ssize_t got;
  do {
    got = ::read(fd_, buf, n);
  } while (got < 0 && errno == EINTR);
  *doneP = got > 0 ? static_cast<size_t>(got) : 0;
  return got < 0 ? lastError() : 0;
}

int File::write(const void* buf, size_t n, size_t* doneP) {
  ssize_t put;
  do {
    put = ::write(fd_, buf, n);
  } while (put < 0 && errno == EINTR);
  *doneP = put > 0 ? static_cast<size_t>(put) : 0;
  return put < 0 ? lastError() : 0;
}

int File::sync() { return fsync(fd_) == 0 ? 0 : lastError(); }

int File::close() {
  if (fd_ < 0) return 0;
  const int rc = ::close(fd_);
  fd_ = -1;
  return rc == 0 ? 0 : lastError();
}

}  // namespace qcr
