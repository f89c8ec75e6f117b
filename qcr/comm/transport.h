// The byte stream under a connection. A connection frames messages on it; the
// stream moves bytes and owns its endpoint. The socket stream is the real one;
// tests put a stream over a byte string in its place.
#pragma once

#include <cstddef>
#include <memory>

namespace qcr {

class Transport {
 public:
  virtual ~Transport() = default;

  // The socket for traces and the authentication exchange; -1 when there is none
  // or it is closed.
  virtual int socket() const = 0;
  // Move exactly n bytes; 0 or a result code (socket layer codes: 143 timed out,
  // 144 peer closed). timeoutMs bounds each wait; -1 selects the default.
  [[nodiscard]] virtual int sendAll(const void* data, size_t n, int timeoutMs) = 0;
  [[nodiscard]] virtual int recvAll(void* data, size_t n, int timeoutMs) = 0;
  // sendAll of first, then of second; a transport that can sends both in one
  // write, so that the peer wakes once for them.
  [[nodiscard]] virtual int sendPair(const void* first, size_t firstLen, const void* second,
                                     size_t secondLen, int timeoutMs) {
    const int rc = sendAll(first, firstLen, timeoutMs);
    return rc != 0 ? rc : sendAll(second, secondLen, timeoutMs);
  }
  // Ends the stream; later transfers fail. Returns 0 or the close's error.
  virtual int close() = 0;
};

// A stream over a connected socket. An owning stream closes the socket when
// closed or destroyed; a borrowing one leaves that to the caller.
std::unique_ptr<Transport> makeSocketTransport(int sock, bool owning = true);

}  // namespace qcr
