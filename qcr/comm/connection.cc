#include "qcr/comm/connection.h"

#include <atomic>
#include <cstring>
#include <new>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"

namespace qcr {

namespace {

std::atomic<bool> msgCheckAssert{true};

std::unique_ptr<uint8_t[]> allocateBody(int32_t dataLen) {
  uint8_t* msgDataP = new (std::nothrow) uint8_t[dataLen];
  QCR_CHECK(msgDataP);
  return std::unique_ptr<uint8_t[]>(msgDataP);
}

// A header with a bad length or an unknown type: a protocol violation that stops
// the process unless that check is switched off.
int rejectHeader(int32_t dataLen, const int* msgTypeP, const std::string& peerText, int sock) {
  const int level = msgCheckAssert ? 0 : 4;
  qcrLog(level, "Msg body length: %d exceeds expected range: 0-%d bytes (%s-%d-%s-%d)", dataLen,
         QCR_MAX_BODY_LENGTH, peerText.c_str(), sock, msgName(*msgTypeP), *msgTypeP);
  if (msgCheckAssert) {
    QCR_CHECK(((dataLen >= 0) && (dataLen < QCR_MAX_BODY_LENGTH) &&
               (strcmp(msgName(*msgTypeP), "unknown") != 0)));
  }
  return E_ILL_FORMED_MSG;
}

}  // namespace

void setMsgCheckAssert(bool on) { msgCheckAssert = on; }

int Connection::receive(Message* msgP) {
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  msgP->body.clear();
  const int rc = receive(&msgP->type, &data, &len);
  if (rc != 0) return rc;
  msgP->body.assign(data.get(), data.get() + len);
  return 0;
}

ConnImplementation::ConnImplementation(std::unique_ptr<Transport> transport,
                                       const PeerAddress& peer, SecurityParams security,
                                       FirstSendChecks checks)
    : Connection(peer),
      transport_(std::move(transport)),
      security_(std::move(security)),
      checks_(checks) {}

ConnImplementation::~ConnImplementation() { close(); }

void ConnImplementation::setTimeouts(int sendMs, int recvMs) {
  sendTimeoutMs_ = sendMs;
  recvTimeoutMs_ = recvMs;
}

int ConnImplementation::send(int msgType, const void* body, int len) {
  QCR_ASSERT(len >= 0 && len <= QCR_MAX_BODY_LENGTH);
  const int sock = getSocket();
  qcrLog(5, "sending msg %d '%s' len %d (sock %d)", msgType, msgName(msgType), len, sock);
  uint8_t frame[kRpcHeaderSize + kOneWriteMaxBody];
  encodeRpcHdr(RpcHeader{len, msgType}, frame);
  // A first message that fails its cluster check or must authenticate sends its
  // header alone: the check ends the connection right after it, and the
  // authentication exchange sits between the header and the body, where the peer
  // expects it.
  const bool headerAlone = firstSend_ && (clusterMismatch() || needsAuthentication(msgType));
  int rc = 0;
  if ((headerAlone || firstSend_) && !kept_.empty()) {
    rc = flush();
    if (rc != 0) return rc;
  }
  if (headerAlone) {
    rc = transport_->sendAll(frame, kRpcHeaderSize, sendTimeoutMs_);
    if (rc != 0) {
      markBad();
      qcrLog(4, "sendRpcHdr returned err %d", rc);
      return rc;
    }
  }
  if (firstSend_) {
    rc = checkFirstSend(msgType);
    if (rc != 0) return rc;
  }
  if (headerAlone) {
    if (len > 0) rc = transport_->sendAll(body, static_cast<size_t>(len), sendTimeoutMs_);
  } else if (len > kOneWriteMaxBody) {
    // A large body is not copied: kept messages and the header, then the body,
    // go in one gathered write, and the receiver wakes once for them.
    kept_.insert(kept_.end(), frame, frame + kRpcHeaderSize);
    rc = transport_->sendPair(kept_.data(), kept_.size(), body, static_cast<size_t>(len),
                              sendTimeoutMs_);
    kept_.clear();
  } else {
    // Header and body in one write: one segment, and one wake-up of the receiver;
    // kept messages go in the same write, before it.
    if (len > 0) memcpy(frame + kRpcHeaderSize, body, static_cast<size_t>(len));
    const size_t frameLen = kRpcHeaderSize + static_cast<size_t>(len);
    if (keepWhileMessagesWait_ && messagesWait()) {
      kept_.insert(kept_.end(), frame, frame + frameLen);
      qcrLog(5, "keeping msg %d '%s' while more arrive (sock %d)", msgType, msgName(msgType), sock);
      return 0;
    }
    if (kept_.empty()) {
      rc = transport_->sendAll(frame, frameLen, sendTimeoutMs_);
    } else {
      kept_.insert(kept_.end(), frame, frame + frameLen);
      rc = transport_->sendAll(kept_.data(), kept_.size(), sendTimeoutMs_);
      kept_.clear();
    }
  }
  if (rc != 0) {
    markBad();
    qcrLog(4, "fullSend(len %d) returned err %d", len, rc);
    return rc;
  }
  qcrLog(5, "sent msg %d '%s' (sock %d) ok", msgType, msgName(msgType), sock);
  return 0;
}

int ConnImplementation::sendLater(int msgType, const std::vector<uint8_t>& body) {
  const int len = static_cast<int>(body.size());
  if (len > kOneWriteMaxBody || firstSend_) return send(msgType, body);
  QCR_ASSERT(len <= QCR_MAX_BODY_LENGTH);
  qcrLog(5, "keeping msg %d '%s' len %d for the next send (sock %d)", msgType, msgName(msgType),
         len, getSocket());
  uint8_t header[kRpcHeaderSize];
  encodeRpcHdr(RpcHeader{len, msgType}, header);
  kept_.insert(kept_.end(), header, header + kRpcHeaderSize);
  kept_.insert(kept_.end(), body.begin(), body.end());
  return 0;
}

bool ConnImplementation::messagesWait() const {
  const int sock = getSocket();
  return sock >= 0 && unreadBytes(sock) > 0;
}

int ConnImplementation::flush() {
  if (kept_.empty()) return 0;
  const int rc = transport_->sendAll(kept_.data(), kept_.size(), sendTimeoutMs_);
  kept_.clear();
  if (rc != 0) {
    markBad();
    qcrLog(4, "sending kept messages returned err %d", rc);
  }
  return rc;
}

bool ConnImplementation::clusterMismatch() const {
  const uint64_t expected = checks_.expectedClusterId;
  return expected != 0 && security_.peerClusterId != 0 && expected != security_.peerClusterId;
}

bool ConnImplementation::needsAuthentication(int msgType) const {
  return checks_.securityOn && msgNeedsAuth(msgType) && !authenticated_;
}

int ConnImplementation::checkFirstSend(int msgType) {
  if (clusterMismatch()) {
    markBad();
    qcrLog(1, "send: wrong cluster id (expected %llu received %llu)",
           static_cast<unsigned long long>(checks_.expectedClusterId),
           static_cast<unsigned long long>(security_.peerClusterId));
    return E_CLUSTER_MISMATCH;
  }
  // Only the first message decides: when it needs no authentication, the
  // connection stays unauthenticated for its whole life.
  if (needsAuthentication(msgType)) {
    const int rc = AuthenticateOutgoing(getSocket(), security_);
    if (rc != 0) {
      markBad();
      qcrLog(4, "AuthenticateOutgoing returned err %d", rc);
      return rc;
    }
    authenticated_ = true;
  }
  firstSend_ = false;
  return 0;
}

int ConnImplementation::receive(int* msgTypeP, std::unique_ptr<uint8_t[]>* msgDataP, int* lenP) {
  const int sock = getSocket();
  // The peer's address as text only for a line somebody reads.
  if (qcrLogShown(5)) {
    qcrLog(5, "receiving from %s (sock %d) 0x%llX", addressText(peer_).c_str(), sock, id());
  }
  *msgTypeP = -1;
  msgDataP->reset();
  *lenP = 0;
  // What was kept to go out with a later message goes now: its answer may be what
  // this receive waits for. A message that arrived already was sent without
  // waiting for it.
  if (!kept_.empty() && !(keepWhileMessagesWait_ && messagesWait())) {
    if (const int rc = flush(); rc != 0) return rc;
  }
  qcrLog(7, "waiting for hdr (len %d)", kRpcHeaderSize);
  uint8_t header[kRpcHeaderSize];
  memset(header, 0xAA, sizeof header);
  int rc = transport_->recvAll(header, sizeof header, recvTimeoutMs_);
  if (rc != 0) {
    markBad();
    // A peer that closes instead of sending another message ends its connection
    // the ordinary way: that goes in the trace only at the detail level.
    qcrLog(rc == kErrPeerClosed ? 5 : 4, "recvRpcHdr() returned err %d", rc);
    return rc;
  }
  const RpcHeader decoded = decodeRpcHdr(header);
  *msgTypeP = decoded.msgType;
  const int32_t dataLen = decoded.msgLen;
  if (!rpcHdrAcceptable(decoded)) {
    markBad();
    return rejectHeader(dataLen, msgTypeP, addressText(peer_), sock);
  }
  if (gate_) {
    rc = gate_(*msgTypeP);
    if (rc != 0) {
      markBad();
      qcrLog(4, "msg %d '%s' refused before its body (%d)", *msgTypeP, msgName(*msgTypeP), rc);
      return rc;
    }
  }
  if (dataLen > 0) {
    qcrLog(7, "waiting for data (len %d)", dataLen);
    std::unique_ptr<uint8_t[]> data = allocateBody(dataLen);
    rc = transport_->recvAll(data.get(), static_cast<size_t>(dataLen), recvTimeoutMs_);
    if (rc != 0) {
      markBad();
      qcrLog(4, "fullRecv(len %d) returned err %d", dataLen, rc);
      return rc;
    }
    *msgDataP = std::move(data);
    *lenP = dataLen;
  }
  qcrLog(5, "received msg %d '%s' len %d (sock %d)", *msgTypeP, msgName(*msgTypeP), dataLen, sock);
  return 0;
}

void ConnImplementation::close() {
  const int sock = getSocket();
  if (sock == -1) return;
  if (qcrLogShown(5)) {
    qcrLog(5, "closing connection to %s (sock %d-0x%llx)", addressText(peer_).c_str(), sock, id());
  }
  transport_->close();
}

}  // namespace qcr
