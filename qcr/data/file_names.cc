#include "qcr/data/file_names.h"

#include <cstdio>

namespace qcr {

namespace {

struct Reserved {
  int32_t objId;
  std::string_view name;
};
constexpr Reserved kReserved[] = {{kNodesFileObjId, "qcr.nodes"}, {kDisksFileObjId, "qcr.disks"}};

}  // namespace

std::string_view reservedFileName(int32_t objId) {
  for (const Reserved& r : kReserved)
    if (r.objId == objId) return r.name;
  return {};
}

int32_t reservedObjId(std::string_view name) {
  for (const Reserved& r : kReserved)
    if (r.name == name) return r.objId;
  return 0;
}

bool isSpecialQcrFile(std::string_view name) {
  for (std::string_view prefix : {"_", "genKey", "proxy-server", "keystone", "openrc", "SSSD_CONF"}) {
    if (name.substr(0, prefix.size()) == prefix) return true;
  }
  return false;
}

bool isRepositoryFileName(std::string_view name) {
  if (name.empty()) return false;
  for (const char c : name) {
    if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
  }
  return committedStem(name).size() <= kMaxFileNameStem;
}

std::string committedStem(std::string_view name) {
  std::string stem;
  stem.reserve(name.size());
  for (char c : name) {
    if (c == '%')
      stem += "%25";
    else if (c == '.')
      stem += "%2E";
    else
      stem += c;
  }
  return stem;
}

bool repositoryName(std::string_view stem, std::string* nameP) {
  nameP->clear();
  for (size_t i = 0; i < stem.size(); ++i) {
    if (stem[i] == '.') return false;
    if (stem[i] != '%') {
      *nameP += stem[i];
      continue;
    }
    const std::string_view code = stem.substr(i + 1, 2);
    if (code == "25")
      *nameP += '%';
    else if (code == "2E")
      *nameP += '.';
    else
      return false;
    i += 2;
  }
  return true;
}

std::string committedFileName(std::string_view name, int32_t objId, int32_t version, uint32_t crc,
                              const Uid& uid) {
  char numbers[48];
  snprintf(numbers, sizeof numbers, ".%d.%d.%x.", objId, version, crc);
  return committedStem(name) + numbers + uidToString(uid);
}

int sizeFileList(const FileList& list) {
  int size = sizeVarUInt(static_cast<int64_t>(list.size()));
  for (const FileListEntry& e : list) size += sizeVarUInt(e.objId) + sizeString(e.name);
  return size;
}

uint8_t* putFileList(uint8_t* p, const FileList& list) {
  p = putVarUInt(p, static_cast<int64_t>(list.size()));
  for (const FileListEntry& e : list) p = putString(putVarUInt(p, e.objId), e.name);
  return p;
}

const uint8_t* getFileList(const uint8_t* p, const uint8_t* end, FileList* listP) {
  int32_t count = 0;
  p = getCount(p, end, &count, 2);
  listP->assign(static_cast<size_t>(count), FileListEntry{});
  for (FileListEntry& e : *listP) p = getString(getVarInt32(p, end, &e.objId), end, &e.name);
  return p;
}

}  // namespace qcr
