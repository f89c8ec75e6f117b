// How repository files are named. A file's identity is its object id; its name is
// what users and the tool see. The repository's own list files have fixed ids;
// user files get ids from kFirstUserObjId up, handed out by the server when a name
// is first put. The committed directory names every stored version
// "<stem>.<objId>.<version>.<crc hex>.<uid hex>", where the stem is the repository
// name with "%" written "%25" and "." written "%2E", so that a name may hold dots
// and the five fields still split at ".".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qcr/coding/coding.h"

namespace qcr {

inline constexpr int32_t kNodesFileObjId = 1;  // "qcr.nodes"
inline constexpr int32_t kDisksFileObjId = 2;  // "qcr.disks"
inline constexpr int32_t kFirstUserObjId = 16;  // ids below are reserved

// The reserved name of objId, or "" when objId is not a reserved id.
std::string_view reservedFileName(int32_t objId);
// The reserved id of name, or 0 when name is no reserved file.
int32_t reservedObjId(std::string_view name);

// The longest committed-directory stem of a repository name, so that the stem,
// the four numbers and a transfer's temporary suffix stay within a file name.
inline constexpr size_t kMaxFileNameStem = 128;

// Whether name may name a repository file: not empty, no "/", no control
// character (bytes below 0x20, and 0x7F), and a committed stem of at most
// kMaxFileNameStem bytes. The tool refuses any other name for fput, fget and fdel
// before it asks a server, and qcrd refuses it for fput and fdel.
bool isRepositoryFileName(std::string_view name);

// Whether name is one of the repository's own files rather than a user's: it
// begins with "_", "genKey", "proxy-server", "keystone", "openrc" or "SSSD_CONF".
// Such files hold secrets: they are fetched with fget_priv and stored with no
// access for others.
bool isSpecialQcrFile(std::string_view name);

// The committed-directory stem of a repository name, and back. repositoryName
// fails (returns false) on a stem that committedStem would not produce.
std::string committedStem(std::string_view name);
bool repositoryName(std::string_view stem, std::string* nameP);

// "<stem>.<objId>.<version>.<crc %x>.<uid hex>".
std::string committedFileName(std::string_view name, int32_t objId, int32_t version, uint32_t crc,
                              const Uid& uid);

// The names of the committed files, as a listing carries them beside the
// committed state: object id and repository name, in object-id order.
struct FileListEntry {
  int32_t objId = 0;
  std::string name;
  bool operator==(const FileListEntry&) const = default;
};
using FileList = std::vector<FileListEntry>;

// A VarUInt count, then per entry objId (VarUInt) and name (string).
int sizeFileList(const FileList& list);
uint8_t* putFileList(uint8_t* p, const FileList& list);
const uint8_t* getFileList(const uint8_t* p, const uint8_t* end, FileList* listP);

}  // namespace qcr
