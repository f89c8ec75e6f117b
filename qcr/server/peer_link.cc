#include "qcr/server/peer_link.h"

#include "basic/log.h"
#include "qcr/comm/connect.h"

namespace qcr {

int peerConnect(const PeerAddress& address, uint64_t clusterId, int timeoutMs,
                const SecurityContext* security, std::unique_ptr<ConnImplementation>* connP) {
  ConnectParams params;
  params.connectTimeoutMs = timeoutMs;
  params.handshakeTimeoutMs = timeoutMs;
  params.waitMs = timeoutMs;
  params.clusterId = clusterId;
  // A peer of another cluster is never a peer: no request goes out to it.
  params.refuseOtherCluster = true;
  params.helloFlags = kPeerHelloFlag;
  params.security = security;
  const int rc = connect(address, params, connP);
  if (rc != 0) qcrLog(5, "peer connect to %s failed (%d)", addressText(address).c_str(), rc);
  return rc;
}

}  // namespace qcr
