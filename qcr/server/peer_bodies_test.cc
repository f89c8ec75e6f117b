#include "qcr/server/peer_bodies.h"

#include <gtest/gtest.h>

#include "testing/round_trip.h"

#include "qcr/comm/request_bodies.h"

namespace qcr {
namespace {


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
  image.state.values["k"] = {2, "v"};
  image.state.files[16] = {4, upd.uid, upd.crc};
  image.files = {{16, "a.conf"}};

  test::expectBodyRoundTrip(PrepareMsg{hdr, Ballot{7, 3}});
  test::expectBodyRoundTrip(AcceptMsg{hdr, Ballot{7, 3}, upd});
  test::expectBodyRoundTrip(SyncMsg{hdr, Ballot{7, 3}, false, {}});
  test::expectBodyRoundTrip(SyncMsg{hdr, Ballot{7, 3}, true, image});
  test::expectBodyRoundTrip(CatchUpMsg{hdr});
  AcceptorReply reply;
  reply.result = kPeerAhead;
  reply.seq = 44;
  reply.leaderId = -1;
  reply.leaseHeld = true;
  reply.mbal = Ballot{9, 1};
  reply.bal = Ballot{8, 2};
  reply.inp = upd;
  test::expectBodyRoundTrip(reply);
  reply.hasImage = true;
  reply.image = image;
  test::expectBodyRoundTrip(reply);
  test::expectBodyRoundTrip(FileXferMsg{kXferPull, "", 16, 4, upd.uid, 0});
  test::expectBodyRoundTrip(FileXferMsg{kXferPush, "a%2Econf.16.4.deadbeef.030242", 0, 0, {}, int64_t{1} << 33});
  test::expectBodyRoundTrip(ErrorBody{-1});
  test::expectBodyRoundTrip(ErrorBody{809});
}

}  // namespace
}  // namespace qcr
