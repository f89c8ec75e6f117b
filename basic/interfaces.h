// The machine's own network addresses.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qcr {

// A 16-byte IP address; IPv4 addresses in IPv4-mapped form (::ffff:a.b.c.d).
using IpAddress16 = std::array<uint8_t, 16>;

// Fills *addressesP with the address of every configured IPv4 and IPv6 interface
// address (loopback included), in the order the system reports them. Returns 0 or
// an errno value.
[[nodiscard]] int localInterfaceAddresses(std::vector<IpAddress16>* addressesP);

// The machine's host name. Returns 0 or an errno value.
[[nodiscard]] int localHostName(std::string* nameP);

}  // namespace qcr
