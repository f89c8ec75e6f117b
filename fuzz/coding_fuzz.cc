// The encoding primitives: the input is a sequence of fields, each a selector
// byte and the field's bytes. Every field that reads must be exactly the bytes
// its value writes, since each value has one encoding.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "qcr/coding/coding.h"

namespace qcr::fuzz {
namespace {

// The read consumed [from, to); writing value must give those bytes.
void checkSame(const uint8_t* from, const uint8_t* to, const Bytes& written) {
  QCR_ASSERT(static_cast<size_t>(to - from) == written.size());
  QCR_ASSERT(memcmp(from, written.data(), written.size()) == 0);
}

Bytes varUInt(int64_t value, int32_t base) {
  Bytes b(static_cast<size_t>(sizeVarUInt(value, base)));
  QCR_ASSERT(putVarUInt(b.data(), value, base) == b.data() + b.size());
  return b;
}

// Reads one field at p; returns the cursor after it (null when it does not read).
const uint8_t* oneField(uint8_t selector, const uint8_t* p, const uint8_t* end) {
  // Bases in use: 0 for most fields, -1 for "none" fields; the rest of the
  // selector picks an arbitrary one to reach the modular arithmetic.
  const int32_t base = (selector >> 4) == 0 ? 0 : (selector >> 4) == 1 ? -1 : selector - 100;
  const uint8_t* q = nullptr;
  switch (selector % 12) {
    case 0: {
      uint64_t v = 0;
      q = getVarUInt64(p, end, &v, base);
      if (q != nullptr) {
        QCR_ASSERT(q - p >= 1 && q - p <= MaxSizeVarUInt);
        const uint64_t raw = v - static_cast<uint64_t>(static_cast<int64_t>(base));
        QCR_ASSERT(raw < (uint64_t{1} << 56));
        checkSame(p, q, varUInt(static_cast<int64_t>(raw), 0));
      }
      break;
    }
    case 1: {
      int32_t v = 0;
      q = getVarInt32(p, end, &v, base == 0 ? 0 : -1);
      if (q != nullptr) checkSame(p, q, varUInt(v, base == 0 ? 0 : -1));
      break;
    }
    case 2: {
      uint32_t v = 0;
      q = getVarUInt32(p, end, &v);
      if (q != nullptr) checkSame(p, q, varUInt(v, 0));
      break;
    }
    case 3: {
      int64_t v = 0;
      q = getVarInt64(p, end, &v, base == 0 ? 0 : -1);
      if (q != nullptr) checkSame(p, q, varUInt(v, base == 0 ? 0 : -1));
      break;
    }
    case 4: {
      std::string s;
      q = getString(p, end, &s);
      if (q != nullptr) {
        QCR_ASSERT(s.find('\0') == std::string::npos);
        Bytes b(static_cast<size_t>(sizeString(s)));
        QCR_ASSERT(putString(b.data(), s) == b.data() + b.size());
        checkSame(p, q, b);
      }
      break;
    }
    case 5: {
      std::vector<std::string> a;
      q = getStringArray(p, end, &a);
      if (q != nullptr) {
        Bytes b(static_cast<size_t>(sizeStringArray(a)));
        QCR_ASSERT(putStringArray(b.data(), a) == b.data() + b.size());
        checkSame(p, q, b);
      }
      break;
    }
    case 6: {
      int32_t count = 0;
      const int minSize = 1 + selector / 12;
      q = getCount(p, end, &count, minSize);
      if (q != nullptr) QCR_ASSERT(count >= 0 && int64_t{count} * minSize <= end - q);
      break;
    }
    case 7: {
      uint32_t v = 0;
      q = getU32(p, end, &v);
      if (q != nullptr) QCR_ASSERT(q - p == 4);
      break;
    }
    case 8: {
      uint64_t v = 0;
      q = getU64(p, end, &v);
      if (q != nullptr) {
        Bytes b(8);
        putU64(b.data(), v);
        checkSame(p, q, b);
      }
      break;
    }
    case 9: {
      bool v = false;
      q = getFlag(p, end, &v);
      if (q != nullptr) QCR_ASSERT(*p == (v ? 1 : 0));
      break;
    }
    case 10: {
      Uid uid;
      q = uid.read(p, end);
      if (q != nullptr) {
        checkSame(p, q, fuzz::encodeMembers(uid));
        Uid back;
        QCR_ASSERT(uidFromString(uidToString(uid), &back) == 0 && back == uid);
      }
      break;
    }
    case 11: {
      // The text form of a uid: any accepted text gives a uid whose text reads
      // back to the same uid.
      const size_t n = static_cast<size_t>(end - p) < 50 ? static_cast<size_t>(end - p) : 50;
      Uid uid;
      if (uidFromString(std::string(reinterpret_cast<const char*>(p), n), &uid) == 0) {
        Uid back;
        QCR_ASSERT(uidFromString(uidToString(uid), &back) == 0 && back == uid);
      }
      return p + n;
    }
  }
  return q;
}

}  // namespace
}  // namespace qcr::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t* p = data;
  const uint8_t* const end = data + size;
  // A failed field ends the sequence, as it ends any composite read.
  while (p != nullptr && p < end) {
    const uint8_t selector = *p++;
    const uint8_t* q = qcr::fuzz::oneField(selector, p, end);
    QCR_ASSERT(q == nullptr || (q >= p && q <= end));
    p = q;
  }
  return 0;
}
