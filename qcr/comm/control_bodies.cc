#include "qcr/comm/control_bodies.h"

#include "qcr/coding/coding.h"

namespace qcr {

namespace {

constexpr int32_t kPlusOne = -1;

}  // namespace

int DebugRequest::getSize() const { return sizeString(command) + sizeStringArray(words); }
uint8_t* DebugRequest::write(uint8_t* p) const {
  return putStringArray(putString(p, command), words);
}
const uint8_t* DebugRequest::read(const uint8_t* p, const uint8_t* end) {
  return getStringArray(getString(p, end, &command), end, &words);
}

int CheckRequest::getSize() const { return sizeVarUInt(flags); }
uint8_t* CheckRequest::write(uint8_t* p) const { return putVarUInt(p, flags); }
const uint8_t* CheckRequest::read(const uint8_t* p, const uint8_t* end) {
  return getVarInt32(p, end, &flags);
}

int CheckReply::getSize() const {
  return sizeVarUInt(flags) + sizeVarUInt(fileError, kPlusOne) + sizeVarUInt(diskError, kPlusOne) +
         sizeStringArray(failedFiles) +
         sizeStringArray(goodFiles) + sizeStringArray(failedDisks) + sizeStringArray(goodDisks);
}
uint8_t* CheckReply::write(uint8_t* p) const {
  p = putVarUInt(putVarUInt(putVarUInt(p, flags), fileError, kPlusOne), diskError, kPlusOne);
  p = putStringArray(putStringArray(p, failedFiles), goodFiles);
  return putStringArray(putStringArray(p, failedDisks), goodDisks);
}
const uint8_t* CheckReply::read(const uint8_t* p, const uint8_t* end) {
  p = getVarInt32(getVarInt32(p, end, &flags), end, &fileError, kPlusOne);
  p = getVarInt32(p, end, &diskError, kPlusOne);
  p = getStringArray(getStringArray(p, end, &failedFiles), end, &goodFiles);
  return getStringArray(getStringArray(p, end, &failedDisks), end, &goodDisks);
}

}  // namespace qcr
