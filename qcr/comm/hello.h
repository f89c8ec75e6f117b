// The hello exchange that opens every connection, both sides.
//
// Every field is a 32-bit big-endian word. The client's hello is a 28-byte header
// (magic, two reserved all-ones words, protocol values 1602 and 1203, the length
// of the first item, a reserved zero) and a chain of items; the server answers
// with a 20-byte header (magic, status, a word, the length of the first item, a
// word) and its own chain. Each item begins {type, length of the next item}; a
// next length of 0 ends the chain. Items:
//   7  {7, next, 1}                                   client only, always first
//   6  {6, next, key generation, cipher list NUL-padded}  only on a secured side
//   9  {9, next, value, cluster id high, low, 0}      client value 101; server
//                                                     its node value
//   2  {2, 0, flags, 60 zero bytes}                   client only, always last
// Unknown item types are skipped, so either side may add items.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qcr/comm/transport.h"

namespace qcr {

inline constexpr uint32_t kHelloMagic = 0xF3689038u;
inline constexpr uint32_t kMaxHelloItemLength = 16778240;
// All the items of a client's hello together: a client sends a few dozen bytes,
// and a server holds every hello it reads in memory at once.
inline constexpr uint32_t kMaxClientHelloBytes = 65536;
inline constexpr int kErrHelloRejected = 129;    // the server refused the connection
inline constexpr int kErrHelloItemLength = 130;  // an item too long, or too short to parse
inline constexpr int kErrHelloNoMemory = 142;    // an item could not be allocated
inline constexpr int kClientHelloValue = 101;    // what the client puts in item 9

struct HelloSecurityItem {
  int keyGen = -1;
  std::string cipherList;
};

// What one side says in its hello. The client fills security, clusterId and
// flags; the server status, security, nodeValue and clusterId.
struct Hello {
  uint32_t status = 0;  // server: non-zero refuses the connection
  std::optional<HelloSecurityItem> security;
  int nodeValue = 0;
  uint64_t clusterId = 0;
  uint32_t flags = 0;  // client: bit value 2 on request; the tool sends 0
};

// The client's hello bytes: 136 bytes, plus the security item when present.
std::vector<uint8_t> buildClientHello(const Hello& hello);
// The server's answer bytes: header, the security item when present, item 9.
std::vector<uint8_t> buildHelloReply(const Hello& hello);

// Client side: reads the server's answer. 0, or 143 for a bad magic, 129 for a
// non-zero status, 130/142 for an item that cannot be taken, a transfer error.
[[nodiscard]] int readHelloReply(Transport& transport, int timeoutMs, Hello* replyP);
// Server side: reads a client's hello (143 for a bad magic, 130 when its items
// together exceed kMaxClientHelloBytes, else as above).
[[nodiscard]] int readClientHello(Transport& transport, int timeoutMs, Hello* helloP);

}  // namespace qcr
