#include "basic/log.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "basic/files.h"
#include "basic/process.h"

namespace qcr {

std::atomic<int> verbosity{0};
std::atomic<int> traceLevel{kDefaultTraceLevel};

namespace {

// Whether the trace file is open, readable without the trace lock: a message that
// neither the console nor the trace would show is then not even formatted.
std::atomic<bool> traceFileOpen{false};

// Trace and command log are opened by openAppend: never through a symbolic link,
// and only when they are regular files.
constexpr int kLogFileMode = 0666;  // before the umask, as for any new file

struct TraceState {
  std::mutex mutex;
  File file;
  std::string component;
  std::string path;  // the file last opened, for traceReopen
};

// Writes all of text; the log never stops the program, so errors are dropped.
void appendAll(File& file, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    size_t put = 0;
    if (file.write(text.data() + done, text.size() - done, &put) != 0 || put == 0) return;
    done += put;
  }
}

TraceState& trace() {
  static TraceState* state = new TraceState;  // never destroyed: used until exit
  return *state;
}

void writeTraceRecord(const char* text) {
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (!t.file.isOpen()) return;
  using namespace std::chrono;
  const auto now = system_clock::now();
  const time_t seconds = system_clock::to_time_t(now);
  const long micros =
      static_cast<long>(duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000);
  tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char head[96];
  snprintf(head, sizeof head, "%s.%06ld %d:%d ", stamp, micros, currentProcessId(),
           currentThreadId());
  // One write per record, so records of several processes never interleave.
  appendAll(t.file, std::string(head) + t.component + ": " + text + "\n");
}

int readIntEnv(const char* name, int fallback) {
  const char* text = getenv(name);
  return text != nullptr ? atoi(text) : fallback;
}

}  // namespace

bool qcrLogShown(int level) {
  const int tracing = traceLevel.load(std::memory_order_relaxed);
  return level <= verbosity.load(std::memory_order_relaxed) ||
         (level <= tracing && tracing >= 2 && traceFileOpen.load(std::memory_order_relaxed));
}

void qcrLog(int level, const char* fmt, ...) {
  const int console = verbosity.load(std::memory_order_relaxed);
  const int tracing = traceLevel.load(std::memory_order_relaxed);
  const bool traced =
      level <= tracing && tracing >= 2 && traceFileOpen.load(std::memory_order_relaxed);
  if (level > console && !traced) return;
  char message[kLogMessageMax];
  va_list args;
  va_start(args, fmt);
  vsnprintf(message, sizeof message, fmt, args);
  va_end(args);
  if (level <= console) fprintf(stderr, "%s\n", message);
  if (traced) writeTraceRecord(message);  // which checks again under the lock
}

int traceOpen(const std::string& component, const std::string& path) {
  traceClose();
  if (path.empty()) return 0;
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  const int rc = t.file.openAppend(path, kLogFileMode);
  if (rc == 0) {
    t.component = component;
    t.path = path;
    traceFileOpen = true;
  }
  return rc;
}

int traceReopen() {
  std::string component, path;
  {
    TraceState& t = trace();
    std::lock_guard<std::mutex> lock(t.mutex);
    component = t.component;
    path = t.path;
  }
  return path.empty() ? 0 : traceOpen(component, path);
}

void traceClose() {
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  (void)t.file.close();  // records already written stay; nothing to report
  t.path.clear();
  traceFileOpen = false;
}

bool traceIsOn() {
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  return t.file.isOpen();
}

std::string defaultTraceFile() {
  const char* path = getenv("QCR_TRACE_FILE");
  return path != nullptr ? path : "";
}

void appendCommandLog(const std::string& line) {
  const char* path = getenv("QCR_CMD_LOG");
  if (path == nullptr) return;
  File file;
  if (file.openAppend(path, kLogFileMode) != 0) return;
  appendAll(file, line + "\n");
}

void readLogEnvironment() {
  verbosity = readIntEnv("QCR_DEBUG", verbosity);
  traceLevel = readIntEnv("QCR_TRACE", traceLevel);
}

}  // namespace qcr
