#include "qcr/data/update.h"

#include <cstdio>

#include "basic/assert.h"
#include "qcr/coding/text.h"

namespace qcr {

namespace {

int bodySize(const ProposedUpdate& u) {
  switch (u.kind) {
    case UpdateKind::ValuePut: return sizeString(u.name) + sizeString(u.value);
    case UpdateKind::ValueDelete: return sizeString(u.name);
    case UpdateKind::FilePut:
      return sizeString(u.name) + sizeVarUInt(u.number1) + sizeVarUInt(u.number2) + 4;
    case UpdateKind::FileDelete: return sizeString(u.name) + sizeVarUInt(u.number1);
    case UpdateKind::Config: return u.config.getSize();
    case UpdateKind::Leader: return sizeVarUInt(u.number1) + sizeVarUInt(u.number2);
    default: return 0;
  }
}

uint8_t* writeBody(uint8_t* p, const ProposedUpdate& u) {
  switch (u.kind) {
    case UpdateKind::ValuePut: return putString(putString(p, u.name), u.value);
    case UpdateKind::ValueDelete: return putString(p, u.name);
    case UpdateKind::FilePut:
      return putU32(putVarUInt(putVarUInt(putString(p, u.name), u.number1), u.number2), u.crc);
    case UpdateKind::FileDelete: return putVarUInt(putString(p, u.name), u.number1);
    case UpdateKind::Config: return u.config.write(p);
    case UpdateKind::Leader: return putVarUInt(putVarUInt(p, u.number1), u.number2);
    default: return p;
  }
}

const uint8_t* readBody(const uint8_t* p, const uint8_t* end, ProposedUpdate* u) {
  switch (u->kind) {
    case UpdateKind::None:
    case UpdateKind::Noop: return p;
    case UpdateKind::ValuePut: return getString(getString(p, end, &u->name), end, &u->value);
    case UpdateKind::ValueDelete: return getString(p, end, &u->name);
    case UpdateKind::FilePut:
      p = getVarInt32(getString(p, end, &u->name), end, &u->number1);
      return getU32(getVarInt32(p, end, &u->number2), end, &u->crc);
    case UpdateKind::FileDelete: return getVarInt32(getString(p, end, &u->name), end, &u->number1);
    case UpdateKind::Config: return u->config.read(p, end);
    case UpdateKind::Leader: return getVarInt32(getVarInt32(p, end, &u->number1), end, &u->number2);
  }
  return nullptr;
}

std::string bodyToString(const ProposedUpdate& u) {
  char crcText[16];
  switch (u.kind) {
    case UpdateKind::None: return "None";
    case UpdateKind::Noop: return "no-op-update";
    case UpdateKind::ValuePut: return strCat({"('", u.name, "','", u.value, "')"});
    case UpdateKind::ValueDelete: return strCat({"('", u.name, "')"});
    case UpdateKind::FilePut:
      snprintf(crcText, sizeof crcText, "%08x", u.crc);
      return strCat({"['", u.name, "',", std::to_string(u.number1), ",", std::to_string(u.number2),
                     ",", crcText, "]"});
    case UpdateKind::FileDelete:
      return strCat({"['", u.name, "','", std::to_string(u.number1), "]"});
    case UpdateKind::Config: return u.config.toString();
    case UpdateKind::Leader:
      return strCat({"[", std::to_string(u.number1), ",", std::to_string(u.number2), "]"});
  }
  return strCat({"Unknown update ", std::to_string(static_cast<int>(u.kind))});
}

}  // namespace

const char* updateKindName(int kind) {
  static const char* const kNames[kUpdateKinds] = {"(none)", "noop", "vu", "vd",
                                                   "fu",     "fd",   "cu", "lu"};
  return kind >= 0 && kind < kUpdateKinds ? kNames[kind] : "?";
}

int ProposedUpdate::getSize() const {
  int size = uid.getSize() + 1 + sizeVarUInt(param, -1) + bodySize(*this);
  size += sizeVarUInt(static_cast<int64_t>(listn.size()));
  for (int32_t n : listn) size += sizeVarUInt(n);
  return size;
}

uint8_t* ProposedUpdate::write(uint8_t* pBuffer) const {
  uint8_t* const origBuffer = pBuffer;
  pBuffer = putByte(uid.write(pBuffer), static_cast<uint8_t>(kind));
  pBuffer = writeBody(putVarUInt(pBuffer, param, -1), *this);
  pBuffer = putVarUInt(pBuffer, static_cast<int64_t>(listn.size()));
  for (int32_t n : listn) pBuffer = putVarUInt(pBuffer, n);
  QCR_ASSERT_MSG(pBuffer == origBuffer + getSize(), "ProposedUpdate=%s\nexpected %d actual %d",
                 toString().c_str(), getSize(), static_cast<int>(pBuffer - origBuffer));
  return pBuffer;
}

const uint8_t* ProposedUpdate::read(const uint8_t* p, const uint8_t* end) {
  *this = ProposedUpdate{};
  uint8_t kindByte = 0;
  p = getByte(uid.read(p, end), end, &kindByte);
  if (p == nullptr || kindByte >= kUpdateKinds) return nullptr;
  kind = static_cast<UpdateKind>(kindByte);
  p = readBody(getVarInt32(p, end, &param, -1), end, this);
  int32_t count = 0;
  p = getCount(p, end, &count, 1);
  listn.assign(static_cast<size_t>(count), 0);
  for (int32_t& n : listn) p = getVarInt32(p, end, &n);
  return p;
}

std::string ProposedUpdate::toString() const {
  std::string text = strCat({uid.toString(), ":", updateKindName(static_cast<int>(kind)), ":",
                             std::to_string(param), ":", bodyToString(*this)});
  if (!listn.empty())
    text.append(" listn ").append(listToString(listn, [](int32_t n) { return std::to_string(n); }));
  return text;
}

}  // namespace qcr
