#include "qcr/comm/request_bodies.h"

#include <gtest/gtest.h>

#include "testing/round_trip.h"

#include <string>
#include <vector>

namespace qcr {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(std::initializer_list<int> list) {
  Bytes b;
  for (int v : list) b.push_back(static_cast<uint8_t>(v));
  return b;
}

Bytes prefix(const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + n); }

// A delete request for "k" whose condVersion field holds raw (version + 1).
Bytes deleteWithRawVersion(int64_t raw) {
  Bytes b = bytesOf({0, 0, 0, 'k', 0});
  uint8_t buf[MaxSizeVarUInt];
  b.insert(b.end(), buf, putVarUInt(buf, raw));
  return b;
}


CommittedState sampleState() {
  CommittedState s;
  s.config.nodes = {{1, 0, 1, true}, {2, 1, 1, true}};
  s.config.minNodes = 1;
  s.configVersion = 1;
  s.leaderId = 2;
  s.lease = 2000;
  s.leaderVersion = 3;
  s.values["alpha"] = {4, "one"};
  s.values["beta"] = {1, "with \"quote\""};
  s.maxDeletedValueVersion = 2;
  s.files[kNodesFileObjId] = {1, Uid{1, 2, 3}, 0x1a2b3c4d};
  s.addUpdate(Uid{1, 2, 3});
  return s;
}

TEST(RequestBodies, RequestsAndRepliesRoundTrip) {
  test::expectBodyRoundTrip(VputRequest{{}, "x", "y", -1, -1});
  test::expectBodyRoundTrip(VputRequest{{3, 4, 200}, "name", "", 0, 16511});
  test::expectBodyRoundTrip(VputRequest{{}, "n", "v", 2147483646, 2147483646});
  test::expectBodyRoundTrip(DeleteRequest{{1, 1, 1}, "gone", 7});
  test::expectBodyRoundTrip(FputRequest{{}, "cfg", 0, -1, 3, 2});
  test::expectBodyRoundTrip(FputRequest{{}, "big", (int64_t{1} << 40), 9, -1, 0});
  test::expectBodyRoundTrip(FgetRequest{"qcr.nodes", -1, 0});
  test::expectBodyRoundTrip(FgetRequest{"f", 12, 0});
  ConfigChange change;
  change.setNodes = true;
  change.config.nodes = {{1, 0, 2, true}};
  change.config.minNodes = -1;
  test::expectBodyRoundTrip(ConfigRequest{{}, change, 4, 1});
  test::expectBodyRoundTrip(ConfigRequest{{}, ConfigChange{}, -1, 0});
  test::expectBodyRoundTrip(DiscoverRequest{-1});
  test::expectBodyRoundTrip(DiscoverRequest{5});
  test::expectBodyRoundTrip(BackupRequest{1});
  InitRequest init;
  init.clusterId = 0x0123456789ABCDEFULL;
  init.nodes = {NodeEntry{1, 0, "n1", "127.0.0.1", 1191}, NodeEntry{2, 1, "n2", "::1", 1192}};
  init.dblock.committed = sampleState();
  init.config = init.dblock.committed.config;
  test::expectBodyRoundTrip(init);
  const CommittedState s = sampleState();
  test::expectBodyRoundTrip(SeqCommitReply{0, CommittedState{}});
  test::expectBodyRoundTrip(SeqCommitReply{17, s});
  test::expectBodyRoundTrip(SeqCommitErrorReply{E_NO_QUORUM, 17, s});
  test::expectBodyRoundTrip(SeqCommitErrorReply{0, 0, CommittedState{}});
  test::expectBodyRoundTrip(SeqCommitFgetReply{5, s, kNodesFileObjId, 1048577});
  test::expectBodyRoundTrip(SeqCommitFlistReply{5, s, {{kNodesFileObjId, "qcr.nodes"}, {16, "a.b"}}});
  test::expectBodyRoundTrip(UidReply{{2, 9, 130}});
  test::expectBodyRoundTrip(UidFputReply{{2, 9, 130}, true});
  test::expectBodyRoundTrip(FailedNodeVerReply{E_NOT_ACTIVE, -1});
  test::expectBodyRoundTrip(DiscoverReply{3, s, true, 1});
  test::expectBodyRoundTrip(BackupReply{1, 12345});
  test::expectBodyRoundTrip(SeqCommitQueryReply{3, s, false});
}

// Fixed byte strings that the tool and the server must both produce (the client's
// own tests hold those of vput, vdel and fput).
TEST(RequestBodies, GoldenBytes) {
  struct Case {
    const char* what;
    Bytes got;
    Bytes want;
  };
  const Case cases[] = {
      {"fget f", encodeBody(FgetRequest{"f", -1, 0}), bytesOf({'f', 0, 0, 0})},
      {"discover nl 1", encodeBody(DiscoverRequest{1}), bytesOf({2})},
      {"uid_fput", encodeBody(UidFputReply{{1, 2, 3}, true}), bytesOf({1, 2, 3, 1})},
      // 809 + 1 = 810 = 128 + 0x2AA: two bytes 82 AA.
      {"failed_node_ver", encodeBody(FailedNodeVerReply{E_NO_QUORUM, 0}),
       bytesOf({0x82, 0xAA, 1})},
      {"init cluster id", prefix(encodeBody(InitRequest{0x0000000100000002ULL, {}, {}, {}}), 9),
       bytesOf({0, 0, 0, 1, 0, 0, 0, 2, 0})},
      // 808 + 1 = 809 = 128 + 0x2A9, then the body of a seq_commit reply.
      {"seq_commit_error", prefix(encodeBody(SeqCommitErrorReply{E_NOT_ACTIVE, 2, {}}), 3),
       bytesOf({0x82, 0xA9, 2})},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
}

TEST(RequestBodies, RejectsMalformedFields) {
  struct Case {
    const char* what;
    Bytes body;
  };
  // A flag byte other than 0 or 1, a version above the signed range, a name
  // without its NUL.
  const Case cases[] = {
      {"needFile 2", bytesOf({1, 2, 3, 2})},
      {"version 2^31", deleteWithRawVersion(int64_t{1} << 31)},
      {"name without NUL", bytesOf({0, 0, 0, 'k'})},
      {"empty", {}},
  };
  DeleteRequest ok;
  Bytes top = deleteWithRawVersion((int64_t{1} << 31) - 1);
  EXPECT_EQ(decodeBody(top.data(), top.size(), &ok), E_OK);
  EXPECT_EQ(ok.condVersion, 2147483646);
  UidFputReply u;
  EXPECT_EQ(decodeBody(cases[0].body.data(), cases[0].body.size(), &u), E_ILL_FORMED_MSG);
  for (size_t i = 1; i < std::size(cases); ++i) {
    DeleteRequest d;
    EXPECT_EQ(decodeBody(cases[i].body.data(), cases[i].body.size(), &d), E_ILL_FORMED_MSG)
        << cases[i].what;
  }
}

}  // namespace
}  // namespace qcr
