// The bodies of the remote shell and copy requests, and the receiving end of a
// copied file, shared by the tool and qcrd.
//
// sh (40): the environment assignments ("NAME=value") and the argument vector,
// each a string array. The server answers with reply_stdout and reply_sdterr
// messages carrying the command's output, then ok with ShellOutcome, or failed
// with its reason.
// cp_from (42): the source path (a string). The server answers with a cp_to
// message announcing the file (qcr/transfer/transfer_copy.h) and the file
// itself, or failed with its reason.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/comm/connection.h"
#include "qcr/transfer/transfer.h"
#include "qcr/transfer/transfer_copy.h"

namespace qcr {

struct ShellRequest {
  std::vector<std::string> assignments;
  std::vector<std::string> argv;

  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// How the command ended: its exit code and -1, or the signal that ended it (the
// exit code is then -1). On the wire two 32-bit big-endian words.
struct ShellOutcome {
  int32_t exitCode = -1;
  int32_t signal = -1;

  int getSize() const { return 8; }
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

struct CopyFromRequest {
  std::string path;

  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// NAME=value with a non-empty NAME of letters, digits and "_".
bool isAssignment(const std::string& word);

// Whether path may name a copied file: absolute, without empty, "." or ".."
// components (a trailing "/" is no component either).
bool isCopyPath(const std::string& path);

// Where a file announced as name goes when sent to target: target itself, or,
// when target is a directory, the last component of name inside it. 0, or EINVAL
// when that component is no plain name.
[[nodiscard]] int copyTargetPath(const std::string& target, const std::string& name,
                                 std::string* pathP);

// Receives the file that announcement announced (its fdata and fcrc) and keeps it
// at path with the announced permission bits and times (and owner, where this
// process may give it). The bytes go to a temporary name beside path that is
// renamed to path only once the checksum matched and the status was applied; a
// symbolic link at path is replaced, never followed. On any failure nothing is
// left beside path and path is untouched. 0 or receiveFile's error, or the error
// of applying the status or of the rename (*localFailureP then set).
// progress, when given, is told of every chunk.
[[nodiscard]] int receiveCopiedFile(Connection& conn, const FileAnnouncement& announcement,
                                    const std::string& path, bool* localFailureP,
                                    TransferProgress* progress = nullptr);

}  // namespace qcr
