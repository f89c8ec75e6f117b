// qcrd's connection security. A server is secured when its authorized keys file
// exists (the key files of keyFilePaths(base)), unless its qcr.noauth holds a
// non-zero value. A secured server announces its key generation in its hello and
// answers a request whose type needs authentication only on a connection that
// passed the authentication exchange, which the client runs right after the
// header of its first such request (see guard). Keys that exist but do not load
// leave the server secured and unable to authenticate anyone: it fails closed.
//
// The auth request (19) installs new key files (install); it is taken from anyone
// while the server is open, and only over an authenticated connection once it is
// secured.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "basic/clock.h"
#include "qcr/comm/connection.h"
#include "qcr/comm/hello.h"
#include "qcr/comm/security.h"

namespace qcr {

class ServerSecurity final {
 public:
  explicit ServerSecurity(const std::string& baseDir);

  // Reads the security setting and the key files again. 0, or the error of
  // loading keys that exist (the server then refuses what needs authentication).
  [[nodiscard]] int reload();
  bool on() const { return context_.enabled(); }
  // The context of the server's own connections to its peers. Any thread.
  SecurityContext& context() { return context_; }

  // What one accepted connection announces and checks: the keys as they are now.
  struct Snapshot {
    bool on = false;
    std::shared_ptr<const KeyRing> keys;
  };
  Snapshot snapshot() const { return {on(), context_.keys()}; }
  // The hello's security item for snap: present when the server is secured and
  // has keys.
  static std::optional<HelloSecurityItem> helloItem(const Snapshot& snap);

  // Makes conn's receive refuse or authenticate requests that need it: with the
  // server secured now, such a request passes only on an authenticated
  // connection, and the first request of a connection that announced this
  // server's keys (snap) runs the exchange with the client, all of it ending
  // within waits. Refusals: 720 when the client announced no key or no
  // "AUTHONLY", or the connection began while the server was open; 703 when a
  // later request asks for what the connection never authenticated for, or the
  // exchange fails; 78 when it runs out of time.
  void guard(ConnImplementation& conn, const Snapshot& snap, const Hello& clientHello,
             std::function<AuthWaits()> waits);

  // Installs key files sent by the auth request: they must load, then they are
  // written, a non-zero security setting is cleared, and the server reloads.
  // 0, or the error of loading or writing them.
  [[nodiscard]] int install(const KeyFiles& files);

 private:
  const std::string baseDir_;
  const KeyFilePaths paths_;
  SecurityContext context_;
};

}  // namespace qcr
