#include "testing/scripted_server.h"

#include <memory>

#include "basic/assert.h"
#include "qcr/comm/connect.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/crc.h"

namespace qcr::test {

namespace {

constexpr int kAcceptPollMs = 50;
constexpr int kScriptWaitMs = 5000;

}  // namespace

ScriptedServer::ScriptedServer(Script script, uint64_t clusterId) {
  QCR_CHECK(listenSocket(ipv4Address(0x7F000001, 0), &listenSock_, &port_) == 0);
  Hello hello;
  hello.nodeValue = 1;
  hello.clusterId = clusterId;
  thread_ = std::thread([this, hello, script = std::move(script)] {
    while (!stop_) {
      std::unique_ptr<ConnImplementation> conn;
      Hello clientHello;
      if (acceptConnection(listenSock_, kAcceptPollMs, hello, &conn, &clientHello) != 0) continue;
      conn->setTimeouts(kScriptWaitMs, kScriptWaitMs);
      script(*conn, connections_++);
      conn->close();
    }
  });
}

ScriptedServer::~ScriptedServer() {
  stop_ = true;
  thread_.join();
  closeSocket(listenSock_);
}

int closedPort() {
  int sock = -1;
  int port = 0;
  QCR_CHECK(listenSocket(ipv4Address(0x7F000001, 0), &sock, &port) == 0);
  closeSocket(sock);
  return port;
}

Request readRequest(Connection& conn) {
  Request request;
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  if (conn.receive(&request.type, &data, &len) != 0) return Request{};
  request.body.assign(reinterpret_cast<const char*>(data.get()), static_cast<size_t>(len));
  return request;
}

int exchange(const std::unique_ptr<ConnImplementation>& conn, int type,
             const std::vector<uint8_t>& body, Message* replyP) {
  if (!conn) return -1;
  const int rc = conn->send(type, body);
  return rc != 0 ? rc : conn->receive(replyP);
}

void sendRaw(Connection& conn, int type, const std::string& body) {
  (void)conn.send(type, body.data(), static_cast<int>(body.size()));
}

void sendFileContent(Connection& conn, const std::string& content, uint32_t crcDelta) {
  if (!content.empty()) sendRaw(conn, MSG_TYPE_FDATA, content);
  const uint32_t crc = crcExtend(0, reinterpret_cast<const uint8_t*>(content.data()),
                                 content.size());
  uint8_t word[4];
  putU32(word, cksumFinish(crc, content.size()) + crcDelta);
  sendRaw(conn, MSG_TYPE_FCRC, std::string(reinterpret_cast<char*>(word), sizeof word));
}

}  // namespace qcr::test
