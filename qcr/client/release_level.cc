#include "qcr/client/release_level.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "basic/log.h"

namespace qcr {

int readMinReleaseLevel(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "re");
  if (f == nullptr) {
    qcrLog(4, "Open '%s' failed (%d)", path.c_str(), errno);
    return 0;
  }
  static constexpr char kPrefix[] = "%%home%%:70_VYFSCFG:";
  static constexpr char kKey[] = ":minReleaseLevel:";
  char buf[128];
  bool lineStart = true;
  int level = 0;
  while (std::fgets(buf, sizeof buf, f) != nullptr) {
    const size_t len = std::strlen(buf);
    const bool starts = lineStart;
    lineStart = len > 0 && buf[len - 1] == '\n';
    if (!starts || std::strncmp(buf, kPrefix, sizeof kPrefix - 1) != 0) continue;
    // After the prefix: a field, ":", a field, and then the key at the second ":".
    const char* first = std::strchr(buf + sizeof kPrefix - 1, ':');
    const char* second = first != nullptr ? std::strchr(first + 1, ':') : nullptr;
    if (second != nullptr && std::strncmp(second, kKey, sizeof kKey - 1) == 0) {
      level = std::atoi(second + sizeof kKey - 1);
      break;
    }
  }
  std::fclose(f);
  return level;
}

}  // namespace qcr
