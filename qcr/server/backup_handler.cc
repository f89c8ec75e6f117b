// backup: the committed files and the list files of this server, as one tar
// archive sent to the tool (compressed when asked and gzip is at hand).
#include <cerrno>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_ops.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/server/backup_archive.h"
#include "qcr/server/handlers.h"
#include "qcr/server/server.h"

namespace qcr {

namespace {

constexpr int kArchiveTimeoutMs = 10 * 60 * 1000;

// The names, relative to the base directory, of what the archive holds: the list
// files and the current version of every committed file (pulled first when this
// server has not got it yet).
std::vector<std::string> archiveMembers(Server& server) {
  const ReplicaView view = server.replica().view();
  for (const auto& [objId, record] : FileStore::missing(view.committed, server.files().list())) {
    (void)server.pullFile(objId, record);
  }
  std::vector<std::string> members;
  for (const std::string& list : {std::string("qcr.nodes"), std::string("qcr.disks")}) {
    if (fileExists(server.paths().base + "/" + list)) members.push_back(list);
  }
  for (const CommittedFile& f : server.files().list()) {
    const auto it = view.committed.files.find(f.objId);
    if (it != view.committed.files.end() && it->second.version == f.version && it->second.uid == f.uid) {
      members.push_back("committed/" + f.fileName);
    }
  }
  return members;
}

int makeArchive(Server& server, const std::string& archive, bool compress) {
  return writeArchive(archive, server.paths().base, archiveMembers(server), compress);
}

}  // namespace

int writeArchive(const std::string& archive, const std::string& baseDir,
                 const std::vector<std::string>& members, bool compress) {
  // "--" ends tar's options: no member can be taken for one.
  std::vector<std::string> argv = {"/bin/tar", compress ? "-czf" : "-cf", archive, "-C", baseDir,
                                   "--"};
  argv.insert(argv.end(), members.begin(), members.end());
  // tar opens the archive as it finds it: whatever is there (a link left behind)
  // goes first, so that the archive is always a new file.
  if (const int rc = removeFile(archive); rc != 0 && rc != ENOENT) return rc;
  ChildStatus status;
  const int rc = runAndWait(argv, kArchiveTimeoutMs, &status);
  qcrLog(4, "makeArchive: '%s' of %zu members (%d, exit %d)", archive.c_str(), members.size(), rc,
         status.exitCode);
  return rc != 0 ? rc : status.exitCode == 0 ? 0 : E_IO;
}

int handleBackup(Server& server, Connection& conn, const Message& req) {
  BackupRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0) return E_ILL_FORMED_MSG;
  const int barrier = server.proposer().readBarrier();
  if (barrier != 0) return replyFailed(conn, barrier);
  const std::string archive = tempFileName(server.paths().base + "/qcr-backup.tar");
  bool compressed = ask.compress != 0 && fileExists("/bin/gzip");
  int rc = makeArchive(server, archive, compressed);
  if (rc != 0 && compressed) {
    compressed = false;  // a plain archive rather than none: the tool adjusts its name
    rc = makeArchive(server, archive, false);
  }
  int64_t size = 0;
  if (rc == 0) rc = fileSize(archive, &size);
  if (rc != 0) {
    (void)removeFile(archive);
    return replyFailed(conn, rc);
  }
  rc = conn.send(MSG_TYPE_REPLY_BACKUP, encodeBody(BackupReply{compressed ? 1 : 0, size}));
  bool local = false;
  if (rc == 0) rc = sendFile(conn, archive, size, &local);
  (void)removeFile(archive);
  return rc;
}

}  // namespace qcr
