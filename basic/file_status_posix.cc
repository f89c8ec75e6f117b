#include "basic/file_status.h"

#include <sys/stat.h>

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

}  // namespace qcr
