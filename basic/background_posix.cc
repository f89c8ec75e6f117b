#include "basic/background.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <chrono>
#include <thread>

extern char** environ;

namespace qcr {

namespace {

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

int signalNumber(Signal signal) {
  switch (signal) {
    case Signal::kTerminate: return SIGTERM;
    case Signal::kKill: return SIGKILL;
    case Signal::kStop: return SIGSTOP;
    case Signal::kContinue: return SIGCONT;
    case Signal::kHangUp: return SIGHUP;
  }
  return SIGTERM;
}

std::vector<char*> cStrings(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (const std::string& s : strings) pointers.push_back(const_cast<char*>(s.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

void blockStopSignals() {
  const sigset_t set = stopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ServerSignal waitServerSignal(int timeoutMs) {
  const sigset_t set = stopSignals();
  timespec wait{timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
  const int sig = sigtimedwait(&set, nullptr, &wait);
  if (sig == SIGHUP) return ServerSignal::kReopen;
  return sig > 0 ? ServerSignal::kStop : ServerSignal::kNone;
}

int startBackground(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                    const std::string& logPath, int* pidP) {
  if (argv.empty()) return EINVAL;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK |
                                      POSIX_SPAWN_SETSID);
  std::vector<char*> args = cStrings(argv);
  std::vector<char*> envp = cStrings(env);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0].c_str(), &actions, &attr, args.data(),
                             env.empty() ? environ : envp.data());
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return rc;
  *pidP = pid;
  return 0;
}

int signalProcess(int pid, Signal signal) {
  if (pid <= 0) return EINVAL;
  return kill(pid, signalNumber(signal)) == 0 ? 0 : errno;
}

int waitBackground(int pid, int timeoutMs, ChildStatus* statusP) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    const pid_t got = waitpid(pid, &status, WNOHANG);
    if (got == pid) {
      *statusP = decodeWaitStatus(status);
      return 0;
    }
    if (got < 0 && errno != EINTR) return errno;
    if (std::chrono::steady_clock::now() >= deadline) return ETIMEDOUT;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool processAlive(int pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

void nameThisThread(const char* name) {
  char shortName[16] = {};
  strncpy(shortName, name, sizeof shortName - 1);
  (void)pthread_setname_np(pthread_self(), shortName);
}

}  // namespace qcr
