#include "bench/etcd_client.h"

#include <cerrno>
#include <cstdlib>

namespace qcr::bench {

namespace {

constexpr int kWaitMs = 10000;

std::string base64(const std::string& in) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8) | uint8_t(in[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out += kDigits[(v >> s) & 63];
  }
  if (i < in.size()) {
    const unsigned v = (uint8_t(in[i]) << 16) | (i + 1 < in.size() ? uint8_t(in[i + 1]) << 8 : 0);
    out += kDigits[(v >> 18) & 63];
    out += kDigits[(v >> 12) & 63];
    out += i + 1 < in.size() ? kDigits[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

// One POST, the answer's body into *bodyP; 0 for status 200.
int post(const PeerAddress& address, const std::string& path, const std::string& json,
         std::string* bodyP) {
  int sock = -1;
  int rc = openStreamSocket(address, &sock);
  if (rc != 0) return rc;
  rc = connectSocket(sock, address, kWaitMs);
  if (rc == 0) rc = setNoDelay(sock);
  const std::string request = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                              "Content-Type: application/json\r\nConnection: close\r\n" +
                              "Content-Length: " + std::to_string(json.size()) + "\r\n\r\n" + json;
  if (rc == 0) rc = fullSend(sock, request.data(), request.size(), kWaitMs);
  // The header a byte at a time up to its blank line; then Content-Length bytes.
  std::string head;
  while (rc == 0 && head.find("\r\n\r\n") == std::string::npos && head.size() < 8192) {
    char c;
    rc = fullRecv(sock, &c, 1, kWaitMs);
    head += c;
  }
  const size_t at = head.find("Content-Length: ");
  const size_t length = at == std::string::npos ? 0 : strtoul(head.c_str() + at + 16, nullptr, 10);
  bodyP->assign(length, '\0');
  if (rc == 0 && length > 0) rc = fullRecv(sock, bodyP->data(), length, kWaitMs);
  closeSocket(sock);
  if (rc != 0) return rc;
  return head.compare(0, 12, "HTTP/1.1 200") == 0 ? 0 : EIO;
}

}  // namespace

int etcdPut(const PeerAddress& address, const std::string& key, const std::string& value) {
  std::string body;
  return post(address, "/v3/kv/put",
              "{\"key\":\"" + base64(key) + "\",\"value\":\"" + base64(value) + "\"}", &body);
}

int etcdGet(const PeerAddress& address, const std::string& key, std::string* jsonP) {
  return post(address, "/v3/kv/range", "{\"key\":\"" + base64(key) + "\"}", jsonP);
}

}  // namespace qcr::bench
