// Many sockets watched for input by one thread: the set reports each socket once
// when it becomes readable (or hung up), and reports it again only after it is
// armed again, so that a socket handed to another thread is not reported twice.
#pragma once

#include <cstdint>
#include <vector>

namespace qcr {

class ReadinessSet final {
 public:
  ReadinessSet() = default;
  ~ReadinessSet();  // closes the set; the sockets stay open
  ReadinessSet(const ReadinessSet&) = delete;
  ReadinessSet& operator=(const ReadinessSet&) = delete;

  // Creates the set. 0 or the system's error.
  [[nodiscard]] int open();
  // Starts watching sock, reported under key. 0 or the system's error.
  [[nodiscard]] int add(int sock, uint64_t key);
  // Watches sock (added before) for one more report. 0 or the system's error.
  [[nodiscard]] int arm(int sock, uint64_t key);
  // Stops watching sock; call it before sock is closed.
  void remove(int sock);
  // Waits up to timeoutMs for armed sockets to become readable and puts their
  // keys in *keysP (at most 64 at a time). 0 (also when the wait ended with
  // none), or the system's error. Any thread may add,
  // arm and remove while another waits.
  [[nodiscard]] int wait(int timeoutMs, std::vector<uint64_t>* keysP);

 private:
  int fd_ = -1;
};

}  // namespace qcr
