#include "qcr/comm/key_gen.h"

#include "qcr/coding/result.h"
#include "qcr/comm/tls_auth.h"
#include "qcr/comm/tls_library.h"

namespace qcr {

namespace {

constexpr long kValiditySeconds = 10L * 365 * 24 * 3600;
constexpr long kX509Version3 = 2;

// What a memory buffer holds, as text.
std::string bufferText(const TlsApi& api, void* bio) {
  char* data = nullptr;
  const long n = api.BIO_ctrl(bio, kBioCtrlInfo, 0, &data);
  return n > 0 && data != nullptr ? std::string(data, static_cast<size_t>(n)) : "";
}

// The self-signed certificate of pkey, or null.
void* selfSigned(const TlsApi& api, void* pkey, int gen, const std::string& name) {
  void* cert = api.X509_new();
  if (cert == nullptr) return nullptr;
  const std::string cn = name + "-" + std::to_string(gen);
  void* subject = api.X509_get_subject_name(cert);
  const bool ok =
      api.X509_set_version(cert, kX509Version3) == 1 &&
      api.ASN1_INTEGER_set(api.X509_get_serialNumber(cert), gen) == 1 &&
      api.X509_gmtime_adj(api.X509_getm_notBefore(cert), 0) != nullptr &&
      api.X509_gmtime_adj(api.X509_getm_notAfter(cert), kValiditySeconds) != nullptr &&
      api.X509_set_pubkey(cert, pkey) == 1 &&
      api.X509_NAME_add_entry_by_txt(subject, "CN", kMbstringAsc,
                                     reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1,
                                     0) == 1 &&
      api.X509_set_issuer_name(cert, subject) == 1 &&
      api.X509_sign(cert, pkey, api.EVP_sha256()) > 0;
  if (!ok) {
    api.X509_free(cert);
    return nullptr;
  }
  return cert;
}

}  // namespace

int createKeyGeneration(int gen, const std::string& name, KeyGeneration* genP,
                        std::string* storePemP) {
  const TlsApi* api = nullptr;
  if (const int rc = loadTlsLibrary(&api); rc != 0) return rc;
  void* pkey = api->EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  if (pkey == nullptr) return E_NO_SECURITY;
  void* cert = selfSigned(*api, pkey, gen, name);
  void* bio = cert != nullptr ? api->BIO_new(api->BIO_s_mem()) : nullptr;
  int rc = bio != nullptr &&
                   api->PEM_write_bio_PrivateKey(bio, pkey, nullptr, nullptr, 0, nullptr,
                                                 nullptr) == 1 &&
                   api->PEM_write_bio_X509(bio, cert) == 1
               ? 0
               : E_NO_SECURITY;
  std::string store;
  if (rc == 0) store = bufferText(*api, bio);
  if (bio != nullptr) api->BIO_free(bio);
  if (cert != nullptr) api->X509_free(cert);
  api->EVP_PKEY_free(pkey);
  KeyGeneration g;
  g.gen = gen;
  if (rc == 0) rc = keyStoreCertificate(*api, store, &g.certDer, &g.publicKeyDer);
  if (rc != 0) return rc;
  g.digest = sha256Hex(*api, g.publicKeyDer);
  *genP = std::move(g);
  *storePemP = std::move(store);
  return 0;
}

}  // namespace qcr
