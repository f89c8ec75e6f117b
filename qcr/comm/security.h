// Connection security: one side's switch, its key record (the authorized keys
// file and the key stores, loaded at start-up), and the authentication exchange
// that a connection runs before its first message that needs authentication.
//
// A connection to a secured cluster proves that it holds the cluster's key: the
// two sides run an authentication-only TLS exchange (qcr/comm/tls_auth.h) on the
// open socket, right after the header of that first message. Each side presents
// the key of the generation the peer announced in its hello and accepts the
// peer only when the peer's key is the authorized key of the generation it
// announced itself. During a key change both generations are known, so a side
// that moved on and one that did not still accept each other.
//
// A SecurityContext belongs to whoever opens or serves connections (a Client, a
// qcrd server); its switch and key record are set before the first connection
// and may be replaced later (a server that takes new keys) from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "qcr/comm/key_file.h"
#include "qcr/comm/tls_auth.h"
#include "qcr/comm/tls_library.h"

namespace qcr {

inline constexpr char kAuthorizedKeysPath[] = "/var/vyfs/ssl/authorized_qcr_keys";
inline constexpr char kKeyStoreCommittedPath[] = "/var/vyfs/ssl/keystore_committed";
inline constexpr char kKeyStoreNewPath[] = "/var/vyfs/ssl/keystore_new";
inline constexpr char kAuthOnlyCipherList[] = "AUTHONLY";

// Where one side keeps its key files: under /var/vyfs/ssl in the product layout;
// in the test layout in the base directory, as authorized_qcr_keys, qcr.pem (the
// committed key store, which is also the committed certificate and key) and
// qcr.new.pem.
struct KeyFilePaths {
  std::string authorizedKeys;
  std::string committedStore;
  std::string newStore;
};
KeyFilePaths keyFilePaths(const std::string& baseDir);

// The key files' texts; an empty store is one that does not exist. Also the body
// of the auth request (19) that installs them on a server: the three texts as
// strings (bytes and a NUL each), in this order.
struct KeyFiles {
  std::string authorizedKeys;
  std::string committedStore;
  std::string newStore;

  bool operator==(const KeyFiles&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};
// 0, ENOENT without an authorized keys file, or the read's error.
[[nodiscard]] int readKeyFiles(const KeyFilePaths& paths, KeyFiles* filesP);
// Replaces the files, each atomically (stores readable by the owner only): the
// stores first, then the authorized keys file, then an empty new store is
// removed. A reader in between may see the old record with new stores: stores are
// matched to the record by their keys, never by their names.
[[nodiscard]] int writeKeyFiles(const KeyFilePaths& paths, const KeyFiles& files);

// One loaded key record: the authorized keys and, for each of its generations
// whose store was found, the key to present. Immutable once loaded; lookups may
// run on any thread.
class KeyRing final {
 public:
  // 0; 721 without the TLS provider; 22 or 720 for an authorized keys file that
  // does not parse, a digest or certificate that does not fit its key, or no
  // store for the generation this side announces.
  [[nodiscard]] static int load(const KeyFiles& files, std::shared_ptr<const KeyRing>* ringP);

  const KeyRecord& record() const { return record_; }
  const TlsApi& api() const { return *api_; }
  // The committed generation, else the new one, else -1.
  int localGeneration() const { return record_.localGeneration(); }
  // The environment of generation gen: the committed key for the committed
  // generation or 0, the new key for the new one; null for any other or a
  // generation without a store. Created on first use and kept.
  std::shared_ptr<const TlsEnvironment> lookup(int gen) const;
  // The key store (PEM text) found for generation gen; empty when none.
  std::string store(int gen) const;
  // Whether peerKeyDer is the authorized key of generation gen (0: committed).
  bool isAuthorized(const std::string& peerKeyDer, int gen) const;

 private:
  KeyRing() = default;
  const KeyGeneration* generation(int gen, int* slotP) const;

  const TlsApi* api_ = nullptr;
  KeyRecord record_;
  std::string stores_[2];  // slot 0 committed, 1 new
  mutable std::mutex mu_;
  mutable std::shared_ptr<const TlsEnvironment> envs_[2];
};

// What the hello exchange taught about a connection's security.
struct SecurityParams {
  int localKeyGen = -1;                       // generation this side announced
  int peerKeyGen = -1;                        // generation the peer announced
  std::optional<std::string> peerCipherList;  // the peer's cipher list, if any
  int peerNodeValue = 0;                      // the peer's node value (0: none)
  uint64_t peerClusterId = 0;                 // the peer's cluster id (0: unknown)
  std::shared_ptr<const KeyRing> keys;        // this side's keys when it announced them
};

// One side's security: on until the cluster's setting says off, not ready until
// the start-up loaded the keys.
class SecurityContext final {
 public:
  // securityOff is the cluster's security-off setting: security is on exactly when
  // it is 0 (so a missing setting means on).
  void setSecurityOff(int securityOff);
  bool enabled() const { return enabled_; }

  // Loads the key files at paths. Without the authorized keys file the keys are
  // dropped and the result is 0 (not ready); otherwise 0 and ready, or the
  // load's error ("[E] Unable to load keys from ..." on standard error).
  [[nodiscard]] int startup(bool verbose, const KeyFilePaths& paths);
  // Makes ring (null: none) this side's keys.
  void useKeys(std::shared_ptr<const KeyRing> ring);
  // The keys were loaded and the provider is ready.
  bool ready() const { return keys() != nullptr; }
  // "AUTHONLY" once ready, else empty.
  std::string cipherList() const;
  // The generation this side announces: -1 without keys.
  int localKeyGeneration() const;
  std::shared_ptr<const KeyRing> keys() const;

 private:
  std::atomic<bool> enabled_{true};
  mutable std::mutex mu_;
  std::shared_ptr<const KeyRing> ring_;
};

// Proves this side's key to the peer on sock, as the connecting side. 0 when
// authenticated; 720 when a key generation or the cipher list is missing or the
// cipher list is not "AUTHONLY"; 703 when the peer's generation is unknown here or
// its key is not authorized; 78 when a wait ran out; 233 or a socket error.
[[nodiscard]] int AuthenticateOutgoing(int sock, const SecurityParams& params);
// The same as the accepting side (a server), every wait bounded by waits.
[[nodiscard]] int AuthenticateIncoming(int sock, const SecurityParams& params,
                                       const AuthWaits& waits);

}  // namespace qcr
