// Session initialisation: the port, the security mode file, the local node, the
// directories of the test layout and the prologue's failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>

#include "basic/files.h"
#include "qcr/client/client.h"
#include "qcr/client/local_node.h"
#include "qcr/client/release_level.h"
#include "qcr/cmd/context.h"
#include "qcr/cmd/options.h"
#include "qcr/cmd/prologue.h"
#include "qcr/cmd/handlers.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "testing/run_program.h"
#include "testing/scripted_server.h"

namespace qcr {
namespace {

class Recorder final : public SessionCheckRecord {
 public:
  void recordError(int code, const std::string& message, const std::string& entity,
                   int severity) override {
    errors += std::to_string(code) + " " + message + " " + entity + " " +
              std::to_string(severity) + "\n";
  }
  void recordSuccess(const std::string& entity, const std::string&) override {
    successes += entity + "\n";
  }
  std::string errors, successes;
};

class ClientSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = dir_.file("base");
    setenv("QCR_BASE", base_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("QCR_BASE");
    unsetenv("QCR_PORT");
  }
  test::ScopedTempDir dir_;
  std::string base_;
  Session session_;
};

TEST_F(ClientSessionTest, PortComesFromTheOptionThenQcrPortThenTheBuiltInPort) {
  EXPECT_EQ(chooseServerPort(-1), 1191);
  EXPECT_EQ(chooseServerPort(0), 1191);
  setenv("QCR_PORT", "7000", 1);
  EXPECT_EQ(chooseServerPort(5), 5);
  EXPECT_EQ(chooseServerPort(0), 7000);
}

TEST_F(ClientSessionTest, TheSecurityModeFileHoldsANativeIntegerOrCountsAsZero) {
  const struct {
    std::string content;
    int mode;
  } cases[] = {{std::string("\1\0\0\0", 4), 1}, {std::string(4, '\0'), 0},
               {std::string("\1\0\0", 3), 0}, {std::string("\2\0\0\0\7", 5), 2}};
  const std::string path = dir_.file("qcr.noauth");
  for (const auto& c : cases) {
    ASSERT_EQ(writeFile(path, c.content, 0644, false), 0);
    EXPECT_EQ(readSecurityMode(path), c.mode) << c.content.size();
  }
  EXPECT_EQ(readSecurityMode(dir_.file("missing")), 0);
}

TEST_F(ClientSessionTest, TheLocalNodeIsTheEntryOnThisMachineAndThePort) {
  Session& s = session_;
  s.nodeList = {{1, 0, "a", "127.0.0.1", 7001}, {2, 0, "b", "127.0.0.1", 7002},
                {3, 0, "c", "127.0.0.2", 7002}};
  const std::vector<IpAddress16> local = {ipv4Address(0x7F000001, 0).ip};
  for (const auto& [port, id] : {std::pair{7002, 2}, {7001, 1}, {7003, -1}}) {
    s.serverPort = port;
    ASSERT_EQ(settleLocalNode(local, &s), 0);
    EXPECT_EQ(s.localNodeId, id) << port;
    EXPECT_EQ(s.localNodeAddr, id > 0 ? "127.0.0.1" : "");
    EXPECT_EQ(s.nodeAddrById.size(), 3u);
  }
  s.nodeList.push_back({4, 0, "d", "127.0.0.1", 7001});
  s.serverPort = 7001;
  EXPECT_DEATH((void)settleLocalNode(local, &s), "assertion 'qcrNodeId == iter->id' failed");
}

// Only an entry on the server port can name this machine, so only then is the
// platform asked for the interface list.
TEST_F(ClientSessionTest, InterfaceAddressesAreFetchedOnlyWhenAnEntryUsesTheServerPort) {
  session_.nodeList = {{1, 0, "a", "127.0.0.1", 7001}, {2, 0, "b", "127.0.0.1", 7002}};
  const std::vector<IpAddress16>* addresses = nullptr;
  session_.serverPort = 7003;
  ASSERT_EQ(localAddressesFor(session_, &addresses), 0);
  ASSERT_NE(addresses, nullptr);
  EXPECT_TRUE(addresses->empty());
  const std::vector<IpAddress16>* all = nullptr;
  ASSERT_EQ(localAddresses(&all), 0);
  session_.serverPort = 7002;
  ASSERT_EQ(localAddressesFor(session_, &addresses), 0);
  EXPECT_EQ(addresses, all);
  const IpAddress16 loopback = ipv4Address(0x7F000001, 0).ip;
  EXPECT_NE(std::find(all->begin(), all->end(), loopback), all->end());
}

TEST_F(ClientSessionTest, DirectoriesAreCheckedCreatedOrMadeAfresh) {
  Recorder rec;
  EXPECT_EQ(clientIoInit(&session_, 0, kCreateNone, true, &rec), E_NO_DIR);
  EXPECT_EQ(rec.errors, "811 QCR directory or subdirectory missing " + base_ + " 3\n");
  ASSERT_EQ(clientIoInit(&session_, 0, kCreateMissing, true), 0);
  for (const char* dir : {"", "/committed", "/cached"}) EXPECT_TRUE(isDirectory(base_ + dir));
  EXPECT_TRUE(session_.nodeList.empty());
  ASSERT_EQ(writeFile(base_ + "/qcr.nodes", "1,0,127.0.0.1,7001,a\n2,0,127.0.0.2,,b\n", 0644,
                      false), 0);
  ASSERT_EQ(writeFile(base_ + "/qcr.disks", "5,0,disk5\n", 0644, false), 0);
  ASSERT_EQ(clientIoInit(&session_, 7001, kCreateNone, true), 0);
  EXPECT_EQ(session_.localNodeId, 1);
  EXPECT_EQ(session_.nodeList[1].port, 1191);  // an empty port field is the built-in port
  EXPECT_TRUE(session_.diskListValid);
  EXPECT_EQ(session_.paths.committedCert, base_ + "/qcr.pem");
  EXPECT_EXIT((void)clientIoInit(&session_, 0, kCreateNew, true), ::testing::ExitedWithCode(1),
              "already exists");
  ASSERT_EQ(clientIoInit(&session_, 0, kCreateNew + 1, true), 0);
  EXPECT_FALSE(fileExists(base_ + "/qcr.nodes"));
  EXPECT_TRUE(isDirectory(base_ + "/committed"));
}

// An empty port field means the built-in port for every reader: a tool on another
// port finds no entry of its own in a list of this machine's nodes on that port,
// instead of finding every one of them.
TEST_F(ClientSessionTest, EmptyPortFieldsMeanTheBuiltInPortWhateverPortTheToolUses) {
  ASSERT_EQ(clientIoInit(&session_, 0, kCreateMissing, true), 0);
  ASSERT_EQ(writeFile(base_ + "/qcr.nodes", "1,0,127.0.0.1,,a\n2,0,127.0.0.1,,b\n", 0644, false),
            0);
  setenv("QCR_PORT", "1195", 1);
  ASSERT_EQ(clientIoInit(&session_, 0, kCreateNone, true), 0);
  EXPECT_EQ(session_.serverPort, 1195);
  EXPECT_EQ(session_.localNodeId, -1);
  EXPECT_EQ(session_.nodeList.at(1).port, 1191);
}

TEST_F(ClientSessionTest, ThePrologueStopsWithoutDirectoriesOrNodes) {
  const CommandLine cmd;
  ProgramSettings settings;
  Client client;
  CommandContext ctx{cmd, settings, client};
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(CommandPrologue(ctx, false), E_NO_DIR);
  ASSERT_EQ(clientIoInit(&session_, 0, kCreateMissing, true), 0);
  ASSERT_EQ(writeFile(base_ + "/qcr.nodes", "", 0644, false), 0);
  EXPECT_EQ(CommandPrologue(ctx, false), E_NODES_FILE);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "qcrio initialization failed (err 811)\nqcr node list missing or empty\n");
}

// A file that shrinks after its size was announced: the upload stops on the
// sending side with a final error that says what happened, and no other server
// is asked (the server here would otherwise see a second connection).
TEST_F(ClientSessionTest, AFileThatShrinksDuringFputFailsAtOnceAndSaysSo) {
  const std::string upload = dir_.file("upload");
  ASSERT_EQ(writeFile(upload, "content", 0644, false), 0);
  // What came after the uid_fput, until the client closed, handed over once the
  // script is done with the connection.
  std::promise<std::vector<int>> seen;
  test::ScriptedServer server([&](Connection& conn, int) {
    if (test::readRequest(conn).type != MSG_TYPE_FPUT) return;
    ASSERT_EQ(writeFile(upload, "con", 0644, false), 0);
    test::sendReply(conn, MSG_TYPE_UID_FPUT, UidFputReply{{3, 1, 9}, true});
    std::vector<int> after;
    for (int type = 0; type != -1 && after.size() < 4;) {
      after.push_back(type = test::readRequest(conn).type);
    }
    seen.set_value(after);
  });
  ASSERT_EQ(clientIoInit(&session_, 0, kCreateMissing, true), 0);
  const std::string nodes = "1,0,127.0.0.1," + std::to_string(server.port()) + ",n\n";
  ASSERT_EQ(writeFile(base_ + "/qcr.nodes", nodes, 0644, false), 0);
  ASSERT_EQ(writeFile(base_ + "/qcr.noauth", std::string("\1\0\0\0", 4), 0644, false), 0);
  const CommandLine cmd;
  ProgramSettings settings;
  Client client;
  CommandContext ctx{cmd, settings, client};
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(FputCommand(ctx, "f", upload, -1, -1), EINVAL);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "'" + upload + "' changed size while it was sent (7 bytes before, 3 now)\n"
            "fput failed: Invalid argument (err 22)\n");
  EXPECT_EQ(server.connections(), 1);
  std::future<std::vector<int>> after = seen.get_future();
  ASSERT_EQ(after.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(after.get(), (std::vector<int>{MSG_TYPE_FDATA, -1}));  // never an fcrc
}

TEST(ReleaseLevel, IsReadFromTheClusterConfigurationLine) {
  const test::ScopedTempDir dir;
  const std::string path = dir.file("vysdrfs");
  struct Case {
    std::string text;
    int level;
  };
  const std::string longLine(200, 'x');
  const Case cases[] = {
      {"%%home%%:70_VYFSCFG:a:b:minReleaseLevel:1500\n", 1500},
      {"other\n%%home%%:70_VYFSCFG:qcr:x:minReleaseLevel:1499 rest\n", 1499},
      {"%%home%%:70_VYFSCFG:a:minReleaseLevel:1500\n", 0},     // the key must be third
      {" %%home%%:70_VYFSCFG:a:b:minReleaseLevel:1500\n", 0},  // not at a line's start
      // A line longer than one piece: its continuation is never looked at.
      {longLine + "%%home%%:70_VYFSCFG:a:b:minReleaseLevel:1500\n", 0},
      {"", 0},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(writeFile(path, c.text, 0644, false), 0);
    EXPECT_EQ(readMinReleaseLevel(path), c.level) << c.text;
  }
  EXPECT_EQ(readMinReleaseLevel(dir.file("missing")), 0);
}

}  // namespace
}  // namespace qcr
