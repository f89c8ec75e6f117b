// The attempt loop that every repository request runs, and the exchange of a
// change request.
//
// An operation asks the servers in the client's order on the retry schedule: the
// first pass tries each server at once (connect time-out 1 s), later passes spread
// over growing intervals, nothing starts after 45 s. Each attempt opens a
// connection, runs the operation's exchange on it and releases it. The loop ends
// when an exchange gives a final answer (it clears the retry state's active flag)
// or the schedule gives up.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qcr/client/reply.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/retry.h"

namespace qcr {

inline constexpr int kFirstPassConnectMs = 1000;
inline constexpr int kHandshakeTimeoutMs = 10000;

// One attempt on an open connection: 0 or the attempt's result.
using Exchange = std::function<int(Connection& conn, RetryState* ctxP)>;

// A retry state named name over the client's current server order and clock.
RetryState newRetryState(const std::string& name);

// Runs the attempt loop. The result is the final answer's (0 on success); when
// the schedule gave up, the first remembered error or 801 if a connection was
// ever made, else 823.
[[nodiscard]] int runAttempts(RetryState* ctxP, const Exchange& exchange);

// Opens a connection to the node with id serverId of the session's node list.
[[nodiscard]] int connectServer(int serverId, int connectTimeoutMs,
                                std::unique_ptr<Connection>* connP);

// The local file an fput uploads when the server asks for it.
struct UploadFile {
  std::string path;
  int64_t size = 0;
};

// Completes a change request on conn: sends body as a message of type msgType,
// then receives replies until seq_commit. A uid reply announces the uid the change
// will be committed under (allowed only when uid was zero, or for fput); a
// uid_fput reply with needFile set makes the upload of *upload on the same
// connection. A local upload failure is final. 0 or the first error.
[[nodiscard]] int doUpdateRequest(Connection& conn, int msgType, const std::vector<uint8_t>& body,
                                  const Uid& uid, RetryState* ctxP, const UploadFile* upload,
                                  QcrReply* replyP);

}  // namespace qcr
