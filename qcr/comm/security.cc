#include "qcr/comm/security.h"

#include <cerrno>
#include <cstdio>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/result.h"
#include "qcr/data/file_ops.h"

namespace qcr {

namespace {

constexpr bool isTestInstall = QCR_IS_TEST_INSTALL != 0;
constexpr int kStoreMode = 0600;
constexpr int kKeysFileMode = 0644;

int readOptional(const std::string& path, std::string* textP) {
  textP->clear();
  if (!fileExists(path)) return 0;
  return readFile(path, textP);
}

// The message printer's words for the security codes.
void printSecurityError(int rc) {
  if (rc == E_NO_SECURITY) fputs("[E] Security configuration data is inconsistent or unavailable.\n", stderr);
  if (rc == kErrSecurityLibrary) fputs("[E] Failed to load or initialize security library.\n", stderr);
}

// A generation's digest and certificate must both belong to its key.
int checkGeneration(const TlsApi& api, const KeyGeneration& g, const std::string& name) {
  if (g.gen == -1) return 0;
  if (sha256Hex(api, g.publicKeyDer) != g.digest) return E_NO_SECURITY;
  if (g.certDer.empty()) return 0;
  std::string certKey;
  if (certificatePublicKey(api, g.certDer, &certKey) != 0 || certKey != g.publicKeyDer) {
    return E_NO_SECURITY;
  }
  warnIfExpired(api, g.certDer, name);
  return 0;
}

int authenticate(int sock, const SecurityParams& params, bool asServer, const AuthWaits& waits) {
  const int aGen = params.localKeyGen;
  const int cGen = params.peerKeyGen;
  const char* cipher = params.peerCipherList ? params.peerCipherList->c_str() : "(null)";
  if (aGen == -1 || cGen == -1 || !params.peerCipherList ||
      *params.peerCipherList != kAuthOnlyCipherList || params.keys == nullptr) {
    qcrLog(3, "Auth: missing key or cypher list: aGen %d cGen %d cipher %s", aGen, cGen, cipher);
    return E_NO_SECURITY;
  }
  const KeyRing& ring = *params.keys;
  std::shared_ptr<const TlsEnvironment> env = ring.lookup(cGen);
  if (env == nullptr) {
    qcrLog(3, "Auth: unkown key gen %d ", cGen);  // the trace's own words, blank included
    return E_NOT_AUTHORIZED;
  }
  std::string peerKey;
  int rc = runAuthExchange(ring.api(), *env, sock, asServer, waits, &peerKey);
  if (rc == 0 && !ring.isAuthorized(peerKey, aGen)) {
    qcrLog(3, "Auth isAuthorized(key gen %d) returns false", aGen);
    rc = E_NOT_AUTHORIZED;
  }
  qcrLog(4, "%s aGen %d cGen %d cipher '%s' returns %d",
         asServer ? "AuthenticateIncoming" : "AuthenticateOutgoing", aGen, cGen, cipher, rc);
  return rc;
}

}  // namespace

KeyFilePaths keyFilePaths(const std::string& baseDir) {
  if (!isTestInstall) return {kAuthorizedKeysPath, kKeyStoreCommittedPath, kKeyStoreNewPath};
  return {baseDir + "/authorized_qcr_keys", baseDir + "/qcr.pem", baseDir + "/qcr.new.pem"};
}

int KeyFiles::getSize() const {
  return static_cast<int>(authorizedKeys.size() + committedStore.size() + newStore.size() + 3);
}

uint8_t* KeyFiles::write(uint8_t* p) const {
  p = putString(p, authorizedKeys);
  p = putString(p, committedStore);
  return putString(p, newStore);
}

const uint8_t* KeyFiles::read(const uint8_t* p, const uint8_t* end) {
  p = getString(p, end, &authorizedKeys);
  p = getString(p, end, &committedStore);
  return getString(p, end, &newStore);
}

int readKeyFiles(const KeyFilePaths& paths, KeyFiles* filesP) {
  KeyFiles files;
  if (!fileExists(paths.authorizedKeys)) return ENOENT;
  int rc = readFile(paths.authorizedKeys, &files.authorizedKeys);
  if (rc == 0) rc = readOptional(paths.committedStore, &files.committedStore);
  if (rc == 0) rc = readOptional(paths.newStore, &files.newStore);
  if (rc == 0) *filesP = std::move(files);
  return rc;
}

int writeKeyFiles(const KeyFilePaths& paths, const KeyFiles& files) {
  int rc = 0;
  if (!files.committedStore.empty()) {
    rc = replaceFile(paths.committedStore, files.committedStore, kStoreMode);
  }
  if (rc == 0 && !files.newStore.empty()) {
    rc = replaceFile(paths.newStore, files.newStore, kStoreMode);
  }
  if (rc == 0) rc = replaceFile(paths.authorizedKeys, files.authorizedKeys, kKeysFileMode);
  if (rc == 0 && files.newStore.empty() && fileExists(paths.newStore)) {
    rc = removeFile(paths.newStore);
  }
  return rc;
}

int KeyRing::load(const KeyFiles& files, std::shared_ptr<const KeyRing>* ringP) {
  const TlsApi* api = nullptr;
  int rc = loadTlsLibrary(&api);
  if (rc != 0) return rc;
  std::shared_ptr<KeyRing> ring(new KeyRing);
  ring->api_ = api;
  rc = parseAuthorizedKeys(files.authorizedKeys, &ring->record_);
  const KeyRecord& r = ring->record_;
  if (rc == 0) rc = checkGeneration(*api, r.committed, r.clusterName);
  if (rc == 0) rc = checkGeneration(*api, r.next, r.clusterName);
  if (rc != 0) return rc;
  for (const std::string* store : {&files.committedStore, &files.newStore}) {
    std::string cert;
    std::string key;
    if (store->empty() || keyStoreCertificate(*api, *store, &cert, &key) != 0) continue;
    if (r.committed.gen != -1 && key == r.committed.publicKeyDer) ring->stores_[0] = *store;
    if (r.next.gen != -1 && key == r.next.publicKeyDer) ring->stores_[1] = *store;
  }
  int slot = 0;
  if (ring->generation(r.localGeneration(), &slot) == nullptr || ring->stores_[slot].empty()) {
    return E_NO_SECURITY;
  }
  *ringP = std::move(ring);
  return 0;
}

const KeyGeneration* KeyRing::generation(int gen, int* slotP) const {
  if (gen == -1) return nullptr;
  if (gen == 0 || gen == record_.committed.gen) {
    *slotP = 0;
    return record_.committed.gen != -1 ? &record_.committed : nullptr;
  }
  if (gen == record_.next.gen) {
    *slotP = 1;
    return &record_.next;
  }
  return nullptr;
}

std::shared_ptr<const TlsEnvironment> KeyRing::lookup(int gen) const {
  int slot = 0;
  if (generation(gen, &slot) == nullptr || stores_[slot].empty()) return nullptr;
  std::lock_guard<std::mutex> lock(mu_);
  if (envs_[slot] == nullptr) {
    std::unique_ptr<TlsEnvironment> env;
    if (TlsEnvironment::create(*api_, stores_[slot], &env) != 0) return nullptr;
    envs_[slot] = std::move(env);
  }
  return envs_[slot];
}

std::string KeyRing::store(int gen) const {
  int slot = 0;
  return generation(gen, &slot) != nullptr ? stores_[slot] : "";
}

bool KeyRing::isAuthorized(const std::string& peerKeyDer, int gen) const {
  int slot = 0;
  const KeyGeneration* g = generation(gen, &slot);
  return g != nullptr && !peerKeyDer.empty() && peerKeyDer == g->publicKeyDer;
}

void SecurityContext::setSecurityOff(int securityOff) {
  enabled_ = securityOff == 0;
  // Trace readers know this record by these words.
  qcrLog(3, "setQcrSecurity: qcrSecEnabled=%d", enabled_ ? 1 : 0);
}

int SecurityContext::startup(bool verbose, const KeyFilePaths& paths) {
  // The keys in use stay until the new ones are loaded and then change in one
  // step: connections that authenticate meanwhile (a server reloading its keys)
  // never meet a side without keys.
  int rc = 0;
  KeyFiles files;
  std::shared_ptr<const KeyRing> ring;
  if (!fileExists(paths.authorizedKeys)) {
    if (verbose) qcrLog(1, "Auth: '%s' does not exist", paths.authorizedKeys.c_str());
  } else {
    rc = readKeyFiles(paths, &files);
    if (rc == 0) rc = KeyRing::load(files, &ring);
    if (rc != 0) {
      ring.reset();
      const TlsApi* api = nullptr;
      fprintf(stderr, "[E] Unable to load keys from %s, err %d rc %d.\n",
              paths.authorizedKeys.c_str(), rc, loadTlsLibrary(&api));
      printSecurityError(rc);
    }
  }
  useKeys(std::move(ring));
  qcrLog(3, "Auth: secReady %d cipherList '%s' keyGenNumber %d", ready() ? 1 : 0,
         cipherList().c_str(), localKeyGeneration());
  return rc;
}

void SecurityContext::useKeys(std::shared_ptr<const KeyRing> ring) {
  std::lock_guard<std::mutex> lock(mu_);
  ring_ = std::move(ring);
}

std::shared_ptr<const KeyRing> SecurityContext::keys() const {
  std::lock_guard<std::mutex> lock(mu_);
  return ring_;
}

std::string SecurityContext::cipherList() const { return ready() ? kAuthOnlyCipherList : ""; }

int SecurityContext::localKeyGeneration() const {
  const std::shared_ptr<const KeyRing> ring = keys();
  return ring != nullptr ? ring->localGeneration() : -1;
}

int AuthenticateOutgoing(int sock, const SecurityParams& params) {
  return authenticate(sock, params, false, AuthWaits{});
}

int AuthenticateIncoming(int sock, const SecurityParams& params, const AuthWaits& waits) {
  return authenticate(sock, params, true, waits);
}

}  // namespace qcr
