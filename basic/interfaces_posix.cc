#include "basic/interfaces.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace qcr {

namespace {

constexpr size_t kReceiveBufferSize = 32 * 1024;  // the kernel's largest dump part

// The interface's own address of one RTM_NEWADDR message: IFA_LOCAL when present
// (on a point-to-point link IFA_ADDRESS is the peer's), else IFA_ADDRESS.
bool addressOf(const nlmsghdr* msg, IpAddress16* addressP) {
  const auto* ifa = static_cast<const ifaddrmsg*>(NLMSG_DATA(msg));
  if (ifa->ifa_family != AF_INET && ifa->ifa_family != AF_INET6) return false;
  const size_t size = ifa->ifa_family == AF_INET ? 4 : 16;
  const rtattr* chosen = nullptr;
  int length = static_cast<int>(IFA_PAYLOAD(msg));
  for (const rtattr* rta = IFA_RTA(ifa); RTA_OK(rta, length); rta = RTA_NEXT(rta, length)) {
    if (RTA_PAYLOAD(rta) < size) continue;
    if (rta->rta_type == IFA_LOCAL || (rta->rta_type == IFA_ADDRESS && chosen == nullptr)) {
      chosen = rta;
    }
  }
  if (chosen == nullptr) return false;
  *addressP = IpAddress16{};
  if (size == 4) {
    (*addressP)[10] = 0xff;
    (*addressP)[11] = 0xff;
    memcpy(&(*addressP)[12], RTA_DATA(chosen), 4);  // already in network byte order
  } else {
    memcpy(addressP->data(), RTA_DATA(chosen), 16);
  }
  return true;
}

// Reads the parts of the address dump answering request seq until its end.
int readDump(int sock, uint32_t seq, char* buf, std::vector<IpAddress16>* addressesP) {
  for (;;) {
    const ssize_t n = recv(sock, buf, kReceiveBufferSize, MSG_TRUNC);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return EIO;
    if (static_cast<size_t>(n) > kReceiveBufferSize) return EMSGSIZE;
    auto left = static_cast<unsigned int>(n);
    for (auto* msg = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(msg, left);
         msg = NLMSG_NEXT(msg, left)) {
      if (msg->nlmsg_seq != seq) continue;  // not an answer to this request
      if (msg->nlmsg_type == NLMSG_DONE) return 0;
      if (msg->nlmsg_type == NLMSG_ERROR) {
        const auto* err = static_cast<const nlmsgerr*>(NLMSG_DATA(msg));
        return err->error != 0 ? -err->error : EIO;
      }
      IpAddress16 address;
      if (msg->nlmsg_type == RTM_NEWADDR && addressOf(msg, &address)) {
        addressesP->push_back(address);
      }
    }
  }
}

}  // namespace

// One address dump from the kernel's routing socket: the same addresses, in the
// same order, as a full interface listing, without also dumping every link.
int localInterfaceAddresses(std::vector<IpAddress16>* addressesP) {
  const int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (sock < 0) return errno;
  constexpr uint32_t kSeq = 1;
  struct {
    nlmsghdr header;
    ifaddrmsg body;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETADDR;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = kSeq;
  request.body.ifa_family = AF_UNSPEC;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  std::vector<IpAddress16> addresses;
  int rc = 0;
  if (sendto(sock, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof kernel) < 0) {
    rc = errno;
  } else {
    // new[] memory suits any header. Left uninitialised: the kernel fills what it
    // sends, and zeroing 32 KiB that a small dump never reaches costs every command
    // its pages.
    const std::unique_ptr<char[]> buf(new char[kReceiveBufferSize]);
    rc = readDump(sock, kSeq, buf.get(), &addresses);
  }
  close(sock);
  if (rc == 0) *addressesP = std::move(addresses);
  return rc;
}

int localHostName(std::string* nameP) {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return errno;
  *nameP = name;
  return 0;
}

}  // namespace qcr
