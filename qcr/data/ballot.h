// A Paxos ballot: (number, proposing node), ordered by number, then node.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace qcr {

struct Ballot {
  int32_t number = 0;
  int32_t node = 0;

  auto operator<=>(const Ballot&) const = default;
  // Two VarUInts, base 0.
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "(<number>.<node>)", e.g. "(5.2)".
  std::string toString() const;
};

}  // namespace qcr
