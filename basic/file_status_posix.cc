#include "basic/file_status.h"

#include <sys/stat.h>

#include <cerrno>

#include "basic/files.h"

namespace qcr {

int fileStatus(const std::string& path, FileStatus* statusP) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return ioError(errno);
  statusP->regular = S_ISREG(st.st_mode);
  statusP->size = static_cast<int64_t>(st.st_size);
  statusP->mode = static_cast<uint32_t>(st.st_mode & 0777);
  statusP->uid = static_cast<uint32_t>(st.st_uid);
  statusP->gid = static_cast<uint32_t>(st.st_gid);
  statusP->atime = static_cast<int64_t>(st.st_atime);
  statusP->mtime = static_cast<int64_t>(st.st_mtime);
  return 0;
}

}  // namespace qcr
