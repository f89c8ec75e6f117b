#include "basic/log.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "basic/process.h"

namespace qcr {

int verbosity = 0;
int traceLevel = kDefaultTraceLevel;

namespace {

struct TraceState {
  std::mutex mutex;
  FILE* file = nullptr;
  std::string component;
};

TraceState& trace() {
  static TraceState* state = new TraceState;  // never destroyed: used until exit
  return *state;
}

void writeTraceRecord(const char* text) {
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (t.file == nullptr) return;
  using namespace std::chrono;
  const auto now = system_clock::now();
  const time_t seconds = system_clock::to_time_t(now);
  const long micros =
      static_cast<long>(duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000);
  tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  fprintf(t.file, "%s.%06ld %d:%d %s: %s\n", stamp, micros, currentProcessId(),
          currentThreadId(), t.component.c_str(), text);
  fflush(t.file);
}

int readIntEnv(const char* name, int fallback) {
  const char* text = getenv(name);
  return text != nullptr ? atoi(text) : fallback;
}

}  // namespace

void qcrLog(int level, const char* fmt, ...) {
  if (level > verbosity && level > traceLevel) return;
  char message[kLogMessageMax];
  va_list args;
  va_start(args, fmt);
  vsnprintf(message, sizeof message, fmt, args);
  va_end(args);
  if (level <= verbosity) fprintf(stderr, "%s\n", message);
  if (level <= traceLevel && traceLevel >= 2 && traceIsOn()) writeTraceRecord(message);
}

int traceOpen(const std::string& component, const std::string& path) {
  traceClose();
  if (path.empty()) return 0;
  FILE* file = fopen(path.c_str(), "ae");
  if (file == nullptr) return errno;
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  t.file = file;
  t.component = component;
  return 0;
}

void traceClose() {
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (t.file != nullptr) fclose(t.file);
  t.file = nullptr;
}

bool traceIsOn() {
  TraceState& t = trace();
  std::lock_guard<std::mutex> lock(t.mutex);
  return t.file != nullptr;
}

std::string defaultTraceFile() {
  const char* path = getenv("QCR_TRACE_FILE");
  return path != nullptr ? path : "";
}

void appendCommandLog(const std::string& line) {
  const char* path = getenv("QCR_CMD_LOG");
  if (path == nullptr) return;
  FILE* file = fopen(path, "ae");
  if (file == nullptr) return;
  fprintf(file, "%s\n", line.c_str());
  fclose(file);
}

void readLogEnvironment() {
  verbosity = readIntEnv("QCR_DEBUG", verbosity);
  traceLevel = readIntEnv("QCR_TRACE", traceLevel);
}

}  // namespace qcr
