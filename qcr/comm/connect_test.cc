#include "qcr/comm/connect.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "qcr/coding/result.h"
#include "qcr/comm/conn_cache.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"

namespace qcr {
namespace {

PeerAddress v6(uint8_t first, uint8_t second, uint8_t last) {
  PeerAddress a;
  a.ip[0] = first;
  a.ip[1] = second;
  a.ip[15] = last;
  return a;
}

TEST(Resolve, Addresses) {
  const struct {
    const char* host;
    int port;
    const char* text;
    int rc;
  } cases[] = {
      {"127.0.0.1", 1191, "127.0.0.1:1191", 0}, {"  127.0.0.1", 5, "127.0.0.1:5", 0},
      {"255.1.2.3", 5, "255.1.2.3:5", 0},       {"::1", 5, "[::1]:5", 0},
      {"127.0.0.1", 0, "127.0.0.1:0", EINVAL},  {"127.0.0.1", -1, "127.0.0.1:-1", EINVAL},
  };
  for (const auto& c : cases) {
    PeerAddress address;
    double elapsed = -1;
    EXPECT_EQ(resolve(c.host, c.port, &address, &elapsed), c.rc) << c.host;
    EXPECT_EQ(addressText(address), c.text);
    EXPECT_GE(elapsed, 0.0);
  }
  PeerAddress address;
  EXPECT_NE(resolve("no-such-host.invalid", 5, &address), 0);
}

TEST(Resolve, PrefersIpv4AndSkipsLinkLocal) {
  const PeerAddress linkLocal1 = v6(0xfe, 0x80, 1), linkLocal2 = v6(0xfe, 0x80, 2);
  const PeerAddress global = v6(0x20, 0x01, 1);
  const PeerAddress v4a = ipv4Address(0x0A000001, 0), v4b = ipv4Address(0x0A000002, 0);
  const struct {
    std::vector<PeerAddress> results;
    PeerAddress chosen;
  } cases[] = {
      {{linkLocal1, global}, global}, {{linkLocal1, linkLocal2}, linkLocal2}, {{global, v4a}, v4a},
      {{linkLocal1, v4b, v4a}, v4b},  {{linkLocal1, linkLocal2, v4a}, v4a},
  };
  for (const auto& c : cases)
    EXPECT_EQ(addressText(chooseResolved(c.results)), addressText(c.chosen));
}

class RecordingObserver final : public SocketObserver {
 public:
  void socketOpened(int sock) override { opened = sock; }
  void closeFailedSocket(int sock) override {
    closed = sock;
    closeSocket(sock);
  }
  int opened = -1;
  int closed = -1;
};

TEST(Connect, RefusedAndLocalOnly) {
  int sock = -1, port = 0;
  ASSERT_EQ(listenSocket(ipv4Address(0x7F000001, 0), &sock, &port), 0);
  closeSocket(sock);  // nobody listens on port any more
  const PeerAddress target = ipv4Address(0x7F000001, port);
  std::unique_ptr<ConnImplementation> conn;
  RecordingObserver observer;
  ConnectParams params;
  params.connectTimeoutMs = 1000;
  params.handshakeTimeoutMs = 1000;
  params.observer = &observer;
  EXPECT_EQ(connect(target, params, &conn), kErrConnectFailed);
  EXPECT_EQ(conn, nullptr);
  EXPECT_GE(observer.opened, 0);
  EXPECT_EQ(observer.closed, observer.opened);

  params.observer = nullptr;
  params.onlyTo = {ipv4Address(0x7F000001, 1), ipv4Address(0x7F000002, 1)};
  EXPECT_EQ(connect(target, params, &conn), kErrLocalOnly);
}

ConnectParams quick() {
  ConnectParams params;
  params.connectTimeoutMs = 1000;
  params.handshakeTimeoutMs = 1000;
  return params;
}

// A server thread on loopback: accepts one connection and serves it with script.
class LoopbackServer {
 public:
  explicit LoopbackServer(std::function<void(ConnImplementation&)> script) {
    EXPECT_EQ(listenSocket(ipv4Address(0x7F000001, 0), &listenSock_, &port_), 0);
    thread_ = std::thread([this, script = std::move(script)] {
      Hello mine;
      mine.nodeValue = 2;
      mine.clusterId = 9;
      std::unique_ptr<ConnImplementation> conn;
      if (acceptConnection(listenSock_, 5000, mine, &conn, &clientHello) != 0) return;
      conn->setTimeouts(5000, 5000);
      script(*conn);
    });
  }
  ~LoopbackServer() {
    thread_.join();
    closeSocket(listenSock_);
  }
  PeerAddress address() const { return ipv4Address(0x7F000001, port_); }
  Hello clientHello;

 private:
  int listenSock_ = -1;
  int port_ = 0;
  std::thread thread_;
};

// Receives one message and answers with replyType and the same body.
void echo(Connection& conn, int replyType) {
  Message m;
  if (conn.receive(&m) == 0) (void)conn.send(replyType, m.body);
}

TEST(Connect, MessagesOverLoopback) {
  LoopbackServer server([](ConnImplementation& conn) {
    echo(conn, MSG_TYPE_OK);
    echo(conn, MSG_TYPE_SEQ_COMMIT);
  });
  ConnectParams params = quick();
  params.clusterId = 9;
  std::unique_ptr<ConnImplementation> conn;
  ASSERT_EQ(connect(server.address(), params, &conn), 0);
  std::vector<uint8_t> big(QCR_MAX_BODY_LENGTH);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 31);
  for (int len : {0, QCR_MAX_BODY_LENGTH}) {
    ASSERT_EQ(conn->send(MSG_TYPE_VGET, big.data(), len), 0);
    int type = -1, got = -1;
    std::unique_ptr<uint8_t[]> data;
    ASSERT_EQ(conn->receive(&type, &data, &got), 0);
    EXPECT_EQ(got, len);
    EXPECT_TRUE(len == 0 || memcmp(data.get(), big.data(), len) == 0);
  }
  // The peer has closed by now.
  int type = -1, got = -1;
  std::unique_ptr<uint8_t[]> data;
  EXPECT_EQ(conn->receive(&type, &data, &got), kErrPeerClosed);
  EXPECT_TRUE(conn->isBad());
  EXPECT_EQ(server.clientHello.clusterId, 9u);
  EXPECT_EQ(server.clientHello.flags, 0u);
}

// qcrd's links to its peers: the hello carries the peer flag, and a peer of
// another cluster fails the connect itself, before any request goes out; without
// that choice the first send fails instead.
TEST(Connect, PeerFlagAndTheClusterCheckedAtTheHello) {
  ConnectParams params = quick();
  params.clusterId = 7;  // the server is in cluster 9
  params.helloFlags = 2;
  for (const bool atHello : {true, false}) {
    SCOPED_TRACE(atHello);
    bool requestArrived = false;
    auto server = std::make_unique<LoopbackServer>([&requestArrived](ConnImplementation& conn) {
      Message m;
      requestArrived = conn.receive(&m) == 0;
    });
    params.refuseOtherCluster = atHello;
    std::unique_ptr<ConnImplementation> conn;
    const int rc = connect(server->address(), params, &conn);
    EXPECT_EQ(server->clientHello.flags, 2u);
    if (atHello) {
      EXPECT_EQ(rc, E_CLUSTER_MISMATCH);
      EXPECT_EQ(conn, nullptr);
    } else {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(conn->send(MSG_TYPE_VGET, "x", 1), E_CLUSTER_MISMATCH);
      conn.reset();
    }
    server.reset();  // the script has ended
    EXPECT_FALSE(requestArrived);
  }
}

// With caching on, a connection handed back with a good EOR exchange is reused
// by the next connect; an EOR answered with another type makes it bad: dropped.
TEST(Connect, CacheAndEndOfRecords) {
  LoopbackServer server([](ConnImplementation& conn) {
    echo(conn, MSG_TYPE_OK);
    echo(conn, MSG_TYPE_EOR);
    echo(conn, MSG_TYPE_OK);
    echo(conn, MSG_TYPE_OK);  // answers the second EOR wrongly
  });
  CachedConnectionMap cache("out");
  ConnectParams params = quick();
  params.cache = &cache;
  std::unique_ptr<ConnImplementation> conn;
  ASSERT_EQ(cache.getConnection(server.address(), &conn), kErrCacheMiss);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(connect(server.address(), params, &conn), 0) << round;
    ASSERT_EQ(conn->send(MSG_TYPE_VGET, "x", 1), 0);
    Message reply;
    ASSERT_EQ(conn->receive(&reply), 0);
    releaseConnection(std::move(conn), &cache);
    EXPECT_EQ(cache.size(), round == 0 ? 1u : 0u);
  }
  const CachedConnectionMap::Counters after = cache.counters();
  EXPECT_EQ(after.added, 1);
  EXPECT_EQ(after.hits, 1);
  EXPECT_EQ(after.deletedBad, 1);
}

}  // namespace
}  // namespace qcr
