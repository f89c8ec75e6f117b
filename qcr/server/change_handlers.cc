// Changes: vput, vdel, fput, fdel and config. The leader decides them; a
// follower forwards them to the leader and relays the exchange both ways, or
// takes the lead when the leader cannot be reached.
#include <cerrno>
#include <functional>
#include <mutex>
#include <optional>

#include "basic/files.h"
#include "basic/log.h"
#include "basic/net.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/file_names.h"
#include "qcr/data/list_files.h"
#include "qcr/transfer/transfer.h"
#include "qcr/server/handlers.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/server/server.h"

namespace qcr {

namespace {

// Whether the change that arrived at time arrived on conn is still wanted: its
// client has not closed the connection and it is younger than the server's
// patience. A client waits longer than that for the answer before it gives up
// and tries another server; a change decided after that could land after newer
// changes the same client made meanwhile.
std::function<bool()> stillWanted(Server& server, Connection& conn, double arrived) {
  return [&server, &conn, arrived] {
    if (server.clock().now() - arrived > server.changePatience()) return false;
    return peekSocket(conn.getSocket()) != 0;  // 0: the client closed its end
  };
}

constexpr int kNotDelivered = -2;         // the leader never got the request
constexpr int kForwardConnectMs = 2000;
constexpr int kForwardWaitMs = 10000;     // the leader may first have to take the lead
constexpr double kPushSeconds = 10.0;

bool isFinalReply(int type) {
  return type == MSG_TYPE_SEQ_COMMIT || type == MSG_TYPE_SEQ_COMMIT_ERROR || type == MSG_TYPE_FAILED;
}

// Relays the client's file upload (fdata messages up to the fcrc) to the leader.
int relayUpload(Connection& client, Connection& leader) {
  for (;;) {
    Message m;
    int rc = client.receive(&m);
    if (rc == 0) rc = leader.send(m.type, m.body);
    if (rc != 0 || m.type == MSG_TYPE_FCRC) return rc;
  }
}

// Hands the request to the leader and relays its replies (and an upload) until the
// final one. kNotDelivered when the leader could not be reached at all. The
// request goes out only while its client still waits, looked at once more after
// the connect, right before the send.
int forward(Server& server, Connection& client, const Message& req,
            const std::function<bool()>& wanted) {
  const int32_t leader = server.replica().leaderId();
  PeerAddress address;
  std::unique_ptr<ConnImplementation> up;
  if (server.nodeAddress(leader, &address) != 0 ||
      peerConnect(address, server.replica().clusterId(), kForwardConnectMs,
                  &server.security().context(), &up) != 0) {
    qcrLog(4, "forward: leader %d unreachable", leader);
    return kNotDelivered;
  }
  up->setTimeouts(kForwardWaitMs, kForwardWaitMs);
  if (!wanted()) return replyError(server, client, ETIMEDOUT);
  if (up->send(req.type, req.body) != 0) return kNotDelivered;
  qcrLog(5, "forwarded '%s' to leader %d", msgName(req.type), leader);
  for (;;) {
    Message m;
    // Once the request went out the change may be made or not: say so.
    if (up->receive(&m) != 0) return replyError(server, client, E_NO_LEADER_CONTACT);
    int rc = client.send(m.type, m.body);
    if (rc != 0 || isFinalReply(m.type)) return rc;
    UidFputReply uid;
    if (m.type == MSG_TYPE_UID_FPUT && decodeBody(m.body.data(), m.body.size(), &uid) == 0 &&
        uid.needFile) {
      rc = relayUpload(client, *up);
      if (rc != 0) return rc;
    }
  }
}

// Pushes a received file to the other quorum nodes; *holdersP gets the nodes that
// store it. 809 unless a majority (this server included) does.
int pushFile(Server& server, const std::string& fileName, int64_t size,
             std::vector<int32_t>* holdersP) {
  const CommittedState committed = server.replica().view().committed;
  const size_t members = Proposer::members(committed).size();
  const int need = Proposer::peersNeeded(committed);  // besides this server
  FileXferMsg msg;
  msg.direction = kXferPush;
  msg.fileName = fileName;
  msg.size = size;
  auto body = std::make_shared<const std::vector<uint8_t>>(encodeBody(msg));
  const std::string path = server.files().pathOf(fileName);
  auto round = server.peers().broadcast(
      [body, path, size](int32_t peer, Connection& conn) {
        PeerAnswer a{peer, conn.send(MSG_TYPE_FXFER, *body), {}};
        bool local = false;
        if (a.rc == 0) a.rc = sendFile(conn, path, size, &local);
        if (a.rc == 0) a.rc = conn.receive(&a.reply);
        return a;
      },
      server.clock().now() + kPushSeconds);
  auto stored = [](const std::vector<PeerAnswer>& got) {
    std::vector<int32_t> ids;
    for (const PeerAnswer& a : got) {
      if (a.rc == 0 && a.reply.type == MSG_TYPE_OK) ids.push_back(a.peer);
    }
    return ids;
  };
  const auto answers = round->wait(
      [&](const std::vector<PeerAnswer>& got) { return static_cast<int>(stored(got).size()) >= need; });
  *holdersP = stored(answers);
  holdersP->insert(holdersP->begin(), server.replica().nodeId());
  qcrLog(4, "pushFile: '%s' stored on %d of %d quorum nodes", fileName.c_str(),
         static_cast<int>(holdersP->size()), static_cast<int>(members));
  return static_cast<int>(holdersP->size()) - 1 >= need ? E_OK : E_NO_QUORUM;
}

// Whether a failure to store a received file says that this server's disk takes
// no more writes (rather than, say, that it ran out of file descriptors).
bool isDiskFailure(int rc) {
  return rc == ENOSPC || rc == EDQUOT || rc == EIO || rc == EROFS || rc == E_IO;
}

// The largest upload of a list file that servers read themselves (a few lines).
constexpr int64_t kMaxListFileBytes = 65536;

// The content of the list files that every server reads (qcr.nodes, qcr.disks)
// must parse before it may be proposed: a junk node list would cut the servers off
// from each other. 0, EINVAL, or the read error of the received file.
int checkListFile(const std::string& name, const std::string& path) {
  const int32_t objId = reservedObjId(name);
  if (objId != kNodesFileObjId && objId != kDisksFileObjId) return 0;
  std::string text;
  if (const int rc = readFile(path, &text); rc != 0) return rc;
  const int rc = objId == kNodesFileObjId ? checkNodeListText(text) : checkDiskListText(text);
  if (rc != 0) qcrLog(1, "fput '%s': content refused, it is no valid list", name.c_str());
  return rc;
}

// With the upload received under the name upload: leads, plans the put against
// the state of now, gives the file its committed name, pushes it and decides the
// change, all under the change lock.
int commitUpload(Server& server, const FputRequest& req, const std::string& upload, uint32_t crc,
                 const std::function<bool()>& wanted) {
  std::lock_guard<std::mutex> lock(server.proposer().changeLock());
  int rc = server.proposer().lead();
  // Another server took over during the upload: the client sends it there.
  if (rc == E_NOT_LEADER) rc = E_NOT_ACTIVE;
  if (rc != 0) return rc;
  const ReplicaView view = server.replica().view();
  ProposedUpdate planned;
  rc = makeFilePut(view.committed, view.names, req, server.files().maxStoredId(), &planned);
  if (rc != 0) return rc;
  planned.uid = server.replica().newUid();
  planned.crc = crc;
  const std::string fileName =
      committedFileName(planned.name, planned.number1, planned.number2, crc, planned.uid);
  // The new name must survive a crash as the content did (the upload was synced).
  if (renameFile(upload, server.files().pathOf(fileName)) != 0 ||
      syncDirectory(server.files().dir()) != 0) {
    return E_IO;
  }
  rc = pushFile(server, fileName, req.fileSize, &planned.listn);
  if (rc != 0) return rc;
  return server.proposer().runChange(planned.uid, [&](const CommittedState& committed,
                                                      const FileNames& names, ProposedUpdate* updP) {
    // Anything decided since must leave the name's id and version as they were.
    const int r = makeFilePut(committed, names, req, planned.number1 - 1, updP);
    if (r != 0) return r;
    if (updP->number1 != planned.number1 || updP->number2 != planned.number2) return E_SEQ_CHANGED;
    *updP = planned;
    return E_OK;
  }, wanted);
}

// fput, on the leader: a first check against the state, the uid_fput, the upload,
// then the change. The upload arrives without the change lock, so a slow client
// delays no other change; the change is planned again once the lock is held.
int putFile(Server& server, Connection& conn, const FputRequest& req) {
  const bool listFile = reservedObjId(req.name) != 0;
  if (req.fileSize < 0 || (listFile && req.fileSize > kMaxListFileBytes)) {
    return replyError(server, conn, EINVAL);
  }
  // What the state refuses now (a version, a condition) is refused before the upload.
  const ReplicaView view = server.replica().view();
  ProposedUpdate early;
  int rc = makeFilePut(view.committed, view.names, req, server.files().maxStoredId(), &early);
  if (rc != 0) return replyError(server, conn, rc);
  // The uid the client learns names the upload; the change gets its own under the
  // lock, so that uids are handed out in commit order.
  const Uid ticket = server.replica().newUid();
  rc = conn.send(MSG_TYPE_UID_FPUT, encodeBody(UidFputReply{ticket, true}));
  if (rc != 0) return rc;
  ReceiveOptions options;
  options.target = server.files().uploadPath(ticket);
  options.expectedSize = req.fileSize;
  options.sync = true;
  uint32_t crc = 0;
  bool local = false;
  rc = receiveFile(conn, options, &crc, &local);
  if (rc != 0) {
    // A disk that cannot take the file cannot take the state either: step aside.
    if (local && isDiskFailure(rc)) server.proposer().noteWriteFailure();
    return rc;  // the exchange is broken: nothing more to say on it
  }
  // The client's patience counts from the upload's end.
  const auto wanted = stillWanted(server, conn, server.clock().now());
  rc = checkListFile(req.name, options.target);
  if (rc == 0) rc = commitUpload(server, req, options.target, crc, wanted);
  (void)removeFile(options.target);  // already gone once it has its committed name
  server.kick();
  return rc == 0 ? replyCommitted(server, conn) : replyError(server, conn, rc);
}

// Decodes a change request into the builder of its update: 0, 818 for a body
// that does not decode, or 22 for a file name that no server takes.
int builderFor(const Message& req, UpdateBuilder* buildP, FputRequest* fputP) {
  const uint8_t* p = req.body.data();
  const size_t n = req.body.size();
  switch (req.type) {
    case MSG_TYPE_VPUT: {
      VputRequest r;
      if (decodeBody(p, n, &r) != 0) return E_ILL_FORMED_MSG;
      *buildP = [r](const CommittedState& c, const FileNames&, ProposedUpdate* u) {
        return makeValuePut(c, r, u);
      };
      return 0;
    }
    case MSG_TYPE_VDEL:
    case MSG_TYPE_FDEL: {
      DeleteRequest r;
      if (decodeBody(p, n, &r) != 0) return E_ILL_FORMED_MSG;
      const bool value = req.type == MSG_TYPE_VDEL;
      if (!value && !isRepositoryFileName(r.name)) return EINVAL;
      *buildP = [r, value](const CommittedState& c, const FileNames& names, ProposedUpdate* u) {
        return value ? makeValueDelete(c, r, u) : makeFileDelete(c, names, r, u);
      };
      return 0;
    }
    case MSG_TYPE_CONFIG: {
      ConfigRequest r;
      if (decodeBody(p, n, &r) != 0) return E_ILL_FORMED_MSG;
      *buildP = [r](const CommittedState& c, const FileNames&, ProposedUpdate* u) {
        return makeConfigChange(c, r, u);
      };
      return 0;
    }
    case MSG_TYPE_FPUT:
      if (decodeBody(p, n, fputP) != 0) return E_ILL_FORMED_MSG;
      return isRepositoryFileName(fputP->name) ? 0 : EINVAL;
  }
  return E_ILL_FORMED_MSG;
}

// fput: leads (or forwards to the leader) under the change lock, then takes the
// upload without it.
int handleFilePut(Server& server, Connection& conn, const Message& req, const FputRequest& fput,
                  bool fromPeer, const std::function<bool()>& wanted) {
  std::unique_lock<std::mutex> lock(server.proposer().changeLock());
  int rc = server.proposer().lead();
  if (rc == E_NOT_LEADER) {
    // A forwarded request is never forwarded again: the client tries elsewhere.
    if (fromPeer) return replyError(server, conn, E_NOT_ACTIVE);
    lock.unlock();
    if (!wanted()) return replyError(server, conn, ETIMEDOUT);
    rc = forward(server, conn, req, wanted);
    if (rc != kNotDelivered) return rc;
    lock.lock();
    rc = server.proposer().lead(server.replica().leaderId());
  }
  if (rc != 0) return replyError(server, conn, rc);
  lock.unlock();
  return putFile(server, conn, fput);
}

}  // namespace

int handleChange(Server& server, Connection& conn, const Message& req,
                 const RequestOrigin& origin) {
  const double arrived = server.clock().now();
  const bool fromPeer = origin.fromPeer;
  UpdateBuilder build;
  FputRequest fput;
  int rc = builderFor(req, &build, &fput);
  if (rc == EINVAL) return replyError(server, conn, rc);  // final: no server takes the name
  if (rc != 0) return rc;
  // A server forwards a change on a connection it opens for that change alone,
  // right before it sends it: the change is as old as the connection, however
  // long the forwarding server was held up in between.
  const auto wanted = stillWanted(server, conn, fromPeer ? origin.openedAt : arrived);
  if (req.type == MSG_TYPE_FPUT) return handleFilePut(server, conn, req, fput, fromPeer, wanted);
  // The uid goes to the client with the result, in one write: the client only
  // traces it, and a message of its own would wake the client, and cost the
  // change thread that sends it, once more per change.
  std::optional<Uid> uid;
  Proposer::Change change;
  change.build = build;
  change.wanted = wanted;
  change.announce = [&uid](const Uid& drawn) { uid = drawn; };
  Proposer& proposer = server.proposer();
  const uint64_t filesBefore = server.replica().fileEpoch();
  proposer.times().add(SynodPart::Decode, server.clock().now() - arrived);
  rc = proposer.submit(change);
  if (rc == E_NOT_LEADER) {
    // A forwarded request is never forwarded again: the client tries elsewhere.
    if (fromPeer) return replyError(server, conn, E_NOT_ACTIVE);
    if (!wanted()) return replyError(server, conn, ETIMEDOUT);
    rc = forward(server, conn, req, wanted);
    if (rc != kNotDelivered) return rc;
    change.unreachable = server.replica().leaderId();
    rc = proposer.submit(change);
  }
  if (server.replica().fileEpoch() != filesBefore) server.kick();
  const double t = server.clock().now();
  if (uid) {
    if (const int sent = conn.sendLater(MSG_TYPE_UID, encodeBody(UidReply{*uid})); sent != 0) {
      return sent;  // the client is gone
    }
  }
  rc = rc == 0 ? replyCommitted(server, conn) : replyError(server, conn, rc);
  proposer.times().add(SynodPart::Reply, server.clock().now() - t);
  return rc;
}

}  // namespace qcr
