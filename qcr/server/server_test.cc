// qcrd in-process on loopback, met with raw sockets: slow, idle and surplus
// connections, an acceptor out of descriptors, and server-to-server messages
// from connections that are no peer, and control requests with bad bodies.
#include "qcr/server/server.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/client/client.h"
#include "qcr/coding/crc.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/control_bodies.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/file_names.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/transfer/remote.h"
#include "testing/run_program.h"
#include "testing/scripted_server.h"

namespace qcr {
namespace {

using test::exchange;

using std::chrono::steady_clock;
constexpr uint64_t kCluster = 4711;
constexpr int kWaitMs = 10000;

double secondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// The threads of this process now.
size_t threadCount() {
  std::vector<std::string> tasks;
  EXPECT_EQ(listDirectory("/proc/self/task", &tasks), 0);
  return tasks.size();
}

class ServerTest : public testing::Test {
 protected:
  // Starts the server; initialises it as node 1 of nodes + 1 nodes (the others on
  // loopback ports where nobody listens), or leaves it waiting for init.
  void start(ServerOptions options, int otherNodes = 0, bool init = true,
             const std::vector<int>& otherPorts = {}) {
    options.port = 0;
    options.baseDir = dir_.file("base");
    server_ = std::make_unique<Server>(options);
    ASSERT_EQ(server_->start(), 0);
    nodes_ = {NodeEntry{1, 0, "n1", "127.0.0.1", server_->port()}};
    for (int32_t id = 2; id <= otherNodes + 1; ++id) {
      const size_t i = static_cast<size_t>(id - 2);
      const int port = i < otherPorts.size() ? otherPorts[i] : test::closedPort();
      nodes_.push_back(NodeEntry{id, 0, "n" + std::to_string(id), "127.0.0.1", port});
    }
    if (!init) return;
    Message reply;
    ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_INIT,
                       encodeBody(makeInitRequest(kCluster, nodes_, {}, 1)), &reply), 0);
    ASSERT_EQ(reply.type, MSG_TYPE_OK);
  }
  PeerAddress address() const { return ipv4Address(0x7F000001, server_->port()); }
  std::unique_ptr<ConnImplementation> connectTo(uint32_t flags, uint64_t cluster) {
    ConnectParams params;
    params.connectTimeoutMs = params.handshakeTimeoutMs = params.waitMs = kWaitMs;
    params.helloFlags = flags;
    params.clusterId = cluster;
    std::unique_ptr<ConnImplementation> conn;
    EXPECT_EQ(connect(address(), params, &conn), 0);
    if (conn) conn->setChecks(FirstSendChecks{});  // sends whatever the server's cluster
    return conn;
  }
  // A connected socket that has sent nothing yet.
  int rawSocket() {
    int sock = -1;
    EXPECT_EQ(openStreamSocket(address(), &sock), 0);
    EXPECT_EQ(connectSocket(sock, address(), kWaitMs), 0);
    return sock;
  }
  // Sends a client's hello on sock and reads the answer: 0 or the failure.
  static int hello(int sock) {
    const std::vector<uint8_t> bytes = buildClientHello(Hello{});
    auto transport = makeSocketTransport(sock, false);
    Hello reply;
    const int rc = transport->sendAll(bytes.data(), bytes.size(), kWaitMs);
    return rc != 0 ? rc : readHelloReply(*transport, kWaitMs, &reply);
  }
  int vget(double budgetSeconds) {
    Session session;
    EXPECT_EQ(serversSession(nodes_, &session), 0);
    session.retryBudgetSeconds = budgetSeconds;
    session.handshakeTimeoutMs = 2000;
    session.waitMs = kWaitMs;
    Client client(std::move(session));
    client.security().setSecurityOff(1);
    RequestResult r;
    return client.VGET(&r);
  }

  test::ScopedTempDir dir_{"qcrd-server-"};
  std::unique_ptr<Server> server_;
  NodeList nodes_;
};

// A client that trickles its hello holds only its own connection, and only until
// the hello's deadline.
TEST_F(ServerTest, ATrickledHelloDelaysNoOtherClientAndEndsAtItsDeadline) {
  ServerOptions options;
  options.helloSeconds = 2;
  start(options);
  const std::vector<uint8_t> bytes = buildClientHello(Hello{});
  const double trickleSeconds = 0.3 * static_cast<double>(bytes.size());
  const int sock = rawSocket();
  std::atomic<size_t> sent{0};
  std::thread trickler([&] {
    for (uint8_t b : bytes) {
      if (peekSocket(sock) == 0 || fullSend(sock, &b, 1, kWaitMs) != 0) return;  // closed
      ++sent;
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
  });
  while (sent == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const auto start = steady_clock::now();
  EXPECT_EQ(vget(trickleSeconds / 4), 0);
  EXPECT_LT(secondsSince(start), trickleSeconds);
  trickler.join();
  EXPECT_LT(sent.load(), bytes.size());  // cut off before its hello was complete
  closeSocket(sock);
}

// Clients that send part of a hello and then close, or only stop sending, end
// their connections when they close, not at the hello's deadline, and the
// server goes on serving.
TEST_F(ServerTest, AHelloCutOffByItsClientEndsItsConnectionAtOnce) {
  ServerOptions options;
  options.helloSeconds = 60;
  start(options);
  const std::vector<uint8_t> bytes = buildClientHello(Hello{});
  const auto start = steady_clock::now();
  for (size_t cut : {size_t{1}, bytes.size() / 2, bytes.size() - 1}) {
    for (bool halfClose : {false, true}) {
      const int sock = rawSocket();
      ASSERT_EQ(fullSend(sock, bytes.data(), cut, kWaitMs), 0);
      if (halfClose) {
        ASSERT_EQ(shutdown(sock, SHUT_WR), 0);
        // The server closes its side too: the read ends instead of waiting.
        uint8_t b;
        EXPECT_EQ(fullRecv(sock, &b, 1, kWaitMs), kErrPeerClosed) << cut;
      }
      closeSocket(sock);
    }
  }
  for (int i = 0; i < 500 && server_->connectionCount() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(server_->connectionCount(), 0);
  EXPECT_LT(secondsSince(start), options.helloSeconds / 4);
  EXPECT_EQ(vget(5), 0);
}

// Client connections above the bound are closed at once, and the places kept for
// the cluster's servers still take a peer; the server serves clients again as
// soon as one of the others ends, and stop() ends those still open.
TEST_F(ServerTest, ConnectionsAboveTheBoundAreClosedAndTheRestServed) {
  ServerOptions options;
  options.maxConnections = 3;
  start(options, 1);
  std::vector<int> socks;
  for (int i = 0; i < 5; ++i) {
    socks.push_back(rawSocket());
    EXPECT_EQ(hello(socks.back()) == 0, i < 3) << i;
  }
  for (int i = 0; i < 500 && server_->connectionCount() > 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(server_->connectionCount(), 3);
  const auto peer = connectTo(kPeerHelloFlag, kCluster);
  Message reply;
  ASSERT_EQ(exchange(peer, MSG_TYPE_PING, {}, &reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
  EXPECT_EQ(server_->connectionCount(), 4);
  closeSocket(socks[0]);
  for (int i = 0; i < 500 && server_->connectionCount() >= 4; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // A client is served again (node 2 is away: a ping, not a read, shows it).
  ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_PING, {}, &reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
  EXPECT_LE(server_->peakConnections(), 3 + 8);
  server_->stop();
  EXPECT_EQ(server_->connectionCount(), 0);
  for (size_t i = 1; i < socks.size(); ++i) closeSocket(socks[i]);
}

// A silent connection is closed after the idle time; one that keeps asking is not.
TEST_F(ServerTest, IdleConnectionsAreClosed) {
  ServerOptions options;
  options.idleSeconds = 1;
  start(options);
  const int silent = rawSocket();
  ASSERT_EQ(hello(silent), 0);
  const auto busy = connectTo(0, 0);
  for (int i = 0; i < 8; ++i) {  // 2.4 s of a request every 0.3 s
    Message reply;
    ASSERT_EQ(exchange(busy, MSG_TYPE_PING, {}, &reply), 0) << i;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  uint8_t byte = 0;
  EXPECT_EQ(fullRecv(silent, &byte, 1, kWaitMs), kErrPeerClosed);
  closeSocket(silent);
}

// Connections that wait for their next request hold no thread each, and are
// served again when it comes.
TEST_F(ServerTest, ManyIdleConnectionsHoldNoThreadsAndAreServedAgain) {
  start(ServerOptions{});
  Message reply;
  ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_PING, {}, &reply), 0);
  const size_t before = threadCount();
  std::vector<std::unique_ptr<ConnImplementation>> conns;
  for (int i = 0; i < 100; ++i) {
    conns.push_back(connectTo(0, 0));
    ASSERT_EQ(exchange(conns.back(), MSG_TYPE_PING, {}, &reply), 0) << i;
  }
  // A worker stays with a connection for what arrives within a moment after its
  // request, so connections opened in quick succession hold a few workers at
  // once: some, not one per connection.
  EXPECT_LT(threadCount(), before + 20);
  std::this_thread::sleep_for(std::chrono::milliseconds(700));  // idle past a look at them
  for (size_t i = 0; i < conns.size(); ++i) {
    ASSERT_EQ(exchange(conns[i], MSG_TYPE_PING, {}, &reply), 0) << i;
    EXPECT_EQ(reply.type, MSG_TYPE_OK);
  }
  EXPECT_GE(server_->connectionCount(), 100);
}

// Requests that hold their thread (commands that sleep), more of them than the
// threads kept waiting for work, leave room for one more client: it is answered
// while all of them still run, and each of them is answered in the end.
TEST_F(ServerTest, BusyRequestsBeyondTheKeptThreadsDelayNoOtherClient) {
  ServerOptions options;
  options.allowRemote = true;
  start(options);
  const std::vector<uint8_t> sleep = encodeBody(ShellRequest{{}, {"/bin/sleep", "4"}});
  std::vector<std::unique_ptr<ConnImplementation>> busy;
  for (int i = 0; i < 12; ++i) {
    busy.push_back(connectTo(0, 0));
    ASSERT_TRUE(busy.back());
    ASSERT_EQ(busy.back()->send(MSG_TYPE_SH, sleep), 0) << i;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // so that they run
  Message reply;
  ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_PING, {}, &reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
  for (const auto& conn : busy) EXPECT_LT(peekSocket(conn->getSocket()), 0);  // none answered
  for (size_t i = 0; i < busy.size(); ++i) EXPECT_EQ(busy[i]->receive(&reply), 0) << i;
}

// stop() closes connections in every state: waiting for a hello, halfway through
// one, idle after it, halfway through a request and running one; it returns once
// the running request is done.
TEST_F(ServerTest, StopClosesConnectionsInEveryStateAndReturns) {
  ServerOptions options;
  options.allowRemote = true;
  start(options);
  const std::vector<uint8_t> helloBytes = buildClientHello(Hello{});
  const int silent = rawSocket();
  const int halfHello = rawSocket();
  ASSERT_EQ(fullSend(halfHello, helloBytes.data(), helloBytes.size() / 2, kWaitMs), 0);
  std::vector<std::unique_ptr<ConnImplementation>> idle;
  for (int i = 0; i < 20; ++i) idle.push_back(connectTo(0, 0));
  const auto running = connectTo(0, 0);
  ASSERT_TRUE(running);
  ASSERT_EQ(running->send(MSG_TYPE_SH, encodeBody(ShellRequest{{}, {"/bin/sleep", "1"}})), 0);
  const auto halfRequest = connectTo(0, 0);
  ASSERT_TRUE(halfRequest);
  const uint8_t header[4] = {0, 0, 0, 1};
  ASSERT_EQ(fullSend(halfRequest->getSocket(), header, sizeof header, kWaitMs), 0);
  const auto start = steady_clock::now();
  server_->stop();
  EXPECT_LT(secondsSince(start), 10.0);
  EXPECT_EQ(server_->connectionCount(), 0);
  uint8_t byte = 0;
  for (int sock : {silent, halfHello}) {
    EXPECT_EQ(fullRecv(sock, &byte, 1, kWaitMs), kErrPeerClosed);
    closeSocket(sock);
  }
  for (const auto& conn : idle) EXPECT_EQ(fullRecv(conn->getSocket(), &byte, 1, kWaitMs), kErrPeerClosed);
  EXPECT_EQ(fullRecv(halfRequest->getSocket(), &byte, 1, kWaitMs), kErrPeerClosed);
}

// Out of descriptors, accept fails until one is freed: the acceptor pauses
// instead of trying again at once, and takes the waiting client afterwards.
TEST_F(ServerTest, TheAcceptorPausesWhileDescriptorsRunOut) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // The sanitizers' runtimes need descriptors of their own (a pipe to check
  // memory, for one): in a process out of them they report errors that are none.
  GTEST_SKIP() << "not under a sanitizer";
#endif
  start(ServerOptions{}, 0, false);  // uninitialised: no thread of it opens files
  int sock = -1;
  ASSERT_EQ(openStreamSocket(address(), &sock), 0);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit low = old;
  low.rlim_cur = std::min<rlim_t>(old.rlim_cur, 256);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> fillers;
  for (int fd; fillers.size() < 256 && (fd = dup(sock)) >= 0;) fillers.push_back(fd);
  // The connect completes in the kernel; the hello waits in the socket.
  ASSERT_EQ(connectSocket(sock, address(), kWaitMs), 0);
  const std::vector<uint8_t> bytes = buildClientHello(Hello{});
  ASSERT_EQ(fullSend(sock, bytes.data(), bytes.size(), kWaitMs), 0);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const uint64_t failures = server_->acceptFailures();
  for (int fd : fillers) close(fd);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_GE(failures, 1u);
  EXPECT_LE(failures, 20u);  // a spinning acceptor fails thousands of times a second
  auto transport = makeSocketTransport(sock, false);
  Hello reply;
  EXPECT_EQ(readHelloReply(*transport, kWaitMs, &reply), 0);
  closeSocket(sock);
}

// A request whose body does not parse, from a client or a peer, is answered with
// the failed reply 818 and its connection closed; the server serves on.
TEST_F(ServerTest, IllFormedRequestsGetAnErrorAndAClosedConnection) {
  start(ServerOptions{}, 1);
  const std::vector<uint8_t> junk = {0xFF, 0xFF, 0xFF};
  const auto bytes = [](const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); };
  const auto debugBody = [](const std::string& command, const std::vector<std::string>& words) {
    return encodeBody(DebugRequest{command, words});
  };
  const struct {
    uint32_t flags;
    int type;
    std::vector<uint8_t> body;
    int orError = E_ILL_FORMED_MSG;  // a control request may also be refused as invalid
  } cases[] = {
      {0, MSG_TYPE_VPUT, junk},
      {0, MSG_TYPE_FPUT, junk},
      {0, MSG_TYPE_FGET, junk},
      {0, MSG_TYPE_INIT, junk},
      {0, MSG_TYPE_CONFIG, junk},
      {kPeerHelloFlag, MSG_TYPE_PXREAD, junk},
      {kPeerHelloFlag, MSG_TYPE_PXRDWR, junk},
      {kPeerHelloFlag, MSG_TYPE_FXFER, junk},
      {0, MSG_TYPE_DEBUG, {}, EINVAL},
      {0, MSG_TYPE_DEBUG, bytes("echo"), EINVAL},                              // no NUL
      {0, MSG_TYPE_DEBUG, bytes(std::string("echo\0", 5)), EINVAL},           // no word count
      {0, MSG_TYPE_DEBUG, bytes(std::string("echo\0\x05" "a\0", 8)), EINVAL},  // count beyond
      {0, MSG_TYPE_DEBUG, bytes(std::string("echo\0\x00" "x", 7)), EINVAL},     // bytes left over
      {0, MSG_TYPE_DEBUG, debugBody("rm", {"-rf", "/"}), EINVAL},              // no such command
      {0, MSG_TYPE_DEBUG, debugBody("echo", {std::string(kMaxDebugWordBytes + 1, 'w')}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("echo", std::vector<std::string>(17, "w")), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("echo", {std::string(kMaxDebugBody, 'w')}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("trace", {"abc"}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("trace", {"8"}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("msglevel", {"-1"}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("msglevel", {"1", "2"}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("netdown", {}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("netdown", {"601"}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("netdown", {"99999999999"}), EINVAL},
      {0, MSG_TYPE_DEBUG, debugBody("netdown", {" 5"}), EINVAL},
      {0, MSG_TYPE_DUMP, {0}, EINVAL},
      {0, MSG_TYPE_QUIT, {0}, EINVAL},
      {0, MSG_TYPE_CHECK, {}, EINVAL},
      {0, MSG_TYPE_CHECK, {0x08}, EINVAL},
      {0, MSG_TYPE_CHECK, {0x01, 0x00}, EINVAL},
  };
  const int level = traceLevel;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << msgName(c.type) << ", body of " << c.body.size());
    const auto conn = connectTo(c.flags, kCluster);
    Message reply;
    ASSERT_EQ(exchange(conn, c.type, c.body, &reply), 0);
    ASSERT_EQ(reply.type, MSG_TYPE_FAILED);
    ErrorBody error;
    ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &error), 0);
    EXPECT_TRUE(error.error == E_ILL_FORMED_MSG || error.error == c.orError) << error.error;
    EXPECT_EQ(conn->receive(&reply), kErrPeerClosed);
  }
  // None of the control requests took effect, and the server still serves.
  EXPECT_EQ(traceLevel, level);
  EXPECT_FALSE(server_->quitRequested());
  EXPECT_FALSE(server_->netDown());
  const auto debug = [this](const DebugRequest& ask) {
    Message reply;
    EXPECT_EQ(exchange(connectTo(0, 0), MSG_TYPE_DEBUG, encodeBody(ask), &reply), 0);
    EXPECT_EQ(reply.type, MSG_TYPE_OK);
    return std::string(reply.body.begin(), reply.body.end());
  };
  EXPECT_EQ(debug({"echo", {"still", "here"}}), "still here");
  EXPECT_EQ(debug({"echo", {}}), "");
  EXPECT_EQ(debug({"trace", {}}), "trace level " + std::to_string(level));
  Message reply;
  ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_PING, {}, &reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
}

// A peer's requests sent back to back are answered in one write; a peer that
// sends part of a further request and stalls gets the answers kept for it all the
// same, once the wait for the rest ends, and then its connection closes.
TEST_F(ServerTest, AnswersKeptForAStalledPeerStillGoOut) {
  start(ServerOptions{}, 1);
  const auto conn = connectTo(kPeerHelloFlag, kCluster);
  conn->setTimeouts(kWaitMs, kWaitMs);
  uint8_t ping[kRpcHeaderSize];
  encodeRpcHdr(RpcHeader{0, MSG_TYPE_PING}, ping);
  uint8_t two[2 * kRpcHeaderSize];
  memcpy(two, ping, kRpcHeaderSize);
  memcpy(two + kRpcHeaderSize, ping, kRpcHeaderSize);
  ASSERT_EQ(fullSend(conn->getSocket(), two, sizeof two, kWaitMs), 0);
  Message reply;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(conn->receive(&reply), 0);
    EXPECT_EQ(reply.type, MSG_TYPE_OK);
  }
  // A ping, and three bytes of a header behind it.
  uint8_t bytes[kRpcHeaderSize + 3];
  memcpy(bytes, ping, kRpcHeaderSize);
  memcpy(bytes + kRpcHeaderSize, ping, 3);
  ASSERT_EQ(fullSend(conn->getSocket(), bytes, sizeof bytes, kWaitMs), 0);
  const auto sent = steady_clock::now();
  ASSERT_EQ(conn->receive(&reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
  EXPECT_EQ(conn->receive(&reply), kErrPeerClosed);
  EXPECT_LT(secondsSince(sent), 5.0);
  ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_PING, {}, &reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
}

// A pulled file is taken only under the name of the version asked for: a peer
// that answers with another file's name (or another version's) is not believed.
TEST_F(ServerTest, APulledFileMustBeTheVersionAskedFor) {
  const std::string content = "pulled content\n";
  const uint32_t crc = cksumFinish(crcExtend(0, content.data(), content.size()), content.size());
  const Uid uid{2, 1, 7};
  std::atomic<int32_t> answerObjId{17};
  test::ScriptedServer peer(
      [&](Connection& conn, int) {
        const test::Request req = test::readRequest(conn);
        if (req.type != MSG_TYPE_FXFER) return;
        FileXferMsg answer;
        answer.fileName = committedFileName("doc", answerObjId, 1, crc, uid);
        answer.size = static_cast<int64_t>(content.size());
        test::sendReply(conn, MSG_TYPE_OK, answer);
        test::sendFileContent(conn, content);
      },
      kCluster);
  start(ServerOptions{}, 1, true, {peer.port()});
  const FileRecord record{1, uid, crc};
  EXPECT_NE(server_->pullFile(16, record), 0);
  EXPECT_TRUE(server_->files().list().empty());
  answerObjId = 16;
  EXPECT_EQ(server_->pullFile(16, record), 0);
  ASSERT_EQ(server_->files().list().size(), 1u);
  EXPECT_EQ(server_->files().list()[0].objId, 16);
}

// A forged sync with a newer state, and other server-to-server requests, from
// connections that are no peer of this server: each is refused with the failed
// reply, its connection closed, and the state stays. A peer's sync is taken only
// under a ballot not below the one promised.
TEST_F(ServerTest, PeerMessagesFromStrangersAreRefused) {
  start(ServerOptions{}, 2);
  Replica& replica = server_->replica();
  const auto wallMs = [] { return static_cast<int64_t>(systemClock().wallNow() * 1000.0); };
  const auto forged = [&](int32_t from, Ballot ballot) {
    SyncMsg sync{{from, wallMs(), 50}, ballot, true, replica.image()};
    sync.image.seq = 50;
    sync.image.state.values["forged"] = {1, "x"};
    return encodeBody(sync);
  };
  FileXferMsg pull;
  pull.objId = kNodesFileObjId;
  struct Case {
    const char* what;
    uint32_t flags;
    uint64_t cluster;
    int type;
    std::vector<uint8_t> body;
    int error;
  };
  const Case cases[] = {
      {"client hello", 0, kCluster, MSG_TYPE_PXRDWR, forged(2, {9, 2}), E_NOT_AUTHORIZED},
      {"other cluster", kPeerHelloFlag, kCluster + 1, MSG_TYPE_PXRDWR, forged(2, {9, 2}),
       E_CLUSTER_MISMATCH},
      {"no cluster", kPeerHelloFlag, 0, MSG_TYPE_PXRDWR, forged(2, {9, 2}), E_CLUSTER_MISMATCH},
      {"sent as this server", kPeerHelloFlag, kCluster, MSG_TYPE_PXRDWR, forged(1, {9, 1}),
       E_NOT_AUTHORIZED},
      {"sent as no node", kPeerHelloFlag, kCluster, MSG_TYPE_PXRDWR, forged(7, {9, 7}),
       E_NOT_AUTHORIZED},
      {"prepare", 0, kCluster, MSG_TYPE_PXREAD, encodeBody(PrepareMsg{{2, wallMs(), 0}, {9, 2}}),
       E_NOT_AUTHORIZED},
      {"catch-up", 0, kCluster, MSG_TYPE_PXINIT, encodeBody(CatchUpMsg{2, wallMs(), 0}),
       E_NOT_AUTHORIZED},
      {"file pull", 0, kCluster, MSG_TYPE_FXFER, encodeBody(pull), E_NOT_AUTHORIZED},
      {"forwarded change", kPeerHelloFlag, kCluster + 1, MSG_TYPE_VPUT,
       encodeBody(VputRequest{Uid{2, 1, 1}, "forged", "x"}), E_CLUSTER_MISMATCH},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    const auto conn = connectTo(k.flags, k.cluster);
    Message reply;
    ASSERT_EQ(exchange(conn, k.type, k.body, &reply), 0);
    ASSERT_EQ(reply.type, MSG_TYPE_FAILED);
    ErrorBody error;
    ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &error), 0);
    EXPECT_EQ(error.error, k.error);
    EXPECT_EQ(conn->receive(&reply), kErrPeerClosed);
    EXPECT_EQ(replica.seq(), 0);
  }
  // An init repeated for this cluster answers ok and keeps the node list (node 2).
  Message reply;
  ASSERT_EQ(exchange(connectTo(0, 0), MSG_TYPE_INIT,
                     encodeBody(makeInitRequest(kCluster, {nodes_[0]}, {}, 1)), &reply), 0);
  EXPECT_EQ(reply.type, MSG_TYPE_OK);
  // Node 2 as a peer: its promise holds, a sync below it is refused, one under it
  // is taken.
  const auto peer = connectTo(kPeerHelloFlag, kCluster);
  AcceptorReply answer;
  ASSERT_EQ(exchange(peer, MSG_TYPE_PXREAD, encodeBody(PrepareMsg{{2, wallMs(), 0}, {5, 2}}), &reply), 0);
  ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &answer), 0);
  EXPECT_EQ(answer.result, kPeerOk);
  ASSERT_EQ(exchange(peer, MSG_TYPE_PXRDWR, forged(2, {4, 2}), &reply), 0);
  ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &answer), 0);
  EXPECT_EQ(answer.result, kPeerRejected);
  EXPECT_EQ(replica.seq(), 0);
  ASSERT_EQ(exchange(peer, MSG_TYPE_PXRDWR, forged(2, {5, 2}), &reply), 0);
  EXPECT_EQ(replica.seq(), 50);
  EXPECT_EQ(replica.view().committed.values.count("forged"), 1u);
}

}  // namespace
}  // namespace qcr
