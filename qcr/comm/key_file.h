// The authorized keys file of a secured cluster: who the cluster is, its cipher
// list, and its committed and (during a key change) new key generation.
//
// Text, one "key=value" per line. A line is read into 128 bytes, so it holds at
// most 127 characters (a longer one goes on as the next line), and it ends at its
// first white-space character: a value holds no blanks, and a line that begins
// with a blank counts as empty. Empty lines are skipped; any other line without
// "=" ends the load with 22. Key material is not on the key's line: the lines
// that follow committedPublicKey=, newPublicKey=, committedCertificate= and
// newCertificate= hold one PEM block ("-----BEGIN ...-----" to "-----END ...-----",
// base64 lines of 64 characters), read whole. A generation's digest is the
// lower-case hexadecimal SHA-256 of its public key (the DER of the PEM block).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qcr {

// One key generation of the record; gen -1: none.
struct KeyGeneration {
  int gen = -1;
  std::string digest;
  std::string publicKeyDer;  // SubjectPublicKeyInfo
  std::string certDer;       // the self-signed certificate of the key

  bool operator==(const KeyGeneration&) const = default;
};

struct KeyRecord {
  std::string clusterName;
  uint64_t clusterId = 0;
  std::string cipherList;
  KeyGeneration committed;
  KeyGeneration next;  // the new generation, during a key change
  std::string nistCompliance = "OFF";
  bool fips = false;

  bool operator==(const KeyRecord&) const = default;
  // The generation announced in the hello: the committed one, else the new one,
  // else -1.
  int localGeneration() const;
};

// Reads an authorized keys file's text. 0; 22 for a line without "="; 720
// (E_NO_SECURITY) for a cipher list that fails validation (printing "[E]
// Unsupported cipherList in authorized_keys file: %s\n"), a bad number, a bad or
// missing key block, an unsupported setting, or a record without a key.
[[nodiscard]] int parseAuthorizedKeys(std::string_view text, KeyRecord* recordP);
// The file's text for record, which parseAuthorizedKeys reads back unchanged.
std::string formatAuthorizedKeys(const KeyRecord& record);

// Whether the cluster's cipher list is one this side can serve: "AUTHONLY".
bool validCipherList(std::string_view cipherList);

// PEM: a block of label ("CERTIFICATE", "PUBLIC KEY", ...) around der.
std::string pemBlock(std::string_view label, std::string_view der);
// Base64 (RFC 4648, with padding); decoding skips line ends and fails on anything
// else that is not part of the alphabet.
std::string base64Encode(std::string_view bytes);
bool base64Decode(std::string_view text, std::string* bytesP);
std::string hexText(std::string_view bytes);

}  // namespace qcr
