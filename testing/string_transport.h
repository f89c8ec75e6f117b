// Test support: a transport over byte strings. What a connection sends is
// appended to sent(); what it receives is read from input(), which a test fills
// and corrupts (flip a byte, truncate) to reach the checks behind the framing.
// Reading past the input's end fails as a closed peer does.
#pragma once

#include <cstring>
#include <memory>
#include <string>

#include "basic/net.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/transport.h"

namespace qcr::test {

class StringTransport final : public Transport {
 public:
  explicit StringTransport(std::string input = {}) : input_(std::move(input)) {}

  int socket() const override { return -1; }

  int sendAll(const void* data, size_t n, int /*timeoutMs*/) override {
    if (sendFailure_ != 0) return sendFailure_;
    sent_.append(static_cast<const char*>(data), n);
    ++writes_;
    return 0;
  }

  // One write for both, as a socket takes them.
  int sendPair(const void* first, size_t firstLen, const void* second, size_t secondLen,
               int /*timeoutMs*/) override {
    if (sendFailure_ != 0) return sendFailure_;
    sent_.append(static_cast<const char*>(first), firstLen);
    sent_.append(static_cast<const char*>(second), secondLen);
    ++writes_;
    return 0;
  }

  int recvAll(void* data, size_t n, int /*timeoutMs*/) override {
    if (input_.size() - readPos_ < n) {
      readPos_ = input_.size();
      return kErrPeerClosed;
    }
    memcpy(data, input_.data() + readPos_, n);
    readPos_ += n;
    return 0;
  }

  int close() override { return 0; }

  std::string& input() { return input_; }
  const std::string& sent() const { return sent_; }
  // How many writes sent() took.
  int writes() const { return writes_; }
  size_t readPos() const { return readPos_; }
  void flipByte(size_t pos) { input_[pos] = static_cast<char>(input_[pos] ^ 0xFF); }
  void truncate(size_t len) { input_.resize(len); }
  // Every later send fails with code.
  void failSends(int code) { sendFailure_ = code; }

 private:
  std::string input_;
  std::string sent_;
  size_t readPos_ = 0;
  int sendFailure_ = 0;
  int writes_ = 0;
};

// A connection over a new StringTransport, which *transportP points to.
inline std::unique_ptr<ConnImplementation> makeStringConnection(StringTransport** transportP,
                                                                std::string input = {},
                                                                SecurityParams security = {},
                                                                FirstSendChecks checks = {}) {
  auto transport = std::make_unique<StringTransport>(std::move(input));
  *transportP = transport.get();
  return std::make_unique<ConnImplementation>(std::move(transport), ipv4Address(0x7F000001, 1),
                                              std::move(security), checks);
}

}  // namespace qcr::test
