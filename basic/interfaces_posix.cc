#include "basic/interfaces.h"

#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace qcr {

int localInterfaceAddresses(std::vector<IpAddress16>* addressesP) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return errno;
  addressesP->clear();
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    IpAddress16 address{};
    if (entry->ifa_addr->sa_family == AF_INET) {
      const auto* v4 = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      address[10] = 0xff;
      address[11] = 0xff;
      memcpy(&address[12], &v4->sin_addr, 4);  // already in network byte order
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      const auto* v6 = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
      memcpy(address.data(), &v6->sin6_addr, 16);
    } else {
      continue;
    }
    addressesP->push_back(address);
  }
  freeifaddrs(list);
  return 0;
}

}  // namespace qcr
