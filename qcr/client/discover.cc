// The discover request: learning the node list and the state from the servers,
// for a machine whose local node list may be out of date.
#include <cerrno>
#include <memory>
#include <string>

#include "basic/assert.h"
#include "basic/files.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/client/local_node.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_ops.h"
#include "qcr/data/list_files.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"

namespace qcr {

namespace {

// Each round that ends with an answer the server could not prove current starts
// the next with the node list it brought; a cluster that never settles must not
// keep the tool forever.
constexpr int kMaxDiscoverRounds = 4;

// Receives the announced node list file that follows reply_discover and installs it.
int receiveNodeList(Session& s, Connection& conn, int32_t nlVersion) {
  int type = -1;
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  int rc = conn.receive(&type, &data, &len);
  if (rc != 0) return rc;
  QCR_ASSERT_MSG(type == MSG_TYPE_CP_TO, "unexpected reply %d", type);
  FileAnnouncement announcement;
  if (decodeBody(data.get(), static_cast<size_t>(len), &announcement) != 0) {
    conn.markBad();
    return E_ILL_FORMED_MSG;
  }
  ReceiveOptions options;
  options.target = tempFileName(s.paths.nodesFile);
  options.expectedSize = announcement.size;
  qcrLog(4, "Receive qcr.nodes version %d and store it under: '%s' (%lld)", nlVersion,
         options.target.c_str(), static_cast<long long>(announcement.size));
  uint32_t checksum = 0;
  bool localFailure = false;
  rc = receiveFile(conn, options, &checksum, &localFailure);
  NodeList list;
  if (rc == 0) rc = readNodeList(options.target, &list);
  (void)removeFile(options.target);
  if (rc == 0) rc = writeNodeList(s.paths.nodesFile, list);
  if (rc != 0) return rc;
  s.nodeList = std::move(list);
  s.nodeAddrById.clear();
  s.nodeIdByAddr.clear();
  return 0;
}

int discoverAttempt(Client& client, Connection& conn, RetryState* ctxP, QcrReply* replyP) {
  const std::vector<uint8_t> body = encodeBody(DiscoverRequest{client.cache().nlVersion});
  const int len = static_cast<int>(body.size());
  QCR_ASSERT(len <= MaxSizeVarUInt);
  int rc = conn.send(MSG_TYPE_DISCOVER, body.data(), len);
  if (rc == 0) rc = ReceiveQCRReply(client, conn, ctxP, replyP);
  if (rc != 0) return rc;
  QCR_ASSERT_MSG(replyP->type == REPLY_TYPE_DISCOVER, "unexpected reply %d", replyP->type);
  rc = receiveNodeList(client.repoSession(), conn, replyP->nlVersion);
  if (rc == 0) ctxP->active = false;
  return rc;
}

void checkLocalServerReady(Client& client) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = client.connectServer(client.repoSession().localNodeId, -1, &conn);
  if (rc == 0) rc = conn->send(MSG_TYPE_CHECK_READY, nullptr, 0);
  int type = -1;
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  if (rc == 0) rc = conn->receive(&type, &data, &len);
  if (rc == 0 && type != MSG_TYPE_OK) rc = E_NOT_ACTIVE;
  if (rc == 0) {
    qcrLog(4, "discover: check server ready successful");
  } else {
    qcrLog(4, "discover: check server ready failed (%d)", rc);
  }
}

}  // namespace

int Client::DISCOVER() {
  qcrLog(4, "DISCOVER()");
  if (!keepsFiles()) return EINVAL;
  QcrReply reply;
  int rc = 0;
  for (int round = 0; round < kMaxDiscoverRounds; ++round) {
    RetryState ctx = newRetryState("discover");
    rc = runAttempts(&ctx, [this, &reply](Connection& conn, RetryState* ctxP) {
      return discoverAttempt(*this, conn, ctxP, &reply);
    });
    if (rc != 0 || reply.authoritative) break;
    (void)PaxosInit(false);
  }
  if (rc == 0 && reply.authoritative) rc = storeCachedState(reply.seq, reply.state);
  const std::vector<IpAddress16>* localAddrs = nullptr;
  if (rc == 0) rc = localAddressesFor(session_, &localAddrs);
  if (rc == 0) rc = settleLocalNode(*localAddrs, &session_);
  const int32_t nodeId = session_.localNodeId;
  qcrLog(4, "discover: qcrNodeId: %d authoritative: %d quorum node: %s", nodeId,
         reply.authoritative, nodeId >= 0 ? "yes" : "no");
  if (rc == 0 && reply.authoritative && nodeId >= 0) checkLocalServerReady(*this);
  qcrLog(4, "discover() returned  seq %d %s", reply.seq, reply.state.toString().c_str());
  return rc;
}

}  // namespace qcr
