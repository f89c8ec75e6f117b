#include "qcr/comm/key_file.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <strings.h>
#include <vector>

#include "qcr/coding/result.h"

namespace qcr {

namespace {

constexpr size_t kLineBuffer = 128;  // one line holds at most 127 characters
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kPemLineChars = 64;

// Reads the file the way a 128-byte line buffer does: up to and including the next
// line end, at most 127 characters at a time.
class LineReader {
 public:
  explicit LineReader(std::string_view text) : text_(text) {}
  bool next(std::string_view* lineP) {
    if (pos_ >= text_.size()) return false;
    size_t n = 0;
    while (pos_ + n < text_.size() && n < kLineBuffer - 1) {
      if (text_[pos_ + n++] == '\n') break;
    }
    *lineP = text_.substr(pos_, n);
    pos_ += n;
    return true;
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// A line ends at its first white-space character.
std::string_view cutAtBlank(std::string_view line) {
  for (size_t i = 0; i < line.size(); ++i) {
    if (isspace(static_cast<unsigned char>(line[i]))) return line.substr(0, i);
  }
  return line;
}

template <typename T>
bool parseDecimal(std::string_view text, T* valueP) {
  if (text.empty()) return false;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *valueP);
  return ec == std::errc() && end == text.data() + text.size();
}

bool parseGeneration(std::string_view text, int* genP) {
  return parseDecimal(text, genP) && *genP >= 1;
}

// The PEM block on the lines that follow: its DER bytes. Its first and last lines
// ("-----BEGIN PUBLIC KEY-----") are cut at their first blank like any other.
bool readBlock(LineReader& lines, std::string* derP) {
  std::string_view line;
  if (!lines.next(&line) || cutAtBlank(line) != "-----BEGIN") return false;
  std::string base64;
  while (lines.next(&line)) {
    const std::string_view word = cutAtBlank(line);
    if (word == "-----END") return base64Decode(base64, derP) && !derP->empty();
    base64 += word;
  }
  return false;
}

bool parseSwitch(std::string_view value, bool* onP) {
  const std::string v(value);
  for (const char* on : {"yes", "true", "on"}) {
    if (strcasecmp(v.c_str(), on) == 0) return (*onP = true);
  }
  for (const char* off : {"no", "false", "off"}) {
    if (strcasecmp(v.c_str(), off) == 0) return !(*onP = false);
  }
  return false;
}

int parseEntry(std::string_view key, std::string_view value, LineReader& lines, KeyRecord& r) {
  bool ok = true;
  if (key == "clusterName") {
    r.clusterName = value;
  } else if (key == "clusterID") {
    ok = parseDecimal(value, &r.clusterId);
  } else if (key == "cipherList") {
    r.cipherList = value;
    if (!validCipherList(value)) {
      fprintf(stderr, "[E] Unsupported cipherList in authorized_keys file: %s\n",
              r.cipherList.c_str());
      ok = false;
    }
  } else if (key == "newKeyGenNumber") {
    ok = parseGeneration(value, &r.next.gen);
  } else if (key == "newKeyDigest") {
    r.next.digest = value;
  } else if (key == "newPublicKey") {
    ok = readBlock(lines, &r.next.publicKeyDer);
  } else if (key == "committedKeyGenNumber") {
    ok = parseGeneration(value, &r.committed.gen);
  } else if (key == "committedKeyDigest") {
    r.committed.digest = value;
  } else if (key == "committedPublicKey") {
    ok = readBlock(lines, &r.committed.publicKeyDer);
  } else if (key == "newCertificate") {
    ok = readBlock(lines, &r.next.certDer);
  } else if (key == "committedCertificate") {
    ok = readBlock(lines, &r.committed.certDer);
  } else if (key == "nistCompliance") {
    r.nistCompliance = value;
    ok = value == "OFF" || value == "NIST_SP800131A";
  } else if (key == "fips1402mode") {
    ok = parseSwitch(value, &r.fips);
  }
  return ok ? 0 : E_NO_SECURITY;
}

// A generation named by its number needs its key and digest.
bool complete(const KeyGeneration& g) {
  return g.gen == -1 || (!g.publicKeyDer.empty() && !g.digest.empty());
}

void appendGeneration(std::string* out, const char* prefix, const KeyGeneration& g) {
  if (g.gen < 0) return;
  const std::string p(prefix);
  *out += p + "KeyGenNumber=" + std::to_string(g.gen) + "\n";
  *out += p + "KeyDigest=" + g.digest + "\n";
  *out += p + "PublicKey=PEM\n" + pemBlock("PUBLIC KEY", g.publicKeyDer);
  if (!g.certDer.empty()) *out += p + "Certificate=PEM\n" + pemBlock("CERTIFICATE", g.certDer);
}

int decodeChar(char c) {
  for (int i = 0; i < 64; ++i) {
    if (kBase64[i] == c) return i;
  }
  return -1;
}

}  // namespace

int KeyRecord::localGeneration() const { return committed.gen != -1 ? committed.gen : next.gen; }

bool validCipherList(std::string_view cipherList) { return cipherList == "AUTHONLY"; }

int parseAuthorizedKeys(std::string_view text, KeyRecord* recordP) {
  KeyRecord r;
  LineReader lines(text);
  std::string_view line;
  while (lines.next(&line)) {
    const std::string_view word = cutAtBlank(line);
    if (word.empty()) continue;
    const size_t eq = word.find('=');
    if (eq == std::string_view::npos) return EINVAL;
    const int rc = parseEntry(word.substr(0, eq), word.substr(eq + 1), lines, r);
    if (rc != 0) return rc;
  }
  if (r.localGeneration() == -1 || !complete(r.committed) || !complete(r.next) ||
      !validCipherList(r.cipherList)) {
    return E_NO_SECURITY;
  }
  *recordP = std::move(r);
  return 0;
}

std::string formatAuthorizedKeys(const KeyRecord& r) {
  std::string out = "clusterName=" + r.clusterName + "\n";
  out += "clusterID=" + std::to_string(r.clusterId) + "\n";
  out += "cipherList=" + r.cipherList + "\n";
  appendGeneration(&out, "committed", r.committed);
  appendGeneration(&out, "new", r.next);
  out += "nistCompliance=" + r.nistCompliance + "\n";
  out += std::string("fips1402mode=") + (r.fips ? "on" : "off") + "\n";
  return out;
}

std::string pemBlock(std::string_view label, std::string_view der) {
  const std::string body = base64Encode(der);
  std::string out = "-----BEGIN " + std::string(label) + "-----\n";
  for (size_t i = 0; i < body.size(); i += kPemLineChars) {
    out += body.substr(i, kPemLineChars) + "\n";
  }
  return out + "-----END " + std::string(label) + "-----\n";
}

std::string base64Encode(std::string_view bytes) {
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t v = 0;
    for (size_t k = 0; k < 3; ++k) {
      v = v << 8 | (k < n ? static_cast<uint8_t>(bytes[i + k]) : 0);
    }
    for (size_t k = 0; k < 4; ++k) {
      out += k <= n ? kBase64[(v >> (18 - 6 * k)) & 63] : '=';
    }
  }
  return out;
}

bool base64Decode(std::string_view text, std::string* bytesP) {
  std::string out;
  uint32_t v = 0;
  int bits = 0;
  size_t padding = 0;
  size_t symbols = 0;
  for (char c : text) {
    if (c == '\n' || c == '\r') continue;
    ++symbols;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int d = decodeChar(c);
    if (d < 0 || padding > 0) return false;
    v = v << 6 | static_cast<uint32_t>(d);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((v >> bits) & 0xFF);
    }
  }
  if (symbols % 4 != 0 || padding > 2) return false;
  *bytesP = std::move(out);
  return true;
}

std::string hexText(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (char c : bytes) {
    out += kDigits[static_cast<uint8_t>(c) >> 4];
    out += kDigits[static_cast<uint8_t>(c) & 15];
  }
  return out;
}

}  // namespace qcr
