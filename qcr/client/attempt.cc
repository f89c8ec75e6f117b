#include "qcr/client/attempt.h"

#include <cerrno>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/client/client_cache.h"
#include "qcr/comm/conn_cache.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/session.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

namespace {

// The address of node serverId: from the table filled when the local node was
// settled, or looked up for a node that joined the list later.
int serverAddress(int serverId, PeerAddress* addressP) {
  Session& s = session();
  if (const auto iter = s.nodeAddrById.find(serverId); iter != s.nodeAddrById.end()) {
    *addressP = iter->second;
    return 0;
  }
  for (const NodeEntry& node : s.nodeList) {
    if (node.id != serverId) continue;
    const int rc = resolve(node.addr, node.port, addressP);
    if (rc == 0) s.nodeAddrById[serverId] = *addressP;
    return rc;
  }
  qcrLog(1, "No address for server %d", serverId);
  return EINVAL;
}

}  // namespace

RetryState newRetryState(const std::string& name) {
  return RetryState(name, clientCache().serverIds, clientClock());
}

int connectServer(int serverId, int connectTimeoutMs, std::unique_ptr<Connection>* connP) {
  PeerAddress address;
  const int rc = serverAddress(serverId, &address);
  if (rc != 0) return rc;
  return connect(address, connP, connectTimeoutMs, nullptr, kHandshakeTimeoutMs);
}

int runAttempts(RetryState* ctxP, const Exchange& exchange) {
  RetryState& ctx = *ctxP;
  int last = 0;
  while (nextServer(&ctx, last)) {
    const bool firstPass = ctx.attempt <= static_cast<int>(ctx.servers.size());
    ctx.connected = false;
    std::unique_ptr<Connection> conn;
    last = connectServer(ctx.serverId, firstPass ? kFirstPassConnectMs : -1, &conn);
    qcrLog(4, "%s: attempt %d to server %d: connect returned %d", ctx.name.c_str(), ctx.attempt,
           ctx.serverId, last);
    if (last != 0) continue;
    ctx.connected = true;
    ++ctx.connectCount;
    last = exchange(*conn, &ctx);
    // A failed exchange may leave unread bytes behind: never reuse its connection.
    if (last != 0) conn->markBad();
    releaseConnection(std::move(conn));
    if (!ctx.active) return last;
  }
  if (!ctx.active) return last;
  if (ctx.connectCount == 0) return E_NO_QUORUM_NODE_REACHED;
  return ctx.firstError != 0 ? ctx.firstError : E_MAX_RETRIES;
}

int doUpdateRequest(Connection& conn, int msgType, const std::vector<uint8_t>& body,
                    const Uid& uid, RetryState* ctxP, const UploadFile* upload,
                    QcrReply* replyP) {
  int rc = conn.send(msgType, body.data(), static_cast<int>(body.size()));
  const bool uidWasZero = uid.isZero();
  const int mt = msgType;
  while (rc == 0) {
    rc = ReceiveQCRReply(conn, ctxP, replyP);
    if (rc != 0) break;
    const int rmt = replyP->type;
    if (rmt == REPLY_TYPE_SEQ_COMMIT) return 0;
    if (rmt != REPLY_TYPE_UID && rmt != REPLY_TYPE_UID_FPUT) {
      QCR_ASSERT_MSG(rmt == REPLY_TYPE_SEQ_COMMIT, "unexpected reply %d", rmt);
    }
    QCR_ASSERT(uidWasZero || mt == MSG_TYPE_FPUT);
    qcrLog(4, "doUpdateRequest: rmt %d uid %s needFile %d", rmt, uidToString(replyP->uid).c_str(),
           replyP->needFile);
    if (rmt == REPLY_TYPE_UID_FPUT && replyP->needFile) {
      QCR_ASSERT(upload != nullptr);
      bool localFailure = false;
      rc = sendFile(conn, upload->path, upload->size, &localFailure);
      if (localFailure) ctxP->active = false;
    }
  }
  return rc;
}

}  // namespace qcr
