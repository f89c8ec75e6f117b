// The TLS provider (OpenSSL 3: libssl.so.3 and the libcrypto.so.3 it depends on),
// loaded on first use with its entry points resolved by name. Nothing is linked
// against it: a machine without it runs every command that needs no security.
//
// The provider's objects are opaque here (void pointers); only the few entry
// points that the authentication exchange and the key generation use are taken.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qcr {

inline constexpr int kErrSecurityLibrary = 721;  // the TLS provider could not be loaded

// The provider's constants that its callers need (values of its public headers).
inline constexpr int kTlsErrorWantRead = 2;
inline constexpr int kTlsErrorWantWrite = 3;
inline constexpr int kTlsVerifyPeer = 0x01;
inline constexpr int kTlsVerifyFailIfNoPeerCert = 0x02;
inline constexpr int kBioCtrlInfo = 3;
inline constexpr int kBioCtrlPending = 10;
inline constexpr int kCtrlSetMinProtoVersion = 123;
inline constexpr long kTls12Version = 0x0303;
inline constexpr int kMbstringAsc = 0x1001;

struct TlsApi {
  // libssl
  int (*OPENSSL_init_ssl)(uint64_t opts, const void* settings);
  const void* (*TLS_method)();
  void* (*SSL_CTX_new)(const void* method);
  void (*SSL_CTX_free)(void* ctx);
  int (*SSL_CTX_use_certificate)(void* ctx, void* x509);
  int (*SSL_CTX_use_PrivateKey)(void* ctx, void* pkey);
  int (*SSL_CTX_check_private_key)(const void* ctx);
  int (*SSL_CTX_set_cipher_list)(void* ctx, const char* list);
  void (*SSL_CTX_set_verify)(void* ctx, int mode, int (*callback)(int, void*));
  int (*SSL_CTX_set_num_tickets)(void* ctx, size_t n);
  long (*SSL_CTX_ctrl)(void* ctx, int cmd, long larg, void* parg);
  void* (*SSL_new)(void* ctx);
  void (*SSL_free)(void* ssl);
  void (*SSL_set_bio)(void* ssl, void* rbio, void* wbio);
  void (*SSL_set_connect_state)(void* ssl);
  void (*SSL_set_accept_state)(void* ssl);
  int (*SSL_do_handshake)(void* ssl);
  int (*SSL_shutdown)(void* ssl);
  int (*SSL_get_error)(const void* ssl, int ret);
  void* (*SSL_get1_peer_certificate)(const void* ssl);
  // libcrypto
  const void* (*BIO_s_mem)();
  void* (*BIO_new)(const void* method);
  void* (*BIO_new_mem_buf)(const void* data, int len);
  int (*BIO_free)(void* bio);
  int (*BIO_read)(void* bio, void* data, int len);
  int (*BIO_write)(void* bio, const void* data, int len);
  long (*BIO_ctrl)(void* bio, int cmd, long larg, void* parg);
  void* (*PEM_read_bio_PrivateKey)(void* bio, void** out, void* cb, void* u);
  void* (*PEM_read_bio_X509)(void* bio, void** out, void* cb, void* u);
  int (*PEM_write_bio_PrivateKey)(void* bio, const void* pkey, const void* cipher,
                                  const unsigned char* kstr, int klen, void* cb, void* u);
  int (*PEM_write_bio_X509)(void* bio, const void* x509);
  void* (*d2i_X509)(void** out, const unsigned char** in, long len);
  int (*i2d_X509)(const void* x509, unsigned char** out);
  int (*i2d_PUBKEY)(const void* pkey, unsigned char** out);
  void (*X509_free)(void* x509);
  void* (*X509_get0_pubkey)(const void* x509);
  void* (*X509_getm_notBefore)(const void* x509);
  void* (*X509_getm_notAfter)(const void* x509);
  int (*X509_cmp_current_time)(const void* time);
  int (*ASN1_TIME_print)(void* bio, const void* time);
  void (*EVP_PKEY_free)(void* pkey);
  int (*EVP_Digest)(const void* data, size_t n, unsigned char* md, unsigned int* mdLen,
                    const void* type, void* engine);
  const void* (*EVP_sha256)();
  void (*ERR_clear_error)();
  // key generation
  void* (*EVP_PKEY_Q_keygen)(void* libctx, const char* propq, const char* type, ...);
  void* (*X509_new)();
  int (*X509_set_version)(void* x509, long version);
  void* (*X509_get_serialNumber)(void* x509);
  int (*ASN1_INTEGER_set)(void* integer, long value);
  void* (*X509_gmtime_adj)(void* time, long seconds);
  int (*X509_set_pubkey)(void* x509, void* pkey);
  void* (*X509_get_subject_name)(const void* x509);
  int (*X509_NAME_add_entry_by_txt)(void* name, const char* field, int type,
                                    const unsigned char* bytes, int len, int loc, int set);
  int (*X509_set_issuer_name)(void* x509, const void* name);
  int (*X509_sign)(void* x509, void* pkey, const void* md);
};

// Loads the provider once per process and resolves every entry point. 0 with
// *apiP set, or 721: the library could not be loaded, or an entry point could not
// be resolved ("[E] Unable to resolve symbol for routine: %s (dlerror) %s\n" on
// standard error). A failure is remembered: later calls fail the same way.
[[nodiscard]] int loadTlsLibrary(const TlsApi** apiP);

// The file name the provider is loaded from. The test build takes
// QCR_TLS_LIBRARY instead when it is set, so that a test can make the library
// unavailable.
const char* tlsLibraryName();

}  // namespace qcr
