// The answers to every request qcrd receives, from the tool and from its peers.
// Each handler runs on its connection's thread and returns 0 to go on reading
// requests on that connection, or a result code to close it.
#pragma once

#include <cstdint>
#include <vector>

#include "qcr/comm/connection.h"
#include "qcr/server/peer_link.h"
#include "qcr/transfer/transfer_copy.h"

namespace qcr {

class Server;

// Per-wait time-out of the sends and receives within one exchange.
inline constexpr int kExchangeWaitMs = 10000;

// Where a request came from.
struct RequestOrigin {
  bool fromPeer = false;  // the connection's hello carried the peer flag
  double openedAt = 0;    // when its hello was answered (seconds on the server's clock)
};

// Dispatches one request. Server-to-server requests, and change requests on a
// peer's connection (which count as forwarded), are served only when
// Server::checkPeer passes; otherwise they are refused and the connection is
// closed.
[[nodiscard]] int handleRequest(Server& server, Connection& conn, const Message& req,
                                const RequestOrigin& origin);

// Request groups, in handlers.cc (reads, probes, init), change_handlers.cc
// (changes and forwarding), peer_handlers.cc (server-to-server) and
// backup_handler.cc.
[[nodiscard]] int handleRead(Server& server, Connection& conn, const Message& req);
[[nodiscard]] int handleChange(Server& server, Connection& conn, const Message& req,
                               const RequestOrigin& origin);
[[nodiscard]] int handlePeer(Server& server, Connection& conn, const Message& req,
                             bool fromPeer);
// backup_handler.cc: the reply_backup, then the archive as a file.
[[nodiscard]] int handleBackup(Server& server, Connection& conn, const Message& req);
// auth_handler.cc: installs the key files of an auth request; ok, or failed.
[[nodiscard]] int handleAuth(Server& server, Connection& conn, const Message& req);

// remote_handlers.cc: sh, cp_to for any destination but the committed directory
// (ann is the request's announcement), and cp_from. A command runs for at most
// kRemoteCommandSeconds and may write at most kRemoteOutputBytes; beyond either
// it is killed.
inline constexpr int kRemoteCommandSeconds = 60;
inline constexpr size_t kRemoteOutputBytes = 16 * 1048576;
[[nodiscard]] int handleShell(Server& server, Connection& conn, const Message& req);
[[nodiscard]] int handleCopyTo(Server& server, Connection& conn, const Message& req,
                               const FileAnnouncement& ann);
[[nodiscard]] int handleCopyFrom(Server& server, Connection& conn, const Message& req);

// control_handlers.cc: debug, dump, quit and check.
[[nodiscard]] int handleControl(Server& server, Connection& conn, const Message& req);

// Replies seq_commit_error with the error and this server's state.
[[nodiscard]] int replyError(Server& server, Connection& conn, int error);
// Replies seq_commit with this server's state.
[[nodiscard]] int replyCommitted(Server& server, Connection& conn);
// The failed (-1) reply with an error body, and the empty ok (0) reply.
[[nodiscard]] int replyFailed(Connection& conn, int error);
[[nodiscard]] int replyOk(Connection& conn, const std::vector<uint8_t>& body = {});
// Refuses a request that this connection may not make: the failed reply with
// error, which is returned so that the connection is closed.
[[nodiscard]] int refuseRequest(Connection& conn, const Message& req, int error);

}  // namespace qcr
