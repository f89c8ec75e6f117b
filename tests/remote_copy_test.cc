// qcrcp against a qcrd server: a large file there and back with its bytes, bits
// and times; what is refused and with which words; a copy cut off halfway; and
// destinations sent by hand that must stay where they are meant to.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "basic/file_status.h"
#include "basic/files.h"
#include "qcr/client/attempt.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/remote.h"
#include "qcr/transfer/transfer.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

using test::LocalCluster;
using test::ProgramResult;
using test::ScopedTempDir;
using test::TestBase;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kBigFile = 8 * 1048576 + 3;
#else
constexpr size_t kBigFile = 100 * 1048576 + 3;
#endif

class RemoteCopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(cluster_.startServer(0, {"--allow-remote"}));
    ASSERT_NO_FATAL_FAILURE(cluster_.prepareToolBase(base_, 1));
  }
  ProgramResult qcrcp(const std::vector<std::string>& args) const {
    return base_.run("qcrcp", args, 120000);
  }
  void writeRandom(const std::string& path, size_t size) const {
    std::string data(size, '\0');
    std::mt19937_64 random(size);
    for (char& c : data) c = static_cast<char>(random());
    ASSERT_EQ(writeFile(path, data, 0600, false), 0);
  }
  // The answer to a cp_to of content announced for destination, sent by hand.
  int copyByHand(const std::string& destination, const std::string& content) const {
    FileAnnouncement ann{"f", static_cast<int64_t>(content.size()), 0644, 0, 0, 0, 0,
                         destination};
    const std::string source = dir_.file("hand");
    if (writeFile(source, content, 0644, false) != 0) return -1;
    std::unique_ptr<ConnImplementation> conn;
    int rc = connect(cluster_.address(0), ConnectParams{}, &conn);
    if (rc == 0) rc = conn->send(MSG_TYPE_CP_TO, encodeBody(ann));
    bool local = false;
    // A refused announcement may close the connection before the file is sent.
    if (rc == 0) (void)sendFile(*conn, source, ann.size, &local);
    Message reply;
    if (rc == 0) rc = conn->receive(&reply);
    if (rc != 0) return rc;
    return reply.type == MSG_TYPE_FAILED ? failedAnswerError(reply) : reply.type;
  }

  LocalCluster cluster_{1};
  TestBase base_;
  ScopedTempDir dir_{"qcr-copy-"};
};

TEST_F(RemoteCopyTest, ABigFileGoesThereAndBackUnchanged) {
  const std::string source = dir_.file("big");
  ASSERT_NO_FATAL_FAILURE(writeRandom(source, kBigFile));
  FileStatus status;
  status.mode = 0640;
  status.atime = 1000000000;
  status.mtime = 1200000000;
  ASSERT_EQ(applyFileStatus(source, status, false), 0);
  // Each copy is looked at before it is read: reading moves its access time.
  auto expectKept = [](const std::string& path) {
    FileStatus kept;
    ASSERT_EQ(linkStatus(path, &kept), 0);
    EXPECT_EQ(kept.mode, 0640u) << path;
    EXPECT_EQ(kept.mtime, 1200000000) << path;
    EXPECT_EQ(kept.atime, 1000000000) << path;
  };
  ProgramResult r = qcrcp({"-p", source, "node1:" + dir_.file("there")});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "");
  expectKept(dir_.file("there"));
  r = qcrcp({"root@node1:" + dir_.file("there"), dir_.file("back")});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  expectKept(dir_.file("back"));
  std::string sent, back;
  ASSERT_EQ(readFile(source, &sent), 0);
  ASSERT_EQ(readFile(dir_.file("back"), &back), 0);
  EXPECT_TRUE(sent == back);
  // Several sources into a directory, by address; nothing else is left there.
  ASSERT_EQ(makeDirectory(dir_.file("in"), 0755), 0);
  ASSERT_EQ(writeFile(dir_.file("small"), "small\n", 0644, false), 0);
  r = qcrcp({dir_.file("small"), dir_.file("back"), "127.0.0.1:" + dir_.file("in")});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  std::vector<std::string> names;
  ASSERT_EQ(listDirectory(dir_.file("in"), &names), 0);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"back", "small"}));
}

TEST_F(RemoteCopyTest, WhatCannotBeCopiedIsRefusedInWords) {
  ASSERT_EQ(makeDirectory(dir_.file("dir"), 0755), 0);
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0644), 0);
  ProgramResult r = qcrcp({dir_.file("dir"), "node1:" + dir_.file("t")});
  EXPECT_EQ(r.err, dir_.file("dir") + ": not a regular file\n");
  EXPECT_EQ(r.exitCode, EINVAL);
  r = qcrcp({dir_.file("fifo"), "node1:" + dir_.file("t")});
  EXPECT_EQ(r.err, dir_.file("fifo") + ": not a regular file\n");
  r = qcrcp({dir_.file("missing"), "node1:" + dir_.file("t")});
  EXPECT_EQ(r.err, "qcrcp: " + dir_.file("missing") + ": No such file or directory (err 2)\n");
  EXPECT_EQ(r.exitCode, ENOENT);
  // On the node: a directory, a fifo and a missing file are refused there.
  r = qcrcp({"node1:" + dir_.file("dir"), dir_.file("t")});
  EXPECT_EQ(r.err, "qcrcp: node1 refused: Is a directory (err 21)\n");
  r = qcrcp({"node1:" + dir_.file("fifo"), dir_.file("t")});
  EXPECT_EQ(r.err, "qcrcp: node1 refused: Invalid argument (err 22)\n");
  r = qcrcp({"node1:" + dir_.file("missing"), dir_.file("t")});
  EXPECT_EQ(r.err, "qcrcp: node1 refused: No such file or directory (err 2)\n");
  EXPECT_EQ(r.exitCode, ENOENT);
  r = qcrcp({dir_.file("dir"), dir_.file("t")});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("local-to-local copy not supported"), std::string::npos) << r.err;
  std::vector<std::string> names;
  ASSERT_EQ(listDirectory(dir_.path(), &names), 0);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"dir", "fifo"}));
}

TEST_F(RemoteCopyTest, DestinationsStayWhereTheyAreMeant) {
  // Only absolute paths without "." or ".." parts.
  EXPECT_EQ(copyByHand("relative/f", "x"), EINVAL);
  EXPECT_EQ(copyByHand(dir_.path() + "/../escaped", "x"), EINVAL);
  EXPECT_EQ(copyByHand(dir_.path() + "/./f", "x"), EINVAL);
  EXPECT_FALSE(fileExists(dir_.path() + "/../escaped"));
  // A symbolic link at the destination is replaced, not written through.
  ASSERT_EQ(writeFile(dir_.file("victim"), "victim\n", 0644, false), 0);
  ASSERT_EQ(makeSymlink(dir_.file("victim"), dir_.file("link")), 0);
  EXPECT_EQ(copyByHand(dir_.file("link"), "new\n"), MSG_TYPE_OK);
  EXPECT_EQ(test::readFileText(dir_.file("victim")), "victim\n");
  EXPECT_EQ(test::readFileText(dir_.file("link")), "new\n");
  FileStatus status;
  ASSERT_EQ(linkStatus(dir_.file("link"), &status), 0);
  EXPECT_TRUE(status.regular);
}

TEST_F(RemoteCopyTest, ACopyCutOffLeavesNothingUnderTheTargetName) {
  const std::string source = dir_.file("big");
  ASSERT_NO_FATAL_FAILURE(writeRandom(source, kBigFile));
  ASSERT_EQ(makeDirectory(dir_.file("to"), 0755), 0);
  ProgramResult r;
  std::thread copier([&] { r = qcrcp({source, "node1:" + dir_.file("to/target")}); });
  // Wait (bounded) until the server writes the file, then kill it.
  bool writing = false;
  for (int i = 0; i < 2000 && !writing; ++i) {
    std::vector<std::string> names;
    writing = listDirectory(dir_.file("to"), &names) == 0 && !names.empty();
    if (!writing) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  cluster_.kill(0);
  copier.join();
  EXPECT_TRUE(writing);
  EXPECT_NE(r.exitCode, 0);
  EXPECT_FALSE(fileExists(dir_.file("to/target")));
}

}  // namespace
}  // namespace qcr
