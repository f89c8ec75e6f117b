#include "qcr/server/server_security.h"

#include <cstring>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/comm/msg_types.h"
#include "qcr/data/file_ops.h"
#include "qcr/data/repo_paths.h"

namespace qcr {

namespace {

// The security-off value in the cluster's setting file: 4 bytes in this
// machine's byte order; 0 when missing or short.
int securityOff(const std::string& path) {
  std::string data;
  if (readFile(path, &data) != 0 || data.size() < sizeof(int32_t)) return 0;
  int32_t value = 0;
  memcpy(&value, data.data(), sizeof value);
  return value;
}

// What one connection's gate remembers between requests.
struct GateState {
  bool first = true;
};

}  // namespace

ServerSecurity::ServerSecurity(const std::string& baseDir)
    : baseDir_(baseDir), paths_(keyFilePaths(baseDir)) {
  context_.setSecurityOff(1);  // open until reload finds keys
}

int ServerSecurity::reload() {
  if (!fileExists(paths_.authorizedKeys)) {
    context_.setSecurityOff(1);
    context_.useKeys(nullptr);
    return 0;
  }
  context_.setSecurityOff(securityOff(deriveRepoPaths(baseDir_).noauthFile));
  const int rc = context_.startup(true, paths_);
  if (rc != 0) qcrLog(0, "qcrd: cannot load the keys in %s (%d)", paths_.authorizedKeys.c_str(), rc);
  return rc;
}

std::optional<HelloSecurityItem> ServerSecurity::helloItem(const Snapshot& snap) {
  if (!snap.on || snap.keys == nullptr) return std::nullopt;
  return HelloSecurityItem{snap.keys->localGeneration(), kAuthOnlyCipherList};
}

void ServerSecurity::guard(ConnImplementation& conn, const Snapshot& snap,
                           const Hello& clientHello, std::function<AuthWaits()> waits) {
  SecurityParams params;
  if (snap.on && snap.keys != nullptr) {
    params.localKeyGen = snap.keys->localGeneration();
    params.keys = snap.keys;
  }
  if (clientHello.security) {
    params.peerKeyGen = clientHello.security->keyGen;
    params.peerCipherList = clientHello.security->cipherList;
  }
  auto state = std::make_shared<GateState>();
  conn.setReceiveGate([this, &conn, params, state, waits](int msgType) {
    const bool first = state->first;
    state->first = false;
    if (!on() || !msgNeedsAuth(msgType) || conn.isAuthenticated()) return 0;
    // The client authenticates before its first request only: a connection that
    // began with a request that needs none is never authenticated.
    if (!first) return E_NOT_AUTHORIZED;
    const int rc = AuthenticateIncoming(conn.getSocket(), params, waits());
    if (rc == 0) conn.setAuthenticated();
    return rc;
  });
}

int ServerSecurity::install(const KeyFiles& files) {
  std::shared_ptr<const KeyRing> ring;
  int rc = KeyRing::load(files, &ring);
  if (rc == 0) rc = writeKeyFiles(paths_, files);
  const std::string noauth = deriveRepoPaths(baseDir_).noauthFile;
  if (rc == 0 && securityOff(noauth) != 0) {
    rc = replaceFile(noauth, std::string(sizeof(int32_t), '\0'), 0644);
  }
  if (rc == 0) rc = reload();
  qcrLog(1, "qcrd: key generation %d installed (%d)",
         ring != nullptr ? ring->localGeneration() : -1, rc);
  return rc;
}

}  // namespace qcr
