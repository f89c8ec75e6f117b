// Writes the starting corpus of every fuzz target: well-formed inputs built by
// the writers themselves, so that the fuzzer begins inside each format instead
// of having to find its magic numbers and checksums. Usage: write_seeds DIR;
// target T's seeds go to DIR/T/, a few dozen small files in all.
#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "basic/files.h"
#include "fuzz/fuzz_support.h"
#include "qcr/coding/crc.h"
#include "qcr/comm/framing.h"
#include "qcr/comm/hello.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/list_files.h"
#include "qcr/data/state_file.h"
#include "qcr/transfer/transfer_copy.h"
#include "testing/random_values.h"

namespace qcr::fuzz {
namespace {

using test::RandomValues;

class SeedWriter {
 public:
  explicit SeedWriter(std::string root) : root_(std::move(root)) {
    (void)makeDirectory(root_, 0755);  // may exist from an earlier run
  }

  // Seed n of target: the selector byte(s) lead, then the bytes.
  void write(const std::string& target, const Bytes& lead, const Bytes& bytes) {
    const std::string dir = root_ + "/" + target;
    (void)makeDirectory(dir, 0755);  // exists after the first seed
    Bytes all = lead;
    all.insert(all.end(), bytes.begin(), bytes.end());
    const std::string path = dir + "/seed-" + std::to_string(count_[target]++);
    if (writeFile(path, std::string(all.begin(), all.end()), 0644, false) != 0) {
      fprintf(stderr, "write_seeds: cannot write %s\n", path.c_str());
      failed_ = true;
    }
  }
  void write(const std::string& target, const Bytes& bytes) { write(target, {}, bytes); }
  void write(const std::string& target, const Bytes& lead, const std::string& text) {
    write(target, lead, Bytes(text.begin(), text.end()));
  }
  bool failed() const { return failed_; }

 private:
  std::string root_;
  std::map<std::string, int> count_;
  bool failed_ = false;
};

Bytes message(int type, const Bytes& body) {
  Bytes b(kRpcHeaderSize);
  encodeRpcHdr({static_cast<int32_t>(body.size()), type}, b.data());
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

Bytes fileStream(const std::string& content) {
  const Bytes bytes(content.begin(), content.end());
  Bytes crc(4);
  putU32(crc.data(), cksumFinish(crcExtend(0, content.data(), content.size()), content.size()));
  Bytes out = content.empty() ? Bytes{} : message(MSG_TYPE_FDATA, bytes);
  const Bytes end = message(MSG_TYPE_FCRC, crc);
  out.insert(out.end(), end.begin(), end.end());
  return out;
}

void codingSeeds(SeedWriter& w) {
  // selector 0: VarUInt; 4: string; 5: string array; 10: uid; 11: uid text.
  w.write("coding", {0x00, 0x7F, 0x00, 0x80, 0x00, 0x00, 0xFE, 0xFD, 0xFB, 0xF7, 0xEF, 0xDF,
                     0xBF, 0x7F});
  w.write("coding", {0x04, 'a', 'b', 0, 0x05, 2, 'x', 0, 0, 0x0A, 1, 2, 3});
  w.write("coding", {0x0B}, std::string("800080ff02"));
}

void helloSeeds(SeedWriter& w, RandomValues& r) {
  Hello client;
  client.clusterId = 0x0102030405060708;
  w.write("hello", {0}, buildClientHello(client));
  client.security = HelloSecurityItem{3, "AUTHONLY"};
  w.write("hello", {0}, buildClientHello(client));
  Hello reply;
  reply.nodeValue = r.number();
  reply.clusterId = 77;
  w.write("hello", {1}, buildHelloReply(reply));
  reply.security = HelloSecurityItem{1, "AES128-SHA"};
  reply.status = 1;
  w.write("hello", {1}, buildHelloReply(reply));
}

void framingSeeds(SeedWriter& w) {
  w.write("framing", message(MSG_TYPE_OK, {'o', 'k'}));
  Bytes two = message(MSG_TYPE_FDATA, {1, 2, 3});
  const Bytes crc = message(MSG_TYPE_FCRC, {0, 0, 0, 0});
  two.insert(two.end(), crc.begin(), crc.end());
  w.write("framing", two);
}

// One seed per body type: the default value, then one with random contents
// where the type carries a state, a list or names.
template <typename T>
void bodySeed(SeedWriter& w, uint8_t index, RandomValues& r) {
  T body;
  w.write("bodies", {index}, encodeBody(body));
  if constexpr (requires { body.state; }) body.state = r.committed(3, 3);
  if constexpr (requires { body.uid; }) body.uid = r.uid();
  if constexpr (requires { body.name; }) body.name = "dir/name.conf";
  if constexpr (requires { body.value; }) body.value = "blue";
  if constexpr (requires { body.nodes; }) body.nodes = r.nodeList();
  if constexpr (requires { body.files; }) body.files = r.fileList();
  if constexpr (requires { body.change; }) body.change = r.configChange();
  if constexpr (requires { body.dblock; }) body.dblock = r.dblock();
  w.write("bodies", {index}, encodeBody(body));
}

template <size_t... I>
void bodySeeds(SeedWriter& w, RandomValues& r, std::index_sequence<I...>) {
  using Bodies = std::tuple<VputRequest, DeleteRequest, FputRequest, FgetRequest, ConfigRequest,
                            DiscoverRequest, BackupRequest, InitRequest, SeqCommitReply,
                            SeqCommitErrorReply, SeqCommitFgetReply, SeqCommitFlistReply,
                            UidReply, UidFputReply, FailedNodeVerReply, DiscoverReply,
                            BackupReply, SeqCommitQueryReply>;
  (bodySeed<std::tuple_element_t<I, Bodies>>(w, static_cast<uint8_t>(I), r), ...);
}

void transferSeeds(SeedWriter& w) {
  const FileAnnouncement a{"/etc/x.conf", 12, 0640, 0, 0, 1700000000, 1700000001, "x.conf"};
  w.write("announcement", encodeBody(a));
  for (const std::string content : {"", "hello world\n", "abc"}) {
    Bytes size(8);
    putU64(size.data(), content.size());
    size.push_back(static_cast<uint8_t>(content.size() % 4));  // option flags
    w.write("transfer", size, fileStream(content));
  }
}

void dataSeeds(SeedWriter& w, RandomValues& r) {
  for (int i = 0; i < 3; ++i) {
    w.write("state_file", {0}, encodeStateFile(r.fileData(), 0x1234, r.orNone()));
    w.write("committed_state", {0}, encodeMembers(r.committed()));
    w.write("committed_state", {1}, encodeMembers(r.dblock()));
    w.write("committed_state", {2}, encodeMembers(r.fileData()));
    w.write("committed_state", {3}, encodeMembers(r.configChange()));
    const NodeList nodes = r.nodeList();
    Bytes bytes(static_cast<size_t>(sizeNodeList(nodes)));
    putNodeList(bytes.data(), nodes);
    w.write("list_files", {2}, bytes);
    const FileList files = r.fileList();
    Bytes fileBytes(static_cast<size_t>(sizeFileList(files)));
    putFileList(fileBytes.data(), files);
    w.write("file_names", {2}, fileBytes);
  }
  w.write("list_files", {0}, std::string("1,0,10.0.0.1,,node1\n2,1,10.0.0.2,1192,node2,x\n"));
  w.write("list_files", {1}, std::string("1,0,/dev/sdb\n2,1,label\n"));
  w.write("file_names", {0}, committedFileName("a.b%c", 17, 3, 0x1a2b, {1, 2, 3}));
  w.write("file_names", {0}, committedFileName("qcr.nodes", kNodesFileObjId, 1, 0, {}));
  w.write("file_names", {1}, committedStem("dir/a.b%c"));
}

}  // namespace
}  // namespace qcr::fuzz

int main(int argc, char** argv) {
  using namespace qcr::fuzz;
  if (argc != 2) {
    fprintf(stderr, "usage: write_seeds DIR\n");
    return 2;
  }
  quietLog();
  SeedWriter w(argv[1]);
  qcr::test::RandomValues r(20240);
  codingSeeds(w);
  helloSeeds(w, r);
  framingSeeds(w);
  bodySeeds(w, r, std::make_index_sequence<18>{});
  transferSeeds(w);
  dataSeeds(w, r);
  return w.failed() ? 1 : 0;
}
