#include "basic/process.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace qcr {

int currentThreadId() { return static_cast<int>(syscall(SYS_gettid)); }

int currentProcessId() { return static_cast<int>(getpid()); }

}  // namespace qcr
