#include "qcr/server/base_dir.h"

#include <cstdio>

#include "basic/file_status.h"
#include "basic/process.h"
#include "qcr/coding/result.h"

namespace qcr {

int checkBaseDirectory(const std::string& base) {
  const unsigned me = currentUserId();
  FileStatus link;
  FileStatus dir;
  int rc = linkStatus(base, &link);
  if (rc == 0) rc = fileStatus(base, &dir);
  char why[128];
  if (rc != 0) {
    snprintf(why, sizeof why, "cannot be examined: %s (err %d)", errText(rc), rc);
  } else if (link.symlink && link.uid != me) {
    snprintf(why, sizeof why, "is a symbolic link owned by uid %u, not by uid %u", link.uid, me);
  } else if (!dir.directory) {
    snprintf(why, sizeof why, "is not a directory");
  } else if (dir.uid != me) {
    snprintf(why, sizeof why, "is owned by uid %u, not by uid %u", dir.uid, me);
  } else if ((dir.mode & 022) != 0) {
    snprintf(why, sizeof why, "is writable by group or others (mode %03o)", dir.mode);
  } else {
    return 0;
  }
  fprintf(stderr, "qcrd: base directory %s %s: not starting\n", base.c_str(), why);
  return 1;
}

}  // namespace qcr
