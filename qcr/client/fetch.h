// Fetching one repository file from a server: the fget exchange shared by the
// fget operation and the pull of a newer committed node list.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "qcr/client/reply.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/retry.h"
#include "qcr/transfer/transfer.h"

namespace qcr {

class Client;

// Whether a fetched file may be stored at the local path: 0 when nothing is there
// or a regular file is (the fetch replaces it); EISDIR for a directory and EINVAL
// for anything else found there, a symbolic link included (it is not resolved: the
// fetch would replace the link, not what it names). An empty path (standard
// output) is fine. Nothing is contacted; a refusal is logged with the path.
[[nodiscard]] int checkFetchTarget(const std::string& path);

// Where a fetched file goes, chosen once the server's reply is known: 0 with
// *optionsP filled, or an error that ends the attempt before the file is read.
using TargetFor = std::function<int(const QcrReply& reply, ReceiveOptions* optionsP)>;

// One attempt: asks conn's server for name (condVersion -1 for any version),
// receives its seq_commit_fget reply and then the file, to the target that
// targetFor names. On success the reply's state goes into client's cache and
// the loop ends; a failed reception ends it only when the fault was local.
// *checksumP gets the checksum of what arrived. 0 or the attempt's error.
[[nodiscard]] int fetchFile(Client& client, Connection& conn, RetryState* ctxP,
                            const std::string& name, int32_t condVersion,
                            const TargetFor& targetFor, QcrReply* replyP, uint32_t* checksumP);

}  // namespace qcr
