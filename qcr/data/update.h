// A proposed update: one Paxos input. The uid names it, the kind says what it
// changes and selects the body; listn is a list of node ids carried along.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/coding/coding.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

// The kind byte. Numbers are part of the stored and transmitted form.
enum class UpdateKind : uint8_t {
  None = 0,         // no body
  Noop = 1,         // no body
  ValuePut = 2,     // name, value
  ValueDelete = 3,  // name
  FilePut = 4,      // name, number1, number2, crc
  FileDelete = 5,   // name, number1
  Config = 6,       // config
  Leader = 7,       // number1, number2
};
inline constexpr int kUpdateKinds = 8;

// One value type for every kind: the fields a kind does not use keep their
// defaults, so two updates compare equal exactly when their stored forms do.
struct ProposedUpdate {
  Uid uid;
  UpdateKind kind = UpdateKind::None;
  int32_t param = -1;  // stored with base -1
  std::string name;
  std::string value;
  int32_t number1 = 0;
  int32_t number2 = 0;
  uint32_t crc = 0;
  ConfigChange config;
  std::vector<int32_t> listn;

  bool operator==(const ProposedUpdate&) const = default;
  int getSize() const;
  // Asserts the size with the detail "ProposedUpdate=%s\nexpected %d actual %d".
  uint8_t* write(uint8_t* p) const;
  // Fails on a kind it does not know: the length of such a body is unknown.
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // "<uid>:<kind name>:<param>:<body>[ listn [ids]]".
  std::string toString() const;
};

// "(none)", "noop", "vu", "vd", "fu", "fd", "cu", "lu"; "?" for any other number.
const char* updateKindName(int kind);

}  // namespace qcr
