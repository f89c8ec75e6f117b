#include "qcr/comm/hello.h"

#include <gtest/gtest.h>

#include <string>

#include "qcr/comm/connect.h"
#include "testing/string_transport.h"
#include "testing/loopback_peer.h"

namespace qcr {

using test::StringTransport;
using test::TestPeer;
using test::readHelloBytes;
using test::sendBytes;
using test::helloReplyBytes;
namespace {

std::string words(std::initializer_list<uint32_t> ws) {
  std::string out;
  for (uint32_t w : ws) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(w >> shift));
  }
  return out;
}

std::string zeros(size_t n) { return std::string(n, '\0'); }

std::string str(const std::vector<uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

const std::string kHeader = words({0xF3689038, 0xFFFFFFFF, 0xFFFFFFFF, 1602, 1203, 12, 0});
const std::string kTail =
    words({9, 72, 101, 0x01020304, 0x05060708, 0}) + words({2, 0, 0}) + zeros(60);

TEST(Hello, ClientBytes) {
  Hello plain;
  plain.clusterId = 0x0102030405060708;
  const std::string expected = kHeader + words({7, 24, 1}) + kTail;
  EXPECT_EQ(expected.size(), 136u);
  EXPECT_EQ(str(buildClientHello(plain)), expected);

  Hello secure = plain;
  secure.security = HelloSecurityItem{3, "AUTHONLY"};
  EXPECT_EQ(str(buildClientHello(secure)),
            kHeader + words({7, 24, 1}) + words({6, 24, 3}) + "AUTHONLY" + zeros(4) + kTail);
  // The item's size is (text length + 16) rounded down to a multiple of 4.
  secure.security->cipherList = "ABCDEFGHIJK";
  EXPECT_EQ(str(buildClientHello(secure)),
            kHeader + words({7, 24, 1}) + words({6, 24, 3}) + "ABCDEFGHIJK" + zeros(1) + kTail);
}

// Both sides parse what the other builds; the server reads the client's hello.
TEST(Hello, ParseBothSides) {
  Hello client;
  client.clusterId = 77;
  client.security = HelloSecurityItem{5, "AUTHONLY"};
  client.flags = 2;
  StringTransport serverSide(str(buildClientHello(client)));
  Hello seen;
  ASSERT_EQ(readClientHello(serverSide, 100, &seen), 0);
  EXPECT_EQ(seen.clusterId, 77u);
  EXPECT_EQ(seen.nodeValue, kClientHelloValue);
  EXPECT_EQ(seen.flags, 2u);
  ASSERT_TRUE(seen.security);
  EXPECT_EQ(seen.security->keyGen, 5);
  EXPECT_EQ(seen.security->cipherList, "AUTHONLY");

  Hello server;
  server.nodeValue = 4;
  server.clusterId = 0xFFFFFFFF00000001;
  server.security = HelloSecurityItem{0, "AUTHONLY "};
  StringTransport clientSide(str(buildHelloReply(server)));
  Hello reply;
  ASSERT_EQ(readHelloReply(clientSide, 100, &reply), 0);
  EXPECT_EQ(reply.nodeValue, 4);
  EXPECT_EQ(reply.clusterId, 0xFFFFFFFF00000001u);
  ASSERT_TRUE(reply.security);
  EXPECT_EQ(reply.security->cipherList, "AUTHONLY ");
}

TEST(Hello, BadReplies) {
  const std::string good = str(buildHelloReply(Hello{}));
  std::string badMagic = good;
  badMagic[0] = 0;
  std::string rejected = good;
  rejected[7] = 1;  // status
  const std::string oversized = words({0xF3689038, 0, 0, 16778241, 0});
  const std::string tooShort = words({0xF3689038, 0, 0, 4, 0}) + words({9});
  const std::string shortNine = words({0xF3689038, 0, 0, 12, 0}) + words({9, 0, 1});
  const std::string unknownItem = words({0xF3689038, 0, 0, 8, 0}) + words({99, 0});
  const struct {
    std::string bytes;
    int rc;
  } cases[] = {
      {good, 0},
      {unknownItem, 0},
      {badMagic, kErrTimedOut},
      {rejected, kErrHelloRejected},
      {oversized, kErrHelloItemLength},
      {tooShort, kErrHelloItemLength},
      {shortNine, kErrHelloItemLength},
      {good.substr(0, good.size() - 1), kErrPeerClosed},
  };
  for (const auto& c : cases) {
    StringTransport t(c.bytes);
    Hello reply;
    EXPECT_EQ(readHelloReply(t, 100, &reply), c.rc) << c.bytes.size();
  }
}

// A client's hello may not make the server hold more than a few KiB: one large
// item, or many small ones, end the read before their bytes are asked for.
TEST(Hello, ServerReadsNoLargeClientHello) {
  const std::string large = kHeader.substr(0, 20) + words({kMaxClientHelloBytes + 4, 0}) +
                            words({99, 0}) + zeros(kMaxClientHelloBytes - 4);
  std::string many = kHeader.substr(0, 20) + words({1024, 0});
  for (uint32_t i = 0; i * 1024 <= kMaxClientHelloBytes; ++i) {
    many += words({99, 1024}) + zeros(1016);
  }
  for (const std::string& bytes : {large, many}) {
    StringTransport t(bytes);
    Hello seen;
    EXPECT_EQ(readClientHello(t, 100, &seen), kErrHelloItemLength) << bytes.size();
  }
}

// The real exchange on loopback: the exact bytes the tool sends, and a refusal and
// a silent close reach the caller (BadReplies has every other answer).
TEST(Hello, ConnectOverLoopback) {
  std::string seen;
  const struct {
    std::string reply;
    int rc;
  } cases[] = {
      {helloReplyBytes(0, 3, 42), 0},
      {helloReplyBytes(5, 3, 42), kErrHelloRejected},
      {"", kErrPeerClosed},  // the peer closes without answering
  };
  ConnectParams params;
  params.connectTimeoutMs = 2000;
  params.handshakeTimeoutMs = 2000;
  for (const auto& c : cases) {
    std::unique_ptr<ConnImplementation> conn;
    int rc = -1;
    {
      TestPeer peer([&](int sock) {
        seen = readHelloBytes(sock);
        sendBytes(sock, c.reply);
      });
      rc = connect(peer.address(), params, &conn);
    }
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(conn != nullptr, c.rc == 0);
    EXPECT_EQ(seen, kHeader + words({7, 24, 1}) + words({9, 72, 101, 0, 0, 0}) + words({2, 0, 0}) +
                        zeros(60));
    if (conn) {
      EXPECT_EQ(conn->peerNodeValue(), 3);
      EXPECT_EQ(conn->peerClusterId(), 42u);
    }
  }
}

TEST(Hello, SilentPeerTimesOut) {
  std::unique_ptr<ConnImplementation> conn;
  TestPeer peer([](int sock) {
    readHelloBytes(sock);
    char byte;
    (void)fullRecv(sock, &byte, 1, 5000);  // silent until the client gives up
  });
  ConnectParams params;
  params.connectTimeoutMs = 2000;
  params.handshakeTimeoutMs = 200;
  EXPECT_EQ(connect(peer.address(), params, &conn), kErrTimedOut);
}

}  // namespace
}  // namespace qcr
