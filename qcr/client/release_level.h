// The cluster's minimum release level, which decides whether every node can
// serve the newer requests (backup). It is kept in the product's cluster
// configuration file, in a line
//   %%home%%:70_VYFSCFG:<field>:<field>:minReleaseLevel:<level>
#pragma once

#include <string>

namespace qcr {

// The lowest release level that serves a backup.
inline constexpr int kBackupReleaseLevel = 1500;

// The level the file at path names; 0 when it cannot be opened or names none.
// The file is read in pieces of at most 127 characters: only a piece that starts
// a line is looked at.
int readMinReleaseLevel(const std::string& path);

}  // namespace qcr
