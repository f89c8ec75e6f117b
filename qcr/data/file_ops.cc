#include "qcr/data/file_ops.h"

#include <cerrno>

#include "basic/assert.h"
#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"

namespace qcr {

std::string tempFileName(const std::string& finalName) {
  return finalName + ".tmp." + std::to_string(currentProcessId()) + "." +
         std::to_string(currentThreadId());
}

int replaceRename(const std::string& src, const std::string& dst) {
  int rc = renameFile(src, dst);
  if (rc == EEXIST) {
    rc = removeFile(dst);
    if (rc == 0) rc = renameFile(src, dst);
    qcrLog(rc != 0 ? 1 : 4, "rename('%s', '%s'): unlink & rename returns rc=%d", src.c_str(),
           dst.c_str(), rc);
  } else {
    qcrLog(rc != 0 ? 1 : 4, "rename('%s', '%s') returns rc=%d", src.c_str(), dst.c_str(), rc);
  }
  return rc;
}

int keepRename(const std::string& src, const std::string& dst) {
  int rc;
  if (fileExists(dst)) {
    rc = removeFile(src);
    qcrLog(rc != 0 ? 1 : 4, "rename('%s', '%s'): target exists; unlink source returns rc=%d",
           src.c_str(), dst.c_str(), rc);
    return rc;
  }
  rc = renameFile(src, dst);
  if (rc == EEXIST) {
    rc = removeFile(src);
    qcrLog(rc != 0 ? 1 : 4, "rename('%s', '%s'): rename rc=EEXIST; unlink source returns rc=%d",
           src.c_str(), dst.c_str(), rc);
  } else {
    qcrLog(rc != 0 ? 1 : 4, "rename('%s', '%s') returns rc=%d", src.c_str(), dst.c_str(), rc);
  }
  return rc;
}

int createDirectory(const std::string& _path, int mode) {
  QCR_ASSERT(_path.length());
  const int rc = makeDirectory(_path, mode);
  if (rc != 0)
    qcrLog(1, "Creating '%s' failed (%d)", _path.c_str(), rc);
  else
    qcrLog(4, "Creating '%s' successful", _path.c_str());
  return rc;
}

int replaceFile(const std::string& path, std::string_view data, int mode) {
  const std::string temp = tempFileName(path);
  int rc = writeFile(temp, data, mode, true);
  if (rc == 0) rc = replaceRename(temp, path);
  if (rc != 0) (void)removeFile(temp);  // nothing more to do if it is already gone
  // The new content is durable only once the rename is.
  if (rc == 0) rc = syncDirectory(parentDirectory(path));
  return rc;
}

}  // namespace qcr
