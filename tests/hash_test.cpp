// Keys as switches have them, in rows and with gaps: hashes tell them apart, and no line of a table
// gets more than a few rows of them.
#include "platform/qel/hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <vector>

#include "platform/model/routing.h"
#include "platform/qel/kind.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"

namespace ryx::platform {
namespace {

constexpr uint32_t kKeys = 1 << 16;
constexpr uint32_t kLines = kKeys / 4;  // as many as a table of so many keys has at least

IpPrefix v6(uint64_t number, uint8_t length) {
  uint8_t bytes[16] = {0x20, 0x01, 0x0d, 0xb8};
  for (unsigned bit = 0; bit < 64; ++bit)
    if (number >> bit & 1) {
      unsigned at = length - 1u - bit;
      bytes[at / 8] |= static_cast<uint8_t>(0x80 >> at % 8);
    }
  return IpPrefix(IpAddr(Af::ipv6, bytes), length);
}

struct Keys {
  const char* name;
  std::function<uint64_t(uint64_t)> hash;
};

TEST(Hash, SpreadsKeysInRowsAndWithGaps) {
  auto v4 = [](uint64_t n, uint8_t length) {
    return IpPrefix(IpAddr::v4(static_cast<uint32_t>(n << (32 - length))), length);
  };
  auto route = [](const IpPrefix& p) { return kinds::hashValue(Routing::RouteKey{p, 1}); };
  auto intf = [](uint64_t first, uint64_t second) { return IntfId(first << 32 | second).hash(); };
  const std::vector<Keys> all = {
      {"hosts", [&](uint64_t n) { return route(v4(n, 32)); }},
      {"/24", [&](uint64_t n) { return route(v4(n, 24)); }},
      {"every eighth /24", [&](uint64_t n) { return route(v4(n * 8, 24)); }},
      {"/24 of every /16", [&](uint64_t n) { return route(v4((n & 0xff) << 16 | n >> 8, 24)); }},
      {"IPv6 /48", [&](uint64_t n) { return route(v6(n, 48)); }},
      {"IPv6 /64", [&](uint64_t n) { return route(v6(n << 8, 64)); }},
      {"IPv6 /96", [&](uint64_t n) { return route(v6(n, 96)); }},
      {"IPv6 hosts", [&](uint64_t n) { return route(v6(n << 32, 128)); }},
      {"addresses", [](uint64_t n) { return IpAddr::v4(static_cast<uint32_t>(n)).hash(); }},
      {"ports", [&](uint64_t n) { return intf(n << 9, 0); }},
      {"ports of cards", [&](uint64_t n) { return intf((n >> 6) << 9 | (n % 64 + 1), 0); }},
      {"lanes", [&](uint64_t n) { return intf(n >> 3 << 9 | 1, (n % 8 + 1) << 24); }},
      {"sub-interfaces", [&](uint64_t n) { return intf(n >> 10, n % 1024 + 1); }},
      {"numbers", [](uint64_t n) { return kinds::hashValue(n); }},
      {"large steps", [](uint64_t n) { return kinds::hashValue(n << 32); }},
  };
  for (const Keys& keys : all) {
    std::set<uint64_t> hashes;
    std::vector<uint32_t> line(kLines);
    for (uint32_t n = 0; n < kKeys; ++n) {
      uint64_t h = keys.hash(n);
      hashes.insert(h);
      ++line[(h >> 32) / kHashPlaces % kLines];
    }
    EXPECT_EQ(kKeys, hashes.size()) << keys.name;
    // Rows of eight fall on lines at random: seven on one are rare, twelve are no chance.
    EXPECT_LT(*std::max_element(line.begin(), line.end()), 12 * kHashPlaces) << keys.name;
  }
}

TEST(Hash, NeighboursShareALineAndHaveTheirOwnPlace) {
  std::set<uint64_t> lines, places;
  for (uint32_t n = 0; n < kHashPlaces; ++n) {
    uint64_t h =
        kinds::hashValue(Routing::RouteKey{IpPrefix(IpAddr::v4(0x0a000000u + (n << 8)), 24), 200});
    lines.insert(hashLine(h));
    places.insert(hashPlace(h));
  }
  EXPECT_EQ(1u, lines.size());
  EXPECT_EQ(kHashPlaces, places.size());
}

}  // namespace
}  // namespace ryx::platform
