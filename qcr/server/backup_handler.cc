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
#include "qcr/data/committed_state.h"
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
// files and the current version of every committed file, each checked against its
// recorded checksum (and pulled first when this server has no intact copy). 0, or
// E_IO when a committed file cannot be had intact: a backup never holds damage.
int archiveMembers(Server& server, std::vector<std::string>* membersP) {
  const ReplicaView view = server.replica().view();
  for (const std::string& list : {std::string("qcr.nodes"), std::string("qcr.disks")}) {
    if (fileExists(server.paths().base + "/" + list)) membersP->push_back(list);
  }
  for (const auto& [objId, record] : view.committed.files) {
    CommittedFile f;
    if (server.files().findIntact(objId, record.version, record.uid, &f) != 0) {
      (void)server.pullFile(objId, record);
      if (server.files().findIntact(objId, record.version, record.uid, &f) != 0) {
        qcrLog(1, "backup: no intact copy of %s", fileRecordToString(objId, record).c_str());
        return E_IO;
      }
    }
    membersP->push_back("committed/" + f.fileName);
  }
  return 0;
}

int makeArchive(Server& server, const std::string& archive, bool compress) {
  std::vector<std::string> members;
  const int rc = archiveMembers(server, &members);
  return rc != 0 ? rc : writeArchive(archive, server.paths().base, members, compress);
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
