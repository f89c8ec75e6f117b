// Making a cluster's key material: one key pair and self-signed certificate per
// key generation, through the TLS provider loaded at run time.
#pragma once

#include <string>

#include "qcr/comm/key_file.h"

namespace qcr {

// A new EC P-256 key with a certificate for name (valid ten years). *storePemP
// receives the key store (the private key's PEM block, then the certificate's);
// *genP the generation's entry of the authorized keys file (number gen, digest,
// public key, certificate). 0, 721 without the provider, or 720 when it fails.
[[nodiscard]] int createKeyGeneration(int gen, const std::string& name, KeyGeneration* genP,
                                      std::string* storePemP);

}  // namespace qcr
