// The running process and child processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qcr {

// Kernel thread id of the calling thread (what temporary names and traces show).
int currentThreadId();
int currentProcessId();
// The effective user id of the process (who owns the files it creates).
unsigned currentUserId();

// How a child process ended: its exit code, or the signal that ended it; the
// other field is -1.
struct ChildStatus {
  int exitCode = -1;
  int signal = -1;
};

// The calling process's environment as "NAME=value" entries.
std::vector<std::string> environmentEntries();

// Decodes a status from waitpid(). Any other status (a stop) gives {-1, -1}.
ChildStatus decodeWaitStatus(int waitStatus);

// Runs the program at path argv[0] with argv, this process's environment and
// standard output and error, standard input from /dev/null, and waits at most
// timeoutMillis for it to end; then kills it (SIGKILL), reaps it and returns
// ETIMEDOUT. No shell is involved: every element of argv reaches the program as
// one argument, whatever characters it holds. Returns 0 with *statusP filled, or
// the errno of the spawn or the wait; argv must not be empty.
[[nodiscard]] int runAndWait(const std::vector<std::string>& argv, int timeoutMillis,
                             ChildStatus* statusP);

// What runCaptured collected.
struct CapturedRun {
  std::string out;
  std::string err;
  ChildStatus status;
};

// Runs the program at path argv[0] with argv and exactly the environment env
// ("NAME=value" entries), standard input from /dev/null, and collects standard
// output and standard error. Waits at most timeoutMillis for the child to finish;
// then kills it (SIGKILL), reaps it and returns ETIMEDOUT with what was read.
// Output beyond maxOutputBytes (both streams together) is not kept: the child is
// then killed the same way and the result is EFBIG, with what was kept.
// Returns 0 or an errno value; argv must not be empty.
[[nodiscard]] int runCaptured(const std::vector<std::string>& argv,
                              const std::vector<std::string>& env, int timeoutMillis,
                              CapturedRun* runP, size_t maxOutputBytes = SIZE_MAX);

// Runs stages as one pipeline: each stage's standard output feeds the next
// stage's standard input. The first stage reads inputPath (empty: /dev/null), the
// last writes outputPath (empty: this process's standard output), which is
// created new with mode 0600 and never through a link: an existing file there
// makes the result EEXIST before anything runs. Standard error is this
// process's. No shell is involved. Waits at most timeoutMillis for all stages;
// then kills those still running, reaps them and returns ETIMEDOUT. Returns 0
// with one status per stage in *statusesP, or the errno of an open, the spawn or
// the wait; stages must not be empty, nor any of their argument vectors.
[[nodiscard]] int runPipeline(const std::vector<std::vector<std::string>>& stages,
                              const std::string& inputPath, const std::string& outputPath,
                              int timeoutMillis, std::vector<ChildStatus>* statusesP);

}  // namespace qcr
