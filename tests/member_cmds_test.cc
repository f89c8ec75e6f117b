// lsnodes, chnodes, lsdisks, chdisks and config of the real program against a
// local qcrd cluster: servers join and leave through chnodes, a change stopped
// between its steps is completed by running it again, bad lists change nothing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "basic/files.h"
#include "qcr/cmd/member_requests.h"
#include "qcr/cmd/node_change.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/data/file_names.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"
#include "testing/scripted_server.h"

namespace qcr::test {
namespace {

constexpr char kNodesHeader[] = "nodeId:nodeName:diskSlot:version:active:listen:ip:port\n";

class MemberCmdsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(cluster_.start(3));
    ASSERT_NO_FATAL_FAILURE(cluster_.prepareToolBase(base_, 3));
  }

  // Runs vyqcr; the "qcrBaseDir" line of the test layout is checked and removed.
  ProgramResult vyqcr(const std::vector<std::string>& args) const {
    return base_.vyqcr(args, 120000);
  }
  void expectRun(const std::vector<std::string>& args, const std::string& out,
                 const std::string& err, int status) const {
    base_.expectRun(args, out, err, status);
  }

  std::string port(int i) const { return std::to_string(cluster_.address(i).port); }
  std::string newNode(int i) const { return "127.0.0.1:" + port(i); }
  // The -Y line of server i: named nodeN when it was listed at the start.
  std::string row(int i, int slot, int version) const {
    const std::string name = i < 3 ? "node" + std::to_string(i + 1) : "127.0.0.1";
    const bool active = slot >= 0;
    return std::to_string(i + 1) + ":" + name + ":" + std::to_string(slot) + ":" +
           std::to_string(version) + (active ? ":true:true:" : ":false:false:") + newNode(i) +
           "\n";
  }
  std::string firstThree() const { return row(0, 0, 0) + row(1, 1, 0) + row(2, 2, 0); }
  std::string firstThreeTable() const {
    std::string table =
        " node  slot version active listen  address                name\n"
        "----- ----- ------- ------ ------  ---------------------  -----------------------\n";
    char line[200];
    for (int i = 0; i < 3; ++i) {
      snprintf(line, sizeof line, "%5d %5d %7d %6s %6s  %-22s node%d\n", i + 1, i, 0, "true",
               "true", newNode(i).c_str(), i + 1);
      table += line;
    }
    return table;
  }

  // The value of name as server i serves it ("" when it cannot).
  std::string valueAt(int i, const std::string& name) const {
    RequestResult r;
    if (cluster_.clientOf(i)->VGET(&r) != 0) return "";
    const auto it = r.state.values.find(name);
    return it == r.state.values.end() ? "" : it->second.text;
  }
  // The error server i answers a request with (0 for any other answer).
  int answerOf(int i, int type, const std::vector<uint8_t>& body) const {
    std::unique_ptr<ConnImplementation> conn;
    Message reply;
    SeqCommitErrorReply error;
    EXPECT_EQ(cluster_.clientOf(i)->connectServer(i + 1, 2000, &conn), 0);
    if (conn == nullptr || conn->send(type, body) != 0 || conn->receive(&reply) != 0) return -1;
    if (reply.type != MSG_TYPE_SEQ_COMMIT_ERROR) return 0;
    EXPECT_EQ(decodeBody(reply.body.data(), reply.body.size(), &error), 0);
    return error.error;
  }
  int32_t nodeListVersion() const {
    RequestResult r;
    EXPECT_EQ(cluster_.client()->QUERY(&r), 0);
    return r.state.files.at(kNodesFileObjId).version;
  }

  LocalCluster cluster_{5};
  TestBase base_;
};

TEST_F(MemberCmdsTest, ServersJoinThroughChnodesAndLeaveAgain) {
  expectRun({"vput", "a", "one"}, "", "", 0);
  ASSERT_EQ(writeFile(base_.file("f"), "file content", 0644, false), 0);
  expectRun({"fput", "f.txt", base_.file("f")}, "", "", 0);
  expectRun({"lsnodes"}, firstThreeTable(), "", 0);

  expectRun({"chnodes", "-n", "1,2,3," + newNode(3) + "," + newNode(4)}, "", "", 0);
  expectRun({"lsnodes", "-Y"}, kNodesHeader + firstThree() + row(3, 3, 2) + row(4, 4, 2), "", 0);
  // The newcomers caught up with what was there before.
  EXPECT_EQ(valueAt(3, "a"), "one");
  RequestResult r;
  ASSERT_EQ(cluster_.clientOf(4)->FGET("f.txt", base_.file("back"), -1, &r), 0);
  EXPECT_EQ(readFileText(base_.file("back")), "file content");
  // Their votes count: three of five agree without two of the first three.
  cluster_.kill(0);
  cluster_.kill(1);
  expectRun({"vput", "a", "three of five"}, "", "", 0);
  EXPECT_EQ(valueAt(3, "a"), "three of five");
  cluster_.startServer(0);
  cluster_.startServer(1);

  expectRun({"chnodes", "-n", "1,2,3"}, "", "", 0);
  expectRun({"lsnodes", "-Y"}, kNodesHeader + firstThree(), "", 0);
  // A server without a slot refuses changes (and reads); the others serve.
  EXPECT_EQ(answerOf(4, MSG_TYPE_VPUT, encodeBody(VputRequest{{}, "b", "x", -1, -1})),
            E_NOT_ACTIVE);
  EXPECT_EQ(answerOf(4, MSG_TYPE_VGET, {}), E_NOT_ACTIVE);
  expectRun({"vput", "b", "two"}, "", "", 0);
  EXPECT_EQ(valueAt(0, "b"), "two");
}

// A chnodes stopped after any of its steps that change something leaves the
// cluster serving, and running it again with the same list completes the change:
// growing from 3 to 5 nodes and shrinking back, stopped after each step in turn.
TEST_F(MemberCmdsTest, AChangeStoppedBetweenItsStepsIsCompletedByRunningItAgain) {
  // The steps run in this process, on the tool's base directory.
  struct BaseVariable {
    explicit BaseVariable(const std::string& dir) { setenv("QCR_BASE", dir.c_str(), 1); }
    ~BaseVariable() { unsetenv("QCR_BASE"); }
  } baseVariable(base_.path());
  enum Stop { kAfterIntermediateList = 1, kAfterInit, kAfterConfig };
  auto runSteps = [](const std::vector<std::string>& items, int stopAfter) {
    CommandLine cmd;
    ProgramSettings settings;
    Client client;
    CommandContext ctx{cmd, settings, client};
    ASSERT_EQ(CommandPrologue(ctx, true), 0);
    NodeListChange change(client, items, 0, false);
    ASSERT_EQ(change.fetchCurrent(), 0);
    ASSERT_EQ(change.parseNew(), 0);
    change.classify();
    ASSERT_EQ(change.checkQuorum(), 0);
    ASSERT_EQ(change.commitIntermediate(), 0);
    if (stopAfter == kAfterIntermediateList) return;
    ASSERT_EQ(change.initNewServers(), 0);
    if (stopAfter == kAfterInit) return;
    ASSERT_EQ(change.assignAndConfigure(), 0);
  };
  const std::string grow = "1,2,3," + newNode(3) + "," + newNode(4);
  int round = 0;
  for (int stop : {kAfterIntermediateList, kAfterInit, kAfterConfig}) {
    SCOPED_TRACE("stopped after step " + std::to_string(stop));
    const std::string value = std::to_string(++round);
    ASSERT_NO_FATAL_FAILURE(runSteps({"1", "2", "3", newNode(3), newNode(4)}, stop));
    if (stop != kAfterConfig) {
      // Listed, but without slots yet.
      expectRun({"lsnodes", "-Y"}, kNodesHeader + firstThree() + row(3, -1, 0) + row(4, -1, 0), "",
                0);
    }
    expectRun({"vput", "a", value}, "", "", 0);
    expectRun({"chnodes", "-n", grow}, "", "", 0);
    const std::string rows = firstThree() + row(3, 3, 2 * round) + row(4, 4, 2 * round);
    expectRun({"lsnodes", "-Y"}, kNodesHeader + rows, "", 0);
    EXPECT_EQ(valueAt(4, "a"), value);

    // Shrinking, stopped as far: the intermediate list is the current one, there
    // is nobody to initialise, and after the configuration the two are listed
    // without slots until the final list drops them.
    ASSERT_NO_FATAL_FAILURE(runSteps({"1", "2", "3"}, stop));
    expectRun({"vput", "a", value + "b"}, "", "", 0);
    expectRun({"chnodes", "-n", "1,2,3"}, "", "", 0);
    expectRun({"lsnodes", "-Y"}, kNodesHeader + firstThree(), "", 0);
    EXPECT_EQ(valueAt(0, "a"), value + "b");
  }
}

// A server that reports its machine's file system daemon as joined makes the
// quorum check count joined servers only: the other two serve, but one joined
// server of three is no quorum, and the report says so in the daemon's words.
TEST_F(MemberCmdsTest, OneJoinedServerMakesTheCheckCountJoinedServers) {
  cluster_.kill(0);
  cluster_.startServer(0, {"--joined"});
  expectRun({"chnodes", "-n", "1,2,3"}, "",
            "No KLFS quorum in new node set (1 of 3 nodes are joined; 2 are required):\n"
            "  joined node1 (127.0.0.1)\n  up     node2 (127.0.0.1)\n"
            "  up     node3 (127.0.0.1)\n",
            158);
  expectRun({"chnodes", "-Q", "-n", "1,2,3"}, "", "", 0);
}

TEST_F(MemberCmdsTest, BadListsAndMissingQuorumsCommitNothing) {
  expectRun({"chnodes", "-n", "0,3=,9,127.0.0.1:x,1,1"}, "",
            "invalid node id 0\nMissing host in '3='\nUnknwon node id 9\n"
            "Invalid port in '127.0.0.1:x'\nNode id 1 given twice in '1'\n",
            149);
  // Three nodes nobody serves (refused at once), on three loopback addresses.
  const std::string closed = std::to_string(closedPort());
  std::string six = "1,2,3";
  std::string report = "No QCR quorum in new node set (3 of 6 nodes are up; 4 are required):\n"
                       "  up     node1 (127.0.0.1)\n  up     node2 (127.0.0.1)\n"
                       "  up     node3 (127.0.0.1)\n";
  std::string initFailures;
  for (int i = 4; i <= 6; ++i) {
    const std::string ip = "127.0.0." + std::to_string(i - 2);
    six += "," + ip + ":" + closed;
    report += "  down   " + ip + " (" + ip + ")\n";
    initFailures += "initialize " + std::to_string(i) + ":" + ip + "(" + ip + ":" + closed +
                    ") failed (err 61)\n";
  }
  expectRun({"chnodes", "-n", six}, "", report, 158);
  expectRun({"lsnodes", "-Y"}, kNodesHeader + firstThree(), "", 0);
  EXPECT_EQ(nodeListVersion(), 1);
  // Forced, the change goes on and stops where the dead nodes cannot be
  // initialised. The cluster serves on, and a list of the live ones repairs it.
  expectRun({"chnodes", "-F", "-n", six}, "",
            report + "Continuing due to -F override\n" + initFailures +
                "server initialization failed (err 61)\n",
            149);
  expectRun({"lsnodes", "-Y"},
            kNodesHeader + firstThree() + "4:127.0.0.2:-1:0:false:false:127.0.0.2:" + closed +
                "\n5:127.0.0.3:-1:0:false:false:127.0.0.3:" + closed +
                "\n6:127.0.0.4:-1:0:false:false:127.0.0.4:" + closed + "\n",
            "", 0);
  expectRun({"vput", "a", "one"}, "", "", 0);
  expectRun({"chnodes", "-n", "1,2,3"}, "", "", 0);
  expectRun({"lsnodes", "-Y"}, kNodesHeader + firstThree(), "", 0);
  // A configuration no server could run on, sent by hand, is refused.
  ConfigChange change;
  change.setNodes = true;
  change.config.nodes = {{1, 0, 0, true}, {2, 0, 0, true}};
  RequestResult r;
  EXPECT_EQ(cluster_.client()->CONFIG(change, -1, 0, &r), EINVAL);
  expectRun({"vput", "a", "two"}, "", "", 0);
}

TEST_F(MemberCmdsTest, DisksAndTheMinimumQuorumChangeThroughChdisks) {
  const char* header = "disk status type        label                           \n"
                       "----- ------ ----------- --------------------------------\n";
  const std::string d1 = base_.file("d1"), d2 = base_.file("d2"), d3 = base_.file("d3");
  expectRun({"lsdisks"}, header, "", 0);
  expectRun({"chdisks", "-d", d1 + "," + d2, "-m", "2"},
            "qcr shared disks to be initialized:\n1 " + d1 + "\n2 " + d2 + "\n", "", 0);
  EXPECT_TRUE(fileExists(d1) && fileExists(d2));
  expectRun({"lsdisks"},
            std::string(header) + "    1 active file        " + d1 + "\n\nminQuorumNodes: 2\n" +
                "    2 active file        " + d2 + "\n\nminQuorumNodes: 2\n",
            "", 0);
  // d1 leaves, d3 joins under the next id; the stored minimum stays.
  expectRun({"chdisks", "-d", d2 + "," + d3},
            "qcr shared disks to be initialized:\n3 " + d3 + "\n", "", 0);
  expectRun({"lsdisks", "-Y"},
            "diskId:diskLabel:diskType:status:minQuorumNodes\n2:" + d2 + ":file:active:2\n3:" +
                d3 + ":file:active:2\n",
            "", 0);
  expectRun({"chdisks", "-m", "2"}, "", "", 0);
  expectRun({"chdisks", "-m", "3"}, "", "minQuorumNodes must be less than 3\n", 149);
  expectRun({"chdisks", "-d", "a/b,tb1"}, "", "Invalid disk label 'a/b'\n", 149);
  expectRun({"chdisks", "-m", "1"}, "", "", 0);
  expectRun({"config", "-Y"},
            kNodesHeader + firstThree() + "\ndiskId:diskLabel:diskType:status:minQuorumNodes\n2:" +
                d2 + ":file:active:1\n3:" + d3 + ":file:active:1\n",
            "", 0);
  // An empty list drops every disk.
  expectRun({"chdisks", "-d", ""}, "", "", 0);
  expectRun({"config"}, firstThreeTable() + "\n" + header, "", 0);
}

// Status answers as a hostile or broken server may send them: only an ok answer
// with a status that fits 32 bits counts; anything else leaves the node down.
TEST(VerifyQuorum, OnlyWellFormedStatusAnswersCount) {
  auto answer = [](int type, std::string body) {
    return [type, body](Connection& conn, int) {
      (void)readRequest(conn);
      sendRaw(conn, type, body);
    };
  };
  const std::string huge("\xfe\x01\x00\x00\x00\x00\x00", 7);  // 2^48: no 32-bit status
  ScriptedServer joined(answer(MSG_TYPE_OK, "\x04"));
  ScriptedServer tooBig(answer(MSG_TYPE_OK, huge));
  ScriptedServer failed(answer(MSG_TYPE_FAILED, "\x03"));
  ScriptedServer empty(answer(MSG_TYPE_OK, ""));
  ScriptedServer other(answer(MSG_TYPE_EOR, "\x02"));
  NodeList nodes;
  int id = 0;
  for (const ScriptedServer* s : {&joined, &tooBig, &failed, &empty, &other}) {
    ++id;
    nodes.push_back({id, 0, "s" + std::to_string(id), "127.0.0.1", s->port()});
  }
  Session session;
  ASSERT_EQ(serversSession(nodes, &session), 0);
  Client client(std::move(session));
  client.security().setSecurityOff(1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(verifyQuorum(client, nodes, nodes, 1), 0);  // one joined node is enough
  EXPECT_EQ(verifyQuorum(client, nodes, nodes, 2), E_NO_QUORUM);
  std::string report = "No KLFS quorum in new node set (1 of 5 nodes are joined; 2 are required):\n"
                       "  joined s1 (127.0.0.1)\n";
  for (int i = 2; i <= 5; ++i) report += "  down   s" + std::to_string(i) + " (127.0.0.1)\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), report);
}

}  // namespace
}  // namespace qcr::test
