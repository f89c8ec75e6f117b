#include "qcr/comm/connect.h"

#include <atomic>
#include <cerrno>
#include <mutex>

#include "basic/clock.h"
#include "basic/log.h"
#include "qcr/comm/conn_cache.h"

namespace qcr {

namespace {

struct LocalOnly {
  std::mutex mutex;
  bool on = false;
  PeerAddress first, second;
};

LocalOnly& localOnly() {
  static LocalOnly* state = new LocalOnly;  // used until exit
  return *state;
}

bool refusedByLocalOnly(const PeerAddress& address) {
  LocalOnly& state = localOnly();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.on && address != state.first && address != state.second;
}

// A cached connection is reused when nothing unread waits on it (a peer that
// closed it is found out by the first send or receive).
bool reuseCached(const PeerAddress& address, std::unique_ptr<Connection>* connP,
                 SocketObserver* observer) {
  std::unique_ptr<Connection> cached;
  if (outgoingConnections().getConnection(address, &cached) != 0) return false;
  if (peekSocket(cached->getSocket()) > 0) return false;
  qcrLog(5, "reusing connection (sock %d-0x%llx) to node %s", cached->getSocket(), cached->id(),
         addressText(address).c_str());
  if (observer != nullptr) observer->socketOpened(cached->getSocket());
  *connP = std::move(cached);
  return true;
}

// The client's half of the hello; fills what the peer announced into *secP.
int runHello(Transport& transport, int timeoutMs, SecurityParams* secP) {
  Hello hello;
  hello.clusterId = expectedClusterId();
  if (qcrSecEnabled() && secReady()) {
    hello.security = HelloSecurityItem{localKeyGeneration(), secCipherList()};
  }
  const std::vector<uint8_t> bytes = buildClientHello(hello);
  int rc = transport.sendAll(bytes.data(), bytes.size(), timeoutMs);
  Hello reply;
  if (rc == 0) rc = readHelloReply(transport, timeoutMs, &reply);
  if (rc != 0) return rc;
  secP->localKeyGen = localKeyGeneration();
  secP->peerNodeValue = reply.nodeValue;
  secP->peerClusterId = reply.clusterId;
  if (qcrSecEnabled() && reply.security) {
    secP->peerKeyGen = reply.security->keyGen;
    secP->peerCipherList = reply.security->cipherList;
  }
  return 0;
}

int openConnected(const PeerAddress& address, int sock, int connectTimeoutMs,
                  int handshakeTimeoutMs, SecurityParams* secP) {
  int rc = setReceiveBufferSize(sock, kReceiveBufferBytes);
  if (rc == 0) rc = connectSocket(sock, address, connectTimeoutMs);
  if (rc == 0) rc = setNoDelay(sock);
  if (rc == 0) rc = runHello(*makeSocketTransport(sock, false), handshakeTimeoutMs, secP);
  return rc;
}

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

int connect(const PeerAddress& address, std::unique_ptr<Connection>* connP, int connectTimeoutMs,
            SocketObserver* observer, int handshakeTimeoutMs) {
  const std::string text = addressText(address);
  qcrLog(5, "connecting to node %s (timeout %d, handshaketimeout %d)", text.c_str(),
         connectTimeoutMs, handshakeTimeoutMs);
  connP->reset();
  if (reuseCached(address, connP, observer)) return 0;
  if (refusedByLocalOnly(address)) return kErrLocalOnly;
  int sock = -1;
  int rc = openStreamSocket(address, &sock);
  if (rc != 0) return rc;
  if (observer != nullptr) observer->socketOpened(sock);
  if (connectTimeoutMs < 0) connectTimeoutMs = kDefaultConnectTimeoutMs;
  if (handshakeTimeoutMs < 0) handshakeTimeoutMs = kDefaultConnectTimeoutMs;
  SecurityParams security;
  rc = openConnected(address, sock, connectTimeoutMs, handshakeTimeoutMs, &security);
  if (rc != 0) {
    if (observer != nullptr) {
      observer->closeFailedSocket(sock);
    } else {
      closeSocket(sock);
    }
    return rc;
  }
  auto conn =
      std::make_unique<ConnImplementation>(makeSocketTransport(sock), address, std::move(security));
  qcrLog(5, "connected to node %s (sock %d-0x%llx)", text.c_str(), sock, conn->id());
  *connP = std::move(conn);
  return 0;
}

void setLocalOnlyMode(bool on, const PeerAddress& first, const PeerAddress& second) {
  LocalOnly& state = localOnly();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.on = on;
  state.first = first;
  state.second = second;
}

int acceptConnection(int listenSock, int timeoutMs, const Hello& reply,
                     std::unique_ptr<ConnImplementation>* connP, Hello* clientHelloP) {
  int sock = -1;
  PeerAddress peer;
  int rc = acceptSocket(listenSock, timeoutMs, &sock, &peer);
  if (rc != 0) return rc;
  std::unique_ptr<Transport> transport = makeSocketTransport(sock);
  rc = setNoDelay(sock);
  if (rc == 0) rc = readClientHello(*transport, timeoutMs, clientHelloP);
  if (rc == 0) {
    const std::vector<uint8_t> bytes = buildHelloReply(reply);
    rc = transport->sendAll(bytes.data(), bytes.size(), timeoutMs);
  }
  if (rc != 0) return rc;
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

}  // namespace qcr
