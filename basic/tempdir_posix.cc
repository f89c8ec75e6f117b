#include "basic/tempdir.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

namespace qcr {

int makeTempDir(const std::string& prefix, std::string* pathP) {
  const char* base = getenv("TMPDIR");
  std::string pattern = (base != nullptr && *base != '\0') ? base : "/tmp";
  pattern += "/" + prefix + "XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) return errno;
  *pathP = name.data();
  return 0;
}

int removeTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);  // does not follow links
  return error.value();
}

}  // namespace qcr
