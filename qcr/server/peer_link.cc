#include "qcr/server/peer_link.h"

#include "basic/log.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/hello.h"
#include "qcr/coding/result.h"
#include "qcr/comm/transport.h"

namespace qcr {

int sendMessage(Connection& conn, int type, const std::vector<uint8_t>& body) {
  return conn.send(type, body.empty() ? nullptr : body.data(), static_cast<int>(body.size()));
}

int receiveMessage(Connection& conn, Message* msgP) {
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  const int rc = conn.receive(&msgP->type, &data, &len);
  if (rc != 0) return rc;
  // A failed transfer that left no error code still shows as type -1 without data.
  msgP->body.assign(data.get(), data.get() + len);
  return 0;
}

namespace {

int openSocket(const PeerAddress& address, int timeoutMs, int* sockP) {
  int rc = openStreamSocket(address, sockP);
  if (rc != 0) return rc;
  rc = setReceiveBufferSize(*sockP, kReceiveBufferBytes);
  if (rc == 0) rc = connectSocket(*sockP, address, timeoutMs);
  if (rc == 0) rc = setNoDelay(*sockP);
  if (rc != 0) {
    closeSocket(*sockP);
    *sockP = -1;
  }
  return rc;
}

}  // namespace

int peerConnect(const PeerAddress& address, uint64_t clusterId, int timeoutMs,
                std::unique_ptr<ConnImplementation>* connP) {
  connP->reset();
  int sock = -1;
  int rc = openSocket(address, timeoutMs, &sock);
  if (rc != 0) return rc;
  std::unique_ptr<Transport> transport = makeSocketTransport(sock);
  Hello hello;
  hello.clusterId = clusterId;
  hello.flags = kPeerHelloFlag;
  const std::vector<uint8_t> bytes = buildClientHello(hello);
  Hello reply;
  rc = transport->sendAll(bytes.data(), bytes.size(), timeoutMs);
  if (rc == 0) rc = readHelloReply(*transport, timeoutMs, &reply);
  if (rc == 0 && clusterId != 0 && reply.clusterId != 0 && reply.clusterId != clusterId) {
    rc = E_CLUSTER_MISMATCH;
  }
  if (rc != 0) {
    qcrLog(5, "peer connect to %s failed (%d)", addressText(address).c_str(), rc);
    return rc;
  }
  SecurityParams security;
  security.peerNodeValue = reply.nodeValue;
  security.peerClusterId = reply.clusterId;
  auto conn = std::make_unique<ConnImplementation>(std::move(transport), address, security);
  conn->setTimeouts(timeoutMs, timeoutMs);
  *connP = std::move(conn);
  return 0;
}

}  // namespace qcr
