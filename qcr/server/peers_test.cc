// The peer workers: a one-way message's reply never reaches the exchange after it.
#include "qcr/server/peers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "qcr/comm/msg_types.h"
#include "testing/scripted_server.h"

namespace qcr {
namespace {

constexpr uint64_t kCluster = 99;

// The peer reads the one-way message and the request behind it before it answers
// either: the sender must not have waited for the first answer. Then it answers
// both, in order, and the request's round gets the request's answer.
TEST(PeerSetTest, AnExchangeAfterOneWayMessagesGetsItsOwnAnswer) {
  std::atomic<int> seenBeforeAnswering{0};
  test::ScriptedServer peer(
      [&](Connection& conn, int) {
        const test::Request a = test::readRequest(conn);
        const test::Request b = test::readRequest(conn);
        const test::Request c = test::readRequest(conn);
        if (a.type == MSG_TYPE_PXRDWR && b.type == MSG_TYPE_PXRDWR && c.type == MSG_TYPE_PXWRITE) {
          seenBeforeAnswering = 3;
        }
        test::sendRaw(conn, MSG_TYPE_REPLY_PXRDWR, "one");
        test::sendRaw(conn, MSG_TYPE_REPLY_PXRDWR, "two");
        test::sendRaw(conn, MSG_TYPE_REPLY_PXWRITE, "three");
        (void)test::readRequest(conn);  // until the sender closes
      },
      kCluster);
  PeerSet peers(kCluster, systemClock());
  peers.setPeers({{2, ipv4Address(0x7F000001, peer.port())}});
  const double deadline = systemClock().now() + 10;
  const auto first = peers.broadcastOneWay(MSG_TYPE_PXRDWR, {1}, deadline);
  const auto sent = first->wait([](const std::vector<PeerAnswer>& got) { return !got.empty(); });
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].rc, 0);
  // The second goes out with the exchange's message, in one write.
  const auto answers =
      peers
          .broadcastAfter(
              std::make_shared<const OneWay>(OneWay{MSG_TYPE_PXRDWR, {2}}),
              [](int32_t id, Connection& conn) {
                PeerAnswer a{id, conn.send(MSG_TYPE_PXWRITE, std::vector<uint8_t>{3}), {}};
                if (a.rc == 0) a.rc = conn.receive(&a.reply);
                return a;
              },
              deadline)
          ->wait([](const std::vector<PeerAnswer>& got) { return !got.empty(); });
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].rc, 0);
  EXPECT_EQ(answers[0].reply.type, MSG_TYPE_REPLY_PXWRITE);
  EXPECT_EQ(std::string(answers[0].reply.body.begin(), answers[0].reply.body.end()), "three");
  EXPECT_EQ(seenBeforeAnswering, 3);
  peers.stop();
}

// The caller of a round goes on as soon as the answers it has suffice; the round
// still reaches this peer, whose worker was busy, over the kept connection, even
// with a newer round queued behind it, so that the peer misses no request. When
// the busy exchange failed and left no connection, the left round is dropped for
// the newer one: a stopped peer is tried for the latest round only.
TEST(PeerSetTest, ARoundItsCallerLeftStillReachesAConnectedPeer) {
  for (const bool connected : {true, false}) {
    SCOPED_TRACE(connected ? "kept connection" : "no connection");
    test::ScriptedServer peer(
        [](Connection& conn, int) {
          while (test::readRequest(conn).type != -1) {
          }
        },
        kCluster);
    PeerSet peers(kCluster, systemClock());
    peers.setPeers({{2, ipv4Address(0x7F000001, peer.port())}});
    const double deadline = systemClock().now() + 10;
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::atomic<int> leftRan{0};
    std::atomic<int> newerRan{0};
    const auto busy = peers.sendTo(
        2,
        [connected, opened](int32_t id, Connection&) {
          (void)opened.wait_for(std::chrono::seconds(10));
          return PeerAnswer{id, connected ? 0 : EIO, {}};
        },
        deadline);
    const auto left = peers.broadcast(
        [&leftRan](int32_t id, Connection&) {
          ++leftRan;
          return PeerAnswer{id, 0, {}};
        },
        deadline);
    EXPECT_TRUE(left->wait([](const std::vector<PeerAnswer>&) { return true; }).empty());
    const auto newer = peers.sendTo(
        2,
        [&newerRan](int32_t id, Connection&) {
          ++newerRan;
          return PeerAnswer{id, 0, {}};
        },
        deadline);
    gate.set_value();
    const auto answers =
        newer->wait([](const std::vector<PeerAnswer>& got) { return !got.empty(); });
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].rc, 0);
    EXPECT_EQ(newerRan, 1);
    EXPECT_EQ(leftRan, connected ? 1 : 0);
    peers.stop();
  }
}

}  // namespace
}  // namespace qcr
