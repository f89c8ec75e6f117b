#include "qcr/transfer/remote.h"

#include <cctype>
#include <cerrno>

#include "basic/file_status.h"
#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"
#include "qcr/coding/coding.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

int ShellRequest::getSize() const { return sizeStringArray(assignments) + sizeStringArray(argv); }

uint8_t* ShellRequest::write(uint8_t* p) const {
  return putStringArray(putStringArray(p, assignments), argv);
}

const uint8_t* ShellRequest::read(const uint8_t* p, const uint8_t* end) {
  return getStringArray(getStringArray(p, end, &assignments), end, &argv);
}

uint8_t* ShellOutcome::write(uint8_t* p) const {
  return putU32(putU32(p, static_cast<uint32_t>(exitCode)), static_cast<uint32_t>(signal));
}

const uint8_t* ShellOutcome::read(const uint8_t* p, const uint8_t* end) {
  uint32_t code = 0, sig = 0;
  p = getU32(getU32(p, end, &code), end, &sig);
  exitCode = static_cast<int32_t>(code);
  signal = static_cast<int32_t>(sig);
  return p;
}

int CopyFromRequest::getSize() const { return sizeString(path); }
uint8_t* CopyFromRequest::write(uint8_t* p) const { return putString(p, path); }
const uint8_t* CopyFromRequest::read(const uint8_t* p, const uint8_t* end) {
  return getString(p, end, &path);
}

bool isAssignment(const std::string& word) {
  const size_t equals = word.find('=');
  if (equals == 0 || equals == std::string::npos) return false;
  for (size_t i = 0; i < equals; ++i) {
    const unsigned char c = static_cast<unsigned char>(word[i]);
    if (!isalnum(c) && c != '_') return false;
  }
  return true;
}

bool isCopyPath(const std::string& path) {
  if (path.size() < 2 || path[0] != '/') return false;
  size_t from = 1;
  while (from < path.size()) {
    size_t slash = path.find('/', from);
    if (slash == std::string::npos) slash = path.size();
    const std::string part = path.substr(from, slash - from);
    if (part.empty() || part == "." || part == "..") return false;
    from = slash + 1;
  }
  return true;
}

int copyTargetPath(const std::string& target, const std::string& name, std::string* pathP) {
  FileStatus status;
  if (linkStatus(target, &status) != 0 || !status.directory) {
    *pathP = target;
    return 0;
  }
  const std::string last = name.substr(name.rfind('/') + 1);
  if (last.empty() || last == "." || last == "..") return EINVAL;
  *pathP = target + (target.ends_with('/') ? "" : "/") + last;
  return 0;
}

int receiveCopiedFile(Connection& conn, const FileAnnouncement& announcement,
                      const std::string& path, bool* localFailureP, TransferProgress* progress) {
  // receiveFile keeps its own temporary name until the checksum matched; the
  // file then waits under this one until its status is applied.
  const std::string held = path + ".tmp.cp." + std::to_string(currentProcessId()) + "." +
                           std::to_string(currentThreadId());
  ReceiveOptions options;
  options.target = held;
  options.expectedSize = announcement.size;
  options.privateFile = true;  // until the announced bits are applied
  options.progress = progress;
  uint32_t checksum = 0;
  int rc = receiveFile(conn, options, &checksum, localFailureP);
  if (rc != 0) return rc;
  FileStatus status;
  status.mode = announcement.mode & 0777;
  status.uid = announcement.uid;
  status.gid = announcement.gid;
  status.atime = announcement.atime;
  status.mtime = announcement.mtime;
  rc = applyFileStatus(held, status, true);
  if (rc == 0) rc = renameFile(held, path);
  if (rc != 0) {
    *localFailureP = true;
    qcrLog(1, "keeping '%s' failed (%d)", path.c_str(), rc);
    (void)removeFile(held);
  }
  return rc;
}

}  // namespace qcr
