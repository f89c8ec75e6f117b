// Connections to QCR servers and the message exchange on them.
//
// A Connection moves whole messages: send writes one header and body, receive
// reads one. ConnImplementation is the one real kind, framing messages on a
// Transport (a socket, or a byte string in tests); the server side uses it for
// accepted connections as well. One caller at a time uses a connection; it
// carries no lock.
//
// Flags: the first-send flag is set at creation and again when the connection is
// taken from the cache; the first send after that checks the peer's cluster id
// against the one its opener expects and, when the opener has security on,
// authenticates. The bad flag is set by any failed transfer and never cleared: a
// bad connection is never reused.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "basic/net.h"
#include "qcr/comm/security.h"
#include "qcr/comm/transport.h"

namespace qcr {

// Whether a received header with a bad length or an unknown type stops the process
// (on, the default) or only makes receive return 818 (E_ILL_FORMED_MSG).
void setMsgCheckAssert(bool on);

// One message as a value: its type and body.
struct Message {
  int type = -1;
  std::vector<uint8_t> body;
};

// What the first send of a connection checks, set by whoever opened it.
struct FirstSendChecks {
  uint64_t expectedClusterId = 0;  // the peer must report this cluster; 0 accepts any
  bool securityOn = false;         // a first message that needs it authenticates
};

class Connection {
 public:
  explicit Connection(const PeerAddress& peer) : peer_(peer) {}
  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Sends one message; the body stays the caller's. 0 or a result code.
  [[nodiscard]] virtual int send(int msgType, const void* body, int len) = 0;
  [[nodiscard]] int send(int msgType, const std::vector<uint8_t>& body) {
    return send(msgType, body.empty() ? nullptr : body.data(), static_cast<int>(body.size()));
  }
  // Receives one message. On success *msgTypeP is its type and, for a non-empty
  // body, *msgDataP a new buffer of exactly *lenP bytes; an empty body leaves
  // *msgDataP null and *lenP 0. On failure *msgDataP is null and *lenP 0;
  // *msgTypeP is the received type when a header arrived, else -1.
  [[nodiscard]] virtual int receive(int* msgTypeP, std::unique_ptr<uint8_t[]>* msgDataP,
                                    int* lenP) = 0;
  // Keeps a message to go out in one write with the next one sent, where the
  // connection can; otherwise sends it now. 0 or a result code, as send.
  [[nodiscard]] virtual int sendLater(int msgType, const std::vector<uint8_t>& body) {
    return send(msgType, body);
  }
  // The same into a Message: its body empty when none came.
  [[nodiscard]] int receive(Message* msgP);
  // Closes the socket; later transfers fail. Harmless when already closed.
  virtual void close() = 0;
  virtual int getSocket() const = 0;
  virtual uint64_t peerClusterId() const = 0;
  virtual int peerNodeValue() const = 0;

  const PeerAddress& peerAddress() const { return peer_; }
  bool isBad() const { return bad_; }
  void markBad() { bad_ = true; }
  // Set: the next send checks the cluster id (and authenticates) again. Cleared
  // on connections whose peer was checked otherwise (accepted by a server).
  void setFirstSend(bool on) { firstSend_ = on; }
  // The identity shown in traces.
  unsigned long long id() const { return reinterpret_cast<uintptr_t>(this); }
  // Set once the connection passed the authentication exchange; stays set.
  bool isAuthenticated() const { return authenticated_; }
  void setAuthenticated() { authenticated_ = true; }

 protected:
  const PeerAddress peer_;
  bool firstSend_ = true;
  bool bad_ = false;
  bool authenticated_ = false;
};

class ConnImplementation final : public Connection {
 public:
  // A connection without checks (expects any cluster, never authenticates) unless
  // checks say otherwise.
  ConnImplementation(std::unique_ptr<Transport> transport, const PeerAddress& peer,
                     SecurityParams security, FirstSendChecks checks = {});
  ~ConnImplementation() override;

  using Connection::receive;
  using Connection::send;
  int send(int msgType, const void* body, int len) override;
  int receive(int* msgTypeP, std::unique_ptr<uint8_t[]>* msgDataP, int* lenP) override;
  // Keeps a message to go out in one write with the next one sent, so that the
  // peer wakes once for both; a receive, or flush, sends it first. A message that
  // cannot share a write (a large body, a first send with its checks) goes out at
  // once. 0 or a result code, as send.
  [[nodiscard]] int sendLater(int msgType, const std::vector<uint8_t>& body) override;
  // Sends the messages kept by sendLater: 0 (also when there are none) or a
  // result code.
  [[nodiscard]] int flush();
  // On: a message sent while the peer's next message waits unread is kept as by
  // sendLater, and a receive sends what is kept only when nothing waits to be
  // read. A server whose peer sends requests back to back answers them in one
  // write; its owner flushes once it is done with what arrived.
  void setKeepWhileMessagesWait(bool on) { keepWhileMessagesWait_ = on; }
  void close() override;
  int getSocket() const override { return transport_->socket(); }
  uint64_t peerClusterId() const override { return security_.peerClusterId; }
  int peerNodeValue() const override { return security_.peerNodeValue; }

  const SecurityParams& securityParams() const { return security_; }
  // Asked by receive after each accepted header, before the body is read, with the
  // message type: 0 lets the message in; anything else ends receive with that
  // result (the body stays unread and the connection is bad). A server checks
  // and runs the authentication here, which sits between header and body.
  void setReceiveGate(std::function<int(int msgType)> gate) { gate_ = std::move(gate); }
  // What the next first send checks (a cached connection gets its new user's).
  void setChecks(const FirstSendChecks& checks) { checks_ = checks; }
  // Per-wait time-outs of send and receive in ms; -1 (the default) selects the
  // socket layer's defaults.
  void setTimeouts(int sendMs, int recvMs);

 private:
  // Bodies up to this size go out in one write with their header.
  static constexpr int kOneWriteMaxBody = 4096;

  bool clusterMismatch() const;
  bool needsAuthentication(int msgType) const;
  [[nodiscard]] int checkFirstSend(int msgType);

  std::unique_ptr<Transport> transport_;
  SecurityParams security_;
  FirstSendChecks checks_;
  std::function<int(int msgType)> gate_;
  int sendTimeoutMs_ = -1;
  int recvTimeoutMs_ = -1;
  std::vector<uint8_t> kept_;  // framed messages kept by sendLater
  bool keepWhileMessagesWait_ = false;
  // Whether the peer's next message has begun to arrive.
  bool messagesWait() const;
};

}  // namespace qcr
