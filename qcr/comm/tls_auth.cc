#include "qcr/comm/tls_auth.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "basic/log.h"
#include "basic/net.h"
#include "qcr/coding/result.h"
#include "qcr/comm/key_file.h"

namespace qcr {

namespace {

// The TLS record layer: a 5-byte header whose last two bytes are the length.
constexpr size_t kRecordHeader = 5;
constexpr size_t kMaxRecordBody = 16384 + 2048;
// A handshake and its close take a handful of steps; a peer that needs more is
// not making an honest exchange.
constexpr int kMaxSteps = 64;
constexpr size_t kFlushChunk = 16384;
// "AUTHONLY" authenticates; the session carries no data, so any strong suite does.
constexpr char kAuthOnlySuites[] = "HIGH:!aNULL:!eNULL";

// Every self-signed certificate passes here: the caller compares the peer's key.
int acceptAnyCertificate(int, void*) { return 1; }

// PEM text as a provider object (certificate or private key), or null.
void* readPem(const TlsApi& api, const std::string& pem, bool privateKey) {
  void* bio = api.BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio == nullptr) return nullptr;
  void* object = privateKey ? api.PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr)
                            : api.PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  api.BIO_free(bio);
  return object;
}

int publicKeyOf(const TlsApi& api, const void* x509, std::string* derP) {
  const void* pkey = api.X509_get0_pubkey(x509);
  const int n = pkey != nullptr ? api.i2d_PUBKEY(pkey, nullptr) : -1;
  if (n <= 0) return E_NO_SECURITY;
  derP->assign(static_cast<size_t>(n), '\0');
  auto* p = reinterpret_cast<unsigned char*>(derP->data());
  return api.i2d_PUBKEY(pkey, &p) == n ? 0 : E_NO_SECURITY;
}

// One exchange: the engine on two memory buffers, pumped through the socket.
class Exchange {
 public:
  Exchange(const TlsApi& api, int sock, const AuthWaits& waits)
      : api_(api), sock_(sock), waits_(waits) {}
  ~Exchange() {
    if (ssl_ != nullptr) api_.SSL_free(ssl_);  // frees both buffers too
  }

  int start(const TlsEnvironment& env, bool asServer) {
    ssl_ = api_.SSL_new(env.context());
    void* rbio = api_.BIO_new(api_.BIO_s_mem());
    void* wbio = api_.BIO_new(api_.BIO_s_mem());
    if (ssl_ == nullptr || rbio == nullptr || wbio == nullptr) {
      if (rbio != nullptr) api_.BIO_free(rbio);
      if (wbio != nullptr) api_.BIO_free(wbio);
      return kErrSecurityLibrary;
    }
    api_.SSL_set_bio(ssl_, rbio, wbio);
    wbio_ = wbio;
    rbio_ = rbio;
    if (asServer) {
      api_.SSL_set_accept_state(ssl_);
    } else {
      api_.SSL_set_connect_state(ssl_);
    }
    return 0;
  }

  int handshake() {
    return repeat("sconnCheck", [this] {
      const int r = api_.SSL_do_handshake(ssl_);
      return r == 1 ? 0 : providerError(r);
    });
  }

  int peerKey(std::string* derP) {
    void* cert = api_.SSL_get1_peer_certificate(ssl_);
    if (cert == nullptr) return E_NOT_AUTHORIZED;
    const int rc = publicKeyOf(api_, cert, derP);
    api_.X509_free(cert);
    return rc == 0 ? 0 : E_NOT_AUTHORIZED;
  }

  // Sends this side's close notice and waits for the peer's.
  int close() {
    return repeat("close", [this] {
      const int r = api_.SSL_shutdown(ssl_);
      if (r == 1) return 0;
      return r == 0 ? kErrAuthWantRead : providerError(r);
    });
  }

 private:
  int providerError(int r) {
    switch (api_.SSL_get_error(ssl_, r)) {
      case kTlsErrorWantRead: return kErrAuthWantRead;
      case kTlsErrorWantWrite: return kErrAuthWantWrite;
      default: return E_NOT_AUTHORIZED;
    }
  }

  // The wait rule: after each step its output goes out; a step that wants the
  // peer's bytes waits for the next record and is tried again.
  template <typename Step>
  int repeat(const char* name, Step step) {
    for (int i = 0; i < kMaxSteps; ++i) {
      api_.ERR_clear_error();
      int rc = step();
      const int flushed = flush();
      if (flushed != 0) rc = flushed;
      qcrLog(6, "Auth %s: rc %d", name, rc);
      if (rc == kErrAuthWantWrite) continue;  // the output went out with the flush
      if (rc != kErrAuthWantRead) return rc;
      rc = readRecord();
      if (rc != 0) return rc;
    }
    return E_NOT_AUTHORIZED;
  }

  // The next wait in ms, or -1 when the exchange must end now.
  int nextWaitMs() const {
    if (waits_.cancelled && waits_.cancelled()) return -1;
    if (waits_.clock == nullptr) return waits_.stepWaitMs;
    const double leftMs = (waits_.deadline - waits_.clock->now()) * 1000.0;
    if (leftMs <= 0) return -1;
    return static_cast<int>(std::min(std::ceil(leftMs), static_cast<double>(waits_.stepWaitMs)));
  }

  static int waitError(int rc) { return rc == kErrTimedOut ? kErrAuthTimedOut : rc; }

  int flush() {
    std::vector<uint8_t> buf(kFlushChunk);
    while (api_.BIO_ctrl(wbio_, kBioCtrlPending, 0, nullptr) > 0) {
      const int n = api_.BIO_read(wbio_, buf.data(), static_cast<int>(buf.size()));
      if (n <= 0) return kErrSecurityLibrary;
      const int waitMs = nextWaitMs();
      if (waitMs < 0) return kErrAuthTimedOut;
      const int rc = fullSend(sock_, buf.data(), static_cast<size_t>(n), waitMs);
      if (rc != 0) return waitError(rc);
    }
    return 0;
  }

  // Exactly n bytes. Each wait is for one byte, then whatever else has arrived is
  // taken without waiting, so a peer that trickles its bytes gains no time.
  int receive(uint8_t* p, size_t n) {
    while (n > 0) {
      const int waitMs = nextWaitMs();
      if (waitMs < 0) return kErrAuthTimedOut;
      int rc = fullRecv(sock_, p, 1, waitMs);
      if (rc != 0) return waitError(rc);
      ++p;
      --n;
      const int waiting = peekSocket(sock_);
      if (waiting <= 0 || n == 0) continue;
      const size_t take = std::min(n, static_cast<size_t>(waiting));
      rc = fullRecv(sock_, p, take, waitMs);
      if (rc != 0) return waitError(rc);
      p += take;
      n -= take;
    }
    return 0;
  }

  int readRecord() {
    uint8_t record[kRecordHeader + kMaxRecordBody];
    int rc = receive(record, kRecordHeader);
    if (rc != 0) return rc;
    const size_t len = size_t{record[3]} << 8 | record[4];
    if (len > kMaxRecordBody) return E_NOT_AUTHORIZED;
    rc = receive(record + kRecordHeader, len);
    if (rc != 0) return rc;
    const int total = static_cast<int>(kRecordHeader + len);
    return api_.BIO_write(rbio_, record, total) == total ? 0 : kErrSecurityLibrary;
  }

  const TlsApi& api_;
  const int sock_;
  const AuthWaits& waits_;
  void* ssl_ = nullptr;
  void* rbio_ = nullptr;
  void* wbio_ = nullptr;
};

}  // namespace

int TlsEnvironment::create(const TlsApi& api, const std::string& keyStorePem,
                           std::unique_ptr<TlsEnvironment>* envP) {
  void* pkey = readPem(api, keyStorePem, true);
  void* cert = readPem(api, keyStorePem, false);
  void* ctx = pkey != nullptr && cert != nullptr ? api.SSL_CTX_new(api.TLS_method()) : nullptr;
  int rc = pkey == nullptr || cert == nullptr ? E_NO_SECURITY : 0;
  if (rc == 0 && ctx == nullptr) rc = kErrSecurityLibrary;
  if (rc == 0 && (api.SSL_CTX_use_certificate(ctx, cert) != 1 ||
                  api.SSL_CTX_use_PrivateKey(ctx, pkey) != 1 ||
                  api.SSL_CTX_check_private_key(ctx) != 1)) {
    rc = E_NO_SECURITY;
  }
  if (rc == 0 && api.SSL_CTX_set_cipher_list(ctx, kAuthOnlySuites) != 1) {
    fprintf(stderr, "[E] Error setting cipherList to %s", kAuthOnlySuites);
    rc = kErrSecurityLibrary;
  }
  if (rc == 0) {
    api.SSL_CTX_set_verify(ctx, kTlsVerifyPeer | kTlsVerifyFailIfNoPeerCert, acceptAnyCertificate);
    // No session tickets: after its handshake a server sends nothing but its close.
    (void)api.SSL_CTX_set_num_tickets(ctx, 0);
    (void)api.SSL_CTX_ctrl(ctx, kCtrlSetMinProtoVersion, kTls12Version, nullptr);
  }
  if (pkey != nullptr) api.EVP_PKEY_free(pkey);
  if (cert != nullptr) api.X509_free(cert);
  if (rc != 0) {
    if (ctx != nullptr) api.SSL_CTX_free(ctx);
    return rc;
  }
  envP->reset(new TlsEnvironment(api, ctx));
  return 0;
}

TlsEnvironment::~TlsEnvironment() { api_.SSL_CTX_free(ctx_); }

int runAuthExchange(const TlsApi& api, const TlsEnvironment& env, int sock, bool asServer,
                    const AuthWaits& waits, std::string* peerKeyDerP) {
  Exchange exchange(api, sock, waits);
  int rc = exchange.start(env, asServer);
  if (rc != 0) return rc;
  rc = exchange.handshake();
  if (rc == 0) rc = exchange.peerKey(peerKeyDerP);
  if (rc != 0) return rc;
  return exchange.close();
}

int keyStoreCertificate(const TlsApi& api, const std::string& keyStorePem, std::string* certDerP,
                        std::string* publicKeyDerP) {
  void* cert = readPem(api, keyStorePem, false);
  if (cert == nullptr) return E_NO_SECURITY;
  int rc = publicKeyOf(api, cert, publicKeyDerP);
  const int n = rc == 0 ? api.i2d_X509(cert, nullptr) : -1;
  if (n > 0) {
    certDerP->assign(static_cast<size_t>(n), '\0');
    auto* p = reinterpret_cast<unsigned char*>(certDerP->data());
    if (api.i2d_X509(cert, &p) != n) rc = E_NO_SECURITY;
  } else {
    rc = E_NO_SECURITY;
  }
  api.X509_free(cert);
  return rc;
}

int certificatePublicKey(const TlsApi& api, const std::string& certDer,
                         std::string* publicKeyDerP) {
  const auto* p = reinterpret_cast<const unsigned char*>(certDer.data());
  void* cert = api.d2i_X509(nullptr, &p, static_cast<long>(certDer.size()));
  if (cert == nullptr) return E_NO_SECURITY;
  const int rc = publicKeyOf(api, cert, publicKeyDerP);
  api.X509_free(cert);
  return rc;
}

namespace {

std::string timeText(const TlsApi& api, const void* time) {
  void* bio = api.BIO_new(api.BIO_s_mem());
  if (bio == nullptr) return "";
  std::string text;
  if (api.ASN1_TIME_print(bio, time) == 1) {
    char* data = nullptr;
    const long n = api.BIO_ctrl(bio, kBioCtrlInfo, 0, &data);
    if (n > 0 && data != nullptr) text.assign(data, static_cast<size_t>(n));
  }
  api.BIO_free(bio);
  return text;
}

}  // namespace

void warnIfExpired(const TlsApi& api, const std::string& certDer, const std::string& name) {
  const auto* p = reinterpret_cast<const unsigned char*>(certDer.data());
  void* cert = api.d2i_X509(nullptr, &p, static_cast<long>(certDer.size()));
  if (cert == nullptr) return;
  const void* notAfter = api.X509_getm_notAfter(cert);
  if (api.X509_cmp_current_time(notAfter) < 0) {
    fprintf(stderr, "[W] The certificate for '%s' is expired. Validity period is from %s to %s.\n",
            name.c_str(), timeText(api, api.X509_getm_notBefore(cert)).c_str(),
            timeText(api, notAfter).c_str());
  }
  api.X509_free(cert);
}

std::string sha256Hex(const TlsApi& api, std::string_view data) {
  unsigned char md[32];
  unsigned int n = 0;
  if (api.EVP_Digest(data.data(), data.size(), md, &n, api.EVP_sha256(), nullptr) != 1) return "";
  return hexText(std::string_view(reinterpret_cast<const char*>(md), n));
}

}  // namespace qcr
