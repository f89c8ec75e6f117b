// Private temporary directories (tests and scratch space).
#pragma once

#include <string>

namespace qcr {

// Creates a new directory "<$TMPDIR or /tmp>/<prefix>XXXXXX" readable only by
// the user. Returns 0 and its path, or an errno value.
[[nodiscard]] int makeTempDir(const std::string& prefix, std::string* pathP);

// Removes path and everything below it, never following symbolic links. A missing
// path is no error. Returns 0 or an errno value.
[[nodiscard]] int removeTree(const std::string& path);

}  // namespace qcr
