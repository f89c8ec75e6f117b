#include "qcr/comm/connect.h"

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "basic/clock.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/comm/conn_cache.h"

namespace qcr {

namespace {

bool refusedByLocalOnly(const PeerAddress& address, const std::vector<PeerAddress>& onlyTo) {
  return !onlyTo.empty() && std::find(onlyTo.begin(), onlyTo.end(), address) == onlyTo.end();
}

// What a connection opened with params checks at its first send.
FirstSendChecks checksOf(const ConnectParams& params) {
  return {params.clusterId, params.security != nullptr && params.security->enabled()};
}

// A cached connection is reused when nothing unread waits on it (a peer that
// closed it is found out by the first send or receive).
bool reuseCached(const PeerAddress& address, const ConnectParams& params,
                 std::unique_ptr<ConnImplementation>* connP) {
  std::unique_ptr<ConnImplementation> cached;
  if (params.cache == nullptr || params.cache->getConnection(address, &cached) != 0) return false;
  if (peekSocket(cached->getSocket()) > 0) return false;
  qcrLog(5, "reusing connection (sock %d-0x%llx) to node %s", cached->getSocket(), cached->id(),
         addressText(address).c_str());
  if (params.observer != nullptr) params.observer->socketOpened(cached->getSocket());
  // It gets its new user's checks and waits, whatever its last user set.
  cached->setChecks(checksOf(params));
  cached->setTimeouts(params.waitMs, params.waitMs);
  *connP = std::move(cached);
  return true;
}

// The client's half of the hello; fills what the peer announced into *secP.
int runHello(Transport& transport, const ConnectParams& params, int timeoutMs,
             SecurityParams* secP) {
  const SecurityContext* security = params.security;
  const bool secured = security != nullptr && security->enabled();
  Hello hello;
  hello.clusterId = params.clusterId;
  hello.flags = params.helloFlags;
  // One snapshot of the keys: what the hello announces is what the
  // authentication later presents, even if the keys change meanwhile.
  std::shared_ptr<const KeyRing> keys = secured ? security->keys() : nullptr;
  if (keys != nullptr) {
    hello.security = HelloSecurityItem{keys->localGeneration(), kAuthOnlyCipherList};
  }
  const std::vector<uint8_t> bytes = buildClientHello(hello);
  int rc = transport.sendAll(bytes.data(), bytes.size(), timeoutMs);
  Hello reply;
  if (rc == 0) rc = readHelloReply(transport, timeoutMs, &reply);
  if (rc != 0) return rc;
  if (params.refuseOtherCluster && params.clusterId != 0 && reply.clusterId != 0 &&
      reply.clusterId != params.clusterId) {
    return E_CLUSTER_MISMATCH;
  }
  secP->localKeyGen = keys != nullptr ? keys->localGeneration() : -1;
  secP->keys = std::move(keys);
  secP->peerNodeValue = reply.nodeValue;
  secP->peerClusterId = reply.clusterId;
  if (secured && reply.security) {
    secP->peerKeyGen = reply.security->keyGen;
    secP->peerCipherList = reply.security->cipherList;
  }
  return 0;
}

int openConnected(const PeerAddress& address, int sock, const ConnectParams& params,
                  int connectTimeoutMs, int handshakeTimeoutMs, SecurityParams* secP) {
  int rc = setReceiveBufferSize(sock, kReceiveBufferBytes);
  if (rc == 0) rc = connectSocket(sock, address, connectTimeoutMs);
  if (rc == 0) rc = setNoDelay(sock);
  if (rc == 0) {
    rc = runHello(*makeSocketTransport(sock, false), params, handshakeTimeoutMs, secP);
  }
  return rc;
}

// The server's side of a hello: every transfer ends by the deadline, however the
// client paces its bytes. A read takes whatever has arrived and waits for one more
// byte at most a slice when nothing has, so a client that trickles its hello byte
// by byte holds its connection for no longer than the deadline.
class DeadlineTransport final : public Transport {
 public:
  DeadlineTransport(Transport& inner, const HelloDeadline& limit) : inner_(inner), limit_(limit) {}

  int socket() const override { return inner_.socket(); }
  int sendAll(const void* data, size_t n, int) override {
    const int waitMs = nextWaitMs();
    return waitMs < 0 ? kErrTimedOut : inner_.sendAll(data, n, waitMs);
  }
  int recvAll(void* data, size_t n, int) override {
    auto* p = static_cast<uint8_t*>(data);
    while (n > 0) {
      // What arrived already is taken without a wait (in one call, when the
      // client sent its hello at once).
      const int got = takeArrived(socket(), p, n);
      if (got == 0) return kErrPeerClosed;
      if (got > 0) {
        p += got;
        n -= static_cast<size_t>(got);
        continue;
      }
      const int waitMs = nextWaitMs();
      if (waitMs < 0) return kErrTimedOut;
      const int rc = inner_.recvAll(p, 1, waitMs);
      if (rc == kErrTimedOut) continue;
      if (rc != 0) return rc;
      ++p;
      --n;
    }
    return 0;
  }
  int close() override { return inner_.close(); }

 private:
  // The next wait in ms (at least 1), or -1 once the deadline passed or the
  // caller cancelled.
  int nextWaitMs() const {
    if (limit_.cancelled && limit_.cancelled()) return -1;
    const double leftMs = (limit_.deadline - limit_.clock->now()) * 1000.0;
    if (leftMs <= 0) return -1;
    return static_cast<int>(std::min(std::ceil(leftMs), static_cast<double>(limit_.sliceMs)));
  }

  Transport& inner_;
  const HelloDeadline& limit_;
};

}  // namespace

PeerAddress chooseResolved(const std::vector<PeerAddress>& results) {
  PeerAddress chosen;
  for (const PeerAddress& candidate : results) {
    chosen = candidate;
    if (ipText(candidate).rfind("fe80:", 0) != 0) break;
  }
  if (!chosen.isV4()) {
    for (const PeerAddress& candidate : results) {
      if (candidate.isV4()) return candidate;
    }
  }
  return chosen;
}

int resolve(const std::string& host, int port, PeerAddress* addressP, double* elapsedP) {
  const size_t first = host.find_first_not_of(' ');
  const std::string name = first == std::string::npos ? "" : host.substr(first);
  const double start = systemClock().wallNow();
  const bool v4Only = name.rfind("255.", 0) == 0;
  std::vector<PeerAddress> results;
  int rc = lookupHost(name, v4Only, &results);
  if (rc == EAGAIN && !v4Only) rc = lookupHost(name, true, &results);
  if (elapsedP != nullptr) *elapsedP = systemClock().wallNow() - start;
  if (rc != 0) return rc;
  *addressP = chooseResolved(results);
  addressP->port = port;
  return port <= 0 ? EINVAL : 0;
}

int connect(const PeerAddress& address, const ConnectParams& params,
            std::unique_ptr<ConnImplementation>* connP) {
  const std::string text = addressText(address);
  const int connectTimeoutMs =
      params.connectTimeoutMs < 0 ? kDefaultConnectTimeoutMs : params.connectTimeoutMs;
  const int handshakeTimeoutMs =
      params.handshakeTimeoutMs < 0 ? kDefaultConnectTimeoutMs : params.handshakeTimeoutMs;
  qcrLog(5, "connecting to node %s (timeout %d, handshaketimeout %d)", text.c_str(),
         params.connectTimeoutMs, params.handshakeTimeoutMs);
  connP->reset();
  if (reuseCached(address, params, connP)) return 0;
  if (refusedByLocalOnly(address, params.onlyTo)) return kErrLocalOnly;
  int sock = -1;
  int rc = openStreamSocket(address, &sock);
  if (rc != 0) return rc;
  if (params.observer != nullptr) params.observer->socketOpened(sock);
  SecurityParams security;
  rc = openConnected(address, sock, params, connectTimeoutMs, handshakeTimeoutMs, &security);
  if (rc != 0) {
    if (params.observer != nullptr) {
      params.observer->closeFailedSocket(sock);
    } else {
      closeSocket(sock);
    }
    return rc;
  }
  auto conn = std::make_unique<ConnImplementation>(makeSocketTransport(sock), address,
                                                   std::move(security), checksOf(params));
  conn->setTimeouts(params.waitMs, params.waitMs);
  qcrLog(5, "connected to node %s (sock %d-0x%llx)", text.c_str(), sock, conn->id());
  *connP = std::move(conn);
  return 0;
}

int answerHello(int sock, const PeerAddress& peer, const Hello& reply, const HelloDeadline& limit,
                std::unique_ptr<ConnImplementation>* connP, Hello* clientHelloP) {
  connP->reset();
  std::unique_ptr<Transport> transport = makeSocketTransport(sock);
  DeadlineTransport bounded(*transport, limit);
  int rc = setNoDelay(sock);
  if (rc == 0) rc = readClientHello(bounded, -1, clientHelloP);
  if (rc == 0 && limit.admit && !limit.admit(*clientHelloP)) rc = kErrHelloRejected;
  if (rc == 0) {
    const std::vector<uint8_t> bytes = buildHelloReply(reply);
    rc = bounded.sendAll(bytes.data(), bytes.size(), -1);
  }
  if (rc != 0) return rc;  // the transport closes the socket
  SecurityParams security;
  security.localKeyGen = reply.security ? reply.security->keyGen : -1;
  if (clientHelloP->security) {
    security.peerKeyGen = clientHelloP->security->keyGen;
    security.peerCipherList = clientHelloP->security->cipherList;
  }
  security.peerNodeValue = clientHelloP->nodeValue;
  security.peerClusterId = clientHelloP->clusterId;
  *connP = std::make_unique<ConnImplementation>(std::move(transport), peer, std::move(security));
  // The server checked the client's hello itself and authenticates incoming.
  (*connP)->setFirstSend(false);
  return 0;
}

int acceptConnection(int listenSock, int timeoutMs, const Hello& reply,
                     std::unique_ptr<ConnImplementation>* connP, Hello* clientHelloP) {
  int sock = -1;
  PeerAddress peer;
  const int rc = acceptSocket(listenSock, timeoutMs, &sock, &peer);
  if (rc != 0) return rc;
  HelloDeadline limit;
  limit.deadline = limit.clock->now() + kDefaultServerHelloMs / 1000.0;
  return answerHello(sock, peer, reply, limit, connP, clientHelloP);
}

}  // namespace qcr
