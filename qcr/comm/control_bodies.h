// The bodies of the server control requests (debug, dump, quit) and of the check
// request, shared by the tool and qcrd. The conventions of request_bodies.h hold:
// getSize(), write(p) and read(p, end); errors travel plus one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qcr {

// debug (2): the command (the subcommand as typed: echo, trace, msglevel or
// netdown) as a string, then its words as a string array. The answer is ok with
// the reply text (its bytes, no NUL) or failed with an error.
struct DebugRequest {
  std::string command;
  std::vector<std::string> words;

  bool operator==(const DebugRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// What qcrd accepts of a debug request; anything larger is refused as ill-formed.
inline constexpr size_t kMaxDebugBody = 4096;
inline constexpr size_t kMaxDebugWords = 16;
inline constexpr size_t kMaxDebugWordBytes = 256;
// The longest time netdown takes a server off the network, in seconds.
inline constexpr int kMaxNetDownSeconds = 600;
// The longest reply text of debug, dump and quit.
inline constexpr size_t kMaxControlReply = 1 << 20;

// check (37): what to check, as a VarUInt of these bits.
inline constexpr int32_t kCheckFiles = 1;  // the committed directory against the state
inline constexpr int32_t kCheckDisks = 2;  // the tiebreaker disks
// Set in a reply's flags when the configuration names no tiebreaker disk.
inline constexpr int32_t kCheckNoDisks = 4;

struct CheckRequest {
  int32_t flags = kCheckFiles | kCheckDisks;

  bool operator==(const CheckRequest&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// The ok answer to check: the checks that ran (plus kCheckNoDisks); the first
// problem of the files and of the disks, each + 1 (0 when none: ENOENT for a
// missing file, 810 for a damaged one, the disk's error); then four string arrays:
// the repository files missing or damaged, the files found intact, the disks that
// failed, the disks that answered.
struct CheckReply {
  int32_t flags = 0;
  int32_t fileError = 0;
  int32_t diskError = 0;
  std::vector<std::string> failedFiles;
  std::vector<std::string> goodFiles;
  std::vector<std::string> failedDisks;
  std::vector<std::string> goodDisks;

  bool operator==(const CheckReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

}  // namespace qcr
