// The round trip every serialisable type must survive: write it, check the byte
// count equals getSize(), read it back from an exactly-sized copy (so that ASan
// reports any overread), compare, write again and compare the bytes; every
// proper prefix must fail to read. Types that are not read and written through
// members get a Codec specialisation in their test.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"
#include "testing/random_values.h"

namespace qcr::test {

using Bytes = std::vector<uint8_t>;

// How a type is sized, written and read; members unless specialised.
template <typename T>
struct Codec {
  static int size(const T& v) { return v.getSize(); }
  static uint8_t* write(uint8_t* p, const T& v) { return v.write(p); }
  static const uint8_t* read(const uint8_t* p, const uint8_t* end, T* v) { return v->read(p, end); }
};

template <typename T>
Bytes encode(const T& v) {
  Bytes b(static_cast<size_t>(Codec<T>::size(v)));
  EXPECT_EQ(Codec<T>::write(b.data(), v), b.data() + b.size());
  return b;
}

// Reads the first n bytes of b from an exactly-sized heap copy; *atEndP tells
// whether the read consumed all n.
template <typename T>
const uint8_t* readExact(const Bytes& b, size_t n, T* v, bool* atEndP) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[n]);
  if (n != 0) memcpy(copy.get(), b.data(), n);
  const uint8_t* p = Codec<T>::read(copy.get(), copy.get() + n, v);
  EXPECT_TRUE(p == nullptr || (p > copy.get() && p <= copy.get() + n));
  *atEndP = p == copy.get() + n;
  return p;
}

template <typename T>
void expectRoundTrip(const T& v) {
  const Bytes bytes = encode(v);
  T back;
  bool atEnd = false;
  ASSERT_NE(readExact(bytes, bytes.size(), &back, &atEnd), nullptr);
  EXPECT_TRUE(atEnd);
  EXPECT_TRUE(back == v);
  EXPECT_EQ(encode(back), bytes);
  for (size_t n = 0; n < bytes.size(); ++n) {
    T cut;
    EXPECT_EQ(readExact(bytes, n, &cut, &atEnd), nullptr) << n << " of " << bytes.size();
  }
}

// Random mutations either fail to read or give a value that can be written
// again; nothing reads outside the buffer or aborts.
template <typename T>
void expectRobustReads(const T& v, RandomValues* random, int mutations) {
  const Bytes bytes = encode(v);
  bool atEnd = false;
  for (int i = 0; i < mutations; ++i) {
    Bytes m = bytes;
    for (int flips = 1 + random->below(3); flips > 0; --flips)
      m[static_cast<size_t>(random->below(static_cast<int32_t>(m.size())))] ^=
          static_cast<uint8_t>(1 + random->below(255));
    T out;
    if (readExact(m, m.size(), &out, &atEnd) != nullptr) (void)encode(out);
  }
}

// A message body: the round trip above, and decodeBody refuses every proper
// prefix and a body with a byte over with 818.
template <typename T>
void expectBodyRoundTrip(const T& body) {
  expectRoundTrip(body);
  const Bytes bytes = encodeBody(body);
  for (size_t n = 0; n < bytes.size(); ++n) {
    T cut;
    EXPECT_EQ(decodeBody(bytes.data(), n, &cut), E_ILL_FORMED_MSG) << "prefix " << n;
  }
  Bytes longer = bytes;
  longer.push_back(0);
  T extra;
  EXPECT_EQ(decodeBody(longer.data(), longer.size(), &extra), E_ILL_FORMED_MSG);
}

}  // namespace qcr::test
