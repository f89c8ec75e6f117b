// File transfer between nodes over an open connection.
//
// A file travels as fdata messages of at most kTransferChunkSize bytes (an empty
// file sends none) and one fcrc message whose 4-byte big-endian body is the cksum
// value of the whole content (what the POSIX cksum command prints). The receiver
// writes into a temporary file beside the final name, checks the checksum, forces
// the data to disk when asked, and only then renames the temporary file to its
// final name (forcing the directory to disk as well when asked); on any failure
// before the rename it removes the temporary file, so a failed transfer leaves
// nothing behind.
//
// The local-failure flag tells whether a failure lay on this node (its files or
// disk) rather than on the peer or the network, so that a caller can tell whether
// another node is worth trying.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "qcr/comm/connection.h"

namespace qcr {

inline constexpr int kTransferChunkSize = 1048576;
// The largest size an announcement can carry (a VarUInt holds values below 2^56).
inline constexpr int64_t kMaxTransferSize = (int64_t{1} << 56) - 1;

// How the received file takes its final name (see qcr/data/file_ops.h).
enum class RenameVariant {
  kReplace,  // over whatever is there
  kKeep,     // only when the name is free; else the existing file stays
};

// Told how far a transfer got, so that an interactive tool can show it. Called on
// the transferring thread: after every chunk, then once when the transfer ends
// (either way).
class TransferProgress {
 public:
  virtual ~TransferProgress() = default;
  virtual void moved(int64_t done, int64_t total) = 0;
  virtual void ended() = 0;
};

struct ReceiveOptions {
  std::string target;           // final path; empty writes the bytes to standard output
  int64_t expectedSize = 0;     // bytes of fdata expected before the fcrc
  bool privateFile = false;     // mode 0660 instead of 0664
  bool checksumInName = false;  // the first ".0." of target takes the checksum
  RenameVariant rename = RenameVariant::kReplace;
  bool sync = false;  // force the data to disk before the rename, the directory after
  // The checksum the content must have whatever the peer's fcrc says (a committed
  // file's name records it); a file that differs is refused with 810.
  std::optional<uint32_t> expectedChecksum;
  TransferProgress* progress = nullptr;  // told of every chunk when set
};

// Sends the file at path, which must hold expectedSize bytes, as fdata messages
// and the fcrc message. 0 or a result code: 12 without a chunk buffer, a read
// error, 22 when the file ends before expectedSize or holds more, 810 (E_IO) when
// an expected checksum is given and what was read has another (no fcrc is sent
// after these: the receiver never keeps what it got), a connection error. All but
// the last are failures of this node.
// progress, when given, is told of every chunk sent.
[[nodiscard]] int sendFile(Connection& conn, const std::string& path, int64_t expectedSize,
                           bool* localFailureP,
                           std::optional<uint32_t> expectedChecksum = std::nullopt,
                           TransferProgress* progress = nullptr);

// Receives one file as sendFile sends it: exactly options.expectedSize bytes of
// fdata, then one fcrc. Nothing the peer sends can stop the process. *checksumP
// gets the cksum value of what arrived. 0 or a result code:
//   818 (E_ILL_FORMED_MSG): an expected size below 0 or above kMaxTransferSize
//       (refused before any file is created), a message other than fdata before
//       the size is reached, more fdata than announced, an fcrc body that is not
//       4 bytes;
//   810 (E_IO): a checksum mismatch (with the fcrc or the expected checksum),
//       or a short write without a system error;
//   the open, write, sync or rename error; a connection error.
// On any failure no file is left under the target name or beside it, and a
// failure on the peer's side marks the connection bad.
[[nodiscard]] int receiveFile(Connection& conn, const ReceiveOptions& options, uint32_t* checksumP,
                              bool* localFailureP);

// The final name of a file whose name carries its checksum: the "0" of the first
// ".0." replaced by the checksum in lower-case hexadecimal ("f.0.3" with 0x1a2b
// gives "f.1a2b.3"). The name must contain ".0.".
std::string checksumName(const std::string& target, uint32_t checksum);

// The size of the file at path, logged.
[[nodiscard]] int transferFileSize(const std::string& path, int64_t* sizeP);

// The cksum value of the content of the file at path, as a transfer of it would
// compute it. 0 or the open or read error.
[[nodiscard]] int fileChecksum(const std::string& path, uint32_t* checksumP);

}  // namespace qcr
