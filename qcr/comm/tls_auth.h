// The authentication-only TLS exchange and the key material it works with.
//
// The exchange runs on an open socket between two messages' bytes: both sides
// handshake, the session is closed at once (close notices both ways), and the
// socket carries clear messages again. The TLS engine works on memory buffers;
// the bytes move through the socket functions of this program, and incoming
// bytes are taken one TLS record at a time, so that nothing of the clear stream
// that follows is ever consumed by the engine.
//
// Each side presents one key (its certificate) and gets the peer's public key,
// which the caller compares with the key it authorises; certificates themselves
// are not checked against any authority (every key is self-signed).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "basic/clock.h"
#include "qcr/comm/tls_library.h"

namespace qcr {

inline constexpr int kErrAuthWantWrite = 723;
inline constexpr int kErrAuthWantRead = 724;
inline constexpr int kErrAuthTimedOut = 78;
inline constexpr int kErrAuthUnexpectedEvent = 233;
inline constexpr int kAuthStepWaitMs = 5000;

// One key made ready for handshakes, from a key store: the PEM text of a private
// key and its certificate. Its handshakes may run on several threads at once.
class TlsEnvironment final {
 public:
  // 0; E_NO_SECURITY (720) when the store lacks the key or the certificate, or
  // they do not belong together; 721 when the provider fails.
  [[nodiscard]] static int create(const TlsApi& api, const std::string& keyStorePem,
                                  std::unique_ptr<TlsEnvironment>* envP);
  ~TlsEnvironment();
  TlsEnvironment(const TlsEnvironment&) = delete;
  TlsEnvironment& operator=(const TlsEnvironment&) = delete;
  void* context() const { return ctx_; }

 private:
  TlsEnvironment(const TlsApi& api, void* ctx) : api_(api), ctx_(ctx) {}
  const TlsApi& api_;
  void* ctx_;
};

// The waits of one exchange. Each wait for the peer lasts at most stepWaitMs; with
// a clock, the whole exchange also ends by deadline (seconds on it), and cancelled,
// when set, is asked before every wait.
struct AuthWaits {
  int stepWaitMs = kAuthStepWaitMs;
  Clock* clock = nullptr;
  double deadline = 0;
  std::function<bool()> cancelled;
};

// Runs the exchange on sock as client or server with env's key. 0 with the peer's
// public key (DER) in *peerKeyDerP; 78 when a wait ran out, 703 when the TLS
// exchange failed, or the socket's error. A close error becomes the result only
// when the handshake succeeded.
[[nodiscard]] int runAuthExchange(const TlsApi& api, const TlsEnvironment& env, int sock,
                                  bool asServer, const AuthWaits& waits,
                                  std::string* peerKeyDerP);

// The certificate of a key store and its public key, both DER. 0 or E_NO_SECURITY.
[[nodiscard]] int keyStoreCertificate(const TlsApi& api, const std::string& keyStorePem,
                                      std::string* certDerP, std::string* publicKeyDerP);
// The public key of a DER certificate. 0 or E_NO_SECURITY.
[[nodiscard]] int certificatePublicKey(const TlsApi& api, const std::string& certDer,
                                       std::string* publicKeyDerP);
// Prints "[W] The certificate for '%s' is expired. ..." when certDer has expired.
void warnIfExpired(const TlsApi& api, const std::string& certDer, const std::string& name);
// Lower-case hexadecimal SHA-256 of data.
std::string sha256Hex(const TlsApi& api, std::string_view data);

}  // namespace qcr
