#include "qcr/server/peer_bodies.h"

#include <gtest/gtest.h>

#include "qcr/data/request_bodies.h"

namespace qcr {
namespace {

// Write, check the size, read back, write again; every proper prefix fails.
template <class T>
void roundTrip(const T& body) {
  const std::vector<uint8_t> bytes = encodeBody(body);
  ASSERT_EQ(static_cast<int>(bytes.size()), body.getSize());
  T back;
  ASSERT_EQ(decodeBody(bytes.data(), bytes.size(), &back), 0);
  EXPECT_TRUE(back == body);
  EXPECT_EQ(encodeBody(back), bytes);
  for (size_t n = 0; n < bytes.size(); ++n) {
    T cut;
    EXPECT_NE(decodeBody(bytes.data(), n, &cut), 0) << n;
  }
}

TEST(PeerBodies, EveryMessageRoundTrips) {
  const PeerHeader hdr{3, 1795316496123, 41};
  ProposedUpdate upd;
  upd.uid = Uid{3, 2, 42};
  upd.kind = UpdateKind::FilePut;
  upd.name = "a.conf";
  upd.number1 = 16;
  upd.number2 = 4;
  upd.crc = 0xdeadbeef;
  upd.listn = {1, 3};
  StateImage image;
  image.seq = 41;
  image.committed.values["k"] = {2, "v"};
  image.committed.files[16] = {4, upd.uid, upd.crc};
  image.names = {{16, "a.conf"}};

  roundTrip(PrepareMsg{hdr, Ballot{7, 3}});
  roundTrip(AcceptMsg{hdr, Ballot{7, 3}, upd});
  roundTrip(SyncMsg{hdr, Ballot{7, 3}, false, {}});
  roundTrip(SyncMsg{hdr, Ballot{7, 3}, true, image});
  roundTrip(CatchUpMsg{hdr});
  AcceptorReply reply;
  reply.result = kPeerAhead;
  reply.seq = 44;
  reply.leaderId = -1;
  reply.leaseHeld = true;
  reply.mbal = Ballot{9, 1};
  reply.bal = Ballot{8, 2};
  reply.inp = upd;
  roundTrip(reply);
  reply.hasImage = true;
  reply.image = image;
  roundTrip(reply);
  roundTrip(FileXferMsg{kXferPull, "", 16, 4, upd.uid, 0});
  roundTrip(FileXferMsg{kXferPush, "a%2Econf.16.4.deadbeef.030242", 0, 0, {}, int64_t{1} << 33});
  roundTrip(ErrorBody{-1});
  roundTrip(ErrorBody{809});
}

}  // namespace
}  // namespace qcr
