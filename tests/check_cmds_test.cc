// check of the real program on a node of a local qcrd cluster (the tool run on a
// server's base directory, as on a quorum node): a healthy cluster passes every
// check; each kind of damage fails exactly its own check, with its message and
// severity, while the checks after it still run; without -e no server is asked.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "basic/files.h"
#include "qcr/data/committed_dir.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr::test {
namespace {

const std::vector<std::string> kDescriptions = {
    " QCR Client initialization",       " Check QCR authorized key file",
    " Check QCR cached directory and file", " Check QCR server IP address lookup",
    " Check both QCR paxos files",      " Ping local QCR server",
    " Ping QCR quorum nodes",           " Check files in QCR committed directory",
    " Check QCR tiebreaker disks"};
const std::vector<std::string> kMnemonics = {
    "QCR_CLIENT_INIT", "FC_QCR_AUTH_KEYS", "FC_QCR_PAXOS_CACHED", "PC_IP_ADDR_LOOKUP",
    "FC_QCR_PAXOS_12", "PC_LOCAL_SERVER",  "PC_QUORUM_NODES",     "FC_COMMITTED_DIR",
    "TC_TIEBREAKER_DISKS"};
constexpr char kNoDisks[] = " succeed (No tiebreaker disks configured)";

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (size_t at; (at = text.find(sep, from)) != std::string::npos; from = at + 1) {
    parts.push_back(text.substr(from, at - from));
  }
  parts.push_back(text.substr(from));
  return parts;
}

class CheckCmdsTest : public ::testing::Test {
 protected:
  void startCluster(LocalCluster& cluster) {
    ASSERT_NO_FATAL_FAILURE(cluster.start());
    cluster_ = &cluster;
    ASSERT_EQ(writeFile(node("qcr.noauth"), std::string("\1\0\0\0", 4), 0644, false), 0);
  }
  std::string node(const std::string& name) const { return cluster_->base(0) + "/" + name; }

  // vyqcr on server 0's base directory, as its local tool; the base directory line
  // of the test layout is checked and removed.
  ProgramResult vyqcr(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {binPath("vyqcr")};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env = cleanEnvironment();
    env.push_back("QCR_BASE=" + cluster_->base(0));
    env.push_back("QCR_PORT=" + std::to_string(cluster_->address(0).port));
    ProgramResult r = runProgram(argv, env, 120000);
    const std::string announce = "qcrBaseDir: " + cluster_->base(0) + "\n";
    EXPECT_EQ(r.out.substr(0, announce.size()), announce);
    r.out.erase(0, announce.size());
    return r;
  }
  // The human-readable lines: every check succeeds but those in failed, whose
  // lines are given whole; the last of a run with -e is the disk-less one.
  static std::string lines(size_t count, const std::map<size_t, std::string>& failed,
                           const std::string& lastSucceed = " succeed") {
    std::string out;
    for (size_t i = 0; i < count; ++i) {
      const auto f = failed.find(i);
      if (f != failed.end()) {
        out += kDescriptions[i] + f->second + "\n";
      } else {
        out += kDescriptions[i] + (i == 8 ? lastSucceed : std::string(" succeed")) + "\n";
      }
    }
    return out;
  }
  // The -Y records of a run, checked against the header's layout (node id nodeId);
  // ErrorCode to Severity by mnemonic.
  static std::map<std::string, std::vector<std::string>> records(const std::string& out,
                                                                 const std::string& nodeId = "1") {
    std::map<std::string, std::vector<std::string>> byMnemonic;
    const std::vector<std::string> rows = split(out, '\n');
    EXPECT_EQ(rows.at(0),
              "vyqcr::HEADER:version:reserved:reserved:NodeId:CheckMnemonic:ErrorCode:ErrorMsg:"
              "ListOfFailedEntities:ListOfSucceedEntities:Severity:");
    for (size_t i = 1; i + 1 < rows.size(); ++i) {
      const std::vector<std::string> f = split(rows[i], ':');
      EXPECT_EQ(f.size(), 14u) << rows[i];
      if (f.size() != 14) continue;
      EXPECT_EQ(std::vector<std::string>(f.begin(), f.begin() + 7),
                (std::vector<std::string>{"vyqcr", "", "0", "1", "", "", nodeId}));
      EXPECT_EQ(f[7], kMnemonics.at(i - 1));
      EXPECT_EQ(f[13], "");
      byMnemonic[f[7]] = {f[8], f[9], f[10], f[11], f[12]};
    }
    EXPECT_EQ(rows.back(), "");
    return byMnemonic;
  }

  LocalCluster* cluster_ = nullptr;
};

// A cluster with tiebreaker disks, so that every check has something to look at;
// then a committed file damaged on this node, and a disk gone.
TEST_F(CheckCmdsTest, AHealthyClusterPassesEveryCheckAndDamageShowsWhereItIs) {
  LocalCluster cluster(3);
  cluster.useDisks(3, 1);
  startCluster(cluster);
  RequestResult r;
  ASSERT_EQ(writeFile(node("../f.in"), "file content", 0644, false), 0);
  ASSERT_EQ(cluster.client()->FPUT("f.txt", node("../f.in"), -1, -1, 0, &r), 0);
  // Served by server 0 (which pulls it when it is not there yet).
  ASSERT_EQ(cluster.clientOf(0)->FGET("f.txt", node("../f.out"), -1, &r), 0);

  ProgramResult run = vyqcr({"check", "-e"});
  EXPECT_EQ(run.out, lines(9, {}));
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.exitCode, 0);
  run = vyqcr({"check", "-e", "-Y"});
  EXPECT_EQ(run.exitCode, 0);
  auto rec = records(run.out);
  ASSERT_EQ(rec.size(), 9u) << run.out;
  for (const auto& [mnemonic, fields] : rec) {
    EXPECT_EQ(fields[0], "0") << mnemonic;
    EXPECT_EQ(fields[4], "OK") << mnemonic;
  }
  EXPECT_EQ(rec["PC_QUORUM_NODES"][3], "node1,node2,node3");
  EXPECT_EQ(rec["FC_COMMITTED_DIR"][2], "");
  EXPECT_NE(rec["FC_COMMITTED_DIR"][3].find("f.txt"), std::string::npos);
  EXPECT_EQ(rec["TC_TIEBREAKER_DISKS"][3],
            cluster.diskPath(0) + "," + cluster.diskPath(1) + "," + cluster.diskPath(2));

  // The committed copy on this node damaged (same size, other bytes).
  std::vector<CommittedFile> stored;
  ASSERT_EQ(readCommittedDir(node("committed"), &stored), 0);
  std::string damaged;
  for (const CommittedFile& f : stored) {
    if (f.name == "f.txt") damaged = node("committed/" + f.fileName);
  }
  ASSERT_FALSE(damaged.empty());
  ASSERT_EQ(writeFile(damaged, "file CONTENT", 0644, false), 0);
  run = vyqcr({"check", "-e"});
  EXPECT_EQ(run.out, lines(9, {{7, " failed (810-Files in committed directory missing or corrupted)"}}));
  EXPECT_EQ(run.exitCode, 149);
  rec = records(vyqcr({"check", "-e", "-Y"}).out);
  EXPECT_EQ(rec["FC_COMMITTED_DIR"],
            (std::vector<std::string>{"810", "Files in committed directory missing or corrupted",
                                      "f.txt", rec["FC_COMMITTED_DIR"][3], "FATAL"}));
  EXPECT_EQ(rec["FC_COMMITTED_DIR"][3].find("f.txt"), std::string::npos);
  ASSERT_EQ(writeFile(damaged, "file content", 0644, false), 0);

  // One disk of three gone: the other two still decide, so a warning.
  ASSERT_EQ(renameFile(cluster.diskPath(1), cluster.diskPath(1) + ".away"), 0);
  rec = records(vyqcr({"check", "-e", "-Y"}).out);
  EXPECT_EQ(rec["FC_COMMITTED_DIR"][0], "0");
  const std::vector<std::string> disks = rec["TC_TIEBREAKER_DISKS"];
  ASSERT_EQ(disks.size(), 5u);
  EXPECT_NE(disks[0], "0");
  EXPECT_EQ(disks[1], "tiebreaker disk(s) failed. Access to " + cluster.diskPath(1));
  EXPECT_EQ(disks[2], cluster.diskPath(1));
  EXPECT_EQ(disks[3], cluster.diskPath(0) + "," + cluster.diskPath(2));
  EXPECT_EQ(disks[4], "WARNING");
  ASSERT_EQ(renameFile(cluster.diskPath(1) + ".away", cluster.diskPath(1)), 0);
}

// One kind of damage at a time, each repaired before the next.
TEST_F(CheckCmdsTest, EachDamageFailsItsOwnCheckAndTheOthersStillRun) {
  LocalCluster cluster(3);
  startCluster(cluster);

  // Another server stopped: only the ping of the quorum nodes fails.
  cluster.kill(1);
  ProgramResult run = vyqcr({"check", "-e", "-Y"});
  auto rec = records(run.out);
  const std::string refused = rec["PC_QUORUM_NODES"][0];
  EXPECT_NE(refused, "0");
  EXPECT_EQ(rec["PC_QUORUM_NODES"],
            (std::vector<std::string>{refused, "Ping QCR quorum nodes failed", "node2",
                                      "node1,node3", "WARNING"}));
  for (const auto& [mnemonic, fields] : rec) {
    if (mnemonic != "PC_QUORUM_NODES") {
      EXPECT_EQ(fields[0], "0") << mnemonic;
    }
  }
  EXPECT_EQ(run.exitCode, 149);
  run = vyqcr({"check", "-e"});
  EXPECT_EQ(run.out, lines(9, {{6, " failed (" + refused + "-Ping QCR quorum nodes failed)"}},
                           kNoDisks));
  ASSERT_NO_FATAL_FAILURE(cluster.startServer(1));

  // A state file cut short (on a stopped server, which would rewrite it).
  cluster.kill(0);
  const std::string state = readFileText(node("qcr.paxos.1"));
  ASSERT_GT(state.size(), 20u);
  ASSERT_EQ(writeFile(node("qcr.paxos.1"), state.substr(0, 20), 0644, false), 0);
  rec = records(vyqcr({"check", "-Y"}).out);
  ASSERT_EQ(rec.size(), 5u);
  EXPECT_EQ(rec["FC_QCR_PAXOS_12"][1], "file corrupt");
  EXPECT_EQ(rec["FC_QCR_PAXOS_12"][2], node("qcr.paxos.1"));
  EXPECT_EQ(rec["FC_QCR_PAXOS_12"][3], node("qcr.paxos.2"));
  EXPECT_EQ(rec["FC_QCR_PAXOS_12"][4], "WARNING");
  run = vyqcr({"check"});
  EXPECT_EQ(run.out,
            lines(5, {{4, " failed (" + rec["FC_QCR_PAXOS_12"][0] + "-file corrupt)"}}));
  EXPECT_EQ(run.exitCode, 149);
  ASSERT_EQ(writeFile(node("qcr.paxos.1"), state, 0644, false), 0);
  ASSERT_NO_FATAL_FAILURE(cluster.startServer(0));

  // The cached directory removed: a warning, and check leaves it missing.
  ASSERT_EQ(renameFile(node("cached"), node("cached.away")), 0);
  run = vyqcr({"check", "-e"});
  EXPECT_EQ(run.out,
            lines(9, {{2, " failed (811-QCR directory or subdirectory missing)"}}, kNoDisks));
  EXPECT_EQ(run.exitCode, 149);
  EXPECT_FALSE(isDirectory(node("cached")));
  rec = records(vyqcr({"check", "-Y"}).out);
  EXPECT_EQ(rec["FC_QCR_PAXOS_CACHED"],
            (std::vector<std::string>{"811", "QCR directory or subdirectory missing",
                                      node("cached"), "", "WARNING"}));
  ASSERT_EQ(renameFile(node("cached.away"), node("cached")), 0);

  // The node list emptied.
  const std::string nodes = readFileText(node("qcr.nodes"));
  ASSERT_EQ(writeFile(node("qcr.nodes"), "", 0644, false), 0);
  run = vyqcr({"check"});
  EXPECT_EQ(run.out, lines(5, {{0, " failed (812-qcr.nodes file missing or empty)"}}));
  EXPECT_EQ(run.err, "qcr node list missing or empty\n");
  EXPECT_EQ(run.exitCode, 156);
  // Without a node list this machine is no known node.
  rec = records(vyqcr({"check", "-Y"}).out, "-1");
  EXPECT_EQ(rec["QCR_CLIENT_INIT"][2], node("qcr.nodes"));
  EXPECT_EQ(rec["QCR_CLIENT_INIT"][4], "FATAL");
  ASSERT_EQ(writeFile(node("qcr.nodes"), nodes, 0644, false), 0);

  // No server at all: without -e every check passes, so none asked a server.
  for (int i = 0; i < cluster.size(); ++i) cluster.kill(i);
  run = vyqcr({"check"});
  EXPECT_EQ(run.out, lines(5, {}));
  EXPECT_EQ(run.exitCode, 0);
  rec = records(vyqcr({"check", "-e", "-Y"}).out);
  EXPECT_EQ(rec["PC_LOCAL_SERVER"][1], "Ping local QCR server failed");
  EXPECT_EQ(rec["PC_QUORUM_NODES"][2], "node1,node2,node3");
  EXPECT_EQ(rec["PC_QUORUM_NODES"][4], "FATAL");
  EXPECT_EQ(rec["FC_COMMITTED_DIR"][1], "Connect local QCR server failed");
  EXPECT_EQ(rec["TC_TIEBREAKER_DISKS"][1], "Connect local QCR server failed");
}

}  // namespace
}  // namespace qcr::test
