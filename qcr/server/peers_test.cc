// The peer workers: a one-way message's reply never reaches the exchange after it.
#include "qcr/server/peers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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
  const auto second = peers.broadcastOneWay(MSG_TYPE_PXRDWR, {2}, deadline);
  for (const auto& round : {first, second}) {
    const auto sent = round->wait([](const std::vector<PeerAnswer>& got) { return !got.empty(); });
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].rc, 0);
  }
  const auto answers =
      peers
          .broadcast(
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

}  // namespace
}  // namespace qcr
