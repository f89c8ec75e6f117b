#include "qcr/comm/transport.h"

#include "basic/net.h"

namespace qcr {

namespace {

class SocketTransport final : public Transport {
 public:
  SocketTransport(int sock, bool owning) : sock_(sock), owning_(owning) {}
  ~SocketTransport() override {
    if (owning_) close();
  }

  int socket() const override { return sock_; }

  int sendAll(const void* data, size_t n, int timeoutMs) override {
    return sock_ < 0 ? kErrPeerClosed : fullSend(sock_, data, n, timeoutMs);
  }

  int sendPair(const void* first, size_t firstLen, const void* second, size_t secondLen,
               int timeoutMs) override {
    return sock_ < 0 ? kErrPeerClosed
                     : fullSendPair(sock_, first, firstLen, second, secondLen, timeoutMs);
  }

  int recvAll(void* data, size_t n, int timeoutMs) override {
    return sock_ < 0 ? kErrPeerClosed : fullRecv(sock_, data, n, timeoutMs);
  }

  int close() override {
    const int rc = closeSocket(sock_);
    sock_ = -1;
    return rc;
  }

 private:
  int sock_;
  const bool owning_;
};

}  // namespace

std::unique_ptr<Transport> makeSocketTransport(int sock, bool owning) {
  return std::make_unique<SocketTransport>(sock, owning);
}

}  // namespace qcr
