#include "basic/net.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "basic/assert.h"
#include "basic/log.h"

namespace qcr {

namespace {

constexpr uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

// The result code for a failed socket call: errno, or EIO when the call left none.
int socketError() { return errno != 0 ? errno : EIO; }

PeerAddress fromSockaddr(const sockaddr* sa) {
  PeerAddress address;
  if (sa->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(sa);
    memcpy(address.ip.data(), kMappedPrefix, sizeof kMappedPrefix);
    memcpy(address.ip.data() + 12, &in->sin_addr, 4);
    address.port = ntohs(in->sin_port);
  } else if (sa->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
    memcpy(address.ip.data(), &in6->sin6_addr, 16);
    address.port = ntohs(in6->sin6_port);
  } else {
    QCR_ASSERT(!"Invalid sa_family");
  }
  return address;
}

socklen_t toSockaddr(const PeerAddress& address, sockaddr_storage* ss) {
  memset(ss, 0, sizeof *ss);
  if (address.isV4()) {
    auto* in = reinterpret_cast<sockaddr_in*>(ss);
    in->sin_family = AF_INET;
    in->sin_port = htons(static_cast<uint16_t>(address.port));
    memcpy(&in->sin_addr, address.ip.data() + 12, 4);
    return sizeof *in;
  }
  auto* in6 = reinterpret_cast<sockaddr_in6*>(ss);
  in6->sin6_family = AF_INET6;
  in6->sin6_port = htons(static_cast<uint16_t>(address.port));
  memcpy(&in6->sin6_addr, address.ip.data(), 16);
  return sizeof *in6;
}

int lookupError(int gaiCode) {
  switch (gaiCode) {
    case EAI_AGAIN:
      return EAGAIN;
    case EAI_MEMORY:
      return ENOMEM;
    case EAI_SYSTEM:
      return socketError();
    case EAI_NONAME:
    case EAI_NODATA:
    case EAI_FAIL:
      return EHOSTUNREACH;
    default:
      return EINVAL;
  }
}

// Waits for events on sock: 0 when one of them came, kErrTimedOut, kErrPeerClosed
// for an error or hang-up without them, or poll's own error.
int waitFor(int sock, short events, int timeoutMs) {
  pollfd pfd{sock, events, 0};
  for (;;) {
    const int n = poll(&pfd, 1, timeoutMs < 0 ? -1 : timeoutMs);
    if (n > 0) return (pfd.revents & events) != 0 ? 0 : kErrPeerClosed;
    if (n == 0) return kErrTimedOut;
    if (errno != EINTR) return socketError();
  }
}

int effectiveTimeout(int timeoutMs, int defaultMs) {
  return timeoutMs == -1 ? defaultMs : timeoutMs;
}

}  // namespace

bool PeerAddress::isV4() const {
  return memcmp(ip.data(), kMappedPrefix, sizeof kMappedPrefix) == 0;
}

PeerAddress ipv4Address(uint32_t ip, int port) {
  PeerAddress address;
  memcpy(address.ip.data(), kMappedPrefix, sizeof kMappedPrefix);
  for (int i = 0; i < 4; ++i) address.ip[12 + i] = static_cast<uint8_t>(ip >> (24 - 8 * i));
  address.port = port;
  return address;
}

std::string ipText(const PeerAddress& address) {
  char text[INET6_ADDRSTRLEN];
  if (address.isV4()) {
    inet_ntop(AF_INET, address.ip.data() + 12, text, sizeof text);
  } else {
    inet_ntop(AF_INET6, address.ip.data(), text, sizeof text);
  }
  return text;
}

std::string addressText(const PeerAddress& address) {
  std::string text;
  if (address.isV4()) {
    text.append(ipText(address));
  } else {
    text.append("[").append(ipText(address)).append("]");
  }
  return text.append(":").append(std::to_string(address.port));
}

namespace {

// A dotted-quad IPv4 or a plain IPv6 text gives the single result the resolver
// would give, without its set-up: node lists nearly always hold numeric
// addresses. Anything else (names, short IPv4 forms, scoped IPv6) is left to it.
bool numericAddress(const std::string& host, bool v4Only, PeerAddress* addressP) {
  in_addr v4{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    *addressP = ipv4Address(ntohl(v4.s_addr), 0);
    return true;
  }
  return !v4Only && inet_pton(AF_INET6, host.c_str(), addressP->ip.data()) == 1;
}

}  // namespace

int lookupHost(const std::string& host, bool v4Only, std::vector<PeerAddress>* resultsP) {
  resultsP->clear();
  if (PeerAddress numeric; numericAddress(host, v4Only, &numeric)) {
    resultsP->push_back(numeric);
    return 0;
  }
  addrinfo hints{};
  hints.ai_family = v4Only ? AF_INET : AF_INET6;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = v4Only ? 0 : AI_V4MAPPED | AI_ALL;
  addrinfo* list = nullptr;
  errno = 0;
  const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (rc != 0) return lookupError(rc);
  for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    if (ai->ai_family == AF_INET || ai->ai_family == AF_INET6) {
      resultsP->push_back(fromSockaddr(ai->ai_addr));
      resultsP->back().port = 0;
    }
  }
  freeaddrinfo(list);
  return resultsP->empty() ? EHOSTUNREACH : 0;
}

int openStreamSocket(const PeerAddress& address, int* sockP) {
  const int family = address.isV4() ? AF_INET : AF_INET6;
  *sockP = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  return *sockP < 0 ? socketError() : 0;
}

int setReceiveBufferSize(int sock, int bytes) {
  return setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0 ? 0 : socketError();
}

int setNoDelay(int sock) {
  const int on = 1;
  return setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0 ? 0 : socketError();
}

int connectSocket(int sock, const PeerAddress& address, int timeoutMs) {
  sockaddr_storage ss;
  const socklen_t len = toSockaddr(address, &ss);
  if (::connect(sock, reinterpret_cast<sockaddr*>(&ss), len) == 0 || errno == EISCONN) return 0;
  if (errno != EINPROGRESS && errno != EAGAIN && errno != EALREADY) return kErrConnectFailed;
  const int rc = waitFor(sock, POLLOUT, timeoutMs);
  if (rc == kErrTimedOut) return rc;
  int soError = 0;
  socklen_t soLen = sizeof soError;
  if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &soError, &soLen) != 0 || soError != 0) {
    return kErrConnectFailed;
  }
  return rc == 0 ? 0 : kErrConnectFailed;
}

// Both transfers try the call first and wait only when the socket is not ready:
// on a busy stream most calls then need no poll.
int fullSend(int sock, const void* data, size_t len, int timeoutMs) {
  timeoutMs = effectiveTimeout(timeoutMs, kDefaultSendTimeoutMs);
  const auto* p = static_cast<const uint8_t*>(data);
  while (len > 0) {
    const ssize_t n = ::send(sock, p, len, MSG_NOSIGNAL);
    if (n > 0) {
      p += n;
      len -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) return socketError();
    const int rc = waitFor(sock, POLLWRNORM, timeoutMs);
    if (rc != 0) return rc;
  }
  return 0;
}

int fullSendPair(int sock, const void* first, size_t firstLen, const void* second,
                 size_t secondLen, int timeoutMs) {
  timeoutMs = effectiveTimeout(timeoutMs, kDefaultSendTimeoutMs);
  iovec pieces[2] = {{const_cast<void*>(first), firstLen}, {const_cast<void*>(second), secondLen}};
  iovec* next = pieces;
  int left = 2;
  for (;;) {
    // Pieces sent whole are passed over; a piece sent in part goes on from where
    // the last write ended.
    while (left > 0 && next->iov_len == 0) {
      ++next;
      --left;
    }
    if (left == 0) return 0;
    msghdr msg = {};
    msg.msg_iov = next;
    msg.msg_iovlen = static_cast<size_t>(left);
    ssize_t n = ::sendmsg(sock, &msg, MSG_NOSIGNAL);
    if (n > 0) {
      for (; n > 0; ++next, --left) {
        const size_t taken = std::min(static_cast<size_t>(n), next->iov_len);
        next->iov_base = static_cast<uint8_t*>(next->iov_base) + taken;
        next->iov_len -= taken;
        n -= static_cast<ssize_t>(taken);
        if (next->iov_len > 0) break;
      }
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) return socketError();
    const int rc = waitFor(sock, POLLWRNORM, timeoutMs);
    if (rc != 0) return rc;
  }
}

int fullRecv(int sock, void* data, size_t len, int timeoutMs) {
  timeoutMs = effectiveTimeout(timeoutMs, kDefaultRecvTimeoutMs);
  auto* p = static_cast<uint8_t*>(data);
  while (len > 0) {
    const ssize_t n = ::recv(sock, p, len, 0);
    if (n > 0) {
      p += n;
      len -= static_cast<size_t>(n);
      continue;
    }
    if (n == 0) return kErrPeerClosed;
    if (errno != EAGAIN && errno != EINTR) return socketError();
    const int rc = waitFor(sock, POLLRDNORM | POLLRDBAND, timeoutMs);
    if (rc != 0) return rc;
  }
  return 0;
}

int peekSocket(int sock) {
  uint8_t buf[32];
  return static_cast<int>(::recv(sock, buf, sizeof buf, MSG_PEEK | MSG_DONTWAIT));
}

int takeArrived(int sock, void* data, size_t len) {
  ssize_t n;
  do {
    n = ::recv(sock, data, len, MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return static_cast<int>(n);
}

int unreadBytes(int sock) {
  int n = 0;
  return ::ioctl(sock, FIONREAD, &n) == 0 ? n : -1;
}

bool waitReadable(int sock, int timeoutMs) {
  pollfd p{sock, POLLIN, 0};
  int n;
  do {
    n = ::poll(&p, 1, timeoutMs);
  } while (n < 0 && errno == EINTR);
  return n > 0;
}

int closeSocket(int sock) {
  if (sock == -1) return 0;
  if (shutdown(sock, SHUT_RDWR) != 0) {
    qcrLog(4, "closeSocket: shutdown socket %d failed (%d)", sock, socketError());
  } else {
    qcrLog(6, "closeSocket: shutdown socket %d successful", sock);
  }
  const int rc = ::close(sock) == 0 ? 0 : socketError();
  if (rc != 0) {
    qcrLog(4, "closeSocket: close socket %d failed (%d)", sock, rc);
  } else {
    qcrLog(6, "closeSocket: closed socket %d successful", sock);
  }
  return rc;
}

int freeLoopbackPorts(int n, std::vector<int>* portsP) {
  portsP->clear();
  std::vector<int> held;
  int rc = 0;
  for (int i = 0; i < n && rc == 0; ++i) {
    int sock = -1;
    int port = 0;
    rc = listenSocket(ipv4Address(0x7F000001, 0), &sock, &port);
    if (rc != 0) break;
    held.push_back(sock);
    portsP->push_back(port);
  }
  for (int sock : held) closeSocket(sock);
  return rc;
}

int listenSocket(const PeerAddress& address, int* sockP, int* portP) {
  int sock = -1;
  int rc = openStreamSocket(address, &sock);
  if (rc != 0) return rc;
  const int on = 1;
  sockaddr_storage ss;
  socklen_t len = toSockaddr(address, &ss);
  if (setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(sock, reinterpret_cast<sockaddr*>(&ss), len) != 0 || listen(sock, SOMAXCONN) != 0 ||
      getsockname(sock, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
    rc = socketError();
    ::close(sock);
    return rc;
  }
  *sockP = sock;
  *portP = fromSockaddr(reinterpret_cast<sockaddr*>(&ss)).port;
  return 0;
}

int acceptSocket(int listenSock, int timeoutMs, int* sockP, PeerAddress* peerP) {
  const int rc = waitFor(listenSock, POLLIN, timeoutMs);
  if (rc != 0) return rc;
  sockaddr_storage ss;
  socklen_t len = sizeof ss;
  *sockP =
      accept4(listenSock, reinterpret_cast<sockaddr*>(&ss), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (*sockP < 0) return socketError();
  *peerP = fromSockaddr(reinterpret_cast<sockaddr*>(&ss));
  return 0;
}

}  // namespace qcr
