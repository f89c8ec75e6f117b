// qcrd and its files: the base directory must be the running user's own, links
// planted in it are never followed, and a committed copy damaged on disk is
// replaced from a peer instead of being served.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "basic/files.h"
#include "qcr/client/client.h"
#include "qcr/coding/crc.h"
#include "qcr/data/committed_dir.h"
#include "testing/cluster_fixture.h"

namespace qcr::test {
namespace {

TEST(ServerFiles, TheBaseDirectoryMustBeTheRunningUsersOwn) {
  struct Case {
    const char* what;
    int (*spoil)(const char* path);
  };
  std::vector<Case> cases = {{"writable by others", [](const char* p) { return chmod(p, 0777); }},
                             {"writable by the group", [](const char* p) { return chmod(p, 0775); }}};
  if (geteuid() == 0) {
    cases.push_back({"another user's", [](const char* p) { return chown(p, 65534, 65534); }});
  }
  for (const Case& k : cases) {
    LocalCluster c(1);
    const std::string base = c.base(0);
    ASSERT_EQ(makeDirectory(base, 0755), 0);
    ASSERT_EQ(k.spoil(base.c_str()), 0) << k.what;
    c.startServer(0, {}, false);
    EXPECT_EQ(c.waitExit(0, 10).exitCode, 1) << k.what;
    const std::string log = readFileText(base + ".log");
    EXPECT_TRUE(log.starts_with("qcrd: base directory " + base + " is ")) << k.what << ": " << log;
    std::vector<std::string> names;
    ASSERT_EQ(listDirectory(base, &names), 0);
    EXPECT_TRUE(names.empty()) << k.what << ": nothing written";
  }
}

// Links planted where qcrd keeps its trace, its state copies and its pid file:
// the files they name are neither grown, created nor overwritten. qcrd goes on
// without a trace, refuses an init it cannot store, and will not start without
// its pid file.
TEST(ServerFiles, PlantedLinksAreNotFollowed) {
  ScopedTempDir outside;
  ASSERT_EQ(writeFile(outside.file("trace"), "precious", 0644, false), 0);
  {
    LocalCluster c(1);
    const std::string base = c.base(0);
    ASSERT_EQ(makeDirectory(base, 0755), 0);
    ASSERT_EQ(makeSymlink(outside.file("trace"), base + "/qcrd.trace"), 0);
    for (const char* copy : {"/qcr.paxos.1", "/qcr.paxos.2"}) {
      ASSERT_EQ(makeSymlink(outside.file("state"), base + copy), 0);
    }
    c.startServer(0);
    EXPECT_EQ(c.clientOf(0)->INIT(1, makeInitRequest(c.clusterId(), c.nodeList(1), {}, 1)), ELOOP);
    EXPECT_TRUE(c.waitUp(0, 5));
    EXPECT_NE(readFileText(base + ".log").find("qcrd: no trace file"), std::string::npos);
  }
  {
    LocalCluster c(1);
    ASSERT_EQ(makeDirectory(c.base(0), 0755), 0);
    ASSERT_EQ(makeSymlink(outside.file("pid"), c.base(0) + "/qcrd.pid"), 0);
    c.startServer(0, {}, false);
    EXPECT_EQ(c.waitExit(0, 10).exitCode, 1);
  }
  EXPECT_EQ(readFileText(outside.file("trace")), "precious");
  EXPECT_FALSE(fileExists(outside.file("state")));
  EXPECT_FALSE(fileExists(outside.file("pid")));
}

// The committed copy of name on server base, once it is there (waits up to 20 s).
std::string committedCopy(const std::string& base, const std::string& name) {
  for (int i = 0; i < 400; ++i) {
    std::vector<CommittedFile> files;
    if (readCommittedDir(base + "/committed", &files) == 0) {
      for (const CommittedFile& f : files) {
        if (f.name == name) return base + "/committed/" + f.fileName;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ADD_FAILURE() << "no committed " << name << " on " << base;
  return base + "/committed/missing";
}

void damage(const std::string& path) {
  std::string data;
  ASSERT_EQ(readFile(path, &data), 0) << path;
  data[data.size() / 2] ^= 0x01;  // same size: only the checksum tells
  ASSERT_EQ(writeFile(path, data, 0644, false), 0) << path;
}

TEST(ServerFiles, ADamagedCommittedCopyIsReplacedNotServed) {
  LocalCluster c(3);
  c.start();
  ScopedTempDir tmp;
  std::string content;
  for (int i = 0; i < 2000; ++i) content += "line " + std::to_string(i) + "\n";
  ASSERT_EQ(writeFile(tmp.file("doc"), content, 0644, false), 0);
  RequestResult r;
  ASSERT_EQ(c.client()->FPUT("doc", tmp.file("doc"), -1, -1, 0, &r), 0);
  std::string copies[3];
  for (int i = 0; i < 3; ++i) copies[i] = committedCopy(c.base(i), "doc");

  // Two of three copies damaged: each of those servers still answers with the
  // content, from the one good copy, and holds a good copy again afterwards.
  damage(copies[0]);
  damage(copies[1]);
  for (int i : {0, 1}) {
    const std::string got = tmp.file("got" + std::to_string(i));
    ASSERT_EQ(c.clientOf(i, 5)->FGET("doc", got, -1, &r), 0) << "server " << i;
    EXPECT_TRUE(readFileText(got) == content) << "server " << i;
    EXPECT_TRUE(readFileText(committedCopy(c.base(i), "doc")) == content) << "server " << i;
  }

  // No good copy anywhere: an error, never the damaged bytes.
  for (int i = 0; i < 3; ++i) damage(committedCopy(c.base(i), "doc"));
  EXPECT_NE(c.clientOf(2, 5)->FGET("doc", tmp.file("bad"), -1, &r), 0);
  EXPECT_FALSE(fileExists(tmp.file("bad")));
}

}  // namespace
}  // namespace qcr::test
