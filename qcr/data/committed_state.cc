#include "qcr/data/committed_state.h"

#include <algorithm>
#include <cstdio>

#include "basic/assert.h"
#include "basic/log.h"
#include "qcr/coding/text.h"

namespace qcr {

namespace {

std::string updateRecordToString(const CommittedState::UpdateKey& key, int32_t seq) {
  return Uid{key.first, key.second, seq}.toString();
}

// Maps are stored in key order without duplicates; anything else is not a form
// this code wrote, and accepting it would make re-writing change the bytes.
template <typename Map, typename Key, typename Value>
bool appendInOrder(Map* map, Key&& key, Value&& value) {
  if (!map->empty() && !(map->rbegin()->first < key)) return false;
  map->emplace_hint(map->end(), std::forward<Key>(key), std::forward<Value>(value));
  return true;
}

}  // namespace

std::string fileRecordToString(int32_t objId, const FileRecord& record) {
  char crcText[16];
  snprintf(crcText, sizeof crcText, "%08x", record.crc);
  return strCat({"(", std::to_string(objId), ",v", std::to_string(record.version), ",",
                 uidToString(record.uid), ",", crcText, ")"});
}

int CommittedState::getSize() const {
  int size = config.getSize() + sizeVarUInt(configVersion) + sizeVarUInt(leaderId, -1) +
             sizeVarUInt(lease) + sizeVarUInt(leaderVersion) + sizeVarUInt(horizon, -1);
  size += sizeVarUInt(static_cast<int64_t>(updates.size()));
  for (const auto& [key, seq] : updates)
    size += sizeVarUInt(key.first) + sizeVarUInt(key.second) + sizeVarUInt(seq);
  size += sizeVarUInt(static_cast<int64_t>(values.size()));
  for (const auto& [name, v] : values)
    size += sizeString(name) + sizeVarUInt(v.version) + sizeString(v.text);
  size += sizeVarUInt(maxDeletedValueVersion);
  size += sizeVarUInt(static_cast<int64_t>(files.size()));
  for (const auto& [objId, f] : files)
    size += sizeVarUInt(objId) + sizeVarUInt(f.version) + f.uid.getSize() + 4;
  return size + sizeVarUInt(maxDeletedFileVersion);
}

namespace {

// Writes state at p in its wire and file layout. room(p, n) makes sure n more
// bytes fit at p and returns where to go on writing them: p itself for a buffer
// sized beforehand, or the same place in a grown one.
template <typename Room>
uint8_t* writeState(const CommittedState& s, uint8_t* p, Room room) {
  constexpr size_t kVar = MaxSizeVarUInt;
  p = room(p, static_cast<size_t>(s.config.getSize()) + 6 * kVar + s.updates.size() * 3 * kVar);
  p = s.config.write(p);
  p = putVarUInt(putVarUInt(putVarUInt(p, s.configVersion), s.leaderId, -1), s.lease);
  p = putVarUInt(putVarUInt(p, s.leaderVersion), s.horizon, -1);
  p = putVarUInt(p, static_cast<int64_t>(s.updates.size()));
  for (const auto& [key, seq] : s.updates)
    p = putVarUInt(putVarUInt(putVarUInt(p, key.first), key.second), seq);
  p = room(p, kVar);
  p = putVarUInt(p, static_cast<int64_t>(s.values.size()));
  for (const auto& [name, v] : s.values) {
    p = room(p, name.size() + v.text.size() + 2 + kVar);  // two strings with their NULs
    p = putString(putVarUInt(putString(p, name), v.version), v.text);
  }
  p = room(p, 3 * kVar + s.files.size() * (2 * kVar + MaxUidBytes + 4));
  p = putVarUInt(p, s.maxDeletedValueVersion);
  p = putVarUInt(p, static_cast<int64_t>(s.files.size()));
  for (const auto& [objId, f] : s.files)
    p = putU32(f.uid.write(putVarUInt(putVarUInt(p, objId), f.version)), f.crc);
  return putVarUInt(p, s.maxDeletedFileVersion);
}

}  // namespace

uint8_t* CommittedState::write(uint8_t* pBuffer) const {
  // Not checked against getSize() here: that walks the whole state again, and
  // every caller sized its buffer with it and checks where the writing ended.
  return writeState(*this, pBuffer, [](uint8_t* p, size_t) { return p; });
}

std::vector<uint8_t> CommittedState::encode(size_t expectedSize) const {
  std::vector<uint8_t> out(std::max<size_t>(expectedSize, 256));
  uint8_t* const end = writeState(*this, out.data(), [&out](uint8_t* p, size_t n) {
    const size_t used = static_cast<size_t>(p - out.data());
    if (out.size() - used < n) out.resize(std::max(out.size() * 2, used + n));
    return out.data() + used;
  });
  out.resize(static_cast<size_t>(end - out.data()));
  return out;
}

const uint8_t* CommittedState::read(const uint8_t* p, const uint8_t* end) {
  p = getVarInt32(getVarInt32(config.read(p, end), end, &configVersion), end, &leaderId, -1);
  p = getVarInt32(getVarInt32(p, end, &lease), end, &leaderVersion);
  p = getVarInt32(p, end, &horizon, -1);
  int32_t count = 0;
  updates.clear();
  p = getCount(p, end, &count, 3);
  for (int32_t i = 0; i < count && p != nullptr; ++i) {
    UpdateKey key;
    int32_t seq = 0;
    p = getVarInt32(getVarInt32(getVarInt32(p, end, &key.first), end, &key.second), end, &seq);
    if (p != nullptr && !appendInOrder(&updates, key, seq)) return nullptr;
  }
  values.clear();
  p = getCount(p, end, &count, 3);
  for (int32_t i = 0; i < count && p != nullptr; ++i) {
    std::string name;
    CommittedValue v;
    p = getString(getVarInt32(getString(p, end, &name), end, &v.version), end, &v.text);
    if (p != nullptr && !appendInOrder(&values, std::move(name), std::move(v))) return nullptr;
  }
  p = getVarInt32(p, end, &maxDeletedValueVersion);
  files.clear();
  p = getCount(p, end, &count, 9);
  for (int32_t i = 0; i < count && p != nullptr; ++i) {
    int32_t objId = 0;
    FileRecord f;
    p = f.uid.read(getVarInt32(getVarInt32(p, end, &objId), end, &f.version), end);
    p = getU32(p, end, &f.crc);
    if (p != nullptr && !appendInOrder(&files, objId, f)) return nullptr;
  }
  return getVarInt32(p, end, &maxDeletedFileVersion);
}

std::string CommittedState::updatesToString() const {
  return listToString(updates, [](const auto& entry) {
    return updateRecordToString(entry.first, entry.second);
  });
}

std::string CommittedState::toString() const {
  const std::string vals = listToString(values, [](const auto& v) {
    return strCat({"('", v.first, "',v", std::to_string(v.second.version), ",'", v.second.text,
                   "')"});
  });
  const std::string fileText =
      listToString(files, [](const auto& f) { return fileRecordToString(f.first, f.second); });
  return strCat({"<config ver", std::to_string(configVersion), " ", config.toString(),
                 " leader=", std::to_string(leaderId), " lease=", std::to_string(lease),
                 " ver=", std::to_string(leaderVersion), " horiz=", std::to_string(horizon),
                 " updates=", updatesToString(), " vals=", vals, " vdel=",
                 std::to_string(maxDeletedValueVersion), " files=", fileText, " fdel=",
                 std::to_string(maxDeletedFileVersion), ">"});
}

std::string CommittedState::dump() const {
  std::string out;
  char line[512];
  auto add = [&out, &line](int n) { out.append(line, std::min<size_t>(n, sizeof line - 1)); };
  add(snprintf(line, sizeof line, "config: minNodes: %d version %d\n", config.minNodes,
               configVersion));
  out.append("  nodes: ").append(config.nodesToString()).append("\n");
  out.append("  disks: ").append(config.disksToString()).append("\n");
  add(snprintf(line, sizeof line, "leader: id %d version %d\n", leaderId, leaderVersion));
  add(snprintf(line, sizeof line, "updates: horizon %d\n", horizon));
  out.append("  ").append(updatesToString()).append("\n");
  if (values.empty()) {
    add(snprintf(line, sizeof line, "values: None, max deleted version %d\n",
                 maxDeletedValueVersion));
  } else {
    add(snprintf(line, sizeof line, "values: %d, max deleted version %d\n",
                 static_cast<int>(values.size()), maxDeletedValueVersion));
    for (const auto& [name, v] : values)
      out.append(strCat({"  ", name, " = version ", std::to_string(v.version), " \"", v.text,
                         "\"\n"}));
  }
  if (files.empty()) {
    add(snprintf(line, sizeof line, "files: None, max deleted version %d\n",
                 maxDeletedFileVersion));
  } else {
    add(snprintf(line, sizeof line, "files: %d, max deleted version %d\n",
                 static_cast<int>(files.size()), maxDeletedFileVersion));
    for (const auto& [objId, f] : files)
      add(snprintf(line, sizeof line, "  %d = version %d uid %s crc %08X\n", objId, f.version,
                   uidToString(f.uid).c_str(), f.crc));
  }
  return out;
}

bool CommittedState::includes(const Uid& uid) const {
  if (uid.seq <= horizon) return true;
  const auto iter = updates.find({uid.node, uid.epoch});
  return iter != updates.end() && uid.seq <= iter->second;
}

void CommittedState::addUpdate(const Uid& uid) {
  QCR_ASSERT_MSG(!includes(uid), "addUpdate: duplicate uid %s", uid.toString().c_str());
  const int32_t seq = uid.seq;
  const auto iter = updates.find({uid.node, uid.epoch});
  if (iter != updates.end()) {
    QCR_ASSERT(iter->second < seq);
    iter->second = seq;
    return;
  }
  if (updates.size() >= kMaxUpdateRecords) {
    auto oldest = updates.begin();
    for (auto i = updates.begin(); i != updates.end(); ++i)
      if (i->second < oldest->second) oldest = i;
    qcrLog(4, "addUpdate: discarding (n%d,e%d),%d from %s", oldest->first.first,
           oldest->first.second, oldest->second, updatesToString().c_str());
    horizon = oldest->second;
    updates.erase(oldest);
  }
  updates.emplace(UpdateKey{uid.node, uid.epoch}, seq);
}

}  // namespace qcr
