// Committed file names, the directory scan, and the rename and create rules.
#include "qcr/data/committed_dir.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "basic/files.h"
#include "qcr/data/file_names.h"
#include "qcr/data/file_ops.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

class DirTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return dir_.file(name); }
  void touch(const std::string& name, const std::string& text = "") {
    ASSERT_EQ(writeFile(path(name), text, 0600, false), 0);
  }
  test::ScopedTempDir dir_;
};

TEST(CommittedName, WellAndIllFormedNames) {
  const struct {
    const char* fileName;
    bool ok;
    const char* name;
    int32_t objId, version;
    uint32_t crc;
    Uid uid;
  } cases[] = {
      {"a.3.7.1f.0a0b0c", true, "a", 3, 7, 0x1F, {10, 11, 12}},
      {"qcr%2Enodes.1.4.FFFFFFFF.000000", true, "qcr.nodes", 1, 4, 0xFFFFFFFF, {}},
      {"100%25%2E.16.1.0.010101", true, "100%.", 16, 1, 0, {1, 1, 1}},
      {"a.3.7.1f", false},                 // four fields
      {"a.3.7.1f.0a0b0c.x", false},        // six fields
      {"a.3.7.1g.0a0b0c", false},          // crc not hexadecimal
      {"a.3..1f.0a0b0c", false},           // version empty
      {"a.-3.7.1f.0a0b0c", false},         // object id not digits
      {"a.3.7.1f.0a0b0c0d", false},        // uid with a trailing byte
      {"a.3.7.100000000.000000", false},   // crc wider than 32 bits
      {"a.2147483648.7.1f.000000", false}, // object id beyond 32 bits
      {"a%2e.3.7.1f.000000", false},       // not the canonical stem
      {"a%.3.7.1f.000000", false},
  };
  for (const auto& c : cases) {
    CommittedFile f;
    ASSERT_EQ(parseCommittedName(c.fileName, &f), c.ok) << c.fileName;
    if (!c.ok) continue;
    EXPECT_EQ(f.name, c.name);
    EXPECT_EQ(f.objId, c.objId);
    EXPECT_EQ(f.version, c.version);
    EXPECT_EQ(f.crc, c.crc);
    EXPECT_EQ(f.uid, c.uid);
    EXPECT_EQ(f.suffix, std::string(c.fileName).substr(std::string(c.fileName).find('.') + 1));
  }
}

TEST(RepositoryName, TheNamesClientsMayGiveFiles) {
  using std::string_literals::operator""s;
  const std::string longest(kMaxFileNameStem, 'x');
  for (const std::string& name :
       {"a"s, "qcr.nodes"s, ".."s, "100% sure"s, "\xc3\xa9t\xc3\xa9"s, longest}) {
    EXPECT_TRUE(isRepositoryFileName(name)) << name;
  }
  const std::string dots(kMaxFileNameStem / 3 + 1, '.');  // each dot takes three bytes of stem
  for (const std::string& name :
       {""s, "a/b"s, "/"s, "a\nb"s, "a\tb"s, "\x7f"s, "a\0b"s, longest + "x", dots}) {
    EXPECT_FALSE(isRepositoryFileName(name)) << name;
  }
}

TEST(RepositoryName, SpecialFilesAreKnownByTheirBeginnings) {
  for (const char* name : {"_", "_x", "genKey", "genKey.1", "proxy-server.conf", "keystone",
                           "openrc.sh", "SSSD_CONF"}) {
    EXPECT_TRUE(isSpecialQcrFile(name)) << name;
  }
  for (const char* name : {"", "x_", "genkey", "proxy", "Keystone", "my_openrc", "qcr.nodes"}) {
    EXPECT_FALSE(isSpecialQcrFile(name)) << name;
  }
}

TEST(CommittedName, BuiltNamesParseBack) {
  for (const char* name : {"a", "qcr.nodes", "x.y.z", "50%", "%2E", ""}) {
    CommittedFile f;
    const std::string fileName = committedFileName(name, 17, 3, 0xABC, {1, 2, 300});
    ASSERT_TRUE(parseCommittedName(fileName, &f)) << fileName;
    EXPECT_EQ(f.name, name);
  }
  EXPECT_EQ(committedFileName("qcr.nodes", 1, 2, 0x1F, {10, 11, 12}), "qcr%2Enodes.1.2.1f.0a0b0c");
  EXPECT_EQ(reservedFileName(kNodesFileObjId), "qcr.nodes");
  EXPECT_EQ(reservedObjId("qcr.disks"), kDisksFileObjId);
  EXPECT_EQ(reservedObjId("user"), 0);
}

TEST_F(DirTest, ReadCommittedDirKeepsWellFormedNamesOnly) {
  for (const char* n : {"a.3.7.1f.0a0b0c", "a.3.7.1f", "a.3.7.1f.0a0b0c.tmp.12.34",
                        "b.16.1.0.010203", "junk"})
    touch(n);
  std::vector<CommittedFile> files;
  ASSERT_EQ(readCommittedDir(dir_.path(), &files), 0);
  std::vector<std::string> names;
  for (const CommittedFile& f : files) names.push_back(f.fileName);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a.3.7.1f.0a0b0c", "b.16.1.0.010203"}));
  EXPECT_EQ(readCommittedDir(path("absent"), &files), 2);
}

// Replace moves over an existing target; keep leaves an existing target alone
// (dropping the source) and moves to a free name.
TEST_F(DirTest, RenameRules) {
  const struct {
    int (*rename)(const std::string&, const std::string&);
    const char* target;
    const char* content;
  } cases[] = {{replaceRename, "dst", "new"}, {keepRename, "dst", "old"}, {keepRename, "free", "new"}};
  std::string text;
  for (const auto& c : cases) {
    touch("src", "new");
    touch("dst", "old");
    EXPECT_EQ(c.rename(path("src"), path(c.target)), 0);
    ASSERT_EQ(readFile(path(c.target), &text), 0);
    EXPECT_EQ(text, c.content) << c.target;
    EXPECT_FALSE(fileExists(path("src")));
  }
  // Failures return the system's code.
  EXPECT_EQ(replaceRename(path("absent"), path("dst")), 2);
  EXPECT_EQ(keepRename(path("absent"), path("dst")), 2);  // the removal's result
  EXPECT_EQ(createDirectory(path("d"), 0755), 0);
  EXPECT_TRUE(isDirectory(path("d")));
  EXPECT_EQ(createDirectory(path("d"), 0755), 17);
  EXPECT_DEATH((void)createDirectory("", 0755), "assertion '_path.length\\(\\)' failed");
}

TEST_F(DirTest, ReplaceFileLeavesNoTemporary) {
  touch("f", "old");
  ASSERT_EQ(replaceFile(path("f"), "new", 0644), 0);
  std::vector<std::string> names;
  ASSERT_EQ(listDirectory(dir_.path(), &names), 0);
  EXPECT_EQ(names, std::vector<std::string>{"f"});
  // Unwritable temporary: the old content stays and the error comes back.
  ASSERT_EQ(makeDirectory(tempFileName(path("f")), 0700), 0);
  EXPECT_EQ(replaceFile(path("f"), "newer", 0644), 21);  // EISDIR
  std::string text;
  ASSERT_EQ(readFile(path("f"), &text), 0);
  EXPECT_EQ(text, "new");
}

}  // namespace
}  // namespace qcr
