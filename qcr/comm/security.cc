#include "qcr/comm/security.h"

#include <atomic>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"

namespace qcr {

namespace {

std::atomic<bool> secEnabled{true};
std::atomic<bool> ready{false};

}  // namespace

void setQcrSecurity(int securityOff) {
  secEnabled = securityOff == 0;
  qcrLog(3, "setQcrSecurity: qcrSecEnabled=%d", secEnabled ? 1 : 0);
}

bool qcrSecEnabled() { return secEnabled; }

int securityStartup(bool verbose, const std::string& keysPath) {
  ready = false;
  int rc = 0;
  if (!fileExists(keysPath)) {
    if (verbose) qcrLog(1, "Auth: '%s' does not exist", keysPath.c_str());
  } else {
    qcrLog(1, "Auth: no TLS provider available to load keys from '%s'", keysPath.c_str());
    rc = kErrSecurityLibrary;
  }
  qcrLog(3, "Auth: secReady %d cipherList '%s' keyGenNumber %d", ready ? 1 : 0,
         secCipherList().c_str(), localKeyGeneration());
  return rc;
}

bool secReady() { return ready; }

std::string secCipherList() { return ready ? kAuthOnlyCipherList : ""; }

int localKeyGeneration() { return -1; }

// The socket will carry the TLS exchange once a provider is wired in.
int AuthenticateOutgoing(int /*sock*/, const SecurityParams& params) {
  const int aGen = params.localKeyGen;
  const int cGen = params.peerKeyGen;
  const char* cipher = params.peerCipherList ? params.peerCipherList->c_str() : "(null)";
  if (aGen == -1 || cGen == -1 || !params.peerCipherList ||
      *params.peerCipherList != kAuthOnlyCipherList) {
    qcrLog(3, "Auth: missing key or cypher list: aGen %d cGen %d cipher %s", aGen, cGen, cipher);
    return E_NO_SECURITY;
  }
  qcrLog(4, "AuthenticateOutgoing aGen %d cGen %d cipher '%s' returns %d", aGen, cGen, cipher,
         kErrSecurityLibrary);
  return kErrSecurityLibrary;
}

}  // namespace qcr
