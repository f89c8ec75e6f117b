#include "qcr/data/list_files.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/data/file_ops.h"
#include "qcr/data/repo_paths.h"

namespace qcr {

namespace {

constexpr int kListFileMode = 0644;

// Splits line at its first maxFields - 1 commas: the last field keeps the rest.
std::vector<std::string> splitRecord(const std::string& line, size_t maxFields) {
  std::vector<std::string> fields;
  size_t start = 0;
  while (fields.size() + 1 < maxFields) {
    const size_t comma = line.find(',', start);
    if (comma == std::string::npos) break;
    fields.push_back(line.substr(start, comma - start));
    start = comma + 1;
  }
  fields.push_back(line.substr(start));
  return fields;
}

// Non-empty decimal digits that fit a 32-bit field.
bool toInt(const std::string& s, int32_t* valueP) {
  if (s.empty() || s.size() > 10 || s.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const long long v = strtoll(s.c_str(), nullptr, 10);
  if (v > INT32_MAX) return false;
  *valueP = static_cast<int32_t>(v);
  return true;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool parseNodeRecord(const std::string& line, NodeEntry* entryP) {
  const std::vector<std::string> f = splitRecord(line, 5);
  int32_t flag = 0;
  if (f.size() != 5 || !toInt(f[0], &entryP->id) || !toInt(f[1], &flag)) return false;
  entryP->flag = static_cast<uint8_t>(flag & 1);
  entryP->addr = f[2];
  entryP->port = kDefaultServerPort;
  if (!f[3].empty() && !toInt(f[3], &entryP->port)) return false;
  entryP->name = f[4];
  return true;
}

// Both parsers return the number of records skipped.
int parseNodes(const std::string& text, NodeList* listP) {
  listP->clear();
  int nErr = 0;
  for (const std::string& line : splitLines(text)) {
    NodeEntry entry;
    if (parseNodeRecord(line, &entry))
      listP->push_back(std::move(entry));
    else
      ++nErr;
  }
  return nErr;
}

int parseDisks(const std::string& text, DiskList* listP) {
  listP->clear();
  std::map<int32_t, DiskEntry> byId;
  int nErr = 0;
  for (const std::string& line : splitLines(text)) {
    const std::vector<std::string> f = splitRecord(line, 3);
    DiskEntry entry;
    int32_t old = 0;
    if (f.size() != 3 || !toInt(f[0], &entry.id) || !toInt(f[1], &old)) {
      ++nErr;
      continue;
    }
    entry.old = static_cast<uint8_t>(old & 1);
    entry.label = f[2];
    byId[entry.id] = std::move(entry);
  }
  for (auto& [id, entry] : byId) listP->push_back(std::move(entry));
  return nErr;
}

}  // namespace

int parseNodeListText(const std::string& text, NodeList* listP) {
  return parseNodes(text, listP) != 0 ? EIO : 0;
}

int parseDiskListText(const std::string& text, DiskList* listP) {
  return parseDisks(text, listP) != 0 ? EIO : 0;
}

int checkNodeListText(const std::string& text) {
  NodeList list;
  if (parseNodes(text, &list) != 0 || list.empty()) return EINVAL;
  std::set<int32_t> ids;
  std::set<std::pair<std::string, int32_t>> addresses;
  for (const NodeEntry& n : list) {
    if (n.id < 1 || n.port < 1 || n.port > 65535 || !ids.insert(n.id).second ||
        !addresses.insert({n.addr, n.port}).second) {
      return EINVAL;
    }
  }
  return 0;
}

int checkDiskListText(const std::string& text) {
  DiskList list;
  return parseDisks(text, &list) != 0 ? EINVAL : 0;
}

std::string nodeListText(const NodeList& list) {
  std::string text;
  for (const NodeEntry& n : list) {
    text += std::to_string(n.id) + "," + std::to_string(n.flag & 1) + "," + n.addr + ",";
    if (n.port != kDefaultServerPort) text += std::to_string(n.port);
    text += "," + n.name + "\n";
  }
  return text;
}

std::string diskListText(const DiskList& list) {
  std::string text;
  for (const DiskEntry& d : list)
    text += std::to_string(d.id) + "," + std::to_string(d.old & 1) + "," + d.label + "\n";
  return text;
}

int readNodeList(const std::string& path, NodeList* listP) {
  listP->clear();
  std::string text;
  int rc = readFile(path, &text);
  const int nErr = rc == 0 ? parseNodes(text, listP) : 0;
  qcrLog(4, "readNodeList('%s') size %d nErr %d", path.c_str(), static_cast<int>(listP->size()),
         nErr);
  return rc != 0 ? rc : (nErr != 0 ? EIO : 0);
}

int readDiskList(const std::string& path, DiskList* listP) {
  listP->clear();
  std::string text;
  int rc = readFile(path, &text);
  const int nErr = rc == 0 ? parseDisks(text, listP) : 0;
  qcrLog(4, "readDiskList('%s') size %d nErr %d", path.c_str(), static_cast<int>(listP->size()),
         nErr);
  return rc != 0 ? rc : (nErr != 0 ? EIO : 0);
}

int writeNodeList(const std::string& path, const NodeList& list) {
  const int rc = replaceFile(path, nodeListText(list), kListFileMode);
  qcrLog(rc != 0 ? 1 : 4, "writeNodeList('%s') ok %d", path.c_str(), rc == 0 ? 1 : 0);
  return rc;
}

int writeDiskList(const std::string& path, const DiskList& list) {
  const int rc = replaceFile(path, diskListText(list), kListFileMode);
  qcrLog(rc != 0 ? 1 : 4, "writeDiskList('%s') ok %d", path.c_str(), rc == 0 ? 1 : 0);
  return rc;
}

}  // namespace qcr
