// Serialisation primitives shared by the state files and the message bodies.
//
// Writers take a cursor into a buffer the caller has sized beforehand (with the
// matching size function) and return the cursor after the written bytes; they never
// check room. Readers take (cursor, end) and return the advanced cursor, or nullptr
// when the input is malformed or ends early. A null or exhausted cursor fails
// again at once, so a composite read chains its fields and tests only the final
// cursor. No reader ever touches a byte at or beyond end.
//
// VarUInt: 1 to 8 bytes for values below 2^56; the number of leading one-bits of
// the first byte gives the count of extra bytes, each length class starting where
// the previous one ends, so every value has exactly one encoding. Every VarUInt is
// written relative to a base: value - base is stored, raw + base is read back (base
// -1 stores "none" = -1 as the single byte 00). Fixed words are big-endian; a 64-bit
// word is two 32-bit words, high half first. Strings are their bytes and a NUL.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qcr {

inline constexpr int MaxSizeVarUInt = 8;
inline constexpr int MaxUidBytes = 24;

// Bytes that putVarUInt(value, base) writes (1..8).
int sizeVarUInt(int64_t value, int32_t base = 0);
// Writes value - base; asserts that it lies in [0, 2^56).
uint8_t* putVarUInt(uint8_t* p, int64_t value, int32_t base = 0);
// Reads a VarUInt of 1 to 8 bytes; *valueP = raw + base (modulo 2^64). Fails on a
// first byte 0xFF (no such length class) and on an 8-byte form of a value of 2^56
// or more, which no writer produces; so every accepted value can be written back.
const uint8_t* getVarUInt64(const uint8_t* p, const uint8_t* end, uint64_t* valueP,
                            int32_t base = 0);
// Reads a signed 32-bit field: fails when the raw value is 2^31 or more. On any
// failure *valueP holds base.
const uint8_t* getVarInt32(const uint8_t* p, const uint8_t* end, int32_t* valueP,
                           int32_t base = 0);
// Reads an unsigned 32-bit field: fails when the raw value exceeds 0xFFFFFFFF.
const uint8_t* getVarUInt32(const uint8_t* p, const uint8_t* end, uint32_t* valueP);
// Reads a signed 64-bit field (sizes, times); *valueP = raw + base.
const uint8_t* getVarInt64(const uint8_t* p, const uint8_t* end, int64_t* valueP,
                           int32_t base = 0);

uint8_t* putU32(uint8_t* p, uint32_t v);
const uint8_t* getU32(const uint8_t* p, const uint8_t* end, uint32_t* vP);
uint8_t* putU64(uint8_t* p, uint64_t v);
const uint8_t* getU64(const uint8_t* p, const uint8_t* end, uint64_t* vP);

// The element count of a container: fails when count elements of at least
// minElementSize bytes each cannot fit before end, so no caller reserves memory for
// a count that the input cannot back.
const uint8_t* getCount(const uint8_t* p, const uint8_t* end, int32_t* countP,
                        int minElementSize);

// One raw byte (kinds and flag bytes).
uint8_t* putByte(uint8_t* p, uint8_t v);
const uint8_t* getByte(const uint8_t* p, const uint8_t* end, uint8_t* vP);
// A flag is one byte, 0 or 1; any other value fails the read.
inline constexpr int kFlagSize = 1;
uint8_t* putFlag(uint8_t* p, bool v);
const uint8_t* getFlag(const uint8_t* p, const uint8_t* end, bool* vP);

// A string is its bytes and a NUL; it must hold no NUL itself.
int sizeString(std::string_view s);
uint8_t* putString(uint8_t* p, std::string_view s);
// Fails when no NUL lies before end.
const uint8_t* getString(const uint8_t* p, const uint8_t* end, std::string* sP);

// A VarUInt count, then the strings.
int sizeStringArray(const std::vector<std::string>& a);
uint8_t* putStringArray(uint8_t* p, const std::vector<std::string>& a);
const uint8_t* getStringArray(const uint8_t* p, const uint8_t* end,
                              std::vector<std::string>* aP);

// Update identifier: (node, epoch, seq); all zero means not assigned yet. Its byte
// form is three VarUInts (base 0), at most MaxUidBytes long.
struct Uid {
  int32_t node = 0, epoch = 0, seq = 0;

  bool isZero() const { return node == 0 && epoch == 0 && seq == 0; }
  auto operator<=>(const Uid&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
  // Log rendering: "((n<node>,e<epoch>),<seq>)".
  std::string toString() const;
};

// Lower-case hex of the byte form, two digits a byte ("000000" for the zero uid).
std::string uidToString(const Uid& uid);
// Inverse of uidToString; also accepts upper-case digits and an odd final digit.
// Returns 0, or 22 when the text is empty, longer than 48, not hex, or does not
// decode to exactly three VarUInts.
[[nodiscard]] int uidFromString(std::string_view text, Uid* uidP);

}  // namespace qcr
