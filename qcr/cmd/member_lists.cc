#include "qcr/cmd/member_lists.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <set>
#include <utility>

#include "basic/assert.h"
#include "basic/log.h"
#include "basic/net.h"
#include "qcr/coding/result.h"
#include "qcr/comm/connect.h"

namespace qcr {

void appendFormat(std::string* outP, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char small[512];
  va_list again;
  va_copy(again, args);
  const int n = vsnprintf(small, sizeof small, fmt, args);
  va_end(args);
  if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
    outP->append(small, static_cast<size_t>(n));
  } else if (n >= 0) {
    std::string big(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(big.data(), big.size(), fmt, again);
    big.resize(static_cast<size_t>(n));
    outP->append(big);
  }
  va_end(again);
}

namespace {

constexpr int32_t kMaxPort = 65535;
constexpr size_t kMaxDiskName = 64;
constexpr size_t kMaxDiskType = 32;

bool isDigits(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

// The value of a string of digits, or -1 when it does not fit 31 bits.
int32_t idValue(const std::string& digits) {
  int64_t value = 0;
  for (const char c : digits) {
    value = value * 10 + (c - '0');
    if (value > INT32_MAX) return -1;
  }
  return static_cast<int32_t>(value);
}

// digits as %d would print their value (no leading zeros).
std::string idText(const std::string& digits) {
  const size_t first = digits.find_first_not_of('0');
  return first == std::string::npos ? "0" : digits.substr(first);
}

int32_t portValue(const std::string& text) {
  if (!isDigits(text) || text.size() > 5) return 0;
  const int32_t port = idValue(text);
  return port >= 1 && port <= kMaxPort ? port : 0;
}

bool hasControl(const std::string& s) {
  for (const char c : s) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) return true;
  }
  return false;
}

// What an item of a node list says before it is reconciled.
struct NodeItem {
  enum Kind { kNamed, kHost, kBareId } kind = kHost;
  std::string text;      // the item as given
  std::string rest;      // kNamed: what follows "="
  NodeEntry entry;
};

const NodeEntry* findById(const NodeList& list, int32_t id) {
  for (const NodeEntry& e : list) {
    if (e.id == id) return &e;
  }
  return nullptr;
}

// Host part of an item: split, checked and resolved into *entryP.
bool parseHost(const std::string& item, const std::string& text, int32_t defaultPort,
               const HostResolver& resolver, NodeEntry* entryP, std::string* msgP) {
  const HostPort hp = splitHostPort(text, defaultPort);
  if (hp.host.empty()) {
    appendFormat(msgP, "Missing host in '%s'\n", item.c_str());
    return false;
  }
  if (hp.port == 0) {
    appendFormat(msgP, "Invalid port in '%s'\n", item.c_str());
    return false;
  }
  entryP->name = hp.host;
  entryP->port = hp.port;
  if (hasControl(hp.host) || resolver(hp.host, &entryP->addr) != 0) {
    appendFormat(msgP, "Unknown host '%s'\n", hp.host.c_str());
    return false;
  }
  return true;
}

// Reads one item into *itemP; false after its message when it is bad.
bool parseItem(const std::string& text, const NodeList& current, int32_t defaultPort,
               const HostResolver& resolver, NodeItem* itemP, std::string* msgP) {
  NodeItem& item = *itemP;
  item.text = text;
  const size_t digits = text.find_first_not_of("0123456789");
  if (digits == std::string::npos && !text.empty()) {
    item.kind = NodeItem::kBareId;
    const int32_t id = idValue(text);
    if (id == 0) {
      appendFormat(msgP, "invalid node id %s\n", text.c_str());
      return false;
    }
    const NodeEntry* known = id > 0 ? findById(current, id) : nullptr;
    if (known == nullptr) {
      appendFormat(msgP, "Unknwon node id %s\n", idText(text).c_str());
      return false;
    }
    item.entry = *known;
    item.entry.flag = 0;
    return true;
  }
  if (digits != std::string::npos && digits > 0 && text[digits] == '=') {
    item.kind = NodeItem::kNamed;
    const std::string idDigits = text.substr(0, digits);
    item.rest = text.substr(digits + 1);
    item.entry.id = idValue(idDigits);
    if (item.entry.id <= 0) {
      appendFormat(msgP, "Invalid node id %s in '%s'\n", idText(idDigits).c_str(), text.c_str());
      return false;
    }
    return parseHost(text, item.rest, defaultPort, resolver, &item.entry, msgP);
  }
  item.kind = NodeItem::kHost;
  return parseHost(text, text, defaultPort, resolver, &item.entry, msgP);
}

// Reconciles a parsed item with the current list; false after its message when
// the two disagree.
bool reconcile(const NodeList& current, NodeItem* itemP, std::string* msgP) {
  NodeEntry& e = itemP->entry;
  if (itemP->kind == NodeItem::kNamed) {
    const NodeEntry* known = findById(current, e.id);
    if (known == nullptr) return true;
    if (known->name != e.name) {
      appendFormat(msgP, "Node id %d in '%d=%s' already known as '%s'\n", e.id, e.id,
                   itemP->rest.c_str(), known->name.c_str());
      return false;
    }
    if (known->addr != e.addr) {
      appendFormat(msgP, "Address of node %d in '%d=%s' changed from %s to %s\n", e.id, e.id,
                   itemP->rest.c_str(), known->addr.c_str(), e.addr.c_str());
    }
    return true;
  }
  if (itemP->kind == NodeItem::kHost) {
    // By name first; a host given by its address is the same node as well.
    for (const NodeEntry& k : current) {
      if (k.name == e.name && k.port == e.port) {
        e.id = k.id;
        return true;
      }
    }
    for (const NodeEntry& k : current) {
      if (k.addr == e.addr && k.port == e.port) {
        e.id = k.id;
        return true;
      }
    }
  }
  return true;
}

// Names the later of two items that give one node twice (an id, or an address and
// port); false when there is such a pair.
bool checkDuplicates(const std::vector<NodeItem>& items, std::string* msgP) {
  bool ok = true;
  std::set<int32_t> ids;
  std::set<std::pair<std::string, int32_t>> addresses;
  for (const NodeItem& item : items) {
    const NodeEntry& e = item.entry;
    if (!ids.insert(e.id).second) {
      appendFormat(msgP, "Node id %d given twice in '%s'\n", e.id, item.text.c_str());
      ok = false;
    } else if (!addresses.insert({e.addr, e.port}).second) {
      appendFormat(msgP, "Node address %s port %d given twice in '%s'\n", e.addr.c_str(), e.port,
                   item.text.c_str());
      ok = false;
    }
  }
  return ok;
}

// Whether a relative path climbs out of the directory it is taken in.
bool climbsOut(const std::string& path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (path.compare(start, end - start, "..") == 0) return true;
    start = end + 1;
  }
  return false;
}

bool isLabelChar(char c, bool first) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_') {
    return true;
  }
  return !first && (c == '-' || c == '.');
}

}  // namespace

HostPort splitHostPort(const std::string& text, int32_t defaultPort) {
  HostPort hp;
  const size_t close = text.find(']');
  if (!text.empty() && text[0] == '[' && close != std::string::npos) {
    hp.host = text.substr(1, close - 1);
    if (close + 1 == text.size()) {
      hp.port = defaultPort;
    } else if (text[close + 1] == ':') {
      hp.port = portValue(text.substr(text.rfind(':') + 1));
    }
    return hp;
  }
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    hp.host = text;
    hp.port = defaultPort;
  } else {
    hp.host = text.substr(0, colon);
    hp.port = portValue(text.substr(colon + 1));
  }
  return hp;
}

int resolveHostAddress(const std::string& host, std::string* ipP) {
  PeerAddress address;
  const int rc = resolve(host, 1, &address);
  if (rc != 0) return rc;
  *ipP = ipText(address);
  return 0;
}

int parseNodeList(const StringList& items, const NodeList& current, int32_t defaultPort,
                  const HostResolver& resolver, NodeList* resultP, std::string* msgP) {
  std::vector<NodeItem> parsed;
  bool ok = true;
  int32_t maxId = 0;
  for (const NodeEntry& e : current) maxId = std::max(maxId, e.id);
  for (const std::string& text : items) {
    NodeItem item;
    if (parseItem(text, current, defaultPort, resolver, &item, msgP) &&
        reconcile(current, &item, msgP)) {
      const NodeEntry& e = item.entry;
      qcrLog(4, "parseNodeList: %s -> id %d host %s port %d ipaddr %s", text.c_str(), e.id,
             e.name.c_str(), e.port, e.addr.c_str());
      maxId = std::max(maxId, e.id);
      parsed.push_back(std::move(item));
    } else {
      ok = false;
    }
  }
  for (NodeItem& item : parsed) {
    if (item.entry.id < 0) item.entry.id = ++maxId;
  }
  if (!checkDuplicates(parsed, msgP)) ok = false;
  resultP->clear();
  for (const NodeItem& item : parsed) resultP->push_back(item.entry);
  return ok ? E_OK : EINVAL;
}

bool isValidDiskLabel(const std::string& text) {
  const size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  if (name.empty() || name.size() > kMaxDiskName) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    if (!isLabelChar(name[i], i == 0)) return false;
  }
  if (colon == std::string::npos) return true;
  const std::string type = text.substr(colon + 1);
  if (type.empty() || type.size() > kMaxDiskType) return false;
  for (const char c : type) {
    if (!isLabelChar(c, true) && c != '-') return false;
  }
  return true;
}

int parseDiskList(const StringList& items, const std::string& disksDir, DiskList* resultP,
                  std::string* msgP) {
  QCR_ASSERT(disksDir.empty() || disksDir[0] == '/');
  resultP->clear();
  bool ok = true;
  for (const std::string& item : items) {
    DiskEntry disk;
    disk.id = static_cast<int32_t>(resultP->size()) + 1;
    if (!item.empty() && !hasControl(item) && item[0] == '/') {
      disk.label = item;
    } else if (!item.empty() && !hasControl(item) && !disksDir.empty() && !climbsOut(item)) {
      disk.label = disksDir + "/" + item;
    } else if (isValidDiskLabel(item)) {
      disk.label = item;
    } else {
      appendFormat(msgP, "Invalid disk label '%s'\n", item.c_str());
      ok = false;
    }
    qcrLog(4, "parseDiskList: disk %d '%s'", disk.id, disk.label.c_str());
    const bool twice = !disk.label.empty() &&
                       std::any_of(resultP->begin(), resultP->end(),
                                   [&disk](const DiskEntry& d) { return d.label == disk.label; });
    if (twice) {
      appendFormat(msgP, "Disk '%s' given twice\n", disk.label.c_str());
      ok = false;
    }
    resultP->push_back(std::move(disk));
  }
  return ok ? E_OK : EINVAL;
}

int checkMinQuorumNodes(int nQuorumNodes, int nDisks, int32_t* minQuorumNodesP,
                        std::string* msgP) {
  int32_t& minQ = *minQuorumNodesP;
  if (minQ == 1) return E_OK;
  if (nDisks != 0) {
    if (minQ < 1) {
      minQ = 1;
      msgP->append("Warning: Tiebreaker disks specified, but minOuorumNodes less or equal zero, "
                   "using default value (1)\n");
    } else if (minQ >= nQuorumNodes) {
      appendFormat(msgP, "minQuorumNodes must be less than %d\n", nQuorumNodes);
      return EINVAL;
    }
    return E_OK;
  }
  minQ = 1;
  msgP->append("Warning: No tiebreaker disks specified, using minOuorumNodes default value (1)\n");
  return E_OK;
}

}  // namespace qcr
