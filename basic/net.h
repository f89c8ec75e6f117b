// TCP sockets for the connections to QCR servers: addresses and their text, name
// lookup, non-blocking sockets and the poll-based transfers.
//
// Every socket made here is non-blocking and close-on-exec; transfers wait for
// readiness with poll. Functions return 0 or a result code: the system's error
// number, or one of the codes below that the socket layer sets itself.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qcr {

inline constexpr int kErrConnectFailed = 61;  // connect refused or failed at once
inline constexpr int kErrTimedOut = 143;      // a wait for readiness ran out
inline constexpr int kErrPeerClosed = 144;    // peer closed, or socket error or hang-up

// What a time-out of -1 means for fullSend and fullRecv (per wait, not in total).
inline constexpr int kDefaultSendTimeoutMs = 60000;
inline constexpr int kDefaultRecvTimeoutMs = 120000;

// A 16-byte IP address, IPv4 held in the mapped form ::ffff:a.b.c.d, and a port.
struct PeerAddress {
  std::array<uint8_t, 16> ip{};
  int port = 0;

  bool isV4() const;
  auto operator<=>(const PeerAddress&) const = default;
};

// The mapped form of the IPv4 address a.b.c.d given as 0xaabbccdd.
PeerAddress ipv4Address(uint32_t ip, int port);
// "a.b.c.d" for IPv4, the IPv6 text otherwise.
std::string ipText(const PeerAddress& address);
// "a.b.c.d:port" for IPv4, "[v6-text]:port" otherwise.
std::string addressText(const PeerAddress& address);

// Looks host up for stream sockets: every result in the resolver's order, IPv4
// results in mapped form (requested through the IPv6 family with mapped and all
// results), or only IPv4 results when v4Only is set. Ports are left 0. A temporary
// failure returns 11 (EAGAIN); a name that is not known returns 113 (EHOSTUNREACH).
[[nodiscard]] int lookupHost(const std::string& host, bool v4Only,
                             std::vector<PeerAddress>* resultsP);

// A non-blocking stream socket of the address's family.
[[nodiscard]] int openStreamSocket(const PeerAddress& address, int* sockP);
[[nodiscard]] int setReceiveBufferSize(int sock, int bytes);
[[nodiscard]] int setNoDelay(int sock);

// Connects sock to address, waiting up to timeoutMs for an outstanding connect.
// An immediate or a late failure gives kErrConnectFailed, the wait's end
// kErrTimedOut; "already connected" counts as success.
[[nodiscard]] int connectSocket(int sock, const PeerAddress& address, int timeoutMs);

// Move exactly len bytes. Each wait for readiness lasts at most timeoutMs (-1 for
// the default above, any other negative value without limit) and ends with
// kErrTimedOut; a peer that closed, or an error or hang-up reported without the
// awaited readiness, gives kErrPeerClosed; other failures their system error.
[[nodiscard]] int fullSend(int sock, const void* data, size_t len, int timeoutMs);
[[nodiscard]] int fullRecv(int sock, void* data, size_t len, int timeoutMs);
// fullSend of first and then second, in one write where the socket takes both:
// a small message head and a large body reach the peer together.
[[nodiscard]] int fullSendPair(int sock, const void* first, size_t firstLen, const void* second,
                               size_t secondLen, int timeoutMs);

// Looks at up to 32 unread bytes without waiting or consuming them: the count, 0
// when the peer closed, negative when nothing is waiting or the call failed.
int peekSocket(int sock);
// Bytes that arrived on sock and were not read yet; negative when the call failed.
int unreadBytes(int sock);
// Reads up to len bytes that arrived already, without waiting: the count, 0 when
// the peer closed, negative when nothing arrived or the call failed.
int takeArrived(int sock, void* data, size_t len);
// Waits up to timeoutMs for sock to have bytes to read, a close or an error to
// report: true when it has, false when the time ran out first.
bool waitReadable(int sock, int timeoutMs);

// Shuts sock down both ways and closes it, tracing each step; -1 is left alone.
// Returns the close's result (0 or its error).
int closeSocket(int sock);

// Listens on address (port 0 picks a free port, returned in *portP).
[[nodiscard]] int listenSocket(const PeerAddress& address, int* sockP, int* portP);
// Waits up to timeoutMs for a connection on listenSock and accepts it.
[[nodiscard]] int acceptSocket(int listenSock, int timeoutMs, int* sockP, PeerAddress* peerP);
// n different loopback ports that were free a moment ago, for servers started
// next: each is held until all are picked, since a port let go at once may be
// picked again. 0 or the error of the listen that failed.
[[nodiscard]] int freeLoopbackPorts(int n, std::vector<int>* portsP);

}  // namespace qcr
