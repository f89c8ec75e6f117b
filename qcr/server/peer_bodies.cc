#include "qcr/server/peer_bodies.h"

#include "qcr/coding/coding.h"

namespace qcr {

int PeerHeader::getSize() const { return sizeVarUInt(from) + sizeVarUInt(sentMs) + sizeVarUInt(seq); }
uint8_t* PeerHeader::write(uint8_t* p) const {
  return putVarUInt(putVarUInt(putVarUInt(p, from), sentMs), seq);
}
const uint8_t* PeerHeader::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(getVarInt64(getVarInt32(p, end, &from), end, &sentMs), end, &seq);
}

int PrepareMsg::getSize() const { return hdr.getSize() + ballot.getSize(); }
uint8_t* PrepareMsg::write(uint8_t* p) const { return ballot.write(hdr.write(p)); }
const uint8_t* PrepareMsg::read(const uint8_t* p, const uint8_t* end) {
  return ballot.read(hdr.read(p, end), end);
}

int AcceptMsg::getSize() const { return hdr.getSize() + ballot.getSize() + update.getSize(); }
uint8_t* AcceptMsg::write(uint8_t* p) const { return update.write(ballot.write(hdr.write(p))); }
const uint8_t* AcceptMsg::read(const uint8_t* p, const uint8_t* end) {
  return update.read(ballot.read(hdr.read(p, end), end), end);
}

int SyncMsg::getSize() const {
  return hdr.getSize() + ballot.getSize() + 1 + (hasImage ? image.getSize() : 0);
}
uint8_t* SyncMsg::write(uint8_t* p) const {
  p = putFlag(ballot.write(hdr.write(p)), hasImage);
  return hasImage ? image.write(p) : p;
}
const uint8_t* SyncMsg::read(const uint8_t* p, const uint8_t* end) {
  p = getFlag(ballot.read(hdr.read(p, end), end), end, &hasImage);
  return hasImage ? image.read(p, end) : p;
}

int AcceptorReply::getSize() const {
  return sizeVarUInt(result) + sizeVarUInt(seq) + sizeVarUInt(leaderId, -1) + 1 +
         mbal.getSize() + bal.getSize() + inp.getSize() + 1 + (hasImage ? image.getSize() : 0);
}
uint8_t* AcceptorReply::write(uint8_t* p) const {
  p = putFlag(putVarUInt(putVarUInt(putVarUInt(p, result), seq), leaderId, -1), leaseHeld);
  p = putFlag(inp.write(bal.write(mbal.write(p))), hasImage);
  return hasImage ? image.write(p) : p;
}
const uint8_t* AcceptorReply::read(const uint8_t* p, const uint8_t* end) {
  p = getVarInt32(getVarInt32(getVarInt32(p, end, &result), end, &seq), end, &leaderId, -1);
  p = getFlag(inp.read(bal.read(mbal.read(getFlag(p, end, &leaseHeld), end), end), end), end,
              &hasImage);
  return hasImage ? image.read(p, end) : p;
}

int FileXferMsg::getSize() const {
  return sizeVarUInt(direction) + sizeString(fileName) + sizeVarUInt(objId) +
         sizeVarUInt(version) + uid.getSize() + sizeVarUInt(size);
}
uint8_t* FileXferMsg::write(uint8_t* p) const {
  p = putVarUInt(putString(putVarUInt(p, direction), fileName), objId);
  return putVarUInt(uid.write(putVarUInt(p, version)), size);
}
const uint8_t* FileXferMsg::read(const uint8_t* p, const uint8_t* end) {
  p = getVarInt32(getString(getVarInt32(p, end, &direction), end, &fileName), end, &objId);
  return getVarInt64(uid.read(getVarInt32(p, end, &version), end), end, &size);
}

int ErrorBody::getSize() const { return sizeVarUInt(error, -1); }
uint8_t* ErrorBody::write(uint8_t* p) const { return putVarUInt(p, error, -1); }
const uint8_t* ErrorBody::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(p, end, &error, -1);
}

}  // namespace qcr
