// The control requests of an in-process qcrd, met with hand-made bodies: every
// bad one is refused and ends its connection, and leaves the server as it was.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/control_bodies.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/peer_bodies.h"
#include "qcr/server/server.h"
#include "testing/run_program.h"
#include "testing/scripted_server.h"

namespace qcr {
namespace {

using test::exchange;

constexpr int kWaitMs = 10000;

class ControlTest : public testing::Test {
 protected:
  void SetUp() override {
    ServerOptions options;
    options.port = 0;
    options.baseDir = dir_.file("base");
    server_ = std::make_unique<Server>(options);
    ASSERT_EQ(server_->start(), 0);
    const NodeList nodes = {NodeEntry{1, 0, "n1", "127.0.0.1", server_->port()}};
    Message reply;
    ASSERT_EQ(exchange(connectTo(), MSG_TYPE_INIT, encodeBody(makeInitRequest(9, nodes, {}, 1)),
                       &reply), 0);
    ASSERT_EQ(reply.type, MSG_TYPE_OK);
  }

  std::unique_ptr<ConnImplementation> connectTo() {
    ConnectParams params;
    params.connectTimeoutMs = params.handshakeTimeoutMs = params.waitMs = kWaitMs;
    std::unique_ptr<ConnImplementation> conn;
    if (connect(ipv4Address(0x7F000001, server_->port()), params, &conn) != 0) return nullptr;
    conn->setChecks(FirstSendChecks{});
    return conn;
  }
  // The reply text of a debug request, or "" after a failure.
  std::string debug(const DebugRequest& ask) {
    Message reply;
    if (exchange(connectTo(), MSG_TYPE_DEBUG, encodeBody(ask), &reply) != 0 ||
        reply.type != MSG_TYPE_OK) {
      return "";
    }
    return std::string(reply.body.begin(), reply.body.end());
  }

  test::ScopedTempDir dir_{"qcrd-control-"};
  std::unique_ptr<Server> server_;
};

std::vector<uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }

TEST_F(ControlTest, BadBodiesAreRefusedAndCloseTheirConnection) {
  const std::string longWord(kMaxDebugWordBytes + 1, 'w');
  const struct {
    int type;
    std::vector<uint8_t> body;
  } bad[] = {
      {MSG_TYPE_DEBUG, {}},
      {MSG_TYPE_DEBUG, bytes("echo")},                                  // no NUL
      {MSG_TYPE_DEBUG, bytes(std::string("echo\0", 5))},                // no word count
      {MSG_TYPE_DEBUG, bytes(std::string("echo\0\x05" "a\0", 8))},     // count beyond the body
      {MSG_TYPE_DEBUG, bytes(std::string("echo\0\x00" "x", 7))},       // bytes left over
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"rm", {"-rf", "/"}})},  // no such command
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"echo", {longWord}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"echo", std::vector<std::string>(17, "w")})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"echo", {std::string(kMaxDebugBody, 'w')}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"trace", {"abc"}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"trace", {"8"}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"msglevel", {"-1"}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"msglevel", {"1", "2"}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"netdown", {}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"netdown", {"601"}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"netdown", {"99999999999"}})},
      {MSG_TYPE_DEBUG, encodeBody(DebugRequest{"netdown", {" 5"}})},
      {MSG_TYPE_DUMP, {0}},
      {MSG_TYPE_QUIT, {0}},
      {MSG_TYPE_CHECK, {}},
      {MSG_TYPE_CHECK, {0x08}},
      {MSG_TYPE_CHECK, {0x01, 0x00}},
  };
  const int level = traceLevel;
  for (const auto& b : bad) {
    SCOPED_TRACE(testing::Message() << "type " << b.type << " body of " << b.body.size());
    auto conn = connectTo();
    Message reply;
    ASSERT_EQ(exchange(conn, b.type, b.body, &reply), 0);
    EXPECT_EQ(reply.type, MSG_TYPE_FAILED);
    ErrorBody error;
    ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &error), 0);
    EXPECT_TRUE(error.error == E_ILL_FORMED_MSG || error.error == EINVAL) << error.error;
    EXPECT_NE(conn->receive(&reply), 0);  // closed by the server
  }
  // Nothing of it took effect.
  EXPECT_EQ(traceLevel, level);
  EXPECT_FALSE(server_->quitRequested());
  EXPECT_FALSE(server_->netDown());
  EXPECT_EQ(debug({"echo", {"still", "here"}}), "still here");
}

TEST_F(ControlTest, RequestsTakeEffect) {
  EXPECT_EQ(debug({"echo", {}}), "");
  const int trace = traceLevel;
  const int console = verbosity;
  EXPECT_EQ(debug({"trace", {"7"}}), "trace level " + std::to_string(trace) + " -> 7");
  EXPECT_EQ(traceLevel, 7);
  EXPECT_EQ(debug({"trace", {}}), "trace level 7");
  EXPECT_EQ(debug({"msglevel", {"0"}}), "msg level " + std::to_string(console) + " -> 0");
  traceLevel = trace;
  verbosity = console;

  Message reply;
  ASSERT_EQ(exchange(connectTo(), MSG_TYPE_DUMP, {}, &reply), 0);
  const std::string dump(reply.body.begin(), reply.body.end());
  EXPECT_EQ(dump.rfind("qcrd node 1 port " + std::to_string(server_->port()) + " cluster 9 ", 0),
            0u) << dump;

  ASSERT_EQ(exchange(connectTo(), MSG_TYPE_CHECK, encodeBody(CheckRequest{}), &reply), 0);
  CheckReply check;
  ASSERT_EQ(decodeBody(reply.body.data(), reply.body.size(), &check), 0);
  EXPECT_EQ(check, (CheckReply{kCheckFiles | kCheckDisks | kCheckNoDisks, 0, 0, {}, {}, {}, {}}));

  // Off the network: connections are dropped at once, then it comes back by itself.
  EXPECT_EQ(debug({"netdown", {"1"}}), "network down for 1 s");
  EXPECT_TRUE(server_->netDown());
  EXPECT_EQ(connectTo(), nullptr);
  std::string echo;
  for (int i = 0; i < 100 && echo.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!server_->netDown()) echo = debug({"echo", {"back"}});
  }
  EXPECT_EQ(echo, "back");

  ASSERT_EQ(exchange(connectTo(), MSG_TYPE_QUIT, {}, &reply), 0);
  EXPECT_EQ(std::string(reply.body.begin(), reply.body.end()), "qcrd node 1 stopping");
  EXPECT_TRUE(server_->quitRequested());
}

}  // namespace
}  // namespace qcr
