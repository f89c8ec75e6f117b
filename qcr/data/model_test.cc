// Every serialisable type: seeded random round trips, golden bytes, and reads of
// truncated and mutated input.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "testing/random_values.h"
#include "testing/round_trip.h"

// Types read and written through free functions or with an extra argument.
namespace qcr::test {
template <>
struct Codec<PaxosFileData> {
  static int size(const PaxosFileData& v) { return v.getSize(); }
  static uint8_t* write(uint8_t* p, const PaxosFileData& v) { return v.write(p); }
  static const uint8_t* read(const uint8_t* p, const uint8_t* end, PaxosFileData* v) {
    return v->read(p, end, 1);
  }
};
template <>
struct Codec<NodeList> {
  static int size(const NodeList& v) { return sizeNodeList(v); }
  static uint8_t* write(uint8_t* p, const NodeList& v) { return putNodeList(p, v); }
  static const uint8_t* read(const uint8_t* p, const uint8_t* end, NodeList* v) {
    return getNodeList(p, end, v);
  }
};
template <>
struct Codec<FileList> {
  static int size(const FileList& v) { return sizeFileList(v); }
  static uint8_t* write(uint8_t* p, const FileList& v) { return putFileList(p, v); }
  static const uint8_t* read(const uint8_t* p, const uint8_t* end, FileList* v) {
    return getFileList(p, end, v);
  }
};

}  // namespace qcr::test

namespace qcr {
namespace {

using test::Bytes;
using test::encode;
using test::expectRobustReads;
using test::expectRoundTrip;
using test::readExact;

PaxosConfig makeConfig(std::vector<ConfigNodeEntry> nodes, std::vector<int32_t> disks,
                       int32_t minNodes) {
  PaxosConfig c;
  c.nodes = std::move(nodes);
  c.disks = std::move(disks);
  c.minNodes = minNodes;
  return c;
}

template <typename T>
class ModelTypes : public ::testing::Test {};

// Generates the type under test.
template <typename T>
T make(test::RandomValues* r);
template <> Uid make(test::RandomValues* r) { return r->uid(); }
template <> Ballot make(test::RandomValues* r) { return r->ballot(); }
template <> ConfigNodeEntry make(test::RandomValues* r) { return r->configNode(); }
template <> PaxosConfig make(test::RandomValues* r) { return r->config(); }
template <> ConfigChange make(test::RandomValues* r) { return r->configChange(); }
template <> ProposedUpdate make(test::RandomValues* r) { return r->update(); }
template <> CommittedState make(test::RandomValues* r) { return r->committed(); }
template <> PaxosDblockSummary make(test::RandomValues* r) { return r->dblock(); }
template <> PaxosFileData make(test::RandomValues* r) { return r->fileData(); }
template <> PaxosFileHeader make(test::RandomValues* r) { return r->header(); }
template <> NodeEntry make(test::RandomValues* r) { return r->nodeEntry(); }
template <> NodeList make(test::RandomValues* r) { return r->nodeList(); }
template <> FileList make(test::RandomValues* r) { return r->fileList(); }

using AllTypes = ::testing::Types<Uid, Ballot, ConfigNodeEntry, PaxosConfig, ConfigChange,
                                  ProposedUpdate, CommittedState, PaxosDblockSummary,
                                  PaxosFileData, PaxosFileHeader, NodeEntry, NodeList, FileList>;
TYPED_TEST_SUITE(ModelTypes, AllTypes);

TYPED_TEST(ModelTypes, RandomValuesRoundTrip) {
  test::RandomValues random(20240611);
  for (int i = 0; i < 300; ++i) expectRoundTrip(make<TypeParam>(&random));
}

TYPED_TEST(ModelTypes, TruncatedAndMutatedInputIsRejectedSafely) {
  test::RandomValues random(77);
  for (int i = 0; i < 20; ++i) expectRobustReads(make<TypeParam>(&random), &random, 200);
}

// The one-walk encoding of a committed state gives write's bytes whether the
// first buffer it tries is too small, about right or larger than needed.
TEST(CommittedStateEncode, GivesWritesBytesWhateverItsFirstBuffer) {
  test::RandomValues random(5150);
  for (int i = 0; i < 200; ++i) {
    CommittedState state = random.committed();
    // Some states large enough to outgrow the first buffer several times.
    for (int v = 0; i % 4 == 0 && v < 300; ++v) {
      state.values["name-" + std::to_string(v)] = {v, std::string(static_cast<size_t>(v % 40), 'x')};
    }
    const Bytes expected = encode(state);
    for (size_t first : {size_t{0}, expected.size() / 3, expected.size(), expected.size() * 2}) {
      EXPECT_EQ(state.encode(first), expected) << i << " " << first;
    }
  }
}

TEST(Golden, FixedExamples) {
  const struct {
    const char* what;
    Bytes actual;
    Bytes expected;
  } cases[] = {
      {"node entry, no version, not listening", encode(ConfigNodeEntry{3, -1, 0, false}),
       {0x03, 0x00, 0x00}},
      {"node entry with version 5, listening", encode(ConfigNodeEntry{3, 2, 5, true}),
       {0x03, 0x03, 0x03, 0x05}},
      {"small config", encode(makeConfig({{1, 0, 0, true}}, {7}, -1)),
       {0x01, 0x01, 0x01, 0x01, 0x01, 0x07, 0x00}},
      {"config change", encode(ConfigChange{true, false, makeConfig({}, {}, 2)}),
       {0x01, 0x00, 0x00, 0x00, 0x03}},
      {"value update", encode(ProposedUpdate{{1, 2, 3}, UpdateKind::ValuePut, -1, "a", "b"}),
       {0x01, 0x02, 0x03, 0x02, 0x00, 'a', 0x00, 'b', 0x00, 0x00}},
      {"no-op with listn", encode(ProposedUpdate{{}, UpdateKind::Noop, 4, "", "", 0, 0, 0, {}, {9}}),
       {0x00, 0x00, 0x00, 0x01, 0x05, 0x01, 0x09}},
      {"file update",
       encode(ProposedUpdate{{}, UpdateKind::FilePut, -1, "f", "", 16, 200, 0x1A2B3C4D}),
       {0, 0, 0, 0x04, 0x00, 'f', 0x00, 0x10, 0x80, 0x48, 0x1A, 0x2B, 0x3C, 0x4D, 0x00}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected) << c.what;
}

TEST(Rendering, Texts) {
  ProposedUpdate del{{1, 2, 3}, UpdateKind::FileDelete, -1, "f", "", 5};
  ProposedUpdate cu{{}, UpdateKind::Config, 0};
  cu.config = {true, false, makeConfig({{1, 0, 0, true}, {2, -1, 3, false}}, {}, -1)};
  ProposedUpdate odd{{}, static_cast<UpdateKind>(9), -1};
  const struct {
    std::string actual;
    const char* expected;
  } cases[] = {
      {makeConfig({{1, 0, 0, true}}, {4, 5}, 2).toString(), "<[(N1,S0,V0,L1)] [4, 5] min=2>"},
      {del.toString(), "((n1,e2),3):fd:-1:['f','5]"},
      {cu.toString(), "((n0,e0),0):cu:0:<[(N1,S0,V0,L1), (N2,S-1,V3,L0)] >"},
      {ProposedUpdate{{}, UpdateKind::Leader, -1, "", "", 3, 4, 0, {}, {1, 2}}.toString(),
       "((n0,e0),0):lu:-1:[3,4] listn [1, 2]"},
      {odd.toString(), "((n0,e0),0):?:-1:Unknown update 9"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected);
}

TEST(Reading, RejectsWhatWritingNeverProduces) {
  const Bytes unknownKind = {0, 0, 0, 8, 0, 0};
  const Bytes presentZeroVersion = {1, 0, 2, 0};
  const Bytes badFlagByte = {2, 0, 0, 0, 0};
  ProposedUpdate u;
  ConfigNodeEntry n;
  ConfigChange c;
  bool atEnd = false;
  EXPECT_EQ(readExact(unknownKind, unknownKind.size(), &u, &atEnd), nullptr);
  EXPECT_EQ(readExact(presentZeroVersion, presentZeroVersion.size(), &n, &atEnd), nullptr);
  EXPECT_EQ(readExact(badFlagByte, badFlagByte.size(), &c, &atEnd), nullptr);
  // Map entries out of key order.
  CommittedState s;
  s.values = {{"a", {1, "x"}}, {"b", {2, "y"}}};
  Bytes b = encode(s);
  const size_t at = static_cast<size_t>(std::find(b.begin(), b.end(), 'a') - b.begin());
  b[at] = 'c';
  EXPECT_EQ(readExact(b, b.size(), &s, &atEnd), nullptr);
}

}  // namespace
}  // namespace qcr
