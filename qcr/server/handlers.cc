#include "qcr/server/handlers.h"

#include <cerrno>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"
#include "qcr/server/file_store.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/server/server.h"

namespace qcr {

int replyOk(Connection& conn, const std::vector<uint8_t>& body) {
  return conn.send(MSG_TYPE_OK, body);
}

int replyFailed(Connection& conn, int error) {
  return conn.send(MSG_TYPE_FAILED, encodeBody(ErrorBody{error}));
}

int refuseRequest(Connection& conn, const Message& req, int error) {
  qcrLog(1, "refusing '%s' from %s (%d)", msgName(req.type),
         addressText(conn.peerAddress()).c_str(), error);
  (void)replyFailed(conn, error);
  return error;
}

int replyError(Server& server, Connection& conn, int error) {
  // "Not the leader" is internal: the client should simply try another server.
  if (error == E_NOT_LEADER) error = E_NOT_ACTIVE;
  const std::shared_ptr<const ReplicaView> view = server.replica().snapshot();
  qcrLog(4, "answering error %d at seq %d", error, view->seq);
  return conn.send(MSG_TYPE_SEQ_COMMIT_ERROR,
                   encodeBody(SeqCommitErrorReply{error, view->seq, view->committed}));
}

int replyCommitted(Server& server, Connection& conn) {
  return conn.send(MSG_TYPE_SEQ_COMMIT, *server.replica().encodedState());
}

namespace {

int handleInit(Server& server, Connection& conn, const Message& req) {
  InitRequest init;
  bool adopted = false;
  if (decodeBody(req.body.data(), req.body.size(), &init) != 0) return E_ILL_FORMED_MSG;
  const int rc = server.replica().init(init, &adopted);
  if (rc != 0) {
    qcrLog(1, "init refused (%d)", rc);
    return replyFailed(conn, rc);
  }
  // Once initialised, the node list changes only through the committed one: an
  // init repeated by anyone, with whatever list, leaves it alone.
  if (!adopted) return replyOk(conn);
  server.setNodeList(init.nodes);
  // A restored repository's files arrived before the init: name them at once.
  server.replica().learnNames(
      FileStore::namesOf(server.replica().view().committed, server.files().list()));
  server.kick();
  return replyOk(conn);
}

// Reads a file announced with size bytes and throws it away: fdata messages
// up to the size, then the fcrc. 0, or the receive's error or E_ILL_FORMED_MSG.
int skipFile(Connection& conn, int64_t size) {
  int64_t received = 0;
  Message msg;
  while (received < size) {
    if (const int rc = conn.receive(&msg); rc != 0) return rc;
    if (msg.type != MSG_TYPE_FDATA) return E_ILL_FORMED_MSG;
    received += static_cast<int64_t>(msg.body.size());
  }
  if (const int rc = conn.receive(&msg); rc != 0) return rc;
  return received == size && msg.type == MSG_TYPE_FCRC ? 0 : E_ILL_FORMED_MSG;
}

// cp_to for the committed directory: a committed file of the repository that an
// init from an archive is about to make (the tool sends every file first, then
// the init whose state names them). Only a server waiting for init takes one;
// the name must be a committed name and the content must have the checksum the
// name records. Answered ok once the file is kept.
int handleRestoreFile(Server& server, Connection& conn, const Message& req) {
  FileAnnouncement ann;
  if (decodeBody(req.body.data(), req.body.size(), &ann) != 0) return E_ILL_FORMED_MSG;
  if (ann.destination != kRestoreDestination) return handleCopyTo(server, conn, req, ann);
  if (ann.size < 0) return refuseRequest(conn, req, EINVAL);
  if (server.replica().initialised()) {
    // It serves a repository already and takes none of these files; it reads the
    // file to its end, so that the sender hears why instead of a broken send.
    const int rc = skipFile(conn, ann.size);
    return rc != 0 ? rc : refuseRequest(conn, req, EEXIST);
  }
  // The sender names the file by its own path: the last part is the committed
  // name, which receiveAs checks.
  const std::string fileName = ann.name.substr(ann.name.rfind('/') + 1);
  const int rc = server.files().receiveAs(conn, fileName, ann.size);
  if (rc != 0) return refuseRequest(conn, req, rc);
  qcrLog(4, "restored '%s' (%lld bytes)", fileName.c_str(), static_cast<long long>(ann.size));
  return replyOk(conn);
}

int handleQuery(Server& server, Connection& conn) {
  if (!server.replica().initialised()) return replyError(server, conn, E_NOT_ACTIVE);
  const bool authoritative = server.proposer().readBarrier() == 0;
  // The seq and state as a commit reply carries them, then the flag.
  std::vector<uint8_t> body = *server.replica().encodedState();
  body.push_back(0);
  putFlag(&body.back(), authoritative);
  return conn.send(MSG_TYPE_SEQ_COMMIT_QUERY, body);
}

// The reply, then the local node list announced as a cp_to and sent as a file.
int handleDiscover(Server& server, Connection& conn, const Message& req) {
  DiscoverRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0) return E_ILL_FORMED_MSG;
  if (!server.replica().initialised()) return replyError(server, conn, E_NOT_ACTIVE);
  const bool authoritative = server.proposer().readBarrier() == 0;
  const ReplicaView view = server.replica().view();
  int rc = conn.send(MSG_TYPE_REPLY_DISCOVER,
                     encodeBody(DiscoverReply{view.seq, view.committed, authoritative,
                                              nodeListVersion(view.committed)}));
  FileAnnouncement ann;
  if (rc == 0) rc = announceFile(server.paths().nodesFile, "qcr.nodes", &ann);
  if (rc == 0) rc = conn.send(MSG_TYPE_CP_TO, encodeBody(ann));
  bool local = false;
  if (rc == 0) rc = sendFile(conn, server.paths().nodesFile, ann.size, &local);
  return rc;
}

// fget with a name: the reply with the file's id and size, then the file.
int handleFileGet(Server& server, Connection& conn, const Message& req) {
  FgetRequest ask;
  if (decodeBody(req.body.data(), req.body.size(), &ask) != 0) return E_ILL_FORMED_MSG;
  int rc = server.proposer().readBarrier();
  if (rc != 0) return replyError(server, conn, rc);
  const std::shared_ptr<const ReplicaView> shared = server.replica().snapshot();
  const ReplicaView& view = *shared;
  int32_t objId = 0;
  rc = checkFileGet(view.committed, view.names, ask, &objId);
  if (rc != 0) return replyError(server, conn, rc);
  const FileRecord& record = view.committed.files.at(objId);
  // Only a copy that still has its recorded checksum is served; a damaged one is
  // removed by the check and replaced from a peer, or the answer is E_IO.
  CommittedFile f;
  if (server.files().findIntact(objId, record.version, record.uid, &f) != 0) {
    (void)server.pullFile(objId, record);
    if (server.files().findIntact(objId, record.version, record.uid, &f) != 0) {
      return replyError(server, conn, E_IO);
    }
  }
  int64_t size = 0;
  rc = fileSize(server.files().pathOf(f.fileName), &size);
  if (rc != 0) return replyError(server, conn, E_IO);
  rc = conn.send(MSG_TYPE_SEQ_COMMIT_FGET,
                 encodeBody(SeqCommitFgetReply{view.seq, view.committed, objId, size}));
  if (rc == 0) rc = server.files().send(conn, f.fileName);
  return rc;
}

int handleFileList(Server& server, Connection& conn) {
  const int rc = server.proposer().readBarrier();
  if (rc != 0) return replyError(server, conn, rc);
  const std::shared_ptr<const ReplicaView> shared = server.replica().snapshot();
  const ReplicaView& view = *shared;
  return conn.send(MSG_TYPE_SEQ_COMMIT_FLIST,
                   encodeBody(SeqCommitFlistReply{view.seq, view.committed,
                                                  fileListOf(view.committed, view.names)}));
}

std::vector<uint8_t> statusBody(const Server& server) {
  std::vector<uint8_t> body(1);
  putVarUInt(body.data(), server.joined() ? kNodeStatusJoined : kNodeStatusServing);
  return body;
}

}  // namespace

int handleRead(Server& server, Connection& conn, const Message& req) {
  switch (req.type) {
    case MSG_TYPE_VGET: {
      const int rc = server.proposer().readBarrier();
      return rc == 0 ? replyCommitted(server, conn) : replyError(server, conn, rc);
    }
    case MSG_TYPE_QUERY: return handleQuery(server, conn);
    case MSG_TYPE_DISCOVER: return handleDiscover(server, conn, req);
    case MSG_TYPE_FGET:
    case MSG_TYPE_FGET_PRIV:
      return req.body.empty() ? handleFileList(server, conn) : handleFileGet(server, conn, req);
  }
  return E_ILL_FORMED_MSG;
}

int handleRequest(Server& server, Connection& conn, const Message& req,
                  const RequestOrigin& origin) {
  const bool fromPeer = origin.fromPeer;
  qcrLog(5, "request %d '%s' len %zu%s", req.type, msgName(req.type), req.body.size(),
         fromPeer ? " from a peer" : "");
  switch (req.type) {
    case MSG_TYPE_VGET:
    case MSG_TYPE_QUERY:
    case MSG_TYPE_DISCOVER:
    case MSG_TYPE_FGET:
    case MSG_TYPE_FGET_PRIV: return handleRead(server, conn, req);
    case MSG_TYPE_VPUT:
    case MSG_TYPE_VDEL:
    case MSG_TYPE_FPUT:
    case MSG_TYPE_FDEL:
    case MSG_TYPE_CONFIG: {
      // A forwarded change is never forwarded again: only a peer may say so.
      const int rc = fromPeer ? server.checkPeer(conn, true) : 0;
      return rc != 0 ? refuseRequest(conn, req, rc) : handleChange(server, conn, req, origin);
    }
    case MSG_TYPE_PXINIT:
    case MSG_TYPE_PXREAD:
    case MSG_TYPE_PXWRITE:
    case MSG_TYPE_PXRDWR:
    case MSG_TYPE_FXFER: return handlePeer(server, conn, req, fromPeer);
    case MSG_TYPE_INIT: return handleInit(server, conn, req);
    case MSG_TYPE_CP_TO: return handleRestoreFile(server, conn, req);
    case MSG_TYPE_SH: return handleShell(server, conn, req);
    case MSG_TYPE_CP_FROM: return handleCopyFrom(server, conn, req);
    case MSG_TYPE_BACKUP: return handleBackup(server, conn, req);
    case MSG_TYPE_AUTH: return handleAuth(server, conn, req);
    case MSG_TYPE_STATUS: return replyOk(conn, statusBody(server));
    case MSG_TYPE_PING: return replyOk(conn);
    case MSG_TYPE_CHECK_READY:
      return server.replica().initialised() ? replyOk(conn) : replyFailed(conn, E_NOT_ACTIVE);
    case MSG_TYPE_DEBUG:
    case MSG_TYPE_DUMP:
    case MSG_TYPE_QUIT:
    case MSG_TYPE_CHECK: return handleControl(server, conn, req);
    case MSG_TYPE_EOR: return conn.send(MSG_TYPE_EOR, {});
    default:
      qcrLog(4, "request %d '%s' not served", req.type, msgName(req.type));
      return replyFailed(conn, ENOSYS);
  }
}

}  // namespace qcr
