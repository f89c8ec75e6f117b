// The round trip of a message body: a body that decodes is encoded again and must
// decode to an equal value with the same bytes. Shared by the targets that fuzz
// families of bodies; the first input byte picks the type of the family.
#pragma once

#include <cstddef>
#include <tuple>
#include <utility>

#include "fuzz/fuzz_support.h"
#include "qcr/comm/request_bodies.h"

namespace qcr::fuzz {

template <typename T>
void checkBody(const Bytes& bytes) {
  T body;
  if (decodeBody(bytes.data(), bytes.size(), &body) != E_OK) return;
  const Bytes encoded = encodeBody(body);
  T back;
  QCR_ASSERT(decodeBody(encoded.data(), encoded.size(), &back) == E_OK);
  QCR_ASSERT(back == body);
  QCR_ASSERT(encodeBody(back) == encoded);
}

// Checks the input's rest as the body type of Family that its first byte picks.
template <typename Family>
void checkBodyFamily(const uint8_t* data, size_t size) {
  constexpr size_t kTypes = std::tuple_size_v<Family>;
  Input in(data, size);
  const size_t type = in.byte() % kTypes;
  // An exactly-sized heap copy, so that ASan sees any read past the body.
  const Bytes body = in.rest();
  [&]<size_t... I>(std::index_sequence<I...>) {
    ((type == I ? checkBody<std::tuple_element_t<I, Family>>(body) : void()), ...);
  }(std::make_index_sequence<kTypes>{});
}

}  // namespace qcr::fuzz
