#include "qcr/server/file_store.h"

#include <algorithm>
#include <cerrno>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/file_names.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

namespace {

bool isCurrent(const CommittedState& state, const CommittedFile& f) {
  const auto it = state.files.find(f.objId);
  return it != state.files.end() && it->second.version == f.version && it->second.uid == f.uid;
}

}  // namespace

constexpr const char* kUploadPrefix = "upload.tmp.";

std::string FileStore::uploadPath(const Uid& ticket) const {
  return pathOf(kUploadPrefix + uidToString(ticket));
}

void FileStore::removeLeftoverUploads() const {
  std::vector<std::string> names;
  if (listDirectory(dir_, &names) != 0) return;
  for (const std::string& name : names) {
    if (name.rfind(kUploadPrefix, 0) != 0) continue;
    const int rc = removeFile(pathOf(name));
    qcrLog(rc == 0 ? 4 : 1, "removing the left-over upload '%s' (%d)", name.c_str(), rc);
  }
}

std::vector<CommittedFile> FileStore::list() const {
  std::vector<CommittedFile> files;
  if (readCommittedDir(dir_, &files) != 0) files.clear();
  return files;
}

int FileStore::find(int32_t objId, int32_t version, const Uid& uid, CommittedFile* fileP) const {
  for (CommittedFile& f : list()) {
    if (f.objId == objId && f.version == version && f.uid == uid) {
      *fileP = std::move(f);
      return 0;
    }
  }
  return ENOENT;
}

int FileStore::findIntact(int32_t objId, int32_t version, const Uid& uid,
                          CommittedFile* fileP) const {
  if (const int rc = find(objId, version, uid, fileP); rc != 0) return rc;
  uint32_t crc = 0;
  const int rc = fileChecksum(pathOf(fileP->fileName), &crc);
  if (rc == 0 && crc == fileP->crc) return 0;
  // A damaged copy is never served: it goes, and a good one is pulled in its place.
  const int removed = removeFile(pathOf(fileP->fileName));
  qcrLog(1, "'%s' is damaged (checksum %08x, err %d): removed (%d)", fileP->fileName.c_str(), crc,
         rc, removed);
  return E_IO;
}

FileNames FileStore::namesOf(const CommittedState& state,
                             const std::vector<CommittedFile>& stored) {
  FileNames names;
  for (const CommittedFile& f : stored) {
    if (isCurrent(state, f)) names[f.objId] = f.name;
  }
  return names;
}

int32_t FileStore::maxStoredId() const {
  int32_t id = 0;
  for (const CommittedFile& f : list()) id = std::max(id, f.objId);
  return id;
}

std::vector<std::pair<int32_t, FileRecord>> FileStore::missing(
    const CommittedState& state, const std::vector<CommittedFile>& stored) {
  std::vector<std::pair<int32_t, FileRecord>> out;
  for (const auto& [objId, record] : state.files) {
    const bool have = std::any_of(stored.begin(), stored.end(), [&](const CommittedFile& f) {
      return f.objId == objId && f.version == record.version && f.uid == record.uid;
    });
    if (!have) out.emplace_back(objId, record);
  }
  return out;
}

void FileStore::prune(const CommittedState& state, const std::vector<CommittedFile>& stored) const {
  for (const CommittedFile& f : stored) {
    if (isCurrent(state, f) || !state.includes(f.uid)) continue;
    const int rc = removeFile(pathOf(f.fileName));
    qcrLog(4, "removing obsolete '%s' (%d)", f.fileName.c_str(), rc);
  }
}

int FileStore::receive(Connection& conn, const std::string& name, int32_t objId,
                       int32_t version, const Uid& uid, int64_t size, std::string* fileNameP,
                       uint32_t* crcP) {
  ReceiveOptions options;
  options.target = pathOf(committedFileName(name, objId, version, 0, uid));
  options.expectedSize = size;
  options.checksumInName = true;
  options.rename = RenameVariant::kKeep;
  options.sync = true;
  bool local = false;
  const int rc = receiveFile(conn, options, crcP, &local);
  if (rc != 0) return rc;
  *fileNameP = committedFileName(name, objId, version, *crcP, uid);
  return 0;
}

int FileStore::receiveAs(Connection& conn, const std::string& fileName, int64_t size) {
  // The name comes from another node: it becomes a path only when it is one of
  // ours, so that no message can place a file outside the committed directory.
  if (!isCommittedFileName(fileName)) {
    qcrLog(1, "receiveAs: refused file name '%s'", fileName.c_str());
    conn.markBad();
    return EINVAL;
  }
  CommittedFile parsed;
  (void)parseCommittedName(fileName, &parsed);  // well-formed: checked above
  ReceiveOptions options;
  options.target = pathOf(fileName);
  options.expectedSize = size;
  options.rename = RenameVariant::kKeep;
  options.sync = true;
  options.expectedChecksum = parsed.crc;  // a peer's damaged copy must not settle here
  uint32_t crc = 0;
  bool local = false;
  return receiveFile(conn, options, &crc, &local);
}

int FileStore::send(Connection& conn, const std::string& fileName, int64_t* sizeP) {
  int64_t size = 0;
  int rc = fileSize(pathOf(fileName), &size);
  if (rc != 0) return rc;
  if (sizeP != nullptr) *sizeP = size;
  CommittedFile parsed;
  if (!parseCommittedName(fileName, &parsed)) return EINVAL;
  bool local = false;
  return sendFile(conn, pathOf(fileName), size, &local, parsed.crc);
}

}  // namespace qcr
