// Messages as values, and the connections qcrd opens to other servers.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "basic/net.h"
#include "qcr/comm/connection.h"

namespace qcr {

// The hello flag bit that marks a connection opened by another qcrd server: a
// change request that arrives on one was forwarded already and is never forwarded
// again.
inline constexpr uint32_t kPeerHelloFlag = 2;

struct Message {
  int type = -1;
  std::vector<uint8_t> body;
};

// One message out, one message in; 0 or the connection's result code.
[[nodiscard]] int sendMessage(Connection& conn, int type, const std::vector<uint8_t>& body);
[[nodiscard]] int receiveMessage(Connection& conn, Message* msgP);

// Connects to the qcrd server at address with a hello marked kPeerHelloFlag and
// clusterId. timeoutMs bounds the connect, the hello and each later wait for the
// connection. Returns 0, 315 when the peer reports another cluster, or the
// connection's error.
[[nodiscard]] int peerConnect(const PeerAddress& address, uint64_t clusterId, int timeoutMs,
                              std::unique_ptr<ConnImplementation>* connP);

}  // namespace qcr
