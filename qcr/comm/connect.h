// Opening connections: name resolution, the client's connect with its hello, and
// the server's accept with its answer.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "basic/net.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/hello.h"

namespace qcr {

inline constexpr int kDefaultConnectTimeoutMs = 10000;  // for connect and hello alike
inline constexpr int kReceiveBufferBytes = 1048576;
inline constexpr int kErrLocalOnly = 5;    // address refused in local-only mode
inline constexpr int kErrCacheMiss = 112;  // no cached connection (internal)

// Resolves host (leading blanks skipped) to an address with port. An IPv6
// link-local result is passed over unless all are; a name with both IPv4 and
// IPv6 results gives the first IPv4 one. A text that begins with "255." is looked
// up as IPv4 only. 0, 22 when port <= 0 (the address is then filled anyway), or
// the lookup's error. *elapsedP, when given, receives the lookup's wall time in s.
[[nodiscard]] int resolve(const std::string& host, int port, PeerAddress* addressP,
                          double* elapsedP = nullptr);

// The address resolve picks from a lookup's results (ports untouched).
PeerAddress chooseResolved(const std::vector<PeerAddress>& results);

// Lets a caller watch the socket of a connect in progress, e.g. to close it from
// another thread; it then also closes the socket when the connect fails.
class SocketObserver {
 public:
  virtual ~SocketObserver() = default;
  virtual void socketOpened(int sock) = 0;
  virtual void closeFailedSocket(int sock) = 0;
};

// Opens a connection to address: a cached one when caching is on and it is idle,
// else a new socket, connected within connectTimeoutMs, then the hello within
// handshakeTimeoutMs (negative time-outs mean kDefaultConnectTimeoutMs). On
// failure *connP stays empty and the result is non-zero: 5, 61, 143, 144, 129,
// 130, 142 or a system error.
[[nodiscard]] int connect(const PeerAddress& address, std::unique_ptr<Connection>* connP,
                          int connectTimeoutMs = -1, SocketObserver* observer = nullptr,
                          int handshakeTimeoutMs = -1);

// Local-only mode: connections may then go only to the two given addresses.
void setLocalOnlyMode(bool on, const PeerAddress& first = {}, const PeerAddress& second = {});

// Server side: waits up to timeoutMs for a client on listenSock, reads its hello
// and answers with reply. *clientHelloP gets what the client announced; the
// connection's peer cluster id and node value are those of the client's hello.
[[nodiscard]] int acceptConnection(int listenSock, int timeoutMs, const Hello& reply,
                                   std::unique_ptr<ConnImplementation>* connP, Hello* clientHelloP);

}  // namespace qcr
