// Test support: an in-process peer on loopback. It listens on 127.0.0.1 with a
// free port, accepts one connection in its own thread and runs a script on the
// socket; the destructor waits for the script and closes everything. Every wait
// is bounded, so a test that goes wrong fails instead of hanging.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "basic/net.h"

namespace qcr::test {

class TestPeer final {
 public:
  using Script = std::function<void(int sock)>;

  // Starts listening and accepting; script runs on the accepted socket.
  explicit TestPeer(Script script);
  ~TestPeer();
  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;

  PeerAddress address() const { return ipv4Address(0x7F000001, port_); }
  int listenSocket() const { return listenSock_; }

 private:
  int listenSock_ = -1;
  int port_ = 0;
  std::thread thread_;
};

// The raw bytes of a client's hello as they arrive on sock (header and every item
// of the chain), or what arrived before the peer stopped.
std::string readHelloBytes(int sock);
// Sends bytes on sock; failures are ignored (the test checks the other side).
void sendBytes(int sock, const std::string& bytes);
// The server's answer to a hello, as raw bytes: the given status, no security
// item, node value and cluster id in item 9.
std::string helloReplyBytes(uint32_t status, int nodeValue, uint64_t clusterId);

}  // namespace qcr::test
