// A scripted QCR server for the client's tests: it listens on 127.0.0.1, answers
// the hello of every connection and hands the connection to a script, which reads
// requests and sends whatever replies the test needs (malformed ones included).
// Connections are served one after another in the server's own thread; every
// wait is bounded, and the destructor stops the thread and closes everything.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qcr/comm/connection.h"
#include "qcr/comm/request_bodies.h"

namespace qcr::test {

class ScriptedServer final {
 public:
  // Runs on the index-th accepted connection (0-based) after its hello.
  using Script = std::function<void(Connection& conn, int index)>;

  explicit ScriptedServer(Script script, uint64_t clusterId = 0);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const { return port_; }
  // Connections accepted so far.
  int connections() const { return connections_; }

 private:
  int listenSock_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
};

// A loopback port with nobody listening (free a moment ago).
int closedPort();

// One request as it arrived: its type and body; type -1 when none came.
struct Request {
  int type = -1;
  std::string body;
};
Request readRequest(Connection& conn);

// Sends one request on conn and reads its reply: 0 or the failure; -1 without a
// connection.
int exchange(const std::unique_ptr<ConnImplementation>& conn, int type,
             const std::vector<uint8_t>& body, Message* replyP);

// Sends one message; failures are ignored (the test checks the client side).
void sendRaw(Connection& conn, int type, const std::string& body);
template <class T>
void sendReply(Connection& conn, int type, const T& body) {
  const std::vector<uint8_t> bytes = encodeBody(body);
  sendRaw(conn, type, std::string(bytes.begin(), bytes.end()));
}

// Sends content as one fdata message and its fcrc message, with the checksum
// changed by crcDelta (0 for the true one).
void sendFileContent(Connection& conn, const std::string& content, uint32_t crcDelta = 0);

}  // namespace qcr::test
