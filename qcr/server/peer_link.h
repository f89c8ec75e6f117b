// The connections qcrd opens to other servers: the one connect of qcr/comm with
// the peer's hello flag, the cluster id checked at the hello, and one time-out for
// everything.
#pragma once

#include <cstdint>
#include <memory>

#include "basic/net.h"
#include "qcr/comm/connection.h"

namespace qcr {

// The hello flag bit that marks a connection opened by another qcrd server: a
// change request that arrives on one was forwarded already and is never forwarded
// again.
inline constexpr uint32_t kPeerHelloFlag = 2;

// Connects to the qcrd server at address with a hello marked kPeerHelloFlag and
// clusterId. timeoutMs bounds the connect, the hello and each later wait for the
// connection. With security (when on) the hello announces this server's keys and
// the first message that needs it authenticates. Returns 0, 315 when the peer
// reports another cluster, or the connection's error.
[[nodiscard]] int peerConnect(const PeerAddress& address, uint64_t clusterId, int timeoutMs,
                              const SecurityContext* security,
                              std::unique_ptr<ConnImplementation>* connP);

}  // namespace qcr
