// Taking a server's reply to a repository request apart.
#pragma once

#include <cstdint>

#include "qcr/comm/connection.h"
#include "qcr/comm/retry.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/file_names.h"

namespace qcr {

class Client;

// Everything a reply may carry; which fields are set depends on type.
struct QcrReply {
  int type = -1;
  int32_t seq = -1;
  CommittedState state;
  int32_t error = 0;            // seq_commit_error, failed_node_ver
  FileList files;               // seq_commit_flist
  Uid uid;                      // uid, uid_fput
  bool needFile = false;        // uid_fput
  bool authoritative = false;   // reply_discover, seq_commit_query
  int32_t nlVersion = -1;       // reply_discover, failed_node_ver (the server's)
  int32_t fid = 0;              // seq_commit_fget
  int64_t fileSize = 0;         // seq_commit_fget, reply_backup: bytes of the file that follows
  int32_t compressed = 0;       // reply_backup
};

// Receives one reply on conn and takes it apart by its type, updating client's
// cache from the states it carries and ending the attempt loop of ctxP on a final
// answer. Returns 0, the error the server answered, a receive error, or 818 for a
// body that does not parse (conn is then marked bad). The server's answers 804 to
// 807 are final; 808 lets the loop try the next server; 819 forbids further
// passes. A reply type that no request expects is a protocol violation and stops
// the program.
[[nodiscard]] int ReceiveQCRReply(Client& client, Connection& conn, RetryState* ctxP,
                                  QcrReply* replyP);

// Whether result is a final answer of the server about the request itself.
bool isFinalAnswer(int result);

}  // namespace qcr
