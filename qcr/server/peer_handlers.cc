// Server-to-server requests: the acceptor's side of the synods, catch-up, and the
// committed files that servers push to and pull from each other.
#include <cerrno>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/file_names.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/handlers.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/server/server.h"

namespace qcr {

namespace {

constexpr int kPullTimeoutMs = 5000;

template <class T>
bool decode(const Message& req, T* bodyP) {
  return decodeBody(req.body.data(), req.body.size(), bodyP) == 0;
}

int32_t senderOf(const PeerHeader& hdr) { return hdr.from; }
template <class T>
int32_t senderOf(const T& msg) {
  return msg.hdr.from;
}

// An acceptor message of type T: decoded, its sender checked against the
// connection, answered with answer(msg) as replyType.
template <class T, class Answer>
int answerPeer(Server& server, Connection& conn, const Message& req, int replyType,
               const Answer& answer) {
  T msg;
  if (!decode(req, &msg)) return E_ILL_FORMED_MSG;
  const int rc = server.checkPeer(conn, true, senderOf(msg));
  if (rc != 0) return refuseRequest(conn, req, rc);
  return conn.send(replyType, encodeBody(answer(msg)));
}

int handleXfer(Server& server, Connection& conn, const FileXferMsg& msg) {
  if (msg.direction == kXferPush) {
    const int rc = server.files().receiveAs(conn, msg.fileName, msg.size);
    if (rc != 0) qcrLog(1, "receiving pushed '%s' failed (%d)", msg.fileName.c_str(), rc);
    return rc == 0 ? replyOk(conn) : replyFailed(conn, rc);
  }
  // A damaged copy is not handed on: the check removes it, the maintenance thread
  // fetches a good one, and the asking peer tries another node meanwhile.
  CommittedFile f;
  const int found = server.files().findIntact(msg.objId, msg.version, msg.uid, &f);
  if (found != 0) {
    if (found == E_IO) server.kick();
    return replyFailed(conn, ENOENT);
  }
  FileXferMsg answer = msg;
  int rc = fileSize(server.files().pathOf(f.fileName), &answer.size);
  if (rc != 0) return replyFailed(conn, rc);
  answer.fileName = f.fileName;
  rc = replyOk(conn, encodeBody(answer));
  return rc == 0 ? server.files().send(conn, f.fileName) : rc;
}

}  // namespace

int handlePeer(Server& server, Connection& conn, const Message& req, bool fromPeer) {
  int rc = server.checkPeer(conn, fromPeer);
  if (rc != 0) return refuseRequest(conn, req, rc);
  Replica& replica = server.replica();
  const uint64_t filesBefore = replica.fileEpoch();
  rc = E_ILL_FORMED_MSG;
  switch (req.type) {
    case MSG_TYPE_PXREAD:
      rc = answerPeer<PrepareMsg>(server, conn, req, MSG_TYPE_REPLY_PXREAD,
                                  [&](const PrepareMsg& m) { return replica.prepare(m); });
      break;
    case MSG_TYPE_PXWRITE: {
      const double t = server.clock().now();
      rc = answerPeer<AcceptMsg>(server, conn, req, MSG_TYPE_REPLY_PXWRITE,
                                 [&](const AcceptMsg& m) { return replica.accept(m); });
      server.proposer().times().add(SynodPart::FollowerAccept, server.clock().now() - t);
      break;
    }
    case MSG_TYPE_PXRDWR:
      rc = answerPeer<SyncMsg>(server, conn, req, MSG_TYPE_REPLY_PXRDWR,
                               [&](const SyncMsg& m) { return replica.sync(m); });
      break;
    case MSG_TYPE_PXINIT:
      rc = answerPeer<CatchUpMsg>(server, conn, req, MSG_TYPE_REPLY_PXRDWR,
                                  [&](const CatchUpMsg& m) { return server.proposer().catchUpReply(m); });
      break;
    case MSG_TYPE_FXFER: {
      FileXferMsg msg;
      if (decode(req, &msg)) rc = handleXfer(server, conn, msg);
      break;
    }
  }
  if (replica.fileEpoch() != filesBefore) server.kick();
  return rc;
}

int Server::pullFile(int32_t objId, const FileRecord& record) {
  FileXferMsg ask;
  ask.direction = kXferPull;
  ask.objId = objId;
  ask.version = record.version;
  ask.uid = record.uid;
  const std::vector<uint8_t> body = encodeBody(ask);
  if (netDown()) return ENETDOWN;
  int rc = ENOENT;
  for (int32_t peer : peers_.peerIds()) {
    PeerAddress address;
    std::unique_ptr<ConnImplementation> conn;
    if (nodeAddress(peer, &address) != 0 ||
        peerConnect(address, replica_.clusterId(), kPullTimeoutMs, &security_.context(), &conn) != 0) {
      continue;
    }
    Message answer;
    FileXferMsg got;
    rc = conn->send(MSG_TYPE_FXFER, body);
    if (rc == 0) rc = conn->receive(&answer);
    if (rc == 0 && (answer.type != MSG_TYPE_OK || !decode(answer, &got))) rc = ENOENT;
    // The peer names the file it sends: it must be the version asked for.
    CommittedFile named;
    if (rc == 0 && (!parseCommittedName(got.fileName, &named) || named.objId != objId ||
                    named.version != record.version || named.uid != record.uid)) {
      rc = E_ILL_FORMED_MSG;
    }
    if (rc == 0) rc = files_.receiveAs(*conn, got.fileName, got.size);
    qcrLog(4, "pullFile: %s '%s' from node %d (%d)", uidToString(record.uid).c_str(),
           got.fileName.c_str(), peer, rc);
    if (rc == 0) return 0;
  }
  return rc;
}

}  // namespace qcr
