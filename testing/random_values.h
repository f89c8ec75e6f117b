// Seeded random values of every serialisable type, for tests and benchmarks.
// Numbers favour the edges of the VarUInt length classes, where coding bugs live;
// every value respects its field's range, so each one can be written.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "qcr/data/dblock.h"
#include "qcr/data/file_names.h"
#include "qcr/data/node_list.h"
#include "qcr/data/state_file.h"

namespace qcr::test {

class RandomValues {
 public:
  explicit RandomValues(uint32_t seed) : rng_(seed) {}

  int32_t below(int32_t n) { return static_cast<int32_t>(rng_() % static_cast<uint32_t>(n)); }
  bool coin() { return below(2) == 1; }

  // A non-negative 32-bit number; near a class boundary half of the time.
  int32_t number() {
    static constexpr int64_t kStarts[] = {0, 128, 16512, 2113664, 270549120, INT32_MAX};
    if (coin()) return static_cast<int32_t>(rng_() & 0x7FFFFFFF) >> below(31);
    const int64_t v = kStarts[below(6)] + below(3) - 1;
    return static_cast<int32_t>(v < 0 ? 0 : (v > INT32_MAX ? INT32_MAX : v));
  }
  // A field stored with base -1: -1 or a number below INT32_MAX.
  int32_t orNone() { return coin() ? -1 : number() % INT32_MAX; }

  std::string text(int maxLen = 12) {
    std::string s(static_cast<size_t>(below(maxLen + 1)), 'x');
    for (char& c : s) c = static_cast<char>(1 + below(255));  // any byte but NUL
    return s;
  }

  Uid uid() { return {number(), number(), number()}; }
  Ballot ballot() { return {number(), number()}; }

  ConfigNodeEntry configNode() { return {number(), orNone(), coin() ? 0 : number(), coin()}; }

  PaxosConfig config() {
    PaxosConfig c;
    for (int i = below(10); i > 0; --i) c.nodes.push_back(configNode());
    for (int i = below(5); i > 0; --i) c.disks.push_back(number());
    c.minNodes = orNone();
    return c;
  }

  ConfigChange configChange() { return {coin(), coin(), config()}; }

  ProposedUpdate update() {
    ProposedUpdate u;
    u.uid = uid();
    u.kind = static_cast<UpdateKind>(below(kUpdateKinds));
    u.param = orNone();
    switch (u.kind) {
      case UpdateKind::ValuePut: u.value = text(); [[fallthrough]];
      case UpdateKind::ValueDelete: u.name = text(); break;
      case UpdateKind::FilePut: u.crc = static_cast<uint32_t>(rng_()); [[fallthrough]];
      case UpdateKind::Leader: u.number2 = number(); [[fallthrough]];
      case UpdateKind::FileDelete:
        u.number1 = number();
        if (u.kind != UpdateKind::Leader) u.name = text();
        break;
      case UpdateKind::Config: u.config = configChange(); break;
      default: break;
    }
    for (int i = below(4); i > 0; --i) u.listn.push_back(number());
    return u;
  }

  // A committed state with about the given numbers of values and files.
  CommittedState committed(int nValues = 6, int nFiles = 6) {
    CommittedState s;
    s.config = config();
    s.configVersion = number();
    s.leaderId = orNone();
    s.lease = number();
    s.leaderVersion = number();
    s.horizon = orNone();
    for (int i = below(22); i > 0; --i) s.updates[{number(), number()}] = number();
    for (int i = nValues > 0 ? below(nValues + 1) : 0; i > 0; --i)
      s.values[text()] = {number(), text(40)};
    s.maxDeletedValueVersion = number();
    for (int i = nFiles > 0 ? below(nFiles + 1) : 0; i > 0; --i)
      s.files[number()] = {number(), uid(), static_cast<uint32_t>(rng_())};
    s.maxDeletedFileVersion = number();
    return s;
  }

  PaxosDblockSummary dblock() {
    PaxosDblockSummary d;
    d.seq = number();
    d.mbal = ballot();
    d.bal = ballot();
    d.inp = update();
    d.leaderChallengeVersion = number();
    d.committed = committed();
    return d;
  }

  PaxosFileData fileData() { return {number(), number(), dblock()}; }

  PaxosFileHeader header() {
    PaxosFileHeader h;
    h.magic = static_cast<uint32_t>(rng_());
    h.crc = static_cast<uint32_t>(rng_());
    h.len = static_cast<uint32_t>(rng_());
    h.cid = (uint64_t{rng_()} << 32) | rng_();
    h.fmtVersion = number();
    h.lastWriterId = orNone();
    return h;
  }

  NodeEntry nodeEntry() {
    return {orNone(), static_cast<uint8_t>(below(256)), text(), text(), number()};
  }

  NodeList nodeList() {
    NodeList l;
    for (int i = below(6); i > 0; --i) l.push_back(nodeEntry());
    return l;
  }

  FileList fileList() {
    FileList l;
    for (int i = below(6); i > 0; --i) l.push_back({number(), text()});
    return l;
  }

 private:
  std::mt19937 rng_;
};

}  // namespace qcr::test
