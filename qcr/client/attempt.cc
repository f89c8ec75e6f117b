#include "qcr/client/attempt.h"

#include <cerrno>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

int failedAnswerError(const Message& reply) {
  const uint8_t* p = reply.body.data();
  const uint8_t* const end = p + reply.body.size();
  int32_t error = 0;
  p = getVarInt32(p, end, &error, -1);
  return p != nullptr && p == end ? error : E_ILL_FORMED_MSG;
}

// The address of node serverId: from the table filled when the local node was
// settled, or looked up for a node that joined the list later.
int Client::serverAddress(int serverId, PeerAddress* addressP) {
  Session& s = session_;
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

RetryState Client::newRetryState(const std::string& name) {
  RetryState ctx(name, cache_.serverIds, clock_);
  ctx.budgetSeconds = session_.retryBudgetSeconds;
  return ctx;
}

int Client::connectServer(int serverId, int connectTimeoutMs,
                          std::unique_ptr<ConnImplementation>* connP) {
  PeerAddress address;
  const int rc = serverAddress(serverId, &address);
  if (rc != 0) return rc;
  return connectAddress(address, connectTimeoutMs, connP);
}

int Client::connectAddress(const PeerAddress& address, int connectTimeoutMs,
                           std::unique_ptr<ConnImplementation>* connP) {
  ConnectParams params;
  params.connectTimeoutMs = connectTimeoutMs;
  params.handshakeTimeoutMs = session_.handshakeTimeoutMs;
  params.waitMs = session_.waitMs;
  params.clusterId = expectedClusterId_;
  params.security = &security_;
  params.cache = caching_ ? &connections_ : nullptr;
  return connect(address, params, connP);
}

void Client::releaseConnection(std::unique_ptr<ConnImplementation> conn) {
  qcr::releaseConnection(std::move(conn), caching_ ? &connections_ : nullptr);
}

int Client::runAttempts(RetryState* ctxP, const Exchange& exchange) {
  RetryState& ctx = *ctxP;
  int last = 0;
  while (nextServer(&ctx, last)) {
    const bool firstPass = ctx.attempt <= static_cast<int>(ctx.servers.size());
    ctx.connected = false;
    std::unique_ptr<ConnImplementation> conn;
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

int doUpdateRequest(Client& client, Connection& conn, int msgType,
                    const std::vector<uint8_t>& body, const Uid& uid, RetryState* ctxP,
                    const UploadFile* upload, QcrReply* replyP) {
  int rc = conn.send(msgType, body.data(), static_cast<int>(body.size()));
  const bool uidWasZero = uid.isZero();
  const int mt = msgType;
  while (rc == 0) {
    rc = ReceiveQCRReply(client, conn, ctxP, replyP);
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
      rc = sendFile(conn, upload->path, upload->size, &localFailure, std::nullopt,
                    client.transferProgress());
      if (localFailure) ctxP->active = false;
    }
  }
  return rc;
}

// One request and its one answer on a connection of its own, released afterwards.
int Client::sendOnce(const PeerAddress& address, int msgType, const std::vector<uint8_t>& body,
                     Message* replyP, int answerWaitMs) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = connectAddress(address, kFirstPassConnectMs, &conn);
  if (rc != 0) return rc;
  if (answerWaitMs >= 0) conn->setTimeouts(answerWaitMs, answerWaitMs);
  rc = conn->send(msgType, body);
  if (rc == 0) rc = conn->receive(replyP);
  if (rc != 0) conn->markBad();
  releaseConnection(std::move(conn));
  return rc;
}

namespace {

// The result an answer to init carries: 0 for ok, the refusal of a failed one.
int initAnswer(int rc, const Message& reply) {
  if (rc == 0 && reply.type == MSG_TYPE_FAILED) return failedAnswerError(reply);
  if (rc == 0 && reply.type != MSG_TYPE_OK) return E_ILL_FORMED_MSG;
  return rc;
}

// The status an ok answer carries as its first VarUInt; a value that does not
// fit 32 bits, or any other answer, is ill-formed.
int statusAnswer(int rc, const Message& reply, int* statusP) {
  if (rc != 0) return rc;
  if (reply.type == MSG_TYPE_FAILED) return failedAnswerError(reply);
  if (reply.type != MSG_TYPE_OK) return E_ILL_FORMED_MSG;
  const uint8_t* p = reply.body.data();
  int32_t value = 0;
  if (getVarInt32(p, p + reply.body.size(), &value) == nullptr) return E_ILL_FORMED_MSG;
  *statusP = value;
  return 0;
}

}  // namespace

int Client::INIT(int nodeId, const InitRequest& request) {
  PeerAddress address;
  const int rc = serverAddress(nodeId, &address);
  if (rc != 0) return rc;
  return INIT(address, request);
}

int Client::INIT(const PeerAddress& address, const InitRequest& request) {
  qcrLog(4, "INIT(%s, %llu)", addressText(address).c_str(),
         static_cast<unsigned long long>(request.clusterId));
  Message reply;
  const int rc = initAnswer(sendOnce(address, MSG_TYPE_INIT, encodeBody(request), &reply), reply);
  qcrLog(4, "INIT returned %d", rc);
  return rc;
}

int Client::STATUS(int nodeId, int* statusP) {
  PeerAddress address;
  const int rc = serverAddress(nodeId, &address);
  if (rc != 0) return rc;
  return STATUS(address, statusP);
}

int Client::STATUS(const PeerAddress& address, int* statusP) {
  Message reply;
  // A server answers its status at once, as it answers a hello: one that took
  // the hello and then keeps silent is waited for no longer than a hello.
  return statusAnswer(
      sendOnce(address, MSG_TYPE_STATUS, {}, &reply, session_.handshakeTimeoutMs), reply,
      statusP);
}

}  // namespace qcr
