#include "basic/readiness.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

namespace qcr {

namespace {

int systemError() { return errno != 0 ? errno : EIO; }

// One report per arming: EPOLLONESHOT disarms the socket once it is reported.
int control(int fd, int op, int sock, uint64_t key) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.u64 = key;
  return epoll_ctl(fd, op, sock, &event) == 0 ? 0 : systemError();
}

}  // namespace

ReadinessSet::~ReadinessSet() {
  if (fd_ >= 0) ::close(fd_);
}

int ReadinessSet::open() {
  fd_ = epoll_create1(EPOLL_CLOEXEC);
  return fd_ >= 0 ? 0 : systemError();
}

int ReadinessSet::add(int sock, uint64_t key) { return control(fd_, EPOLL_CTL_ADD, sock, key); }

int ReadinessSet::arm(int sock, uint64_t key) { return control(fd_, EPOLL_CTL_MOD, sock, key); }

void ReadinessSet::remove(int sock) { (void)epoll_ctl(fd_, EPOLL_CTL_DEL, sock, nullptr); }

int ReadinessSet::wait(int timeoutMs, std::vector<uint64_t>* keysP) {
  epoll_event events[64];
  keysP->clear();
  const int n = epoll_wait(fd_, events, 64, timeoutMs);
  if (n < 0) return errno == EINTR ? 0 : systemError();
  for (int i = 0; i < n; ++i) keysP->push_back(events[i].data.u64);
  return 0;
}

}  // namespace qcr
