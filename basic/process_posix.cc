#include "basic/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>

namespace qcr {
namespace {

std::vector<char*> cStrings(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (const std::string& s : strings) pointers.push_back(const_cast<char*>(s.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

int waitChild(pid_t pid, int* waitStatusP) {
  while (waitpid(pid, waitStatusP, 0) < 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// Spawn attributes for a child that starts with default signal handling and an
// empty signal mask, whatever the parent changed.
struct CleanSignals {
  posix_spawnattr_t attr;
  CleanSignals() {
    posix_spawnattr_init(&attr);
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  ~CleanSignals() { posix_spawnattr_destroy(&attr); }
};

using Deadline = std::chrono::steady_clock::time_point;

// Reads both pipes until both close, the deadline passes (ETIMEDOUT) or more than
// limit bytes arrived (EFBIG): 0 or that error.
int drainPipes(int outFd, int errFd, Deadline deadline, size_t limit, CapturedRun* run) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* sinks[2] = {&run->out, &run->err};
  int open = 2;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return ETIMEDOUT;
    const int ready = poll(fds, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return ETIMEDOUT;
    for (int i = 0; i < 2 && ready > 0; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        const size_t kept = run->out.size() + run->err.size();
        if (static_cast<size_t>(n) > limit - kept) return EFBIG;
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;  // poll ignores negative descriptors
        --open;
      }
    }
  }
  return 0;
}

// Reaps pid, polling until the deadline; false when it is still running then. The
// pause between polls grows from 1 ms to 20 ms, so a long child costs few wake-ups.
bool reapBefore(pid_t pid, Deadline deadline, int* waitStatusP) {
  long pauseNanos = 1000000;
  for (;;) {
    const pid_t done = waitpid(pid, waitStatusP, WNOHANG);
    if (done == pid || (done < 0 && errno != EINTR)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    timespec pause{0, pauseNanos};
    nanosleep(&pause, nullptr);
    if (pauseNanos < 20000000) pauseNanos *= 2;
  }
}

}  // namespace

namespace {

// The ids are asked once and kept: every trace record names them. Plain integers,
// set on first use, so a signal handler may read them; a forked child (a test's
// death test) forgets its parent's.
std::atomic<int> knownProcessId{0};
thread_local int knownThreadId = 0;

void forgetIds() {
  knownProcessId.store(0, std::memory_order_relaxed);
  knownThreadId = 0;
}

[[maybe_unused]] const int forgetInChild = pthread_atfork(nullptr, nullptr, forgetIds);

}  // namespace

int currentThreadId() {
  if (knownThreadId == 0) knownThreadId = static_cast<int>(syscall(SYS_gettid));
  return knownThreadId;
}

int currentProcessId() {
  int known = knownProcessId.load(std::memory_order_relaxed);
  if (known == 0) {
    known = static_cast<int>(getpid());
    knownProcessId.store(known, std::memory_order_relaxed);
  }
  return known;
}

unsigned currentUserId() { return static_cast<unsigned>(geteuid()); }

std::vector<std::string> environmentEntries() {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) entries.emplace_back(*entry);
  return entries;
}

ChildStatus decodeWaitStatus(int waitStatus) {
  ChildStatus status;
  if (WIFEXITED(waitStatus)) status.exitCode = WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) status.signal = WTERMSIG(waitStatus);
  return status;
}

int runAndWait(const std::vector<std::string>& argv, int timeoutMillis, ChildStatus* statusP) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  std::vector<char*> args = cStrings(argv);
  CleanSignals signals;
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &actions, &signals.attr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return rc;
  const Deadline deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillis);
  int waitStatus = 0;
  if (!reapBefore(pid, deadline, &waitStatus)) {
    kill(pid, SIGKILL);  // a killed child is reaped at once
    rc = ETIMEDOUT;
    waitStatus = 0;
    if (const int waitRc = waitChild(pid, &waitStatus); waitRc != 0) rc = waitRc;
  }
  *statusP = decodeWaitStatus(waitStatus);
  return rc;
}

int runCaptured(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                int timeoutMillis, CapturedRun* runP, size_t maxOutputBytes) {
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return errno;
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    const int rc = errno;
    close(outPipe[0]);
    close(outPipe[1]);
    return rc;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  std::vector<char*> args = cStrings(argv);
  std::vector<char*> environment = cStrings(env);
  CleanSignals signals;
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &actions, &signals.attr, args.data(), environment.data());
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  close(errPipe[1]);
  if (rc == 0) {
    const Deadline deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillis);
    int waitStatus = 0;
    int drained = drainPipes(outPipe[0], errPipe[0], deadline, maxOutputBytes, runP);
    if (drained == 0 && !reapBefore(pid, deadline, &waitStatus)) drained = ETIMEDOUT;
    if (drained != 0) {
      kill(pid, SIGKILL);  // a killed child is reaped at once
      rc = drained;
      waitStatus = 0;
      if (const int waitRc = waitChild(pid, &waitStatus); waitRc != 0) rc = waitRc;
    }
    runP->status = decodeWaitStatus(waitStatus);
  }
  close(outPipe[0]);
  close(errPipe[0]);
  return rc;
}

int runPipeline(const std::vector<std::vector<std::string>>& stages, const std::string& inputPath,
                const std::string& outputPath, int timeoutMillis,
                std::vector<ChildStatus>* statusesP) {
  statusesP->assign(stages.size(), ChildStatus{});
  const int input = open(inputPath.empty() ? "/dev/null" : inputPath.c_str(),
                         O_RDONLY | O_CLOEXEC | (inputPath.empty() ? 0 : O_NOFOLLOW));
  if (input < 0) return errno;
  int output = -1;
  if (!outputPath.empty()) {
    output = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (output < 0) {
      const int rc = errno;
      close(input);
      return rc;
    }
  }
  std::vector<pid_t> pids;
  int rc = 0;
  int feed = input;  // what the next stage reads
  CleanSignals signals;
  for (size_t i = 0; i < stages.size() && rc == 0; ++i) {
    const bool last = i + 1 == stages.size();
    int link[2] = {-1, -1};
    if (!last && pipe2(link, O_CLOEXEC) != 0) {
      rc = errno;
      break;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, feed, 0);
    if (!last) posix_spawn_file_actions_adddup2(&actions, link[1], 1);
    if (last && output >= 0) posix_spawn_file_actions_adddup2(&actions, output, 1);
    std::vector<char*> args = cStrings(stages[i]);
    pid_t pid;
    rc = posix_spawn(&pid, args[0], &actions, &signals.attr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc == 0) pids.push_back(pid);
    close(feed);
    feed = -1;
    if (!last) {
      close(link[1]);
      feed = link[0];
    }
  }
  if (feed >= 0) close(feed);
  if (output >= 0) close(output);
  const Deadline deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillis);
  for (size_t i = 0; i < pids.size(); ++i) {
    int waitStatus = 0;
    // A stage that failed to start ends the others: they would wait for input.
    if (rc != 0 || !reapBefore(pids[i], deadline, &waitStatus)) {
      if (rc == 0) rc = ETIMEDOUT;
      kill(pids[i], SIGKILL);
      waitStatus = 0;
      (void)waitChild(pids[i], &waitStatus);
    }
    (*statusesP)[i] = decodeWaitStatus(waitStatus);
  }
  return rc;
}

}  // namespace qcr
