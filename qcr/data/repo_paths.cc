#include "qcr/data/repo_paths.h"

namespace qcr {

RepoPaths deriveRepoPaths(const std::string& baseDir) {
  RepoPaths p;
  p.base = baseDir;
  p.cachedDir = baseDir + "/cached";
  p.committedDir = baseDir + "/committed";
  p.noauthFile = baseDir + "/qcr.noauth";
  p.nodesFile = baseDir + "/qcr.nodes";
  p.disksFile = baseDir + "/qcr.disks";
  p.paxosFile = baseDir + "/qcr.paxos";
  p.cachedPaxosFile = p.cachedDir + "/qcr.paxos";
  return p;
}

}  // namespace qcr
