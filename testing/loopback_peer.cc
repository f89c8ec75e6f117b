#include "testing/loopback_peer.h"

#include "basic/assert.h"
#include "qcr/comm/hello.h"
#include "qcr/coding/coding.h"

namespace qcr::test {

namespace {

constexpr int kPeerWaitMs = 10000;

uint32_t wordAt(const std::string& bytes, size_t offset) {
  uint32_t v = 0;
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  getU32(p + offset, p + bytes.size(), &v);
  return v;
}

bool readMore(int sock, size_t n, std::string* bytesP) {
  std::string chunk(n, '\0');
  if (fullRecv(sock, chunk.data(), n, kPeerWaitMs) != 0) return false;
  bytesP->append(chunk);
  return true;
}

}  // namespace

TestPeer::TestPeer(Script script) {
  QCR_CHECK(qcr::listenSocket(ipv4Address(0x7F000001, 0), &listenSock_, &port_) == 0);
  thread_ = std::thread([this, script = std::move(script)] {
    int sock = -1;
    PeerAddress peer;
    if (acceptSocket(listenSock_, kPeerWaitMs, &sock, &peer) != 0) return;
    script(sock);
    closeSocket(sock);
  });
}

TestPeer::~TestPeer() {
  thread_.join();
  closeSocket(listenSock_);
}

std::string readHelloBytes(int sock) {
  std::string bytes;
  if (!readMore(sock, 28, &bytes)) return bytes;
  for (uint32_t len = wordAt(bytes, 20); len != 0 && len <= 4096;) {
    const size_t start = bytes.size();
    if (len < 8 || !readMore(sock, len, &bytes)) break;
    len = wordAt(bytes, start + 4);
  }
  return bytes;
}

void sendBytes(int sock, const std::string& bytes) {
  (void)fullSend(sock, bytes.data(), bytes.size(), kPeerWaitMs);
}

std::string helloReplyBytes(uint32_t status, int nodeValue, uint64_t clusterId) {
  Hello reply;
  reply.status = status;
  reply.nodeValue = nodeValue;
  reply.clusterId = clusterId;
  const std::vector<uint8_t> bytes = buildHelloReply(reply);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace qcr::test
