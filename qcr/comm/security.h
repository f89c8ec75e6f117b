// Connection security: one side's switch and start-up state (which reads the
// cluster's authorized keys file), and the outgoing authentication exchange.
//
// A connection to a secured cluster proves that it holds the cluster's key before
// its first message that needs authentication; the TLS exchange that does so runs
// on the open socket. Until a TLS provider is wired in, this module knows only the
// unsecured outcomes: with security on and no keys, every such message fails with
// 720 (E_NO_SECURITY).
//
// A SecurityContext belongs to whoever opens connections (a Client); its switch
// and start-up state are set by the command prologue before the first connection
// and read by every connect that names the context.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qcr {

inline constexpr char kAuthorizedKeysPath[] = "/var/vyfs/ssl/authorized_qcr_keys";
inline constexpr char kAuthOnlyCipherList[] = "AUTHONLY";
inline constexpr int kErrSecurityLibrary = 721;  // the TLS provider is not available

// What the hello exchange taught about a connection's security.
struct SecurityParams {
  int localKeyGen = -1;                       // generation this side announced
  int peerKeyGen = -1;                        // generation the peer announced
  std::optional<std::string> peerCipherList;  // the peer's cipher list, if any
  int peerNodeValue = 0;                      // the peer's node value (0: none)
  uint64_t peerClusterId = 0;                 // the peer's cluster id (0: unknown)
};

// One side's security: on until the cluster's setting says off, not ready until
// the start-up loaded the keys. Not shared between threads.
class SecurityContext final {
 public:
  // securityOff is the cluster's security-off setting: security is on exactly when
  // it is 0 (so a missing setting means on).
  void setSecurityOff(int securityOff);
  bool enabled() const { return enabled_; }

  // Reads the authorized keys file at keysPath. Without the file security stays
  // not ready and the result is 0. A present file needs the TLS provider, which
  // this build lacks: the result is then kErrSecurityLibrary.
  [[nodiscard]] int startup(bool verbose, const std::string& keysPath = kAuthorizedKeysPath);
  // The keys were loaded and the provider is ready.
  bool ready() const { return ready_; }
  // "AUTHONLY" once ready, else empty.
  std::string cipherList() const;

 private:
  bool enabled_ = true;
  bool ready_ = false;
};

// The key generation this side announces: -1 without a key record.
int localKeyGeneration();

// Proves this side's key to the peer on sock. 0 when authenticated; 720 when a key
// generation or the cipher list is missing or the cipher list is not "AUTHONLY".
[[nodiscard]] int AuthenticateOutgoing(int sock, const SecurityParams& params);

}  // namespace qcr
