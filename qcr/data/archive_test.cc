#include "qcr/data/archive.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "basic/files.h"
#include "basic/tempdir.h"

namespace qcr {
namespace {

class ArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(makeTempDir("qcr-archive-", &dir_), 0);
    ASSERT_EQ(findArchiveTools(ArchiveCandidates{}, &tools_), 0);
    ASSERT_FALSE(tools_.gzip.empty());
    ASSERT_FALSE(tools_.gunzip.empty());
  }
  void TearDown() override { EXPECT_EQ(removeTree(dir_), 0); }

  std::string dir_;
  ArchiveTools tools_;
};

// Names and archive paths that a shell would act on are only names here: they
// are archived and unpacked as they are, and nothing they say is run.
TEST_F(ArchiveTest, HostileNamesRoundTripAndRunNothing) {
  const std::string src = dir_ + "/src";
  const std::string more = dir_ + "/more";
  ASSERT_EQ(makeDirectory(src, 0700), 0);
  ASSERT_EQ(makeDirectory(src + "/committed", 0700), 0);
  ASSERT_EQ(makeDirectory(more, 0700), 0);
  // A name holds no "/"; what a shell would make of these lands in the working
  // directory.
  const std::vector<std::string> names = {"it's", "a \"b\"", "x; touch qcr-pwned",
                                          "$(touch qcr-pwned)", "-rf", "committed/c`id`"};
  for (const std::string& n : names) ASSERT_EQ(writeFile(src + "/" + n, "data:" + n, 0600, false), 0);
  ASSERT_EQ(writeFile(more + "/qcr.state", "state", 0600, false), 0);

  for (const char* suffix : {".tar", ".tar.gz"}) {
    SCOPED_TRACE(suffix);
    const std::string archive = dir_ + "/a'b; $(touch qcr-pwned) \"" + suffix;
    const bool gz = std::string(suffix) == ".tar.gz";
    ASSERT_EQ(createArchive(tools_, archive, {{src, names}, {more, {"qcr.state"}}}, gz), 0);
    EXPECT_EQ(createArchive(tools_, archive, {{src, names}}, gz), EEXIST);  // never overwritten
    const std::string out = dir_ + std::string("/out") + suffix;
    ASSERT_EQ(makeDirectory(out, 0700), 0);
    ASSERT_EQ(extractArchive(tools_, archive, out), 0);
    for (const std::string& n : names) {
      std::string data;
      ASSERT_EQ(readFile(out + "/" + n, &data), 0) << n;
      EXPECT_EQ(data, "data:" + n);
    }
    std::string state;
    ASSERT_EQ(readFile(out + "/qcr.state", &state), 0);
    EXPECT_EQ(state, "state");
  }
  EXPECT_FALSE(fileExists("qcr-pwned"));
}

TEST_F(ArchiveTest, MissingProgramsAndBadArchivesFailCleanly) {
  const std::string src = dir_ + "/src";
  ASSERT_EQ(makeDirectory(src, 0700), 0);
  ASSERT_EQ(writeFile(src + "/f", "x", 0600, false), 0);
  const std::string gz = dir_ + "/a.tar.gz";
  ASSERT_EQ(createArchive(tools_, gz, {{src, {"f"}}}, true), 0);

  // No decompressor: a compressed archive cannot be read, a plain one still can.
  ArchiveTools noGunzip = tools_;
  noGunzip.gunzip.clear();
  EXPECT_EQ(extractArchive(noGunzip, gz, src), ENOENT);
  ArchiveTools noGzip = tools_;
  noGzip.gzip.clear();
  EXPECT_EQ(createArchive(noGzip, dir_ + "/b.tar.gz", {{src, {"f"}}}, true), ENOENT);
  EXPECT_FALSE(fileExists(dir_ + "/b.tar.gz"));

  // A missing member fails the archive, and leaves none behind.
  EXPECT_EQ(createArchive(tools_, dir_ + "/c.tar", {{src, {"f", "missing"}}}, false), EIO);
  EXPECT_FALSE(fileExists(dir_ + "/c.tar"));
  // Junk is no archive.
  ASSERT_EQ(writeFile(dir_ + "/junk.tar.gz", "not gzip", 0600, false), 0);
  EXPECT_EQ(extractArchive(tools_, dir_ + "/junk.tar.gz", src), EIO);
  EXPECT_EQ(extractArchive(tools_, dir_ + "/absent.tar", src), ENOENT);

  ArchiveCandidates none;
  none.tar = dir_ + "/no-tar";
  none.gzip = {dir_ + "/no-gzip", tools_.gzip};
  ArchiveTools found;
  EXPECT_EQ(findArchiveTools(none, &found), ENOENT);
  EXPECT_EQ(found.gzip, tools_.gzip);  // the second candidate
  EXPECT_EQ(pipelineText({{"a", "b"}, {"c"}}, "in", "out"), "a b < in | c > out");
}

}  // namespace
}  // namespace qcr
