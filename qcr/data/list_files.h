// The local list files qcr.nodes and qcr.disks: text, one record a line, fields
// separated by ",".
//   qcr.nodes: id,flag,address,port,name  (the name is the rest of the line and
//              may hold commas)
//   qcr.disks: id,old,label               (the label is the rest of the line)
// Flags keep only bit 0. Writers replace the file atomically.
//
// An empty port field always means the built-in server port (kDefaultServerPort),
// whoever reads the list and whatever port the reader itself uses: the list is
// shared by every node and tool, so its meaning must not depend on the reader.
// Writers leave the field empty for exactly that port.
#pragma once

#include <string>

#include "qcr/data/node_list.h"

namespace qcr {

// Replaces *listP with the file's records. Ill-formed records are skipped and make
// the result 5; other results are the file's read error. Empty lines are ignored.
[[nodiscard]] int readNodeList(const std::string& path, NodeList* listP);
[[nodiscard]] int writeNodeList(const std::string& path, const NodeList& list);

// Records are keyed by disk id: a later record replaces an earlier one with the
// same id; the list comes back in id order.
[[nodiscard]] int readDiskList(const std::string& path, DiskList* listP);
[[nodiscard]] int writeDiskList(const std::string& path, const DiskList& list);

// Whether text can become the committed list that every server reads: each
// record well-formed, and for nodes at least one record, ids from 1 up and ports
// from 1 to 65535, no id and no address and port named twice. 0 or EINVAL.
[[nodiscard]] int checkNodeListText(const std::string& text);
[[nodiscard]] int checkDiskListText(const std::string& text);

// The text forms, for callers that hold the content rather than a file.
[[nodiscard]] int parseNodeListText(const std::string& text, NodeList* listP);
std::string nodeListText(const NodeList& list);
[[nodiscard]] int parseDiskListText(const std::string& text, DiskList* listP);
std::string diskListText(const DiskList& list);

}  // namespace qcr
