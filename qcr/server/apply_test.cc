#include "qcr/server/apply.h"

#include <gtest/gtest.h>

#include "qcr/coding/result.h"

namespace qcr {
namespace {

CommittedState stateWith(int32_t version, int32_t maxDeleted) {
  CommittedState s;
  if (version > 0) s.values["v"] = {version, "old"};
  s.maxDeletedValueVersion = maxDeleted;
  return s;
}

// The version rules, one row per case: stored version (0: missing), the largest
// deleted version, -v, -c; the result and the version the put gets.
TEST(Apply, ValueVersionRules) {
  struct Case {
    int32_t stored, maxDeleted, newVersion, condVersion;
    int rc;
    int32_t version;
  };
  const Case cases[] = {
      {0, 0, -1, -1, E_OK, 1},               // new name
      {3, 0, -1, -1, E_OK, 4},               // next version
      {0, 7, -1, -1, E_OK, 8},               // re-created: above every deleted version
      {3, 0, 9, -1, E_OK, 9},                // -v above the stored version
      {3, 0, 3, -1, E_INVALID_VERSION, 0},   // -v not above
      {0, 7, 5, -1, E_INVALID_VERSION, 0},   // -v not above the deleted versions
      {3, 0, -1, 3, E_OK, 4},                // -c matches
      {3, 0, -1, 2, E_VERSION_MISMATCH, 0},  // -c differs
      {0, 0, -1, 0, E_OK, 1},                // -c 0: only when new
      {3, 0, -1, 0, E_VERSION_MISMATCH, 0},
      {3, 0, 2, 2, E_VERSION_MISMATCH, 0},   // the condition is checked first
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.stored << "," << c.maxDeleted << "," << c.newVersion
                                    << "," << c.condVersion);
    CommittedState s = stateWith(c.stored, c.maxDeleted);
    ProposedUpdate u;
    ASSERT_EQ(makeValuePut(s, VputRequest{{}, "v", "new", c.newVersion, c.condVersion}, &u), c.rc);
    if (c.rc != E_OK) continue;
    FileNames names;
    u.uid = Uid{1, 1, 1};
    applyUpdate(u, &s, &names);
    EXPECT_EQ(s.values["v"].version, c.version);
    EXPECT_EQ(s.values["v"].text, "new");
  }
}

TEST(Apply, DeletesRaiseTheDeletedVersionAndUidsApplyOnce) {
  CommittedState s = stateWith(5, 2);
  FileNames names;
  ProposedUpdate del;
  EXPECT_EQ(makeValueDelete(s, DeleteRequest{{}, "nope", -1}, &del), E_NOT_FOUND);
  EXPECT_EQ(makeValueDelete(s, DeleteRequest{{}, "v", 4}, &del), E_VERSION_MISMATCH);
  ASSERT_EQ(makeValueDelete(s, DeleteRequest{{}, "v", 5}, &del), E_OK);
  del.uid = Uid{2, 1, 10};
  applyUpdate(del, &s, &names);
  EXPECT_EQ(s.values.count("v"), 0u);
  EXPECT_EQ(s.maxDeletedValueVersion, 5);

  // The same update again (a leftover re-proposed) changes nothing.
  ProposedUpdate put;
  ASSERT_EQ(makeValuePut(s, VputRequest{{}, "w", "1", -1, -1}, &put), E_OK);
  put.uid = Uid{2, 1, 11};
  applyUpdate(put, &s, &names);
  const CommittedState once = s;
  applyUpdate(put, &s, &names);
  EXPECT_EQ(s, once);
  EXPECT_EQ(s.values["w"].version, 6);
}

TEST(Apply, FilesGetIdsAndFollowTheRules) {
  CommittedState s;
  FileNames names;
  ProposedUpdate u;
  ASSERT_EQ(makeFilePut(s, names, FputRequest{{}, "qcr.nodes", 10, -1, -1, 0}, 0, &u), E_OK);
  EXPECT_EQ(u.number1, kNodesFileObjId);
  ASSERT_EQ(makeFilePut(s, names, FputRequest{{}, "a.conf", 10, -1, -1, 0}, 20, &u), E_OK);
  EXPECT_EQ(u.number1, 21);  // above every id still stored
  EXPECT_EQ(u.number2, 1);
  u.uid = Uid{1, 1, 1};
  u.crc = 0xabc;
  applyUpdate(u, &s, &names);
  EXPECT_EQ(findFile(names, "a.conf"), 21);
  EXPECT_EQ(fileListOf(s, names), (FileList{{21, "a.conf"}}));

  int32_t objId = 0;
  EXPECT_EQ(checkFileGet(s, names, FgetRequest{"a.conf", 1, 0}, &objId), E_VERSION_MATCH);
  EXPECT_EQ(checkFileGet(s, names, FgetRequest{"b", -1, 0}, &objId), E_NOT_FOUND);
  ASSERT_EQ(checkFileGet(s, names, FgetRequest{"a.conf", 2, 0}, &objId), E_OK);
  EXPECT_EQ(objId, 21);

  ASSERT_EQ(makeFileDelete(s, names, DeleteRequest{{}, "a.conf", -1}, &u), E_OK);
  u.uid = Uid{1, 1, 2};
  applyUpdate(u, &s, &names);
  EXPECT_TRUE(s.files.empty());
  EXPECT_EQ(s.maxDeletedFileVersion, 1);
  ASSERT_EQ(makeFilePut(s, names, FputRequest{{}, "a.conf", 10, -1, -1, 0}, 21, &u), E_OK);
  EXPECT_EQ(u.number2, 2);  // a re-created file continues above the deleted version
}

TEST(Apply, ConfigAndLeaderChanges) {
  CommittedState s;
  s.configVersion = 1;
  FileNames names;
  ConfigRequest req;
  req.configVersion = 2;
  ProposedUpdate u;
  EXPECT_EQ(makeConfigChange(s, req, &u), E_VERSION_MISMATCH);
  req.configVersion = 1;
  req.change.setNodes = true;
  req.change.config.nodes = {{1, 0, 2, true}};
  req.change.config.minNodes = 1;
  ASSERT_EQ(makeConfigChange(s, req, &u), E_OK);
  applyUpdate(u, &s, &names);
  EXPECT_EQ(s.configVersion, 2);
  EXPECT_EQ(s.config.nodes, req.change.config.nodes);
  // Only the parts a change sets are replaced; minNodes whenever it is set.
  req.configVersion = 2;
  req.change = ConfigChange{};
  req.change.setDisks = true;
  req.change.config.disks = {2, 5};
  ASSERT_EQ(makeConfigChange(s, req, &u), E_OK);
  applyUpdate(u, &s, &names);
  EXPECT_EQ(s.config.nodes.size(), 1u);
  EXPECT_EQ(s.config.disks, (std::vector<int32_t>{2, 5}));
  EXPECT_EQ(s.config.minNodes, 1);
  req.configVersion = 3;
  req.change = ConfigChange{};
  req.change.config.minNodes = 2;
  ASSERT_EQ(makeConfigChange(s, req, &u), E_OK);
  applyUpdate(u, &s, &names);
  EXPECT_EQ(s.config.minNodes, 2);
  EXPECT_EQ(s.config.disks.size(), 2u);
  EXPECT_EQ(s.configVersion, 4);
  applyUpdate(makeLeaderChange(3, 2000), &s, &names);
  EXPECT_EQ(s.leaderId, 3);
  EXPECT_EQ(s.lease, 2000);
  EXPECT_EQ(s.leaderVersion, 1);
}

TEST(Apply, ConfigChangesTheServersCannotRunOnAreRefused) {
  using Nodes = std::vector<ConfigNodeEntry>;
  const struct {
    Nodes nodes;
    std::vector<int32_t> disks;
    int32_t minNodes;
    int rc;
  } cases[] = {
      {{{1, 0, 0, true}, {2, -1, 0, false}}, {1, 2}, 2, E_OK},
      {{}, {}, -1, EINVAL},                                  // no members
      {{{1, -1, 0, true}}, {}, -1, EINVAL},                  // no slot held
      {{{1, 0, 0, true}, {2, 0, 0, true}}, {}, -1, EINVAL},  // a slot twice
      {{{1, 0, 0, true}, {1, 1, 0, true}}, {}, -1, EINVAL},  // a node twice
      {{{0, 0, 0, true}}, {}, -1, EINVAL},
      {{{1, 8, 0, true}}, {}, -1, EINVAL},
      {{{1, -2, 0, true}}, {}, -1, EINVAL},
      {{{1, 0, -1, true}}, {}, -1, EINVAL},
      {{{1, 0, 0, true}}, {3, 3}, -1, EINVAL},
      {{{1, 0, 0, true}}, {0}, -1, EINVAL},
      {{{1, 0, 0, true}}, {}, -2, EINVAL},
  };
  CommittedState s;
  for (const auto& c : cases) {
    ConfigRequest req;
    req.change.setNodes = req.change.setDisks = true;
    req.change.config.nodes = c.nodes;
    req.change.config.disks = c.disks;
    req.change.config.minNodes = c.minNodes;
    ProposedUpdate u;
    EXPECT_EQ(makeConfigChange(s, req, &u), c.rc) << req.change.toString();
  }
}

}  // namespace
}  // namespace qcr
