#include "qcr/comm/security.h"

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"

namespace qcr {

void SecurityContext::setSecurityOff(int securityOff) {
  enabled_ = securityOff == 0;
  // Trace readers know this record by these words.
  qcrLog(3, "setQcrSecurity: qcrSecEnabled=%d", enabled_ ? 1 : 0);
}

int SecurityContext::startup(bool verbose, const std::string& keysPath) {
  ready_ = false;
  int rc = 0;
  if (!fileExists(keysPath)) {
    if (verbose) qcrLog(1, "Auth: '%s' does not exist", keysPath.c_str());
  } else {
    qcrLog(1, "Auth: no TLS provider available to load keys from '%s'", keysPath.c_str());
    rc = kErrSecurityLibrary;
  }
  qcrLog(3, "Auth: secReady %d cipherList '%s' keyGenNumber %d", ready_ ? 1 : 0,
         cipherList().c_str(), localKeyGeneration());
  return rc;
}

std::string SecurityContext::cipherList() const { return ready_ ? kAuthOnlyCipherList : ""; }

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
