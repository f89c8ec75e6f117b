// The attempt loop that every repository request runs, and the exchange of a
// change request.
//
// A request asks the servers in the client's order on the retry schedule: the
// first pass tries each server at once (connect time-out 1 s), later passes spread
// over growing intervals, nothing starts after the session's budget (45 s). Each
// attempt opens a connection, runs the request's exchange on it and releases it.
// The loop (Client::runAttempts) ends when an exchange gives a final answer (it
// clears the retry state's active flag) or the schedule gives up.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "qcr/client/reply.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/retry.h"

namespace qcr {

class Client;

// One attempt on an open connection: 0 or the attempt's result.
using Exchange = std::function<int(Connection& conn, RetryState* ctxP)>;

// The local file an fput uploads when the server asks for it.
struct UploadFile {
  std::string path;
  int64_t size = 0;
};

// Completes a change request on conn: sends body as a message of type msgType,
// then receives replies (into client's cache) until seq_commit. A uid reply
// announces the uid the change will be committed under (allowed only when uid was
// zero, or for fput); a uid_fput reply with needFile set makes the upload of
// *upload on the same connection. A local upload failure is final. 0 or the first
// error.
[[nodiscard]] int doUpdateRequest(Client& client, Connection& conn, int msgType,
                                  const std::vector<uint8_t>& body, const Uid& uid,
                                  RetryState* ctxP, const UploadFile* upload, QcrReply* replyP);

// The error of a "failed" answer (its body a VarUInt, the error plus one); 818 for
// a body that does not hold exactly that.
[[nodiscard]] int failedAnswerError(const Message& reply);

}  // namespace qcr
