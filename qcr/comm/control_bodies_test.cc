#include "qcr/comm/control_bodies.h"

#include <gtest/gtest.h>

#include "qcr/comm/request_bodies.h"
#include "testing/round_trip.h"

namespace qcr {
namespace {

TEST(ControlBodies, RoundTripAndTheDebugBodyByteForByte) {
  test::expectBodyRoundTrip(DebugRequest{"echo", {}});
  test::expectBodyRoundTrip(DebugRequest{"netdown", {"5"}});
  test::expectBodyRoundTrip(CheckRequest{kCheckFiles | kCheckDisks});
  test::expectBodyRoundTrip(CheckReply{kCheckFiles, 810, -1, {"f.txt"}, {"qcr.nodes", "g"}, {}, {}});
  test::expectBodyRoundTrip(CheckReply{7, 0, 113, {}, {}, {"/d1"}, {"/d2", "/d3"}});
  // The subcommand and a NUL, then the words as a string array.
  const std::vector<uint8_t> body = encodeBody(DebugRequest{"trace", {"6", ""}});
  const std::string expected("trace\0\x02"
                             "6\0\0",
                             10);
  EXPECT_EQ(std::string(body.begin(), body.end()), expected);
}

}  // namespace
}  // namespace qcr
