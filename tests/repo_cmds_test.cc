// setup, init and backup of the real program against local qcrd servers: a
// repository saved with backup and made again with init -A on fresh servers
// holds every value and file as it was, with some servers down too; init checks
// its lists before it writes anything; paths that a shell would act on are only
// names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "basic/files.h"
#include "basic/process.h"
#include "qcr/client/client.h"
#include "qcr/coding/crc.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"
#include "testing/cluster_fixture.h"
#include "testing/run_program.h"

namespace qcr::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int64_t kBigFileBytes = 8 << 20;  // the sanitizers slow every byte down
#else
constexpr int64_t kBigFileBytes = 50 << 20;
#endif

constexpr char kReleaseLevelLine[] = "%%home%%:70_VYFSCFG:qcr:test:minReleaseLevel:1500\n";

class RepoCmdsTest : public ::testing::Test {
 protected:
  // A client base directory for the first n servers of cluster.
  void prepareBase(const LocalCluster& cluster, int n) {
    ASSERT_NO_FATAL_FAILURE(cluster.prepareToolBase(base_, n));
    ASSERT_EQ(writeFile(base_.file("vysdrfs"), kReleaseLevelLine, 0644, false), 0);
  }
  ProgramResult vyqcr(const std::vector<std::string>& args,
                      std::initializer_list<std::string> extra = {}) const {
    return base_.vyqcr(args, 300000, extra);
  }
  std::string file(const std::string& name) const { return base_.file(name); }

  TestBase base_;
};

// What a repository holds, as a client sees it: values with versions, files with
// versions and the checksums of their contents as fetched.
uint32_t cksum(const std::string& data) {
  return cksumFinish(crcExtend(0, data.data(), data.size()), data.size());
}

std::string randomBytes(std::mt19937& rng, size_t n) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

struct Content {
  std::map<std::string, CommittedValue> values;
  std::map<std::string, std::pair<int32_t, uint32_t>> files;  // name -> version, crc
  bool operator==(const Content&) const = default;
};

Content contentOf(Client& client, const std::string& scratch) {
  Content c;
  RequestResult list;
  EXPECT_EQ(client.FLIST(&list), 0);
  c.values = list.state.values;
  for (const FileListEntry& e : list.files) {
    if (e.objId < kFirstUserObjId) continue;  // the lists are made anew
    RequestResult got;
    EXPECT_EQ(client.FGET(e.name, scratch, -1, &got), 0) << e.name;
    std::string data;
    EXPECT_EQ(readFile(scratch, &data), 0);
    c.files[e.name] = {list.state.files.at(e.objId).version, cksum(data)};
    EXPECT_EQ(list.state.files.at(e.objId).crc, cksum(data)) << e.name;
  }
  return c;
}

// Kills every server, removes its files and starts it again waiting for init.
void freshServers(LocalCluster& cluster) {
  for (int i = 0; i < cluster.size(); ++i) ASSERT_NO_FATAL_FAILURE(cluster.wipe(i));
  ASSERT_NO_FATAL_FAILURE(cluster.startEmpty());
}

TEST_F(RepoCmdsTest, ABackupRestoredOnFreshServersHoldsEverythingAsItWas) {
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  ASSERT_NO_FATAL_FAILURE(prepareBase(cluster, 3));
  std::unique_ptr<Client> client = cluster.client(120);
  std::mt19937 rng(7);
  for (int i = 0; i < 200; ++i) {
    RequestResult r;
    // Some values carry versions of their own, which a restore must keep.
    ASSERT_EQ(client->VPUT("v" + std::to_string(i), "value " + std::to_string(rng()),
                           i % 10 == 0 ? 1000 + i : -1, -1, &r),
              0);
  }
  for (int i = 0; i < 50; ++i) {
    const int64_t size = i == 0 ? kBigFileBytes : i * 997;
    ASSERT_EQ(writeFile(file("src"), randomBytes(rng, static_cast<size_t>(size)), 0600, false), 0);
    RequestResult r;
    ASSERT_EQ(client->FPUT("f" + std::to_string(i), file("src"), i % 7 == 0 ? 50 + i : -1, -1, 0,
                           &r),
              0);
  }
  const Content before = contentOf(*client, file("scratch"));
  ASSERT_EQ(before.values.size(), 200u);
  ASSERT_EQ(before.files.size(), 50u);

  for (const std::string& archive : {file("x.tar"), file("x.tar.gz")}) {
    const ProgramResult saved = vyqcr({"backup", "-A", archive});
    ASSERT_EQ(saved.exitCode, 0) << saved.err;
    EXPECT_EQ(saved.out, "QCR archive stored under: '" + archive + "'\n");
  }
  // The compressed one really is: gzip's magic.
  std::string gz;
  ASSERT_EQ(readFile(file("x.tar.gz"), &gz), 0);
  EXPECT_EQ(gz.substr(0, 2), "\x1f\x8b");

  for (const std::string& archive : {file("x.tar"), file("x.tar.gz")}) {
    SCOPED_TRACE(archive);
    ASSERT_NO_FATAL_FAILURE(freshServers(cluster));
    const ProgramResult made = vyqcr({"init", "-A", archive});
    ASSERT_EQ(made.exitCode, 0) << made.out << made.err;
    EXPECT_EQ(made.out.substr(0, made.out.find('\n') + 1),
              "Using '" + archive + "' to initialize QCR\n");
    std::unique_ptr<Client> after = cluster.client(120);
    EXPECT_TRUE(contentOf(*after, file("scratch")) == before);
    // The restored repository takes changes, and new files get new ids.
    RequestResult r;
    EXPECT_EQ(after->VPUT("new", "x", -1, -1, &r), 0);
    EXPECT_EQ(after->FPUT("g", file("src"), -1, -1, 0, &r), 0);
    EXPECT_EQ(after->FLIST(&r), 0);
    EXPECT_EQ(r.files.size(), 53u);  // two lists, 50 files and g
  }
}

TEST_F(RepoCmdsTest, ARestoreNeedsAMajorityOfTheServers) {
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  ASSERT_NO_FATAL_FAILURE(prepareBase(cluster, 3));
  std::unique_ptr<Client> client = cluster.client(60);
  ASSERT_EQ(writeFile(file("src"), "file content", 0600, false), 0);
  RequestResult r;
  ASSERT_EQ(client->VPUT("a", "1", -1, -1, &r), 0);
  ASSERT_EQ(client->FPUT("f", file("src"), -1, -1, 0, &r), 0);
  const Content before = contentOf(*client, file("scratch"));
  ASSERT_EQ(vyqcr({"backup", "-A", file("x.tar")}).exitCode, 0);

  // One of three down: two suffice, and the third catches up when it comes.
  ASSERT_NO_FATAL_FAILURE(freshServers(cluster));
  cluster.kill(2);
  const ProgramResult two = vyqcr({"init", "-A", file("x.tar")});
  EXPECT_EQ(two.exitCode, 0) << two.err;
  EXPECT_TRUE(contentOf(*cluster.client(60), file("scratch")) == before);
  // The same init again reaches the server it missed, which then catches up.
  ASSERT_NO_FATAL_FAILURE(cluster.startServer(2));
  const ProgramResult again = vyqcr({"init", "-A", file("x.tar")});
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_TRUE(contentOf(*cluster.clientOf(2, 60), file("scratch")) == before);

  // Two of three down: the files reach one server only.
  ASSERT_NO_FATAL_FAILURE(freshServers(cluster));
  cluster.kill(1);
  cluster.kill(2);
  const ProgramResult one = vyqcr({"init", "-A", file("x.tar")});
  EXPECT_EQ(one.exitCode, 149);
  EXPECT_NE(one.err.find("Transfer committed files to a majority of quorum nodes failed (err "),
            std::string::npos)
      << one.err;
}

TEST_F(RepoCmdsTest, InitChecksItsListsBeforeItWritesAnything) {
  LocalCluster cluster(8);
  ASSERT_NO_FATAL_FAILURE(cluster.startEmpty());
  ASSERT_EQ(writeFile(file("qcr.noauth"), std::string("\1\0\0\0", 4), 0644, false), 0);
  std::string eight;
  for (int i = 0; i < 8; ++i) eight += "127.0.0.1:" + std::to_string(cluster.address(i).port) + ",";
  // A ninth node (no server there) is one too many: nothing is sent or written.
  const ProgramResult nine = vyqcr({"init", "-c", "5", "-n", eight + "127.0.0.1:9"});
  EXPECT_EQ(nine.exitCode, 149);
  EXPECT_NE(nine.err.find("Too namy nodes (max 8)\n"), std::string::npos);
  EXPECT_NE(nine.out.find("9 127.0.0.1 127.0.0.1\n"), std::string::npos);
  EXPECT_FALSE(fileExists(file("qcr.nodes")));
  for (int i = 0; i < 8; ++i) EXPECT_FALSE(fileExists(cluster.base(i) + "/qcr.paxos.1"));

  // Neither nodes nor an archive; a bad minimum quorum.
  const ProgramResult none = runProgram({binPath("vyqcr"), "init", "-c", "5"}, base_.env());
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_EQ(none.err.substr(0, 19), "node list is empty\n");
  const ProgramResult badMin = vyqcr({"init", "-c", "5", "-n", eight, "-d", "/d1", "-m", "8"});
  EXPECT_EQ(badMin.exitCode, 149);
  EXPECT_FALSE(fileExists(file("qcr.nodes")));

  // Eight real servers become one repository.
  const ProgramResult made = vyqcr({"init", "-c", "5", "-n", eight});
  ASSERT_EQ(made.exitCode, 0) << made.out << made.err;
  EXPECT_EQ(made.out.substr(0, 35), "qcr server nodes to be initialized:");
  ASSERT_EQ(writeFile(file("vysdrfs"), kReleaseLevelLine, 0644, false), 0);
  const ProgramResult listed = vyqcr({"lsnodes", "-Y"});
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  EXPECT_NE(listed.out.find("\n8:127.0.0.1:7:"), std::string::npos) << listed.out;
  EXPECT_EQ(vyqcr({"vput", "a", "b"}).exitCode, 0);
}

TEST_F(RepoCmdsTest, ArchivePathsFollowTheirRules) {
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  ASSERT_NO_FATAL_FAILURE(prepareBase(cluster, 3));
  const ProgramResult relative = vyqcr({"backup", "-A", "x.tar"});
  EXPECT_EQ(relative.err, "File path: 'x.tar' must be absolute\n");
  EXPECT_EQ(relative.exitCode, 149);
  // Anything but .tar and .tar.gz is stored plain, with ".tar" added.
  const ProgramResult tgz = vyqcr({"backup", "-A", file("x.tgz")});
  EXPECT_EQ(tgz.out, "QCR archive stored under: '" + file("x.tgz.tar") + "'\n");
  CapturedRun listing;
  ASSERT_EQ(runCaptured({"/bin/tar", "-tf", file("x.tgz.tar")}, {}, 30000, &listing), 0);
  EXPECT_NE(listing.out.find("qcr.state\n"), std::string::npos);

  // Quotes, blanks, ";" and "$(...)" name a file and run nothing, both ways.
  const std::string hostile = file("it's \"a\"; $(touch pwned) `touch pwned`.tar.gz");
  const ProgramResult saved = vyqcr({"backup", "-A", hostile});
  EXPECT_EQ(saved.exitCode, 0) << saved.err;
  EXPECT_TRUE(fileExists(hostile));
  ASSERT_NO_FATAL_FAILURE(freshServers(cluster));
  EXPECT_EQ(vyqcr({"init", "-A", hostile}).exitCode, 0);
  EXPECT_FALSE(fileExists("pwned"));
  EXPECT_FALSE(fileExists(file("pwned")));

  // A compressed archive cannot be read without a decompressor: 2.
  const ScopedTempDir tools;
  ASSERT_EQ(makeSymlink("/bin/tar", tools.file("tar")), 0);
  const ProgramResult noGunzip =
      vyqcr({"init", "-A", hostile}, {"QCR_TOOLS_DIR=" + tools.path()});
  EXPECT_EQ(noGunzip.err, "Extracting '" + hostile + "' to initialize QCR failed (2)\n");
  EXPECT_EQ(noGunzip.exitCode, 149);
  const ProgramResult missing = vyqcr({"init", "-A", file("none.tar")});
  EXPECT_EQ(missing.err, "Backup file '" + file("none.tar") + "' does not exist (2)\n");

  // A mixed cluster cannot back up: no server is asked.
  ASSERT_EQ(writeFile(file("vysdrfs"), "%%home%%:70_VYFSCFG:a:b:minReleaseLevel:1499\n", 0644,
                      false),
            0);
  const ProgramResult mixed = vyqcr({"backup", "-A", file("y.tar")});
  EXPECT_EQ(mixed.err,
            "backup QCR failed: Min. release level does not support request (err 826)\n");
  EXPECT_FALSE(fileExists(file("y.tar")));
}

TEST_F(RepoCmdsTest, SetupPreparesANodeAndFetchesTheCommittedNodeList) {
  const std::vector<std::string> env = base_.env();
  const auto setup = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {binPath("vyqcr"), "setup"});
    return runProgram(args, env);
  };
  // With security on (no -a) the certificate must be named; nothing is made.
  const ProgramResult noCert = setup({"-F"});
  EXPECT_EQ(noCert.exitCode, 1);
  EXPECT_EQ(noCert.err.substr(0, 20), "-c paramter missing\n");
  // An existing base directory is kept unless -F or -R says otherwise.
  ASSERT_EQ(writeFile(file("keep"), "x", 0644, false), 0);
  const ProgramResult exists = setup({"-a", "1"});
  EXPECT_EQ(exists.exitCode, 1);
  EXPECT_TRUE(fileExists(file("keep")));
  // -F makes it afresh, with the security setting as 4 bytes.
  const ProgramResult fresh = setup({"-a", "1", "-F"});
  EXPECT_EQ(fresh.exitCode, 0) << fresh.err;
  EXPECT_FALSE(fileExists(file("keep")));
  EXPECT_EQ(readFileText(file("qcr.noauth")), std::string("\1\0\0\0", 4));
  EXPECT_TRUE(isDirectory(file("committed")));
  EXPECT_TRUE(isDirectory(file("cached")));

  // With a node list, the committed one replaces it once fetched.
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.start());
  const std::string first = "127.0.0.1:" + std::to_string(cluster.address(0).port);
  const ProgramResult listed = setup({"-a", "1", "-R", "-n", first});
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  EXPECT_EQ(readFileText(file("qcr.nodes")), cluster.nodeListText(3));
  const ProgramResult badList = setup({"-a", "1", "-R", "-n", "127.0.0.1:99999"});
  EXPECT_EQ(badList.exitCode, 149);
  EXPECT_EQ(readFileText(file("qcr.nodes")), cluster.nodeListText(3));
}

// Announces content as name for destination to the server at address, sends it
// and returns the server's answer.
int restoreFile(const PeerAddress& address, const std::string& dir, const std::string& name,
                const std::string& destination, const std::string& content) {
  const std::string path = dir + "/content";
  EXPECT_EQ(writeFile(path, content, 0600, false), 0);
  FileAnnouncement ann;
  EXPECT_EQ(announceFile(path, destination, &ann), 0);
  ann.name = name;
  std::unique_ptr<ConnImplementation> conn;
  int rc = connect(address, ConnectParams{}, &conn);
  if (rc == 0) rc = conn->send(MSG_TYPE_CP_TO, encodeBody(ann));
  bool local = false;
  if (rc == 0) rc = sendFile(*conn, path, ann.size, &local);
  Message reply;
  if (rc == 0) rc = conn->receive(&reply);
  if (rc != 0) return rc;
  if (reply.type == MSG_TYPE_OK) return 0;
  int32_t error = 0;
  (void)getVarInt32(reply.body.data(), reply.body.data() + reply.body.size(), &error, -1);
  return error;
}

// A refusal at the announcement may reach the sender as the broken connection
// the server leaves behind rather than as the answer.
bool refused(int rc, int code) { return rc == code || rc == EPIPE || rc == ECONNRESET; }

// Files for a repository in the making come only as committed files, only to a
// server that waits for init, and only into its committed directory.
TEST_F(RepoCmdsTest, ServersTakeRestoredFilesOnlyUnderCommittedNames) {
  LocalCluster cluster(1);
  ASSERT_NO_FATAL_FAILURE(cluster.startEmpty());
  const ScopedTempDir src;
  char crc[16];
  snprintf(crc, sizeof crc, "%x", cksum("data"));
  const std::string good = std::string("f.16.1.") + crc + ".010101";
  const PeerAddress server = cluster.address(0);
  EXPECT_TRUE(refused(restoreFile(server, src.path(), "junk", kRestoreDestination, "data"), EINVAL));
  EXPECT_TRUE(refused(
      restoreFile(server, src.path(), "a\nb.16.1.0.010101", kRestoreDestination, "data"), EINVAL));
  // Content that is not what the name says is not kept.
  EXPECT_EQ(restoreFile(server, src.path(), "f.16.1.0.010101", kRestoreDestination, "data"),
            E_IO);
  // Any other destination is a remote copy, which this server does not allow.
  EXPECT_TRUE(refused(restoreFile(server, src.path(), good, "/etc", "data"), E_NOT_AUTHORIZED));
  // A name that climbs out lands inside: only its last part names the file.
  EXPECT_EQ(restoreFile(server, src.path(), "../../" + good, kRestoreDestination, "data"), 0);
  std::vector<std::string> stored;
  ASSERT_EQ(listDirectory(cluster.base(0) + "/committed", &stored), 0);
  EXPECT_EQ(stored, std::vector<std::string>{good});
  EXPECT_FALSE(fileExists(cluster.base(0) + "/../" + good));

  // Once the server serves a repository, files come only through its changes.
  std::unique_ptr<Client> client = cluster.client(20);
  ASSERT_EQ(client->INIT(1, makeInitRequest(cluster.clusterId(), cluster.nodeList(1), {}, 1)), 0);
  EXPECT_TRUE(refused(restoreFile(server, src.path(), good, kRestoreDestination, "data"), EEXIST));
}

// The key files of a secured node, copied from one directory to another.
void copyKeys(const std::string& from, const std::string& to) {
  if (!isDirectory(to)) {
    ASSERT_EQ(makeDirectory(to, 0755), 0);
  }
  for (const char* name : {"authorized_qcr_keys", "qcr.pem"}) {
    std::string data;
    ASSERT_EQ(readFile(from + "/" + name, &data), 0) << name;
    ASSERT_EQ(writeFile(to + "/" + name, data, 0600, false), 0);
  }
}

// With security on, setup takes the key store, init gives every node the keys,
// and a restore reaches secured servers only through authenticated connections.
TEST_F(RepoCmdsTest, ASecuredRepositoryIsMadeSavedAndRestoredByTheTool) {
  LocalCluster cluster(3);
  ASSERT_NO_FATAL_FAILURE(cluster.useSecurity());
  ASSERT_NO_FATAL_FAILURE(cluster.startEmpty());
  const ProgramResult setup = runProgram(
      {binPath("vyqcr"), "setup", "-F", "-c", cluster.keysDir() + "/qcr.pem"}, base_.env());
  ASSERT_EQ(setup.exitCode, 0) << setup.err;
  EXPECT_EQ(readFileText(file("qcr.pem")), readFileText(cluster.keysDir() + "/qcr.pem"));
  EXPECT_EQ(readFileText(file("qcr.noauth")), std::string(4, '\0'));
  ASSERT_NO_FATAL_FAILURE(copyKeys(cluster.keysDir(), base_.path()));
  ASSERT_EQ(writeFile(file("vysdrfs"), kReleaseLevelLine, 0644, false), 0);

  // A stranger's file for the repository in the making is refused unread.
  const ScopedTempDir src;
  char crc[16];
  snprintf(crc, sizeof crc, "%x", cksum("data"));
  const std::string name = std::string("f.16.1.") + crc + ".010101";
  EXPECT_NE(restoreFile(cluster.address(0), src.path(), name, kRestoreDestination, "data"), 0);
  std::vector<std::string> stored;
  ASSERT_EQ(listDirectory(cluster.base(0) + "/committed", &stored), 0);
  EXPECT_TRUE(stored.empty());

  std::string nodes;
  for (int i = 0; i < 3; ++i) nodes += "127.0.0.1:" + std::to_string(cluster.address(i).port) + ",";
  const std::string id = std::to_string(cluster.clusterId());
  const ProgramResult made = vyqcr({"init", "-c", id, "-n", nodes});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  ASSERT_EQ(vyqcr({"vput", "a", "secret"}).exitCode, 0);
  ASSERT_EQ(vyqcr({"backup", "-A", file("x.tar")}).exitCode, 0);

  for (int i = 0; i < 3; ++i) {
    ASSERT_NO_FATAL_FAILURE(cluster.wipe(i));
    ASSERT_NO_FATAL_FAILURE(copyKeys(cluster.keysDir(), cluster.base(i)));
  }
  ASSERT_NO_FATAL_FAILURE(cluster.startEmpty());
  const ProgramResult restored = vyqcr({"init", "-A", file("x.tar")});
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  const ProgramResult got = vyqcr({"vget", "a"});
  EXPECT_EQ(got.out, "vget:1:secret\n");
}

}  // namespace
}  // namespace qcr::test
