#include "qcr/comm/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "basic/files.h"
#include "testing/string_transport.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/comm/security.h"
#include "qcr/comm/transport.h"
#include "testing/run_program.h"

namespace qcr {

using test::StringTransport;
using test::makeStringConnection;
namespace {

std::string header(uint32_t len, uint16_t typeField, uint16_t reserved = 0) {
  const uint8_t b[8] = {static_cast<uint8_t>(len >> 24),      static_cast<uint8_t>(len >> 16),
                        static_cast<uint8_t>(len >> 8),       static_cast<uint8_t>(len),
                        static_cast<uint8_t>(typeField >> 8), static_cast<uint8_t>(typeField),
                        static_cast<uint8_t>(reserved >> 8),  static_cast<uint8_t>(reserved)};
  return std::string(reinterpret_cast<const char*>(b), 8);
}

struct Received {
  int rc = -1;
  int type = -2;
  int len = -1;
  std::unique_ptr<uint8_t[]> data;
};

Received receiveFrom(Connection& conn) {
  Received r;
  r.rc = conn.receive(&r.type, &r.data, &r.len);
  return r;
}

class ConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setMsgCheckAssert(false);
  }
  void TearDown() override {
    setMsgCheckAssert(true);
  }
};

TEST_F(ConnectionTest, Catalogue) {
  EXPECT_STREQ(msgName(MSG_TYPE_REPLY_SDTERR), "reply_sdterr");
  EXPECT_STREQ(msgName(-3), "refresh");
  EXPECT_STREQ(msgName(66), "seq_commit_query");
  for (int unassigned : {-4, 21, 30, 38, 39, 43, 49, 67})
    EXPECT_STREQ(msgName(unassigned), "unknown");
  for (int type : {MSG_TYPE_VPUT, MSG_TYPE_FDATA, MSG_TYPE_PING, MSG_TYPE_CHECK, MSG_TYPE_CP_TO}) {
    EXPECT_TRUE(msgNeedsAuth(type)) << type;
  }
  for (int type : {MSG_TYPE_VGET, MSG_TYPE_QUERY, MSG_TYPE_AUTH, MSG_TYPE_EOR, 21, 1000}) {
    EXPECT_FALSE(msgNeedsAuth(type)) << type;
  }
}

// A kept message goes out in one write with the next message sent, alone before
// a receive (the awaited answer may be its own) or on flush; one that cannot
// share a write goes out at once, and a failed write of kept messages marks the
// connection bad.
TEST_F(ConnectionTest, KeptMessagesShareTheNextWrite) {
  StringTransport* t = nullptr;
  auto conn = makeStringConnection(&t, header(0, 578));
  conn->setFirstSend(false);
  const std::vector<uint8_t> one{'o', 'n', 'e'};
  ASSERT_EQ(conn->sendLater(MSG_TYPE_REFRESH, one), 0);
  ASSERT_EQ(conn->sendLater(MSG_TYPE_REFRESH, one), 0);
  EXPECT_EQ(t->writes(), 0);
  ASSERT_EQ(conn->send(MSG_TYPE_SEQ_COMMIT_QUERY, nullptr, 0), 0);
  EXPECT_EQ(t->writes(), 1);
  EXPECT_EQ(t->sent(), header(3, 509) + "one" + header(3, 509) + "one" + header(0, 578));

  ASSERT_EQ(conn->sendLater(MSG_TYPE_REFRESH, one), 0);
  EXPECT_EQ(receiveFrom(*conn).rc, 0);
  EXPECT_EQ(t->writes(), 2);
  EXPECT_EQ(t->sent().substr(t->sent().size() - 11), header(3, 509) + "one");
  ASSERT_EQ(conn->flush(), 0);
  EXPECT_EQ(t->writes(), 2);

  // A large body is not kept; it goes at once, in one write with what was kept
  // before it.
  const std::vector<uint8_t> large(5000, 'x');
  ASSERT_EQ(conn->sendLater(MSG_TYPE_REFRESH, one), 0);
  ASSERT_EQ(conn->sendLater(MSG_TYPE_REFRESH, large), 0);
  EXPECT_EQ(t->writes(), 3);
  EXPECT_EQ(t->sent().substr(2 * 11 + 8 + 11),
            header(3, 509) + "one" + header(5000, 509) + std::string(5000, 'x'));

  ASSERT_EQ(conn->sendLater(MSG_TYPE_REFRESH, one), 0);
  t->failSends(kErrPeerClosed);
  EXPECT_EQ(conn->flush(), kErrPeerClosed);
  EXPECT_TRUE(conn->isBad());
  EXPECT_EQ(conn->flush(), 0);  // nothing kept any more
}

// A server that keeps its answers while the next requests wait: requests sent
// back to back are answered in one write, and a receive that would wait sends
// what is kept first, so that neither side waits for the other.
TEST_F(ConnectionTest, AnswersWaitForTheRequestsAlreadyArrived) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
  ConnImplementation server(makeSocketTransport(ends[0]), PeerAddress{}, SecurityParams{});
  ConnImplementation peer(makeSocketTransport(ends[1]), PeerAddress{}, SecurityParams{});
  server.setFirstSend(false);
  peer.setFirstSend(false);
  server.setKeepWhileMessagesWait(true);
  server.setTimeouts(2000, 2000);
  peer.setTimeouts(2000, 2000);
  const std::vector<uint8_t> body{'x'};
  ASSERT_EQ(peer.sendLater(MSG_TYPE_PXRDWR, body), 0);
  ASSERT_EQ(peer.sendLater(MSG_TYPE_PXWRITE, body), 0);
  ASSERT_EQ(peer.send(MSG_TYPE_PXWRITE, body), 0);
  Message m;
  ASSERT_EQ(server.receive(&m), 0);
  ASSERT_EQ(server.send(MSG_TYPE_REPLY_PXRDWR, body), 0);
  EXPECT_LT(peekSocket(ends[1]), 0) << "answered while a request waited";
  ASSERT_EQ(server.receive(&m), 0);
  ASSERT_EQ(server.send(MSG_TYPE_REPLY_PXWRITE, body), 0);
  EXPECT_LT(peekSocket(ends[1]), 0) << "answered while a request waited";
  ASSERT_EQ(server.receive(&m), 0);
  ASSERT_EQ(server.send(MSG_TYPE_REPLY_PXWRITE, body), 0);
  // Nothing waits now: all three answers went, in order, in one write.
  EXPECT_EQ(unreadBytes(ends[1]), 3 * 9);
  for (const int type : {MSG_TYPE_REPLY_PXRDWR, MSG_TYPE_REPLY_PXWRITE, MSG_TYPE_REPLY_PXWRITE}) {
    ASSERT_EQ(peer.receive(&m), 0);
    EXPECT_EQ(m.type, type);
  }

  // An answer kept while a request waited goes before the next receive waits.
  ASSERT_EQ(peer.sendLater(MSG_TYPE_PXRDWR, body), 0);
  ASSERT_EQ(peer.send(MSG_TYPE_PXWRITE, body), 0);
  ASSERT_EQ(server.receive(&m), 0);
  ASSERT_EQ(server.send(MSG_TYPE_REPLY_PXRDWR, body), 0);
  ASSERT_EQ(server.receive(&m), 0);
  EXPECT_LT(peekSocket(ends[1]), 0);
  server.setTimeouts(50, 50);
  EXPECT_EQ(server.receive(&m), kErrTimedOut);
  ASSERT_EQ(peer.receive(&m), 0);
  EXPECT_EQ(m.type, MSG_TYPE_REPLY_PXRDWR);
}

// Received headers: the length bound is inclusive, the type must be in the
// catalogue, the reserved bytes do not matter.
TEST_F(ConnectionTest, HeaderAcceptance) {
  const struct {
    uint32_t len;
    uint16_t typeField;
    uint16_t reserved;
    int rc;
  } cases[] = {
      {0, 512 + MSG_TYPE_OK, 0, 0},
      {0, 512 + MSG_TYPE_OK, 0xFFFF, 0},
      {0, 509, 0x1234, 0},                 // refresh: -3
      {0, 511, 0, 0},                      // failed: -1
      {0, 508, 0, E_ILL_FORMED_MSG},       // -4
      {0, 0, 0, E_ILL_FORMED_MSG},         // -512
      {0, 512 + 21, 0, E_ILL_FORMED_MSG},  // unassigned, even without a body
      {0, 512 + 67, 0, E_ILL_FORMED_MSG},
      {8388608, 512 + MSG_TYPE_FDATA, 0, 0},
      {8388609, 512 + MSG_TYPE_FDATA, 0, E_ILL_FORMED_MSG},
      {0xFFFFFFFF, 512 + MSG_TYPE_FDATA, 0, E_ILL_FORMED_MSG},  // negative
  };
  for (const auto& c : cases) {
    StringTransport* t = nullptr;
    std::string input = header(c.len, c.typeField, c.reserved);
    if (c.rc == 0) input.append(c.len, 'x');
    auto conn = makeStringConnection(&t, input);
    Received r = receiveFrom(*conn);
    EXPECT_EQ(r.rc, c.rc) << c.len << " " << c.typeField;
    EXPECT_EQ(r.type, c.typeField - 512);
    EXPECT_EQ(conn->isBad(), c.rc != 0);
    if (c.rc == 0) {
      EXPECT_EQ(r.len, static_cast<int>(c.len));
      EXPECT_EQ(t->readPos(), t->input().size());
    } else {
      EXPECT_EQ(r.data, nullptr);
      EXPECT_EQ(t->readPos(), 8u);  // nothing read beyond the header
    }
  }
}

// A cut or corrupted stream, or a failed send, leaves the connection bad.
TEST_F(ConnectionTest, BrokenStreamsAndFailedSends) {
  StringTransport* t = nullptr;
  auto sender = makeStringConnection(&t);
  ASSERT_EQ(sender->send(MSG_TYPE_FDATA, "0123456789", 10), 0);
  const std::string good = t->sent();
  for (size_t cut = 0; cut < good.size(); ++cut) {
    auto conn = makeStringConnection(&t, good);
    t->truncate(cut);
    EXPECT_EQ(receiveFrom(*conn).rc, kErrPeerClosed) << cut;
    EXPECT_TRUE(conn->isBad());
  }
  for (size_t pos : {0u, 1u, 4u}) {  // length or type bytes
    auto conn = makeStringConnection(&t, good);
    t->flipByte(pos);
    EXPECT_EQ(receiveFrom(*conn).rc, E_ILL_FORMED_MSG) << pos;
  }
  auto conn = makeStringConnection(&t, good);
  t->flipByte(3);  // length 10 becomes 245: the body runs short
  EXPECT_EQ(receiveFrom(*conn).rc, kErrPeerClosed);
  auto sending = makeStringConnection(&t);
  t->failSends(kErrTimedOut);
  EXPECT_EQ(sending->send(MSG_TYPE_VGET, "x", 1), kErrTimedOut);
  EXPECT_TRUE(sending->isBad());
}

TEST(ConnectionDeathTest, IllFormedHeaderStopsTheProcessByDefault) {
  StringTransport* t = nullptr;
  auto conn = makeStringConnection(&t, header(0, 512 + 21));
  EXPECT_DEATH((void)receiveFrom(*conn),
               "Msg body length: 0 exceeds expected range: 0-8388608 bytes "
               "\\(127.0.0.1:1--1-unknown-21\\)\n"
               "Assertion failed: \\(\\(dataLen >= 0\\) && \\(dataLen < QCR_MAX_BODY_LENGTH\\) && "
               "\\(strcmp\\(msgName\\(\\*msgTypeP\\), \"unknown\"\\) != 0\\)\\)\n"
               "File qcr/comm/connection.cc Line [0-9]+");
}

// The cluster id is checked on the first send only, after its header went out.
TEST_F(ConnectionTest, ClusterIdCheckedOnFirstSend) {
  const struct {
    uint64_t expected;
    uint64_t peer;
    int rc;
  } cases[] = {{0, 0, 0}, {0, 7, 0}, {7, 0, 0}, {7, 7, 0}, {7, 8, E_CLUSTER_MISMATCH}};
  for (const auto& c : cases) {
    SecurityParams security;
    security.peerClusterId = c.peer;
    StringTransport* t = nullptr;
    auto conn = makeStringConnection(&t, "", security, {c.expected, false});
    EXPECT_EQ(conn->send(MSG_TYPE_VGET, "abc", 3), c.rc);
    EXPECT_EQ(conn->isBad(), c.rc != 0);
    EXPECT_EQ(t->sent(), header(3, 512 + MSG_TYPE_VGET) + (c.rc == 0 ? "abc" : ""));
  }
  SecurityParams security;
  security.peerClusterId = 7;
  StringTransport* t = nullptr;
  auto conn = makeStringConnection(&t, "", security, {7, false});
  ASSERT_EQ(conn->send(MSG_TYPE_VGET, nullptr, 0), 0);
  conn->setChecks({9, false});
  EXPECT_EQ(conn->send(MSG_TYPE_VGET, nullptr, 0), 0);
  conn->setFirstSend(true);  // as when taken from the cache
  EXPECT_EQ(conn->send(MSG_TYPE_VGET, nullptr, 0), E_CLUSTER_MISMATCH);
}

// With security on and no keys, only a first message that needs authentication
// fails (720); a first message that needs none leaves the connection
// unauthenticated for good, and later messages go out without an exchange.
TEST_F(ConnectionTest, FirstMessageDecidesAuthentication) {
  const FirstSendChecks secured{0, true};
  StringTransport* t = nullptr;
  auto conn = makeStringConnection(&t, "", {}, secured);
  EXPECT_EQ(conn->send(MSG_TYPE_VPUT, "v", 1), E_NO_SECURITY);
  EXPECT_TRUE(conn->isBad());
  EXPECT_EQ(t->sent(), header(1, 512 + MSG_TYPE_VPUT));

  auto readFirst = makeStringConnection(&t, "", {}, secured);
  EXPECT_EQ(readFirst->send(MSG_TYPE_VGET, "v", 1), 0);
  EXPECT_EQ(readFirst->send(MSG_TYPE_VPUT, "v", 1), 0);
  EXPECT_FALSE(readFirst->isAuthenticated());
  EXPECT_FALSE(readFirst->isBad());

  auto unsecured = makeStringConnection(&t);
  EXPECT_EQ(unsecured->send(MSG_TYPE_VPUT, "v", 1), 0);
}

}  // namespace
}  // namespace qcr
