#include "qcr/comm/tls_library.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "basic/log.h"
#include "basic/shared_library.h"

namespace qcr {

namespace {

constexpr char kDefaultLibrary[] = "libssl.so.3";
constexpr uint64_t kInitLoadErrorStrings = 0x00200000L;

struct Entry {
  const char* name;
  void* slot;  // the member of TlsApi that receives the address
  size_t size;
};

#define QCR_TLS_ENTRY(api, fn) Entry{#fn, &(api).fn, sizeof((api).fn)}

int resolveAll(SharedLibrary& lib, TlsApi& api) {
  const Entry entries[] = {
      QCR_TLS_ENTRY(api, OPENSSL_init_ssl), QCR_TLS_ENTRY(api, TLS_method),
      QCR_TLS_ENTRY(api, SSL_CTX_new), QCR_TLS_ENTRY(api, SSL_CTX_free),
      QCR_TLS_ENTRY(api, SSL_CTX_use_certificate), QCR_TLS_ENTRY(api, SSL_CTX_use_PrivateKey),
      QCR_TLS_ENTRY(api, SSL_CTX_check_private_key), QCR_TLS_ENTRY(api, SSL_CTX_set_cipher_list),
      QCR_TLS_ENTRY(api, SSL_CTX_set_verify), QCR_TLS_ENTRY(api, SSL_CTX_set_num_tickets),
      QCR_TLS_ENTRY(api, SSL_CTX_ctrl), QCR_TLS_ENTRY(api, SSL_new),
      QCR_TLS_ENTRY(api, SSL_free), QCR_TLS_ENTRY(api, SSL_set_bio),
      QCR_TLS_ENTRY(api, SSL_set_connect_state), QCR_TLS_ENTRY(api, SSL_set_accept_state),
      QCR_TLS_ENTRY(api, SSL_do_handshake), QCR_TLS_ENTRY(api, SSL_shutdown),
      QCR_TLS_ENTRY(api, SSL_get_error), QCR_TLS_ENTRY(api, SSL_get1_peer_certificate),
      QCR_TLS_ENTRY(api, BIO_s_mem), QCR_TLS_ENTRY(api, BIO_new),
      QCR_TLS_ENTRY(api, BIO_new_mem_buf), QCR_TLS_ENTRY(api, BIO_free),
      QCR_TLS_ENTRY(api, BIO_read), QCR_TLS_ENTRY(api, BIO_write),
      QCR_TLS_ENTRY(api, BIO_ctrl), QCR_TLS_ENTRY(api, PEM_read_bio_PrivateKey),
      QCR_TLS_ENTRY(api, PEM_read_bio_X509), QCR_TLS_ENTRY(api, PEM_write_bio_PrivateKey),
      QCR_TLS_ENTRY(api, PEM_write_bio_X509), QCR_TLS_ENTRY(api, d2i_X509),
      QCR_TLS_ENTRY(api, i2d_X509), QCR_TLS_ENTRY(api, i2d_PUBKEY),
      QCR_TLS_ENTRY(api, X509_free), QCR_TLS_ENTRY(api, X509_get0_pubkey),
      QCR_TLS_ENTRY(api, X509_getm_notBefore), QCR_TLS_ENTRY(api, X509_getm_notAfter),
      QCR_TLS_ENTRY(api, X509_cmp_current_time), QCR_TLS_ENTRY(api, ASN1_TIME_print),
      QCR_TLS_ENTRY(api, EVP_PKEY_free), QCR_TLS_ENTRY(api, EVP_Digest),
      QCR_TLS_ENTRY(api, EVP_sha256), QCR_TLS_ENTRY(api, ERR_clear_error),
      QCR_TLS_ENTRY(api, EVP_PKEY_Q_keygen), QCR_TLS_ENTRY(api, X509_new),
      QCR_TLS_ENTRY(api, X509_set_version), QCR_TLS_ENTRY(api, X509_get_serialNumber),
      QCR_TLS_ENTRY(api, ASN1_INTEGER_set), QCR_TLS_ENTRY(api, X509_gmtime_adj),
      QCR_TLS_ENTRY(api, X509_set_pubkey), QCR_TLS_ENTRY(api, X509_get_subject_name),
      QCR_TLS_ENTRY(api, X509_NAME_add_entry_by_txt), QCR_TLS_ENTRY(api, X509_set_issuer_name),
      QCR_TLS_ENTRY(api, X509_sign),
  };
  for (const Entry& e : entries) {
    void* address = lib.symbol(e.name);
    if (address == nullptr) {
      fprintf(stderr, "[E] Unable to resolve symbol for routine: %s (dlerror) %s\n", e.name,
              lib.error().c_str());
      return kErrSecurityLibrary;
    }
    // Entry points come back as object pointers; a function pointer of the same
    // size takes the address unchanged.
    memcpy(e.slot, &address, e.size);
  }
  return 0;
}

#undef QCR_TLS_ENTRY

struct Loaded {
  std::once_flag once;
  int rc = kErrSecurityLibrary;
  SharedLibrary library;
  TlsApi api{};
};

Loaded& loaded() {
  static Loaded* instance = new Loaded;  // never destroyed: the library stays loaded
  return *instance;
}

}  // namespace

const char* tlsLibraryName() {
  constexpr bool isTestInstall = QCR_IS_TEST_INSTALL != 0;
  if (isTestInstall) {
    if (const char* name = std::getenv("QCR_TLS_LIBRARY"); name != nullptr) return name;
  }
  return kDefaultLibrary;
}

int loadTlsLibrary(const TlsApi** apiP) {
  Loaded& l = loaded();
  std::call_once(l.once, [&l] {
    const char* name = tlsLibraryName();
    if (!l.library.open(name)) {
      qcrLog(1, "Auth: cannot load %s: %s", name, l.library.error().c_str());
      l.rc = kErrSecurityLibrary;
      return;
    }
    l.rc = resolveAll(l.library, l.api);
    if (l.rc == 0 && l.api.OPENSSL_init_ssl(kInitLoadErrorStrings, nullptr) != 1) {
      l.rc = kErrSecurityLibrary;
    }
  });
  *apiP = l.rc == 0 ? &l.api : nullptr;
  return l.rc;
}

}  // namespace qcr
