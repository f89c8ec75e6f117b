// The file wrappers' refusals: files this process creates, appends to or
// overwrites are never reached through a symbolic link, and directory syncs.
#include "basic/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "basic/log.h"
#include "basic/overwrite.h"
#include "basic/tempdir.h"

namespace qcr {
namespace {

class FilesTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(makeTempDir("qcr-files-", &dir_), 0); }
  void TearDown() override { (void)removeTree(dir_); }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  std::string text(const std::string& name) const {
    std::string data;
    return readFile(path(name), &data) == 0 ? data : "<unreadable>";
  }

  std::string dir_;
};

// Each way of writing a file meets a link planted at its name: it fails with
// ELOOP, and the file the link names keeps its content.
TEST_F(FilesTest, WritesNeverFollowAPlantedLink) {
  ASSERT_EQ(writeFile(path("outside"), "precious\n", 0600, false), 0);
  ASSERT_EQ(makeSymlink(path("outside"), path("link")), 0);
  File file;
  EXPECT_EQ(file.openWrite(path("link"), 0600), ELOOP);
  EXPECT_EQ(writeFile(path("link"), "x", 0600, true), ELOOP);
  EXPECT_EQ(file.openAppend(path("link"), 0600), ELOOP);
  EXPECT_EQ(overwriteFile(path("link"), "overwritten", 0600), ELOOP);
  EXPECT_EQ(traceOpen("test", path("link")), ELOOP);
  EXPECT_FALSE(traceIsOn());
  EXPECT_EQ(text("outside"), "precious\n");

  // A link to nothing must not create its target either.
  ASSERT_EQ(makeSymlink(path("created"), path("dangling")), 0);
  EXPECT_EQ(overwriteFile(path("dangling"), "x", 0600), ELOOP);
  EXPECT_EQ(writeFile(path("dangling"), "x", 0600, false), ELOOP);
  EXPECT_FALSE(fileExists(path("created")));
}

// A message is formatted only for a reader: the console at its verbosity, or the
// trace file while it is open. Records logged while the file is open reach it.
TEST_F(FilesTest, TraceRecordsAreWrittenExactlyWhileTheFileIsOpen) {
  const int savedVerbosity = verbosity.exchange(0);
  const int savedLevel = traceLevel.exchange(4);
  EXPECT_FALSE(qcrLogShown(4));
  ASSERT_EQ(traceOpen("test", path("trace")), 0);
  EXPECT_TRUE(qcrLogShown(4));
  EXPECT_FALSE(qcrLogShown(5));
  qcrLog(4, "kept %d", 1);
  qcrLog(5, "too detailed");
  traceClose();
  EXPECT_FALSE(qcrLogShown(4));
  qcrLog(4, "dropped");
  verbosity = 5;
  EXPECT_TRUE(qcrLogShown(5));
  const std::string trace = text("trace");
  EXPECT_NE(trace.find("test: kept 1\n"), std::string::npos) << trace;
  EXPECT_EQ(trace.find("too detailed"), std::string::npos);
  EXPECT_EQ(trace.find("dropped"), std::string::npos);
  verbosity = savedVerbosity;
  traceLevel = savedLevel;
}

TEST_F(FilesTest, AppendsOnlyToRegularFiles) {
  File file;
  ASSERT_EQ(file.openAppend(path("log"), 0600), 0);
  size_t put = 0;
  ASSERT_EQ(file.write("one\n", 4, &put), 0);
  ASSERT_EQ(file.openAppend(path("log"), 0600), 0);
  ASSERT_EQ(file.write("two\n", 4, &put), 0);
  ASSERT_EQ(file.close(), 0);
  EXPECT_EQ(text("log"), "one\ntwo\n");
  // A fifo without a reader would block an ordinary open for writing.
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(file.openAppend(path("fifo"), 0600), ENXIO);
  EXPECT_EQ(file.openAppend(dir_, 0600), EISDIR);
  EXPECT_FALSE(file.isOpen());
}

TEST_F(FilesTest, OverwriteCreatesAndKeepsTheTail) {
  ASSERT_EQ(overwriteFile(path("state"), "long content", 0600), 0);
  ASSERT_EQ(overwriteFile(path("state"), "short", 0600), 0);
  EXPECT_EQ(text("state"), "shortcontent");
}

// A kept file is written in place like overwriteFile, refuses a link, and is made
// anew when it was removed meanwhile.
TEST_F(FilesTest, AKeptFileFollowsItsPath) {
  KeptFile kept(path("kept"), 0600);
  ASSERT_EQ(kept.overwrite("long content"), 0);
  ASSERT_EQ(kept.overwrite("short"), 0);
  EXPECT_EQ(text("kept"), "shortcontent");
  ASSERT_EQ(removeFile(path("kept")), 0);
  ASSERT_EQ(kept.overwrite("again"), 0);
  EXPECT_EQ(text("kept"), "again");
  KeptFile linked(path("link2"), 0600);
  ASSERT_EQ(symlink(path("kept").c_str(), path("link2").c_str()), 0);
  EXPECT_EQ(linked.overwrite("x"), ELOOP);
  EXPECT_EQ(text("kept"), "again");
}

// Whether a directory's entries reached the disk cannot be observed without a
// crash; what can be checked is that the sync runs on a directory and fails
// cleanly on anything else.
TEST_F(FilesTest, SyncsDirectories) {
  EXPECT_EQ(syncDirectory(dir_), 0);
  EXPECT_EQ(syncDirectory(path("missing")), ENOENT);
  ASSERT_EQ(writeFile(path("plain"), "", 0600, false), 0);
  EXPECT_EQ(syncDirectory(path("plain")), ENOTDIR);

  const struct {
    const char* path;
    const char* parent;
  } cases[] = {{"/a/b/c", "/a/b"}, {"/a", "/"}, {"a/b", "a"}, {"a", "."}, {"", "."}};
  for (const auto& c : cases) EXPECT_EQ(parentDirectory(c.path), c.parent) << c.path;
}

}  // namespace
}  // namespace qcr
