// The patch steps of patchpaxos on in-memory states; tests/state_cmds_test.cc
// runs the commands themselves.
#include "qcr/cmd/state_cmds.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qcr/data/file_names.h"

namespace qcr {
namespace {

CommittedFile dirFile(const std::string& name, int32_t objId, int32_t version, uint32_t crc,
                      Uid uid) {
  CommittedFile f;
  EXPECT_TRUE(parseCommittedName(committedFileName(name, objId, version, crc, uid), &f));
  return f;
}

TEST(PatchFileList, EveryCaseOfTheComparison) {
  CommittedState state;
  state.files[16] = {3, {1, 1, 5}, 0xA};   // matches
  state.files[17] = {3, {1, 1, 6}, 0xB};   // directory has another uid
  state.files[18] = {5, {1, 1, 7}, 0xC};   // directory is older
  state.files[19] = {1, {1, 1, 8}, 0xD};   // directory is newer
  state.addUpdate({1, 1, 9});              // covers the deleted file's uid
  const std::vector<CommittedFile> dir = {
      dirFile("m", 16, 3, 0xA, {1, 1, 5}),
      dirFile("r", 17, 3, 0xE, {2, 1, 20}),
      dirFile("o", 18, 4, 0xF, {2, 1, 21}),
      dirFile("n", 19, 2, 0x10, {2, 1, 22}),
      dirFile("n", 19, 1, 0xD, {1, 1, 8}),  // older version of 19: ignored
      dirFile("d", 20, 1, 0x11, {1, 1, 9}),
      dirFile("a", 21, 1, 0x12, {3, 2, 23}),
  };
  std::string out;
  const PatchCounts c = patchFileList(dir, &state, &out);
  EXPECT_EQ(out,
            "  match file: m.16.3.a.010105 and file list entry: (16,v3,010105,0000000a)\n"
            "  different update id: r.17.3.e.020114\n"
            "  *** resetting update id in file list version 3 uid 010106\n"
            "  older:   o.18.4.f.020115\n"
            "  *** reverting committed file list version 5 uid 010107\n"
            "  newer:   n.19.2.10.020116\n"
            "  *** updating committed file list version 1 uid 010108\n"
            "  deleted: d.20.1.11.010109\n"
            "  new    : a.21.1.12.030217\n"
            "  *** adding file to committed file list\n");
  EXPECT_EQ(c.matching, 1);
  EXPECT_EQ(c.reset, 1);
  EXPECT_EQ(c.reverted, 1);
  EXPECT_EQ(c.updated, 1);
  EXPECT_EQ(c.deleted, 1);
  EXPECT_EQ(c.added, 1);
  EXPECT_EQ(c.changes(), 4);
  EXPECT_EQ(state.files.size(), 5u);  // 20 stays deleted
  EXPECT_EQ(state.files[17], (FileRecord{3, {2, 1, 20}, 0xE}));
  EXPECT_EQ(state.files[18], (FileRecord{4, {2, 1, 21}, 0xF}));
  EXPECT_EQ(state.files[19], (FileRecord{2, {2, 1, 22}, 0x10}));
  EXPECT_EQ(state.files[21], (FileRecord{1, {3, 2, 23}, 0x12}));
  for (const Uid& uid : {Uid{2, 1, 22}, Uid{3, 2, 23}}) EXPECT_TRUE(state.includes(uid));
}

TEST(PatchFileList, BrokenDirectoryInvariantsAbort) {
  CommittedState state;
  state.files[16] = {3, {1, 1, 5}, 0xA};
  std::string out;
  EXPECT_DEATH(patchFileList({dirFile("m", 16, 3, 0xB, {1, 1, 5})}, &state, &out),
               "assertion 'i->crc == j->second.crc' failed");
}

TEST(RaiseToUpdateHistory, RaisesEpochAndSequenceOnlyWhenBehind) {
  PaxosFileData data;
  data.epoch = 2;
  data.dblk.seq = 10;
  data.dblk.committed.updates = {{{1, 1}, 8}, {{2, 3}, 12}, {{3, 2}, 15}};
  std::string out;
  EXPECT_EQ(raiseToUpdateHistory(&data, &out), 2);
  EXPECT_EQ(out,
            "  update (n2,e3):12 has seq no > 10\n"
            "  update (n3,e2):15 has seq no > 10\n"
            "  *** updating epoch 2 -> 3\n"
            "  *** updating sequence no 10 -> 15\n");
  EXPECT_EQ(data.epoch, 3);
  EXPECT_EQ(data.dblk.seq, 15);
  out.clear();
  EXPECT_EQ(raiseToUpdateHistory(&data, &out), 0);
  EXPECT_EQ(out, "");
}

}  // namespace
}  // namespace qcr
