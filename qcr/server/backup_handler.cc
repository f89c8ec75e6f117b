// backup: the committed files, the list files and the committed state of this
// server, as one tar archive sent to the tool (compressed when asked and gzip is
// at hand).
#include <cerrno>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/log.h"
#include "basic/process.h"
#include "basic/tempdir.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/archive.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/file_ops.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/server/handlers.h"
#include "qcr/server/server.h"

namespace qcr {

namespace {

// The members that carry the committed values (with their versions) and file
// records, and the repository's cluster id, so that a restore makes the same
// repository again, in the state the archive was made in.
constexpr char kStateMember[] = "qcr.state";
constexpr char kClusterMember[] = "qcr.cluster";

// The names, relative to the base directory, of what the archive holds: the list
// files and the current version of every committed file of view, each checked
// against its recorded checksum (and pulled first when this server has no intact
// copy). 0, or E_IO when a committed file cannot be had intact: a backup never
// holds damage.
int archiveMembers(Server& server, const ReplicaView& view, std::vector<std::string>* membersP) {
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

// Writes the archive: the members above from the base directory, and the
// committed state from a private directory of its own.
int makeArchive(Server& server, const ArchiveTools& tools, const std::string& archive,
                bool compress) {
  const ReplicaView view = server.replica().view();
  std::vector<std::string> members;
  int rc = archiveMembers(server, view, &members);
  if (rc != 0) return rc;
  const std::string stateDir = server.paths().base + "/tar_" + std::to_string(currentProcessId()) +
                               "_" + std::to_string(currentThreadId()) + "_qcr";
  (void)removeTree(stateDir);
  rc = makeDirectory(stateDir, 0700);
  if (rc == 0) {
    const std::vector<uint8_t> state = encodeBody(view.committed);
    rc = writeFile(stateDir + "/" + kStateMember,
                   std::string(state.begin(), state.end()), 0600, false);
  }
  if (rc == 0) {
    rc = writeFile(stateDir + "/" + kClusterMember,
                   std::to_string(server.replica().clusterId()) + "\n", 0600, false);
  }
  // Whatever is at the archive's name (a link left behind) goes first: the
  // archive is always a new file.
  if (rc == 0) {
    const int removed = removeFile(archive);
    if (removed != ENOENT) rc = removed;
  }
  if (rc == 0) {
    rc = createArchive(tools, archive,
                       {{server.paths().base, members}, {stateDir, {kStateMember, kClusterMember}}}, compress);
  }
  qcrLog(4, "makeArchive: '%s' of %zu members (%d)", archive.c_str(), members.size() + 2, rc);
  (void)removeTree(stateDir);
  return rc == 0 ? 0 : E_IO;
}

}  // namespace

int handleBackup(Server& server, Connection& conn, const Message& req) {
  BackupRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0) return E_ILL_FORMED_MSG;
  const int barrier = server.proposer().readBarrier();
  if (barrier != 0) return replyFailed(conn, barrier);
  ArchiveTools tools;
  if (const int rc = findArchiveTools(archiveCandidates(), &tools); rc != 0) {
    return replyFailed(conn, rc);
  }
  const std::string archive = tempFileName(server.paths().base + "/qcr-backup.tar");
  // Without a compressor the archive is plain rather than none: the tool adjusts
  // its name.
  const bool compressed = ask.compress != 0 && !tools.gzip.empty();
  int rc = makeArchive(server, tools, archive, compressed);
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
