// Opening connections: name resolution, the one outgoing connect with its hello
// (the tool's connections and qcrd's links to its peers alike), and the server's
// accept with its answer.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "basic/clock.h"
#include "basic/net.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/hello.h"
#include "qcr/comm/security.h"

namespace qcr {

class CachedConnectionMap;

inline constexpr int kDefaultConnectTimeoutMs = 10000;  // for connect and hello alike
inline constexpr int kDefaultServerHelloMs = 5000;      // acceptConnection's whole hello
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

// How one connect is made and what the connection then checks. The caller owns
// everything pointed to; it must outlive the connect (the cache also the
// connections put back into it).
struct ConnectParams {
  int connectTimeoutMs = -1;    // negative: kDefaultConnectTimeoutMs
  int handshakeTimeoutMs = -1;  // the hello; negative: kDefaultConnectTimeoutMs
  int waitMs = -1;              // each later wait of send and receive; -1: the socket defaults
  // Announced in the hello and expected of the peer at the first send; 0 for any.
  uint64_t clusterId = 0;
  // Fail the connect at once (315) when the hello answer names another cluster,
  // rather than at the first send.
  bool refuseOtherCluster = false;
  uint32_t helloFlags = 0;
  // On and ready: the hello announces the key; on: the first message that needs
  // it authenticates. Null: unsecured.
  const SecurityContext* security = nullptr;
  // Idle connections tried before a new socket is opened; null: always a new one.
  CachedConnectionMap* cache = nullptr;
  // Local-only mode: when not empty, connections go only to these addresses.
  std::vector<PeerAddress> onlyTo;
  // Watches the socket of a connect in progress.
  SocketObserver* observer = nullptr;
};

// Opens a connection to address: an idle one from params.cache, else a new socket,
// connected within the connect time-out, then the hello within the handshake
// time-out. On failure *connP stays empty and the result is non-zero: 5, 61, 143,
// 144, 129, 130, 142, 315 (refuseOtherCluster) or a system error.
[[nodiscard]] int connect(const PeerAddress& address, const ConnectParams& params,
                          std::unique_ptr<ConnImplementation>* connP);

// The server side's limit for a whole hello, read and answer together: it ends
// at deadline (seconds on clock) however the client paces its bytes. No single
// wait lasts longer than sliceMs, and between waits cancelled (when given) is
// asked, so that a stopping server need not wait for the deadline.
struct HelloDeadline {
  Clock* clock = &systemClock();
  double deadline = 0;
  int sliceMs = 500;
  std::function<bool()> cancelled;
  // When set, asked once the client's hello is read: false closes the connection
  // without an answer.
  std::function<bool(const Hello&)> admit;
};

// Server side of the hello on an accepted socket sock from peer, which it takes
// over (closed on failure): reads the client's hello and answers with reply, all
// within limit. 0, 143 when the deadline passed or cancelled said so, 129 when
// limit.admit refused the client, or a hello or transfer error. *clientHelloP gets what the client announced; the
// connection's peer cluster id and node value are those of the client's hello.
[[nodiscard]] int answerHello(int sock, const PeerAddress& peer, const Hello& reply,
                              const HelloDeadline& limit,
                              std::unique_ptr<ConnImplementation>* connP, Hello* clientHelloP);

// Waits up to timeoutMs for a client on listenSock, then answerHello with a
// deadline kDefaultServerHelloMs later on the system clock.
[[nodiscard]] int acceptConnection(int listenSock, int timeoutMs, const Hello& reply,
                                   std::unique_ptr<ConnImplementation>* connP, Hello* clientHelloP);

}  // namespace qcr
