// The node and disk lists that chnodes and chdisks are given (-n, -d): parsing
// their items, reconciling them with the current lists, and the check of the
// minimum number of quorum nodes.
//
// Nothing here talks to a server. Messages for the user are appended to *msgP,
// one line each, in the order found; the caller prints them on standard error.
// Every item is looked at, so that all bad items are reported at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "qcr/data/node_list.h"

namespace qcr {

using StringList = std::vector<std::string>;

// Appends the printf-style text to *outP.
void appendFormat(std::string* outP, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// A host and port as written in a node list item.
struct HostPort {
  std::string host;
  int32_t port = 0;  // 0: not a valid port

  bool operator==(const HostPort&) const = default;
};

// Splits "host", "host:port", "[v6]" or "[v6]:port". "[" ... "]" encloses the
// host; nothing after "]" means defaultPort, ":" right after it the number after
// the last ":", anything else port 0. Without "[", the host is what precedes the
// last ":" and the port the number after it, or the whole text with defaultPort
// when there is no ":". A port that is not 1 to 5 digits of a value from 1 to
// 65535 gives port 0.
HostPort splitHostPort(const std::string& text, int32_t defaultPort);

// Resolves a host to the text of its IP address: 0 or the lookup's error.
using HostResolver = std::function<int(const std::string& host, std::string* ipP)>;
// The resolver of the connections (qcr/comm/connect.h): numeric addresses as they
// are, names through the system's resolver.
int resolveHostAddress(const std::string& host, std::string* ipP);

// Parses the items of a node list against current (the committed list; empty when
// not known). Items: "id=host[:port]" names a node and its id, "host[:port]" a
// node whose id is found in current by name and port (or by address and port) or
// else assigned, a bare "id" a node of current (its entry as it stands, flag 0).
// Nodes without an id get the next ids above every id seen, in list order. The
// entries carry the host as name, its resolved address and port, and flag 0. An
// invalid port, an id or an address and port given twice are bad items too.
// 0, or 22 when any item was bad.
[[nodiscard]] int parseNodeList(const StringList& items, const NodeList& current,
                                int32_t defaultPort, const HostResolver& resolver,
                                NodeList* resultP, std::string* msgP);

// Whether text is a disk label: a disk name (1 to 64 characters of letters,
// digits, "_", "-" and ".", starting with a letter, digit or "_"), optionally
// followed by ":" and a type word (1 to 32 letters, digits, "_" or "-").
bool isValidDiskLabel(const std::string& text);

// Parses the items of a disk list: an absolute path stands as it is; with
// disksDir (absolute; asserted) any other item is a path below it, unless it
// climbs out of it with a ".." component; without it an item must be a disk
// label. An empty item, or one with a control character, is refused like a bad
// label, and a disk given twice is refused. Disk ids are the 1-based positions.
// 0 or 22.
[[nodiscard]] int parseDiskList(const StringList& items, const std::string& disksDir,
                                DiskList* resultP, std::string* msgP);

// Settles *minQuorumNodesP for nQuorumNodes nodes and nDisks tiebreaker disks:
// 1 is always accepted; with disks, a value below 1 becomes 1 (with a warning)
// and one of nQuorumNodes or more is refused; without disks any other value
// becomes 1 (with a warning). 0 or 22.
[[nodiscard]] int checkMinQuorumNodes(int nQuorumNodes, int nDisks, int32_t* minQuorumNodesP,
                                      std::string* msgP);

}  // namespace qcr
