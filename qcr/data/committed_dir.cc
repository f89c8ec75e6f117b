#include "qcr/data/committed_dir.h"

#include <cstdlib>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/data/file_names.h"

namespace qcr {

namespace {

bool isDecimal(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

bool isHex(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::vector<std::string> splitAtDots(const std::string& s) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t dot; (dot = s.find('.', start)) != std::string::npos; start = dot + 1)
    fields.push_back(s.substr(start, dot - start));
  fields.push_back(s.substr(start));
  return fields;
}

// Decimal digits that fit a non-negative 32-bit field.
bool toInt32(const std::string& digits, int32_t* valueP) {
  if (!isDecimal(digits) || digits.size() > 10) return false;
  const long long v = strtoll(digits.c_str(), nullptr, 10);
  if (v > INT32_MAX) return false;
  *valueP = static_cast<int32_t>(v);
  return true;
}

bool toCrc(const std::string& hex, uint32_t* crcP) {
  const size_t digits = hex.find_first_not_of('0') == std::string::npos
                            ? 1
                            : hex.size() - hex.find_first_not_of('0');
  if (!isHex(hex) || digits > 8) return false;
  *crcP = static_cast<uint32_t>(strtoul(hex.c_str(), nullptr, 16));
  return true;
}

void logIllFormed(const std::string& fileName, const std::vector<std::string>& f) {
  qcrLog(4, "readCommittedDir: ill-formed file name '%s' (%d tokens)", fileName.c_str(),
         static_cast<int>(f.size()));
  if (f.size() != 4) return;
  qcrLog(4, "tokens: '%s' '%s'(%d) '%s'(%d) '%s'(%d)", f[0].c_str(), f[1].c_str(),
         isDecimal(f[1]) ? 1 : 0, f[2].c_str(), isDecimal(f[2]) ? 1 : 0, f[3].c_str(),
         isHex(f[3]) ? 1 : 0);
}

}  // namespace

bool parseCommittedName(const std::string& fileName, CommittedFile* fileP) {
  const std::vector<std::string> f = splitAtDots(fileName);
  CommittedFile c;
  const bool ok = f.size() == 5 && toInt32(f[1], &c.objId) && toInt32(f[2], &c.version) &&
                  toCrc(f[3], &c.crc) && uidFromString(f[4], &c.uid) == 0 &&
                  repositoryName(f[0], &c.name);
  if (!ok) {
    logIllFormed(fileName, f);
    return false;
  }
  c.fileName = fileName;
  c.suffix = fileName.substr(fileName.find('.') + 1);
  qcrLog(4, "readCommittedDir: name '%s' suffix '%s' objId %d ver %d crc %08x uid %s",
         c.name.c_str(), c.suffix.c_str(), c.objId, c.version, c.crc, f[4].c_str());
  *fileP = std::move(c);
  return true;
}

bool isCommittedFileName(const std::string& fileName) {
  for (const char c : fileName) {
    if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
  }
  CommittedFile file;
  return parseCommittedName(fileName, &file);
}

int readCommittedDir(const std::string& dir, std::vector<CommittedFile>* filesP) {
  filesP->clear();
  std::vector<std::string> names;
  const int rc = listDirectory(dir, &names);
  if (rc != 0) return rc;
  for (const std::string& fileName : names) {
    if (fileName.find(".tmp.") != std::string::npos) continue;
    CommittedFile file;
    if (parseCommittedName(fileName, &file)) filesP->push_back(std::move(file));
  }
  return 0;
}


}  // namespace qcr
