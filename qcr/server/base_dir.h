// The base directory qcrd keeps its state, committed files, trace and pid file in.
#pragma once

#include <string>

namespace qcr {

// Whether qcrd may use base: it must be a directory owned by the running
// (effective) user and writable by neither group nor others, and when base is a
// symbolic link, the link must belong to that user too. Otherwise another user
// could plant links or files in it, or swap it, and have qcrd write where they
// choose. Returns 0, or 1 after printing on standard error why base is refused
// (naming it).
[[nodiscard]] int checkBaseDirectory(const std::string& base);

}  // namespace qcr
