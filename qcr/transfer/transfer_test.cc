#include "qcr/transfer/transfer.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "basic/files.h"
#include "basic/process.h"
#include "qcr/comm/connect.h"
#include "testing/string_transport.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/crc.h"
#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/comm/security.h"
#include "qcr/data/file_ops.h"
#include "qcr/transfer/transfer_copy.h"
#include "testing/round_trip.h"
#include "testing/run_program.h"

namespace qcr {

using test::StringTransport;
using test::makeStringConnection;
namespace {

class TransferTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return dir_.file(name); }

  std::string writeRandom(const std::string& name, size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    std::string data(size, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    EXPECT_EQ(writeFile(path(name), data, 0644, false), 0);
    return data;
  }

  // The stream sendFile produces for the file.
  std::string sentStream(const std::string& name, int64_t size) {
    StringTransport* t = nullptr;
    auto conn = makeStringConnection(&t);
    bool local = true;
    EXPECT_EQ(sendFile(*conn, path(name), size, &local), 0);
    EXPECT_FALSE(local);
    return t->sent();
  }

  // Options that receive size bytes into the file name.
  ReceiveOptions into(const std::string& name, int64_t size) const {
    ReceiveOptions options;
    options.target = path(name);
    options.expectedSize = size;
    return options;
  }

  // Receives stream; the checksum and where a failure lay land in checksum_, local_.
  // Whether the connection ended up marked bad lands in bad_, the bytes it
  // consumed in consumed_.
  int receive(const std::string& stream, const ReceiveOptions& options) {
    StringTransport* t = nullptr;
    auto conn = makeStringConnection(&t, stream);
    local_ = true;
    const int rc = receiveFile(*conn, options, &checksum_, &local_);
    bad_ = conn->isBad();
    consumed_ = t->readPos();
    return rc;
  }

  std::vector<std::string> names() const {
    std::vector<std::string> list;
    EXPECT_EQ(listDirectory(dir_.path(), &list), 0);
    std::sort(list.begin(), list.end());
    return list;
  }

  test::ScopedTempDir dir_;
  uint32_t checksum_ = 0;
  bool local_ = true;
  bool bad_ = false;
  size_t consumed_ = 0;
};

// One message as it travels: header, then body.
std::string frame(int msgType, const std::string& body) {
  uint8_t header[kRpcHeaderSize];
  encodeRpcHdr({static_cast<int32_t>(body.size()), msgType}, header);
  return std::string(reinterpret_cast<const char*>(header), kRpcHeaderSize) + body;
}

std::string fdata(const std::string& bytes) { return frame(MSG_TYPE_FDATA, bytes); }

// The fcrc message that correctly ends a transfer of content.
std::string fcrc(const std::string& content) {
  const uint32_t value =
      cksumFinish(crcExtend(0, content.data(), content.size()), content.size());
  uint8_t body[4];
  putU32(body, value);
  return frame(MSG_TYPE_FCRC, std::string(reinterpret_cast<const char*>(body), 4));
}

// The message types of a stream and the body length of each.
std::vector<std::pair<int, int>> messages(const std::string& stream) {
  std::vector<std::pair<int, int>> list;
  for (size_t pos = 0; pos + kRpcHeaderSize <= stream.size();) {
    const RpcHeader h = decodeRpcHdr(reinterpret_cast<const uint8_t*>(stream.data() + pos));
    list.emplace_back(h.msgType, h.msgLen);
    pos += kRpcHeaderSize + static_cast<size_t>(h.msgLen);
  }
  return list;
}

uint32_t cksumCommand(const std::string& file) {
  CapturedRun run;
  EXPECT_EQ(runCaptured({"/usr/bin/cksum", file}, {}, 30000, &run), 0);
  return static_cast<uint32_t>(std::stoul(run.out));
}

TEST_F(TransferTest, FilesArriveWhole) {
  const size_t sizes[] = {0, 1, 1048575, 1048576, 1048577, 3 * 1048576 + 12345};
  for (size_t size : sizes) {
    const std::string data = writeRandom("src", size, static_cast<unsigned>(size));
    const std::string stream = sentStream("src", static_cast<int64_t>(size));
    std::vector<std::pair<int, int>> expected;
    for (size_t left = size; left > 0; left -= std::min<size_t>(left, kTransferChunkSize)) {
      expected.emplace_back(MSG_TYPE_FDATA, std::min<size_t>(left, kTransferChunkSize));
    }
    expected.emplace_back(MSG_TYPE_FCRC, 4);
    EXPECT_EQ(messages(stream), expected) << size;

    ReceiveOptions options = into("dst", static_cast<int64_t>(size));
    options.sync = size % 2 == 1;
    ASSERT_EQ(receive(stream, options), 0) << size;
    std::string got;
    ASSERT_EQ(readFile(path("dst"), &got), 0);
    EXPECT_TRUE(got == data) << size;
    EXPECT_EQ(checksum_, cksumCommand(path("dst"))) << size;
    EXPECT_EQ(names(), (std::vector<std::string>{"dst", "src"}));
  }
}

TEST_F(TransferTest, ChecksumInNameAndRenameVariants) {
  EXPECT_EQ(checksumName("f.0.3", 0x1a2b), "f.1a2b.3");
  EXPECT_EQ(checksumName("/d.0.x/a.0.b.0.c", 0xffffffff), "/d.ffffffff.x/a.0.b.0.c");
  const std::string data = writeRandom("src", 777, 9);
  const std::string stream = sentStream("src", 777);
  ReceiveOptions options = into("f.0.3", 777);
  options.checksumInName = true;
  ASSERT_EQ(receive(stream, options), 0);
  std::string got;
  ASSERT_EQ(readFile(checksumName(path("f.0.3"), checksum_), &got), 0);
  EXPECT_EQ(got, data);

  // Keep leaves an existing file alone; replace overwrites it.
  options = into("existing", 777);
  for (RenameVariant variant : {RenameVariant::kKeep, RenameVariant::kReplace}) {
    ASSERT_EQ(writeFile(path("existing"), "old", 0644, false), 0);
    options.rename = variant;
    ASSERT_EQ(receive(stream, options), 0);
    ASSERT_EQ(readFile(path("existing"), &got), 0);
    EXPECT_EQ(got, variant == RenameVariant::kKeep ? "old" : data);
  }
  EXPECT_EQ(names().size(), 3u);  // existing, f.<crc>.3, src: no temporary left
}

// What a peer sends is checked, never trusted: a stream that breaks the
// announced shape fails with a code, leaves no file and marks the connection
// bad, so that a server survives any client.
TEST_F(TransferTest, StreamsThatBreakTheAnnouncementAreRefused) {
  const std::string ok = frame(MSG_TYPE_OK, "zz");
  const struct {
    const char* what;
    int64_t size;
    std::string stream;
    int rc;
  } cases[] = {
      // A size-0 announcement followed by data, as an upload of a device file sends.
      {"data where the checksum belongs", 0, fdata("x") + fcrc("x"), E_ILL_FORMED_MSG},
      {"a chunk past the size", 1, fdata("ab") + fcrc("ab"), E_ILL_FORMED_MSG},
      {"a second chunk past the size", 3, fdata("ab") + fdata("cd") + fcrc("abcd"),
       E_ILL_FORMED_MSG},
      {"a foreign message where the checksum belongs", 1, fdata("a") + ok, E_ILL_FORMED_MSG},
      {"a foreign message between chunks", 2, fdata("a") + ok + fdata("b") + fcrc("ab"),
       E_ILL_FORMED_MSG},
      {"a foreign message first", 2, ok + fdata("ab") + fcrc("ab"), E_ILL_FORMED_MSG},
      {"a short checksum body", 2, fdata("ab") + fcrc("ab").substr(0, kRpcHeaderSize + 3),
       kErrPeerClosed},
      {"a 3-byte checksum message", 1, fdata("a") + frame(MSG_TYPE_FCRC, "abc"), E_ILL_FORMED_MSG},
      {"a 5-byte checksum message", 1, fdata("a") + frame(MSG_TYPE_FCRC, "abcde"),
       E_ILL_FORMED_MSG},
      {"the wrong checksum", 2, fdata("ab") + fcrc("ba"), E_IO},
      {"a changed byte in the second chunk", 4, fdata("ab") + fdata("cX") + fcrc("abcd"), E_IO},
      {"a stream cut before the size", 4, fdata("ab"), kErrPeerClosed},
      {"a stream cut inside a chunk", 4, fdata("abcd").substr(0, kRpcHeaderSize + 2),
       kErrPeerClosed},
      {"a stream cut before the checksum", 2, fdata("ab"), kErrPeerClosed},
      {"nothing at all", 0, "", kErrPeerClosed},
  };
  for (const auto& c : cases) {
    for (const std::string& target : {std::string("dst"), std::string("f.0.1")}) {
      ReceiveOptions options = into(target, c.size);
      options.checksumInName = target == "f.0.1";
      EXPECT_EQ(receive(c.stream, options), c.rc) << c.what;
      EXPECT_FALSE(local_) << c.what;
      EXPECT_TRUE(bad_) << c.what;
      EXPECT_EQ(names(), std::vector<std::string>{}) << c.what;
    }
  }
}

// An announced size that no file can have is refused before a file is created or
// a byte read.
TEST_F(TransferTest, ImpossibleSizesAreRefusedUnread) {
  const std::string stream = fdata("ab") + fcrc("ab");
  for (int64_t size : {int64_t{-1}, INT64_MIN, kMaxTransferSize + 1, INT64_MAX}) {
    for (const std::string& target : {path("dst"), std::string()}) {
      ReceiveOptions options;
      options.target = target;
      options.expectedSize = size;
      EXPECT_EQ(receive(stream, options), E_ILL_FORMED_MSG) << size;
      EXPECT_EQ(consumed_, 0u) << size;
      EXPECT_TRUE(bad_) << size;
      EXPECT_EQ(names(), std::vector<std::string>{}) << size;
    }
  }
  // The largest size a VarUInt carries passes the check and fails only when the
  // stream ends.
  EXPECT_EQ(receive(fdata("ab"), into("dst", kMaxTransferSize)), kErrPeerClosed);
  EXPECT_EQ(names(), std::vector<std::string>{});
}

TEST_F(TransferTest, LocalFailuresSaySo) {
  const std::string stream = fdata("ab") + fcrc("ab");
  EXPECT_EQ(receive(stream, into("missing-dir/dst", 2)), ENOENT);
  EXPECT_TRUE(local_);
  EXPECT_FALSE(bad_);  // the peer did nothing wrong
  StringTransport* t = nullptr;
  auto sender = makeStringConnection(&t);
  local_ = false;
  EXPECT_EQ(sendFile(*sender, path("no-such-file"), 0, &local_), ENOENT);
  EXPECT_TRUE(local_);
  writeRandom("src", 2000, 3);
  // A file that does not hold the size it was announced with (it changed, or it
  // is a device whose size is 0) fails here and never reaches its fcrc; the
  // bytes up to the size may have gone out.
  const struct {
    const char* file;
    int64_t size;
    size_t sentAtMost;
  } wrongSizes[] = {
      {"src", 1999, kRpcHeaderSize},
      {"src", 2001, kRpcHeaderSize + 2000},
      {"src", 0, 0},
      {"src", -1, 0},
      {"/dev/zero", 0, 0},
      {"/dev/zero", 5, kRpcHeaderSize + 5},
  };
  for (const auto& c : wrongSizes) {
    auto conn = makeStringConnection(&t);
    local_ = false;
    const std::string file = c.file[0] == '/' ? c.file : path(c.file);
    EXPECT_EQ(sendFile(*conn, file, c.size, &local_), EINVAL) << c.file << " " << c.size;
    EXPECT_TRUE(local_);
    EXPECT_LE(t->sent().size(), c.sentAtMost) << c.file << " " << c.size;
    for (const auto& [type, len] : messages(t->sent())) EXPECT_EQ(type, MSG_TYPE_FDATA);
  }
  int64_t size = 0;
  EXPECT_EQ(transferFileSize(path("src"), &size), 0);
  EXPECT_EQ(size, 2000);
}

// A committed file's checksum is recorded apart from the stream: a sender whose
// copy does not match never sends the fcrc, and a receiver refuses content that
// arrives intact but differs (the sender's fcrc was computed over the damage).
TEST_F(TransferTest, RecordedChecksumsGuardBothEnds) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{600000}}) {
    writeRandom("sized", size, 4);
    uint32_t sum = 0;
    ASSERT_EQ(fileChecksum(path("sized"), &sum), 0);
    EXPECT_EQ(sum, cksumCommand(path("sized"))) << size;
  }
  uint32_t ignored = 0;
  EXPECT_EQ(fileChecksum(path("no-such-file"), &ignored), ENOENT);

  const std::string data = writeRandom("src", 5000, 8);
  uint32_t recorded = 0;
  ASSERT_EQ(fileChecksum(path("src"), &recorded), 0);
  StringTransport* t = nullptr;
  auto conn = makeStringConnection(&t);
  EXPECT_EQ(sendFile(*conn, path("src"), 5000, &local_, recorded), 0);
  EXPECT_EQ(t->sent(), sentStream("src", 5000));
  conn = makeStringConnection(&t);
  EXPECT_EQ(sendFile(*conn, path("src"), 5000, &local_, recorded + 1), E_IO);
  EXPECT_TRUE(local_);
  EXPECT_EQ(messages(t->sent()), (std::vector<std::pair<int, int>>{{MSG_TYPE_FDATA, 5000}}));

  std::string damaged = data;
  damaged[100] ^= 0x20;
  ReceiveOptions options = into("f.0.1", 5000);
  options.rename = RenameVariant::kKeep;
  options.expectedChecksum = recorded;
  EXPECT_EQ(receive(fdata(damaged) + fcrc(damaged), options), E_IO);
  EXPECT_FALSE(local_);
  EXPECT_TRUE(bad_);
  EXPECT_EQ(names(), (std::vector<std::string>{"sized", "src"}));
  EXPECT_EQ(receive(fdata(data) + fcrc(data), options), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"f.0.1", "sized", "src"}));
}

// The temporary name is predictable: a link planted there is not followed, and
// the file it names keeps its content.
TEST_F(TransferTest, APlantedLinkAtTheTemporaryNameIsNotFollowed) {
  ASSERT_EQ(writeFile(path("outside"), "precious", 0600, false), 0);
  ASSERT_EQ(makeSymlink(path("outside"), tempFileName(path("dst"))), 0);
  EXPECT_EQ(receive(fdata("ab") + fcrc("ab"), into("dst", 2)), ELOOP);
  EXPECT_TRUE(local_);
  std::string kept;
  ASSERT_EQ(readFile(path("outside"), &kept), 0);
  EXPECT_EQ(kept, "precious");
  EXPECT_FALSE(fileExists(path("dst")));
}

TEST_F(TransferTest, AnnouncementRoundTrip) {
  const FileAnnouncement a{"/var/vyfs/x", 1LL << 40, 0640, 0, 4294967295u, 1700000000, 1, "dst"};
  test::expectBodyRoundTrip(a);
  FileAnnouncement b;
  EXPECT_EQ(announceFile(dir_.path(), "dst", &b), EINVAL);  // a directory

  // A size field no writer produces (a 9-byte form, which read as a negative size,
  // or an 8-byte one of 2^56 and more) fails the whole announcement.
  const std::vector<uint8_t> sizes[] = {
      {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
      {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
  };
  for (const std::vector<uint8_t>& size : sizes) {
    std::vector<uint8_t> body = {'x', 0};
    body.insert(body.end(), size.begin(), size.end());
    body.insert(body.end(), {0, 0, 0, 0, 0, 'd', 0});
    FileAnnouncement c;
    EXPECT_EQ(decodeBody(body.data(), body.size(), &c), E_ILL_FORMED_MSG);
  }
}

// Serves cp_to announcements on loopback, `count` connections in turn, storing
// each file under dir.
void serveCopies(int listenSock, int count, const std::string& dir,
                 std::vector<std::string>* gotP) {
  for (int i = 0; i < count; ++i) {
    std::unique_ptr<ConnImplementation> conn;
    Hello clientHello;
    if (acceptConnection(listenSock, 5000, Hello{}, &conn, &clientHello) != 0) return;
    int type = -1, len = 0;
    std::unique_ptr<uint8_t[]> body;
    FileAnnouncement a;
    if (conn->receive(&type, &body, &len) != 0 || type != MSG_TYPE_CP_TO ||
        a.read(body.get(), body.get() + len) != body.get() + len) {
      return;
    }
    ReceiveOptions options;
    options.target = dir + "/" + a.destination + "." + std::to_string(i);
    options.expectedSize = a.size;
    uint32_t checksum = 0;
    bool local = false;
    if (receiveFile(*conn, options, &checksum, &local) != 0) return;
    gotP->push_back(options.target);
    if (conn->send(MSG_TYPE_OK, nullptr, 0) != 0) return;
  }
}

TEST_F(TransferTest, CopyToNodes) {
  const std::string data = writeRandom("src", 1500000, 11);
  int goodSock = -1, goodPort = 0, deadSock = -1, deadPort = 0;
  ASSERT_EQ(listenSocket(ipv4Address(0x7F000001, 0), &goodSock, &goodPort), 0);
  ASSERT_EQ(listenSocket(ipv4Address(0x7F000001, 0), &deadSock, &deadPort), 0);
  closeSocket(deadSock);  // refuses connections from now on
  const PeerAddress good = ipv4Address(0x7F000001, goodPort);
  const PeerAddress dead = ipv4Address(0x7F000001, deadPort);
  std::vector<std::string> got;
  std::thread server(serveCopies, goodSock, 3, dir_.path(), &got);
  int numSuccess = -1;
  const ConnectParams params;  // unsecured: no authentication exchange
  EXPECT_EQ(copyFileToNodes(path("src"), "copy", {good}, params, &numSuccess), 0);
  EXPECT_EQ(numSuccess, 1);
  // The dead node fails both passes; the good one before it is reached twice.
  EXPECT_EQ(copyFileToNodes(path("src"), "copy", {good, dead}, params, &numSuccess),
            kErrConnectFailed);
  EXPECT_EQ(numSuccess, 1);
  server.join();
  closeSocket(goodSock);
  ASSERT_EQ(got.size(), 3u);
  for (const std::string& file : got) {
    std::string content;
    ASSERT_EQ(readFile(file, &content), 0);
    EXPECT_TRUE(content == data) << file;
  }
}

}  // namespace
}  // namespace qcr
