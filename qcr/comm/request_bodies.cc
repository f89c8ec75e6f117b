#include "qcr/comm/request_bodies.h"

namespace qcr {

namespace {

// Versions and errors travel plus one, so that -1 is the byte 00.
constexpr int32_t kPlusOne = -1;

}  // namespace

// ---- requests ----

int VputRequest::getSize() const {
  return uid.getSize() + sizeString(name) + sizeString(value) + sizeVarUInt(newVersion, kPlusOne) +
         sizeVarUInt(condVersion, kPlusOne);
}
uint8_t* VputRequest::write(uint8_t* p) const {
  p = putString(putString(uid.write(p), name), value);
  return putVarUInt(putVarUInt(p, newVersion, kPlusOne), condVersion, kPlusOne);
}
const uint8_t* VputRequest::read(const uint8_t* p, const uint8_t* end) {
  p = getString(getString(uid.read(p, end), end, &name), end, &value);
  return getVarInt32(getVarInt32(p, end, &newVersion, kPlusOne), end, &condVersion, kPlusOne);
}

int DeleteRequest::getSize() const {
  return uid.getSize() + sizeString(name) + sizeVarUInt(condVersion, kPlusOne);
}
uint8_t* DeleteRequest::write(uint8_t* p) const {
  return putVarUInt(putString(uid.write(p), name), condVersion, kPlusOne);
}
const uint8_t* DeleteRequest::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(getString(uid.read(p, end), end, &name), end, &condVersion, kPlusOne);
}

int FputRequest::getSize() const {
  return uid.getSize() + sizeString(name) + sizeVarUInt(fileSize, kPlusOne) +
         sizeVarUInt(newVersion, kPlusOne) + sizeVarUInt(condVersion, kPlusOne) +
         sizeVarUInt(quorumOption);
}
uint8_t* FputRequest::write(uint8_t* p) const {
  p = putVarUInt(putString(uid.write(p), name), fileSize, kPlusOne);
  p = putVarUInt(putVarUInt(p, newVersion, kPlusOne), condVersion, kPlusOne);
  return putVarUInt(p, quorumOption);
}
const uint8_t* FputRequest::read(const uint8_t* p, const uint8_t* end) {
  p = getVarInt64(getString(uid.read(p, end), end, &name), end, &fileSize, kPlusOne);
  p = getVarInt32(getVarInt32(p, end, &newVersion, kPlusOne), end, &condVersion, kPlusOne);
  return getVarInt32(p, end, &quorumOption);
}

int FgetRequest::getSize() const {
  return sizeString(name) + sizeVarUInt(condVersion, kPlusOne) + sizeVarUInt(flags);
}
uint8_t* FgetRequest::write(uint8_t* p) const {
  return putVarUInt(putVarUInt(putString(p, name), condVersion, kPlusOne), flags);
}
const uint8_t* FgetRequest::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(getVarInt32(getString(p, end, &name), end, &condVersion, kPlusOne), end,
                     &flags);
}

int ConfigRequest::getSize() const {
  return uid.getSize() + change.getSize() + sizeVarUInt(configVersion, kPlusOne) +
         sizeVarUInt(quorumOption);
}
uint8_t* ConfigRequest::write(uint8_t* p) const {
  p = change.write(uid.write(p));
  return putVarUInt(putVarUInt(p, configVersion, kPlusOne), quorumOption);
}
const uint8_t* ConfigRequest::read(const uint8_t* p, const uint8_t* end) {
  p = change.read(uid.read(p, end), end);
  return getVarInt32(getVarInt32(p, end, &configVersion, kPlusOne), end, &quorumOption);
}

int DiscoverRequest::getSize() const { return sizeVarUInt(nlVersion, kPlusOne); }
uint8_t* DiscoverRequest::write(uint8_t* p) const { return putVarUInt(p, nlVersion, kPlusOne); }
const uint8_t* DiscoverRequest::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(p, end, &nlVersion, kPlusOne);
}

int BackupRequest::getSize() const { return sizeVarUInt(compress); }
uint8_t* BackupRequest::write(uint8_t* p) const { return putVarUInt(p, compress); }
const uint8_t* BackupRequest::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(p, end, &compress);
}

int InitRequest::getSize() const {
  return 8 + sizeNodeList(nodes) + dblock.getSize() + config.getSize();
}
uint8_t* InitRequest::write(uint8_t* p) const {
  return config.write(dblock.write(putNodeList(putU64(p, clusterId), nodes)));
}
const uint8_t* InitRequest::read(const uint8_t* p, const uint8_t* end) {
  p = getNodeList(getU64(p, end, &clusterId), end, &nodes);
  return config.read(dblock.read(p, end), end);
}

InitRequest makeInitRequest(uint64_t clusterId, const NodeList& nodes, const DiskList& disks,
                            int minNodes) {
  InitRequest init;
  init.clusterId = clusterId;
  init.nodes = nodes;
  init.config = PaxosConfig(nodes, disks, minNodes);
  init.dblock.committed.config = init.config;
  init.dblock.committed.configVersion = 1;
  return init;
}

// ---- replies ----

int SeqCommitReply::getSize() const { return sizeVarUInt(seq) + state.getSize(); }
uint8_t* SeqCommitReply::write(uint8_t* p) const { return state.write(putVarUInt(p, seq)); }
const uint8_t* SeqCommitReply::read(const uint8_t* p, const uint8_t* end) {
  return state.read(getVarInt32(p, end, &seq), end);
}

int SeqCommitErrorReply::getSize() const {
  return sizeVarUInt(error, kPlusOne) + sizeVarUInt(seq) + state.getSize();
}
uint8_t* SeqCommitErrorReply::write(uint8_t* p) const {
  return state.write(putVarUInt(putVarUInt(p, error, kPlusOne), seq));
}
const uint8_t* SeqCommitErrorReply::read(const uint8_t* p, const uint8_t* end) {
  return state.read(getVarInt32(getVarInt32(p, end, &error, kPlusOne), end, &seq), end);
}

int SeqCommitFgetReply::getSize() const {
  return sizeVarUInt(seq) + state.getSize() + sizeVarUInt(fid) + sizeVarUInt(fileSize);
}
uint8_t* SeqCommitFgetReply::write(uint8_t* p) const {
  return putVarUInt(putVarUInt(state.write(putVarUInt(p, seq)), fid), fileSize);
}
const uint8_t* SeqCommitFgetReply::read(const uint8_t* p, const uint8_t* end) {
  p = state.read(getVarInt32(p, end, &seq), end);
  return getVarInt64(getVarInt32(p, end, &fid), end, &fileSize, 0);
}

int SeqCommitFlistReply::getSize() const {
  return sizeVarUInt(seq) + state.getSize() + sizeFileList(files);
}
uint8_t* SeqCommitFlistReply::write(uint8_t* p) const {
  return putFileList(state.write(putVarUInt(p, seq)), files);
}
const uint8_t* SeqCommitFlistReply::read(const uint8_t* p, const uint8_t* end) {
  return getFileList(state.read(getVarInt32(p, end, &seq), end), end, &files);
}

int UidReply::getSize() const { return uid.getSize(); }
uint8_t* UidReply::write(uint8_t* p) const { return uid.write(p); }
const uint8_t* UidReply::read(const uint8_t* p, const uint8_t* end) { return uid.read(p, end); }

int UidFputReply::getSize() const { return uid.getSize() + kFlagSize; }
uint8_t* UidFputReply::write(uint8_t* p) const { return putFlag(uid.write(p), needFile); }
const uint8_t* UidFputReply::read(const uint8_t* p, const uint8_t* end) {
  return getFlag(uid.read(p, end), end, &needFile);
}

int FailedNodeVerReply::getSize() const {
  return sizeVarUInt(error, kPlusOne) + sizeVarUInt(nlVersion, kPlusOne);
}
uint8_t* FailedNodeVerReply::write(uint8_t* p) const {
  return putVarUInt(putVarUInt(p, error, kPlusOne), nlVersion, kPlusOne);
}
const uint8_t* FailedNodeVerReply::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(getVarInt32(p, end, &error, kPlusOne), end, &nlVersion, kPlusOne);
}

int DiscoverReply::getSize() const {
  return sizeVarUInt(seq) + state.getSize() + kFlagSize + sizeVarUInt(nlVersion);
}
uint8_t* DiscoverReply::write(uint8_t* p) const {
  return putVarUInt(putFlag(state.write(putVarUInt(p, seq)), authoritative), nlVersion);
}
const uint8_t* DiscoverReply::read(const uint8_t* p, const uint8_t* end) {
  p = getFlag(state.read(getVarInt32(p, end, &seq), end), end, &authoritative);
  return getVarInt32(p, end, &nlVersion);
}

int BackupReply::getSize() const { return sizeVarUInt(compressed) + sizeVarUInt(archiveSize); }
uint8_t* BackupReply::write(uint8_t* p) const {
  return putVarUInt(putVarUInt(p, compressed), archiveSize);
}
const uint8_t* BackupReply::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt64(getVarInt32(p, end, &compressed), end, &archiveSize, 0);
}

int SeqCommitQueryReply::getSize() const {
  return sizeVarUInt(seq) + state.getSize() + kFlagSize;
}
uint8_t* SeqCommitQueryReply::write(uint8_t* p) const {
  return putFlag(state.write(putVarUInt(p, seq)), authoritative);
}
const uint8_t* SeqCommitQueryReply::read(const uint8_t* p, const uint8_t* end) {
  return getFlag(state.read(getVarInt32(p, end, &seq), end), end, &authoritative);
}

}  // namespace qcr
