#include "qcr/comm/hello.h"

#include <cstring>
#include <memory>
#include <new>

#include "basic/net.h"
#include "qcr/coding/coding.h"

namespace qcr {

namespace {

constexpr uint32_t kProtocolValues[] = {1602, 1203};
constexpr size_t kClientHeaderSize = 28;
constexpr size_t kReplyHeaderSize = 20;
constexpr size_t kFlagsItemPadding = 60;
// A bad magic is reported like a time-out: the peer is not a QCR server.
constexpr int kErrBadMagic = kErrTimedOut;

using Bytes = std::vector<uint8_t>;

void append32(Bytes* out, uint32_t v) {
  out->resize(out->size() + 4);
  putU32(out->data() + out->size() - 4, v);
}

// An item's words; its second word (the length of the next item) is set when
// the chain is laid out.
Bytes item(std::initializer_list<uint32_t> words) {
  Bytes bytes;
  for (uint32_t w : words) append32(&bytes, w);
  return bytes;
}

// Item 6. Its size is (text length + 16) rounded down to a multiple of 4, which
// always leaves room for the text's NUL; the rest is zero padding.
Bytes securityItem(const HelloSecurityItem& security) {
  Bytes bytes = item({6, 0, static_cast<uint32_t>(security.keyGen)});
  const size_t size = (security.cipherList.size() + 16) / 4 * 4;
  bytes.resize(size, 0);
  memcpy(bytes.data() + 12, security.cipherList.data(), security.cipherList.size());
  return bytes;
}

Bytes clusterItem(int value, uint64_t clusterId) {
  return item({9, 0, static_cast<uint32_t>(value), static_cast<uint32_t>(clusterId >> 32),
               static_cast<uint32_t>(clusterId), 0});
}

// Appends the items, each one's second word holding the next one's size.
void appendChain(Bytes* out, const std::vector<Bytes>& items) {
  for (size_t i = 0; i < items.size(); ++i) {
    const size_t start = out->size();
    out->insert(out->end(), items[i].begin(), items[i].end());
    const size_t next = i + 1 < items.size() ? items[i + 1].size() : 0;
    putU32(out->data() + start + 4, static_cast<uint32_t>(next));
  }
}

uint32_t wordAt(const uint8_t* p, size_t offset) {
  uint32_t v = 0;
  getU32(p + offset, p + offset + 4, &v);
  return v;
}

// Takes what this side needs from one item; other types are skipped.
int parseItem(const uint8_t* p, size_t len, Hello* helloP) {
  const uint32_t type = wordAt(p, 0);
  const size_t needed = type == 9 ? 20 : (type == 6 || type == 2) ? 12 : 8;
  if (len < needed) return kErrHelloItemLength;
  if (type == 6) {
    const auto* text = reinterpret_cast<const char*>(p + 12);
    helloP->security = HelloSecurityItem{static_cast<int>(wordAt(p, 8)),
                                         std::string(text, strnlen(text, len - 12))};
  } else if (type == 9) {
    helloP->nodeValue = static_cast<int>(wordAt(p, 8));
    helloP->clusterId = uint64_t{wordAt(p, 12)} << 32 | wordAt(p, 16);
  } else if (type == 2) {
    helloP->flags = wordAt(p, 8);
  }
  return 0;
}

// Reads the chain of items that starts with one of firstLen bytes; all of them
// together may take at most maxBytes.
int readItems(Transport& transport, uint32_t firstLen, int timeoutMs, uint64_t maxBytes,
              Hello* helloP) {
  uint64_t total = 0;
  for (uint32_t len = firstLen; len != 0;) {
    total += len;
    if (len > kMaxHelloItemLength || len < 8 || total > maxBytes) return kErrHelloItemLength;
    std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[len]);
    if (!bytes) return kErrHelloNoMemory;
    int rc = transport.recvAll(bytes.get(), len, timeoutMs);
    if (rc == 0) rc = parseItem(bytes.get(), len, helloP);
    if (rc != 0) return rc;
    len = wordAt(bytes.get(), 4);
  }
  return 0;
}

}  // namespace

Bytes buildClientHello(const Hello& hello) {
  std::vector<Bytes> items;
  items.push_back(item({7, 0, 1}));
  if (hello.security) items.push_back(securityItem(*hello.security));
  items.push_back(clusterItem(kClientHelloValue, hello.clusterId));
  items.push_back(item({2, 0, hello.flags}));
  items.back().resize(items.back().size() + kFlagsItemPadding, 0);
  Bytes out;
  for (uint32_t w :
       {kHelloMagic, 0xFFFFFFFFu, 0xFFFFFFFFu, kProtocolValues[0], kProtocolValues[1]}) {
    append32(&out, w);
  }
  append32(&out, static_cast<uint32_t>(items[0].size()));
  append32(&out, 0);
  appendChain(&out, items);
  return out;
}

Bytes buildHelloReply(const Hello& hello) {
  std::vector<Bytes> items;
  if (hello.security) items.push_back(securityItem(*hello.security));
  items.push_back(clusterItem(hello.nodeValue, hello.clusterId));
  Bytes out;
  for (uint32_t w : {kHelloMagic, hello.status, 0u, static_cast<uint32_t>(items[0].size()), 0u}) {
    append32(&out, w);
  }
  appendChain(&out, items);
  return out;
}

int readHelloReply(Transport& transport, int timeoutMs, Hello* replyP) {
  uint8_t header[kReplyHeaderSize];
  int rc = transport.recvAll(header, sizeof header, timeoutMs);
  if (rc != 0) return rc;
  if (wordAt(header, 0) != kHelloMagic) return kErrBadMagic;
  replyP->status = wordAt(header, 4);
  rc = readItems(transport, wordAt(header, 12), timeoutMs, UINT64_MAX, replyP);
  if (rc != 0) return rc;
  return replyP->status != 0 ? kErrHelloRejected : 0;
}

int readClientHello(Transport& transport, int timeoutMs, Hello* helloP) {
  uint8_t header[kClientHeaderSize];
  const int rc = transport.recvAll(header, sizeof header, timeoutMs);
  if (rc != 0) return rc;
  if (wordAt(header, 0) != kHelloMagic) return kErrBadMagic;
  return readItems(transport, wordAt(header, 20), timeoutMs, kMaxClientHelloBytes, helloP);
}

}  // namespace qcr
