// The authorized keys file, the key lookups and the authentication exchange over
// real loopback sockets (the TLS provider of the machine, loaded at run time).
#include "qcr/comm/security.h"

#include <gtest/gtest.h>

#include <thread>

#include "basic/net.h"
#include "qcr/coding/result.h"
#include "qcr/comm/key_gen.h"
#include "testing/run_program.h"

namespace qcr {
namespace {

const std::string kKey = "-----BEGIN PUBLIC KEY-----\nAAEC\n-----END PUBLIC KEY-----\n";
const std::string kGen1 = "committedKeyGenNumber=1\ncommittedKeyDigest=ab\ncommittedPublicKey=x\n" + kKey;

TEST(KeyFile, LineRulesAndSettings) {
  const struct {
    std::string text;
    int rc;
  } cases[] = {
      {"clusterName=c1\ncipherList=AUTHONLY\n" + kGen1, 0},
      // A line ends at its first blank: "clusterName" alone has no "=".
      {"clusterName = c1\ncipherList=AUTHONLY\n" + kGen1, EINVAL},
      {"cipherList=AUTHONLY\njunk\n" + kGen1, EINVAL},
      // A line that begins with a blank counts as empty.
      {"  junk\n\ncipherList=AUTHONLY\n" + kGen1, 0},
      // 127 characters a line: the rest of a longer one is read as the next line.
      {"clusterName=" + std::string(115, 'n') + "\ncipherList=AUTHONLY\n" + kGen1, 0},
      {"clusterName=" + std::string(116, 'n') + "\ncipherList=AUTHONLY\n" + kGen1, EINVAL},
      {"cipherList=HIGH\n" + kGen1, E_NO_SECURITY},
      {"cipherList=AUTHONLY\nclusterID=12x\n" + kGen1, E_NO_SECURITY},
      {"cipherList=AUTHONLY\nfips1402mode=YES\nnistCompliance=NIST_SP800131A\n" + kGen1, 0},
      {"cipherList=AUTHONLY\nfips1402mode=maybe\n" + kGen1, E_NO_SECURITY},
      {"cipherList=AUTHONLY\nnistCompliance=ON\n" + kGen1, E_NO_SECURITY},
      {"cipherList=AUTHONLY\ncommittedKeyGenNumber=1\ncommittedPublicKey=x\nnot pem\n",
       E_NO_SECURITY},
      {"cipherList=AUTHONLY\n", E_NO_SECURITY},  // no key at all
  };
  for (const auto& c : cases) {
    KeyRecord r;
    testing::internal::CaptureStderr();
    EXPECT_EQ(parseAuthorizedKeys(c.text, &r), c.rc) << c.text;
    const std::string err = testing::internal::GetCapturedStderr();
    if (c.text.rfind("cipherList=HIGH", 0) == 0) {
      EXPECT_EQ(err, "[E] Unsupported cipherList in authorized_keys file: HIGH\n");
    }
  }
}

TEST(KeyFile, FormatReadsBackAndBase64) {
  KeyRecord r;
  r.clusterName = "c";
  r.clusterId = 18446744073709551615ull;
  r.cipherList = "AUTHONLY";
  r.committed = {3, "dd", std::string(300, '\x81'), "cert"};
  r.next = {4, "ee", "k", ""};
  r.fips = true;
  KeyRecord back;
  ASSERT_EQ(parseAuthorizedKeys(formatAuthorizedKeys(r), &back), 0);
  EXPECT_EQ(back, r);
  std::string bytes;
  EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
  EXPECT_TRUE(base64Decode("Zm9v\nYmE=", &bytes));
  EXPECT_EQ(bytes, "fooba");
  EXPECT_FALSE(base64Decode("Zm9vY", &bytes));
  EXPECT_FALSE(base64Decode("Zm9v YmE=", &bytes));
}

// A cluster's key files with generation gen committed (and next, when not -1, new).
KeyFiles clusterFiles(int gen, int next = -1) {
  KeyRecord r;
  r.clusterName = "t";
  r.cipherList = "AUTHONLY";
  KeyFiles files;
  EXPECT_EQ(createKeyGeneration(gen, "t", &r.committed, &files.committedStore), 0);
  if (next != -1) {
    EXPECT_EQ(createKeyGeneration(next, "t", &r.next, &files.newStore), 0);
  }
  files.authorizedKeys = formatAuthorizedKeys(r);
  return files;
}

std::shared_ptr<const KeyRing> ringOf(const KeyFiles& files) {
  std::shared_ptr<const KeyRing> ring;
  EXPECT_EQ(KeyRing::load(files, &ring), 0);
  return ring;
}

TEST(KeyRing, GenerationsAndStoresFoundByKey) {
  KeyFiles files = clusterFiles(5, 6);
  const auto ring = ringOf(files);
  EXPECT_EQ(ring->localGeneration(), 5);
  EXPECT_NE(ring->lookup(0), nullptr);  // 0 is the committed key
  EXPECT_EQ(ring->lookup(0), ring->lookup(5));
  EXPECT_NE(ring->lookup(6), nullptr);
  EXPECT_EQ(ring->lookup(7), nullptr);
  // Stores swapped between the two files still serve their generations.
  std::swap(files.committedStore, files.newStore);
  EXPECT_EQ(ringOf(files)->store(5), ring->store(5));
  // A digest that does not fit its key is refused.
  const size_t at = files.authorizedKeys.find("KeyDigest=") + 10;
  files.authorizedKeys[at] = files.authorizedKeys[at] == '0' ? '1' : '0';
  std::shared_ptr<const KeyRing> bad;
  EXPECT_EQ(KeyRing::load(files, &bad), E_NO_SECURITY);
}

TEST(Authentication, ParametersChecked) {
  const auto ring = ringOf(clusterFiles(1));
  const struct {
    int aGen;
    int cGen;
    std::optional<std::string> cipher;
    int rc;
  } cases[] = {
      {-1, 1, "AUTHONLY", E_NO_SECURITY},  {1, -1, "AUTHONLY", E_NO_SECURITY},
      {1, 1, std::nullopt, E_NO_SECURITY}, {1, 1, "AUTHONLY ", E_NO_SECURITY},
      {1, 1, "authonly", E_NO_SECURITY},   {1, 9, "AUTHONLY", E_NOT_AUTHORIZED},
  };
  for (const auto& c : cases) {
    SecurityParams params;
    params.localKeyGen = c.aGen;
    params.peerKeyGen = c.cGen;
    params.peerCipherList = c.cipher;
    params.keys = ring;
    EXPECT_EQ(AuthenticateOutgoing(-1, params), c.rc) << c.aGen << " " << c.cGen;
  }
}

// A connected pair of loopback sockets.
struct SocketPair {
  SocketPair() {
    int listener = -1;
    int port = 0;
    EXPECT_EQ(listenSocket(ipv4Address(0x7F000001, 0), &listener, &port), 0);
    EXPECT_EQ(openStreamSocket(ipv4Address(0x7F000001, port), &client), 0);
    EXPECT_EQ(connectSocket(client, ipv4Address(0x7F000001, port), 2000), 0);
    PeerAddress peer;
    EXPECT_EQ(acceptSocket(listener, 2000, &server, &peer), 0);
    closeSocket(listener);
  }
  ~SocketPair() {
    closeSocket(client);
    closeSocket(server);
  }
  int client = -1;
  int server = -1;
};

SecurityParams paramsOf(const std::shared_ptr<const KeyRing>& mine, int peerGen) {
  SecurityParams p;
  p.localKeyGen = mine->localGeneration();
  p.peerKeyGen = peerGen;
  p.peerCipherList = "AUTHONLY";
  p.keys = mine;
  return p;
}

// Runs both sides; returns {client result, server result}.
std::pair<int, int> exchange(SocketPair& s, const std::shared_ptr<const KeyRing>& client,
                             const std::shared_ptr<const KeyRing>& server) {
  int serverRc = -1;
  std::thread t([&] {
    AuthWaits waits{kAuthStepWaitMs, &systemClock(), systemClock().now() + 10, {}};
    serverRc = AuthenticateIncoming(s.server, paramsOf(server, client->localGeneration()), waits);
  });
  const int clientRc = AuthenticateOutgoing(s.client, paramsOf(client, server->localGeneration()));
  t.join();
  return {clientRc, serverRc};
}

TEST(Authentication, SameClusterPassesAndClearBytesFollowIntact) {
  const KeyFiles files = clusterFiles(1, 2);
  SocketPair s;
  EXPECT_EQ(exchange(s, ringOf(files), ringOf(files)), std::make_pair(0, 0));
  // Nothing of what follows the exchange was taken by it.
  ASSERT_EQ(fullSend(s.client, "body", 4, 2000), 0);
  char got[5] = {};
  ASSERT_EQ(fullRecv(s.server, got, 4, 2000), 0);
  EXPECT_STREQ(got, "body");
}

TEST(Authentication, KeyChangeSidesAcceptEachOtherAndOtherClustersNot) {
  // A side that moved on to generation 2 and one that still announces 1, both
  // knowing both keys.
  KeyFiles before = clusterFiles(1, 2);
  const auto oldSide = ringOf(before);
  KeyRecord r = oldSide->record();
  std::swap(r.committed, r.next);
  before.authorizedKeys = formatAuthorizedKeys(r);
  const auto newSide = ringOf(before);
  ASSERT_EQ(newSide->localGeneration(), 2);
  SocketPair s1;
  EXPECT_EQ(exchange(s1, oldSide, newSide), std::make_pair(0, 0));
  // Another cluster's key with the same generation number.
  SocketPair s2;
  const auto [clientRc, serverRc] = exchange(s2, ringOf(clusterFiles(1)), oldSide);
  EXPECT_EQ(clientRc, E_NOT_AUTHORIZED);
  EXPECT_NE(serverRc, 0);
}

TEST(Authentication, StalledClientEndsAtTheServersDeadline) {
  const auto ring = ringOf(clusterFiles(1));
  SocketPair s;
  AuthWaits waits{kAuthStepWaitMs, &systemClock(), systemClock().now() + 0.3, {}};
  EXPECT_EQ(AuthenticateIncoming(s.server, paramsOf(ring, 1), waits), kErrAuthTimedOut);
  // Bytes that are no TLS record at all.
  ASSERT_EQ(fullSend(s.client, "\x16\x03\x01\xff\xff", 5, 2000), 0);
  waits.deadline = systemClock().now() + 2;
  EXPECT_EQ(AuthenticateIncoming(s.server, paramsOf(ring, 1), waits), E_NOT_AUTHORIZED);
}

TEST(Security, StartupWithAndWithoutKeys) {
  const test::ScopedTempDir dir;
  const KeyFilePaths paths = keyFilePaths(dir.path());
  SecurityContext security;
  EXPECT_TRUE(security.enabled());  // until the cluster's setting says otherwise
  EXPECT_EQ(security.startup(true, paths), 0);
  EXPECT_FALSE(security.ready());
  EXPECT_EQ(security.localKeyGeneration(), -1);
  ASSERT_EQ(writeKeyFiles(paths, clusterFiles(3)), 0);
  EXPECT_EQ(security.startup(false, paths), 0);
  EXPECT_EQ(security.cipherList(), "AUTHONLY");
  EXPECT_EQ(security.localKeyGeneration(), 3);
  security.setSecurityOff(1);
  EXPECT_FALSE(security.enabled());
}

}  // namespace
}  // namespace qcr
