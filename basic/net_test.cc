// Name lookup and the interface list against the C library's own answers; a
// gathered send through a socket that takes a little at a time; free ports.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "basic/interfaces.h"
#include "basic/net.h"

namespace qcr {
namespace {

// What getaddrinfo answers for host with the hints lookupHost uses: the results in
// its order, or an empty list when it fails.
std::vector<std::string> resolverAnswer(const char* host, bool v4Only) {
  addrinfo hints{};
  hints.ai_family = v4Only ? AF_INET : AF_INET6;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = v4Only ? 0 : AI_V4MAPPED | AI_ALL;
  addrinfo* list = nullptr;
  std::vector<std::string> texts;
  if (getaddrinfo(host, nullptr, &hints, &list) != 0) return texts;
  for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    char text[INET6_ADDRSTRLEN];
    const void* ip = ai->ai_family == AF_INET
                         ? static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_addr)
                         : &reinterpret_cast<sockaddr_in6*>(ai->ai_addr)->sin6_addr;
    inet_ntop(ai->ai_family, ip, text, sizeof text);
    // lookupHost keeps IPv4 in mapped form and prints it as plain IPv4.
    texts.push_back(strncmp(text, "::ffff:", 7) == 0 && strchr(text, '.') ? text + 7 : text);
  }
  freeaddrinfo(list);
  return texts;
}

TEST(LookupHost, AnswersAsTheResolverDoes) {
  // Numeric texts take the short path; the others (short and octal IPv4 forms,
  // names) go to the resolver, and both must agree with it.
  const char* hosts[] = {"127.0.0.1", "10.1.2.3",        "255.255.255.255", "0.0.0.0",
                         "::1",       "fe80::1",         "2001:db8::5",     "::ffff:10.0.0.1",
                         "::",        "127.1",           "010.0.0.1",       "localhost",
                         "1.2.3",     "1.2.3.4.5",       "::1::2",          ""};
  for (const char* host : hosts) {
    for (const bool v4Only : {false, true}) {
      std::vector<PeerAddress> results;
      const int rc = lookupHost(host, v4Only, &results);
      std::vector<std::string> texts;
      for (const PeerAddress& a : results) {
        EXPECT_EQ(a.port, 0) << host;
        EXPECT_TRUE(!v4Only || a.isV4()) << host;
        texts.push_back(ipText(a));
      }
      EXPECT_EQ(texts, resolverAnswer(host, v4Only)) << host << " v4Only " << v4Only;
      EXPECT_EQ(rc != 0, texts.empty()) << host << " v4Only " << v4Only;
    }
  }
}

TEST(LocalInterfaces, SameAddressesInTheSameOrderAsGetifaddrs) {
  std::vector<IpAddress16> expected;
  ifaddrs* list = nullptr;
  ASSERT_EQ(getifaddrs(&list), 0);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    IpAddress16 address{};
    if (entry->ifa_addr->sa_family == AF_INET) {
      address[10] = address[11] = 0xff;
      memcpy(&address[12], &reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr, 4);
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      memcpy(address.data(), &reinterpret_cast<sockaddr_in6*>(entry->ifa_addr)->sin6_addr, 16);
    } else {
      continue;
    }
    expected.push_back(address);
  }
  freeifaddrs(list);
  std::vector<IpAddress16> addresses = {IpAddress16{}};  // replaced, not appended to
  ASSERT_EQ(localInterfaceAddresses(&addresses), 0);
  EXPECT_EQ(addresses, expected);
}

// Two pieces arrive whole and in order however the socket splits them: here
// it takes a few KiB at a time while the reader drains it slowly, so writes end
// inside either piece and at their boundary.
TEST(FullSendPair, BothPiecesArriveInOrderThroughPartialWrites) {
  for (const auto& [firstLen, secondLen] :
       std::vector<std::pair<size_t, size_t>>{{0, 300000}, {11, 300000}, {70000, 5}, {9, 0}}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    const int small = 4096;
    ASSERT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    std::string first(firstLen, 'a'), second(secondLen, 'b');
    for (size_t i = 0; i < first.size(); i += 97) first[i] = static_cast<char>('0' + i % 10);
    for (size_t i = 0; i < second.size(); i += 89) second[i] = static_cast<char>('0' + i % 10);
    std::string got;
    std::thread reader([&] {
      char buf[1500];
      while (got.size() < firstLen + secondLen) {
        if (!waitReadable(ends[1], 10000)) return;
        const int n = takeArrived(ends[1], buf, sizeof buf);
        if (n <= 0) return;
        got.append(buf, static_cast<size_t>(n));
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    });
    EXPECT_EQ(fullSendPair(ends[0], first.data(), first.size(), second.data(), second.size(), 10000), 0);
    reader.join();
    EXPECT_TRUE(got == first + second) << firstLen << "+" << secondLen << ": " << got.size();
    close(ends[0]);
    close(ends[1]);
  }
}

// Ports picked for several servers at once are all different.
TEST(FreeLoopbackPorts, EveryPortIsADifferentOne) {
  for (int round = 0; round < 20; ++round) {
    std::vector<int> ports;
    ASSERT_EQ(freeLoopbackPorts(12, &ports), 0);
    ASSERT_EQ(ports.size(), 12u);
    std::sort(ports.begin(), ports.end());
    EXPECT_EQ(std::adjacent_find(ports.begin(), ports.end()), ports.end());
    EXPECT_GT(ports.front(), 0);
  }
}

}  // namespace
}  // namespace qcr
