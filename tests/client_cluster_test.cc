// The value and file commands of the real program against a local qcrd cluster
// of three servers: outputs, failure messages and exit statuses.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "basic/file_status.h"
#include "basic/files.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr::test {
namespace {

const char kValuesHeader[] =
    "  version  name                 value\n"
    "---------  -------------------- --------------------------------------------\n";

class ClientClusterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(cluster_.start());
    ASSERT_NO_FATAL_FAILURE(cluster_.prepareToolBase(base_));
  }

  ProgramResult vyqcr(const std::vector<std::string>& args, int timeoutMs = 60000) const {
    return base_.vyqcr(args, timeoutMs);
  }
  void expectRun(const std::vector<std::string>& args, const std::string& out,
                 const std::string& err, int status) const {
    base_.expectRun(args, out, err, status);
  }

  LocalCluster cluster_{3};
  TestBase base_;
};

TEST_F(ClientClusterTest, ValueCommandsPrintTheirResultsAndFailWithTheirStatuses) {
  expectRun({"vlist"}, kValuesHeader, "", 0);
  // The first answer brought the committed node list, which the client pulled.
  std::vector<std::string> committed;
  ASSERT_EQ(listDirectory(base_.file("committed"), &committed), 0);
  ASSERT_EQ(committed.size(), 1u);
  EXPECT_EQ(committed[0].substr(0, 14), "qcr%2Enodes.1.");
  expectRun({"vput", "a", "one"}, "", "", 0);
  expectRun({"vput", "-v", "5", "q", "say \"hi\""}, "", "", 0);
  expectRun({"vget", "a"}, "vget:1:one\n", "", 0);
  expectRun({"vget", "-c", "5", "a"}, "vget:1:one\n", "", 0);
  expectRun({"vlist"},
            std::string(kValuesHeader) + "        1  a                    \"one\"\n"
                                         "        5  q                    \"say \"hi\"\"\n",
            "", 0);
  expectRun({"vput", "-c", "7", "a", "two"}, "",
            "vput failed: Version mismatch on conditional put (err 805)\n", 153);
  expectRun({"vput", "-v", "1", "a", "two"}, "", "vput failed: Invalid version on put (err 807)\n",
            154);
  expectRun({"vput", "-c", "1", "a", "two"}, "", "", 0);
  expectRun({"vdel", "a"}, "", "", 0);
  expectRun({"vget", "a"}, "", "\"a\" is undefined\n", 149);
  expectRun({"vdel", "a"}, "", "vdel failed: Name not found on get (err 804)\n", 149);
}

TEST_F(ClientClusterTest, FileCommandsMoveFilesWholeAndKeepPrivateOnesPrivate) {
  const std::string big = base_.file("big");
  {
    std::string data(100 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 7919) >> 5);
    ASSERT_EQ(writeFile(big, data, 0644, false), 0);
  }
  expectRun({"fput", "big.bin", big}, "", "", 0);
  expectRun({"fget", "big.bin", base_.file("big.back")}, "fget:1\n", "", 0);
  EXPECT_TRUE(readFileText(big) == readFileText(base_.file("big.back")));
  ASSERT_EQ(writeFile(base_.file("key"), "secret", 0644, false), 0);
  expectRun({"fput", "_key", base_.file("key")}, "", "", 0);
  expectRun({"fput", "-v", "4", "_key", base_.file("key")}, "", "", 0);
  expectRun({"fget", "_key", base_.file("key.back")}, "fget:4\n", "", 0);
  FileStatus status;
  ASSERT_EQ(fileStatus(base_.file("key.back"), &status), 0);
  EXPECT_EQ(status.mode & 0007, 0u);  // nothing for others
  expectRun({"flist"},
            "  version  name\n---------  --------------------\n"
            "        1  qcr.nodes           \n        1  qcr.disks           \n"
            "        1  big.bin             \n        4  _key                \n",
            "", 0);
  const std::string missing = base_.file("nothing");
  expectRun({"fput", "x", missing}, "", "'" + missing + "' does not exist\n", 149);
  expectRun({"fget", "-c", "4", "_key", base_.file("k2")}, "",
            "get file failed: Version match on conditional get (err 806)\n", 155);
  expectRun({"fdel", "big.bin"}, "", "", 0);
  expectRun({"fget", "big.bin", base_.file("b2")}, "",
            "get file failed: Name not found on get (err 804)\n", 149);
}

TEST_F(ClientClusterTest, CommandsSucceedWithOneServerDownAndQueryShowsAStaleState) {
  cluster_.kill(0);
  expectRun({"vput", "k", "v"}, "", "", 0);
  expectRun({"vget", "k"}, "vget:1:v\n", "", 0);
  ProgramResult r = vyqcr({"query"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, 5), "seq: ");
  EXPECT_NE(r.out.find("  k = version 1 \"v\"\n"), std::string::npos) << r.out;
  cluster_.kill(1);
  r = vyqcr({"query"});
  EXPECT_EQ(r.exitCode, 159);
  EXPECT_NE(r.out.find("  k = version 1 \"v\"\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.err, "\nWarning: This is a best-effort response\n");
}

TEST_F(ClientClusterTest, NoServerReachableFailsWith823WithinTheSchedule) {
  for (int i = 0; i < cluster_.size(); ++i) cluster_.kill(i);
  const auto start = std::chrono::steady_clock::now();
  expectRun({"vget", "k"}, "",
            "vget failed: Unable to reach any quorum node (Check your firewall or network "
            "settings) (err 823)\n",
            149);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GT(seconds, 30.0);
  EXPECT_LT(seconds, 47.0);
}

}  // namespace
}  // namespace qcr::test
