// End-to-end tests of readpaxos and patchpaxos: the real vyqcr on state files and
// committed directories made here.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "basic/files.h"
#include "qcr/data/file_names.h"
#include "qcr/data/state_file.h"
#include "testing/run_program.h"

namespace qcr::test {
namespace {

class StateCmdsTest : public ::testing::Test {
 protected:
  // A small state: two files in the list, one update record.
  StateCmdsTest() {
    data_.epoch = 2;
    data_.dblk.seq = 10;
    data_.dblk.mbal = {5, 2};
    CommittedState& c = data_.dblk.committed;
    c.files[1] = {4, {1, 2, 7}, 0x1F};
    c.files[16] = {2, {1, 2, 9}, 0xABC};
    c.updates[{1, 2}] = 9;
    EXPECT_EQ(mkdir("committed"), 0);
  }

  int mkdir(const std::string& name) { return makeDirectory(dir_.file(name), 0755); }
  void writeState(const std::string& name, const PaxosFileData& data) {
    const std::vector<uint8_t> b = encodeStateFile(data, 7, 1);
    ASSERT_EQ(writeFile(dir_.file(name), std::string(b.begin(), b.end()), 0600, false), 0);
  }
  void addCommitted(const std::string& name, int32_t objId, int32_t version, uint32_t crc,
                    Uid uid) {
    const std::string f = "committed/" + committedFileName(name, objId, version, crc, uid);
    ASSERT_EQ(writeFile(dir_.file(f), "content", 0600, false), 0);
  }
  ProgramResult run(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {binPath("vyqcr")};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, cleanEnvironment());
  }

  ScopedTempDir dir_;
  PaxosFileData data_;
};

TEST_F(StateCmdsTest, ReadPaxosPrintsTheWholeState) {
  writeState("qcr.paxos.1", data_);
  const std::string path = dir_.file("qcr.paxos.1");
  const ProgramResult r = run({"readpaxos", path});
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.exitCode, 0);
  PaxosLocalFile file;
  ASSERT_EQ(file.loadFromFile(path), 0);
  char hdr[160];
  snprintf(hdr, sizeof hdr,
           "hdr: magic 1FABC4AD, crc %08X, len 70, fmtVersion 1 cid 7 lastWriterId 1\n",
           file.header.crc);
  EXPECT_EQ(r.out, path + " (size 70):\n" + hdr +
                       "pfd: epoch 2, slotAssignmentVersion 0\n"
                       "dblk: seq 10, mbal (5.2), bal (0.0), inp ((n0,e0),0):(none):-1:None, "
                       "leaderChallengeVersion 0\n"
                       "config: minNodes: -1 version 0\n"
                       "  nodes: []\n"
                       "  disks: []\n"
                       "leader: id -1 version 0\n"
                       "updates: horizon -1\n"
                       "  [((n1,e2),9)]\n"
                       "values: None, max deleted version 0\n"
                       "files: 2, max deleted version 0\n"
                       "  1 = version 4 uid 010207 crc 0000001F\n"
                       "  16 = version 2 uid 010209 crc 00000ABC\n");
}

TEST_F(StateCmdsTest, UnreadableStateFilesFail) {
  writeState("qcr.paxos.1", data_);
  std::string bytes;
  ASSERT_EQ(readFile(dir_.file("qcr.paxos.1"), &bytes), 0);
  bytes[30] ^= 1;
  ASSERT_EQ(writeFile(dir_.file("corrupt"), bytes, 0600, false), 0);
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{"readpaxos", dir_.file("corrupt")}, "loadFromFile failed with err 214\n"},
      {{"readpaxos", dir_.file("absent")}, "loadFromFile failed with err 2\n"},
      {{"patchpaxos", dir_.file("corrupt"), dir_.file("committed"), dir_.file("out")},
       "loadFromFile(" + dir_.file("corrupt") + ") failed with err 214\n"},
      {{"patchpaxos", dir_.file("qcr.paxos.1"), dir_.file("absent"), dir_.file("out")},
       "readCommittedDir(" + dir_.file("absent") + ") failed with err 2\n"},
  };
  for (const auto& c : cases) {
    const ProgramResult r = run(c.args);
    EXPECT_EQ(r.err, c.err) << c.args[0];
    EXPECT_EQ(r.exitCode, 149) << c.args[0];
  }
  EXPECT_FALSE(fileExists(dir_.file("out")));
}

TEST_F(StateCmdsTest, PatchPaxosOnAConsistentPairWritesNothing) {
  writeState("in", data_);
  addCommitted("qcr.nodes", 1, 4, 0x1F, {1, 2, 7});
  addCommitted("qcr.nodes", 1, 3, 0x1E, {1, 2, 5});  // an older version
  addCommitted("f", 16, 2, 0xABC, {1, 2, 9});
  const ProgramResult r = run({"patchpaxos", dir_.file("in"), dir_.file("committed"),
                               dir_.file("out")});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err, "");
  const std::string tail =
      "\nComparing to content of '" + dir_.file("committed") + "':\n\n" +
      "  match file: qcr%2Enodes.1.4.1f.010207 and file list entry: (1,v4,010207,0000001f)\n"
      "  match file: f.16.2.abc.010209 and file list entry: (16,v2,010209,00000abc)\n"
      "\nFound 2 matching, 0 deleted, 0 added, 0 updated, 0 reverted, 0 reset\n"
      "\nVerifying update history\n";
  ASSERT_GE(r.out.size(), tail.size());
  EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1),
            "Committed state found in " + dir_.file("in") + ":\n");
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
  EXPECT_FALSE(fileExists(dir_.file("out")));
}

TEST_F(StateCmdsTest, PatchPaxosWritesTheRepairedStateToItsOutputOnly) {
  data_.dblk.committed.updates[{3, 4}] = 12;  // ahead of the state's epoch and seq
  writeState("in", data_);
  std::string before;
  ASSERT_EQ(readFile(dir_.file("in"), &before), 0);
  addCommitted("qcr.nodes", 1, 5, 0x2F, {2, 4, 13});  // newer than the list
  addCommitted("f", 16, 2, 0xABC, {1, 2, 9});
  addCommitted("g", 17, 1, 0x1, {2, 4, 14});          // missing from the list
  const ProgramResult r = run({"patchpaxos", dir_.file("in"), dir_.file("committed"),
                               dir_.file("out")});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err, "");
  // The steps' own lines are checked where the steps are tested; here their sum.
  EXPECT_NE(r.out.find("\nFound 1 matching, 0 deleted, 1 added, 1 updated, 0 reverted, 0 reset\n"),
            std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\nWriting 4 changes to " + dir_.file("out") + "\n"), std::string::npos);
  std::string after;
  ASSERT_EQ(readFile(dir_.file("in"), &after), 0);
  EXPECT_EQ(after, before);
  PaxosLocalFile out;
  ASSERT_EQ(out.loadFromFile(dir_.file("out")), 0);
  EXPECT_EQ(out.data.epoch, 4);
  EXPECT_EQ(out.data.dblk.seq, 14);
  const std::map<int32_t, FileRecord> expected = {
      {1, {5, {2, 4, 13}, 0x2F}}, {16, {2, {1, 2, 9}, 0xABC}}, {17, {1, {2, 4, 14}, 0x1}}};
  EXPECT_EQ(out.data.dblk.committed.files, expected);
  EXPECT_EQ(out.header.cid, 7u);
}

}  // namespace
}  // namespace qcr::test
