// The auth request: new key files for this server (see ServerSecurity::install).
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/server/handlers.h"
#include "qcr/server/server.h"

namespace qcr {

int handleAuth(Server& server, Connection& conn, const Message& req) {
  // Whoever may change an open server may secure it; a secured one takes new keys
  // only from a holder of its current ones.
  if (server.security().on() && !conn.isAuthenticated()) {
    return refuseRequest(conn, req, E_NOT_AUTHORIZED);
  }
  KeyFiles files;
  if (decodeBody(req.body.data(), req.body.size(), &files) != 0) return E_ILL_FORMED_MSG;
  const int rc = server.security().install(files);
  if (rc != 0) return replyFailed(conn, rc);
  // Connections to peers opened with the old keys (or none) would be refused.
  server.peers().reconnectAll();
  return replyOk(conn);
}

}  // namespace qcr
