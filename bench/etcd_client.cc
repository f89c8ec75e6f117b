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
  // The answer as it arrives (the gateway closes after it), up to the blank line
  // that ends its header and then Content-Length bytes of body.
  std::string in;
  size_t headEnd = std::string::npos, length = 0;
  while (rc == 0 && (headEnd == std::string::npos || in.size() < headEnd + 4 + length)) {
    if (!waitReadable(sock, kWaitMs)) {
      rc = kErrTimedOut;
      break;
    }
    char buf[4096];
    const int n = takeArrived(sock, buf, sizeof buf);
    if (n <= 0) {
      rc = n == 0 ? kErrPeerClosed : EIO;
      break;
    }
    in.append(buf, n);
    if (headEnd == std::string::npos && (headEnd = in.find("\r\n\r\n")) != std::string::npos) {
      const size_t at = in.find("Content-Length: ");
      if (at < headEnd) length = strtoul(in.c_str() + at + 16, nullptr, 10);
    }
    if (headEnd == std::string::npos && in.size() > 8192) rc = EIO;
  }
  const std::string head = in.substr(0, headEnd);
  if (rc == 0) bodyP->assign(in, headEnd + 4, length);
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
