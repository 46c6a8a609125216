// IP value types, public and platform: text forms against the system's own functions, networks
// against a bit-by-bit model, and the fixed sentinels, orders and refusals.
#include "ryx/ip.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "platform/trace/trace.h"
#include "platform/types/ip.h"
#include "ryx/panic.h"

namespace ryx {
namespace {

using Bytes = std::vector<uint8_t>;

ip_addr_t addr(const char* text) {
  ip_addr_t result;
  EXPECT_TRUE(parse_ip_addr(text, &result)) << text;
  return result;
}

ip_prefix_t prefix(const char* text) {
  ip_prefix_t result;
  EXPECT_TRUE(parse_ip_prefix(text, &result)) << text;
  return result;
}

// Random bytes in which runs of zeros, ones and mapped prefixes are frequent.
Bytes randomBytes(std::mt19937& random, size_t size) {
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    byte = random() % 3 == 0 ? static_cast<uint8_t>(random()) : random() % 8 == 0 ? 255 : 0;
  }
  if (size == 16 && random() % 8 == 0) {
    std::fill_n(bytes.begin(), 10, 0);
    bytes[10] = bytes[11] = random() % 2 ? 255 : 0;
  }
  return bytes;
}

ip_addr_t randomAddr(std::mt19937& random) {
  bool v4 = random() % 2;
  return ip_addr_t(v4 ? AF_IPV4 : AF_IPV6, randomBytes(random, v4 ? 4 : 16).data());
}

// What the system says of a text: its bytes, 4 or 16, or none. IPv4 first.
Bytes systemParse(const std::string& text) {
  Bytes bytes(16);
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1)
    return {bytes.begin(), bytes.begin() + 4};
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return bytes;
  return {};
}

Bytes bytesOf(const ip_addr_t& a) {
  return {a.bytes(), a.bytes() + (a.af() == AF_IPV4 ? 4 : a.af() == AF_IPV6 ? 16 : 0)};
}

std::string mutated(std::mt19937& random, std::string text) {
  static constexpr char kAlphabet[] = "0123456789abcdefABF:./%- x";
  for (int n = 1 + random() % 2; n > 0; --n) {
    char c = kAlphabet[random() % (sizeof kAlphabet - 1)];
    size_t at = random() % (text.size() + 1);
    switch (random() % 3) {
      case 0:
        text.insert(at, 1, c);
        break;
      case 1:
        if (at < text.size()) text[at] = c;
        break;
      default:
        if (at < text.size()) text.erase(at, 1);
    }
  }
  return text;
}

TEST(IpAddr, TextAgreesWithTheSystem) {
  std::mt19937 random(1);
  int refused = 0;
  for (int i = 0; i < 50000; ++i) {
    ip_addr_t a = randomAddr(random);
    char expected[INET6_ADDRSTRLEN];
    inet_ntop(a.af() == AF_IPV4 ? AF_INET : AF_INET6, a.bytes(), expected, sizeof expected);
    ASSERT_EQ(expected, a.to_string());
    ip_addr_t back;
    ASSERT_TRUE(parse_ip_addr(expected, &back));
    ASSERT_EQ(a, back) << expected;

    std::string text = mutated(random, expected);
    ip_addr_t parsed;
    bool accepted = parse_ip_addr(text.c_str(), &parsed);
    ASSERT_EQ(systemParse(text), bytesOf(parsed)) << text;
    ASSERT_EQ(accepted, !!parsed.af()) << text;
    refused += !accepted;
  }
  EXPECT_GT(refused, 5000);
  EXPECT_LT(refused, 45000);
}

TEST(IpAddr, RefusalLeavesTheResultUntouched) {
  std::string longest = "0000:0000:0000:0000:0000:ffff:255.255.255.255";
  ASSERT_EQ(45u, longest.size());
  EXPECT_EQ("::ffff:255.255.255.255", addr(longest.c_str()).to_string());
  ip_addr_t a = addr("192.0.2.1");
  ip_prefix_t p = prefix("192.0.2.0/24");
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "01.2.3.4", " 1.2.3.4",
                           "1.2.3.4 ", "1.2.3.4/32", ":::", "1::2::3", "fe80::1%lo",
                           "12345::", "g::", "0000:0000:0000:0000:0000:ffff:255.255.255.2550"}) {
    EXPECT_FALSE(parse_ip_addr(text, &a)) << text;
    EXPECT_FALSE(parse_ip_prefix((std::string(text) + "/8").c_str(), &p)) << text;
  }
  for (const char* text : {"",
                           "/",
                           "1.2.3.0",
                           "1.2.3.0/",
                           "1.2.3.0/33",
                           "1.2.3.0/024",
                           "1.2.3.0/+24",
                           "1.2.3.0/24 ",
                           "1.2.3.0/ 24",
                           "1.2.3.0/24/24",
                           "1.2.3.0/4294967320",
                           "/24",
                           "::/129",
                           "::/-1",
                           "10.1.2.3/8",
                           "1.2.3.4/24",
                           "2001:db8::1/32",
                           "0.0.0.1/0",
                           "::1/0",
                           "128.0.0.0/0",
                           "::1/127"}) {
    EXPECT_FALSE(parse_ip_prefix(text, &p)) << text;
  }
  EXPECT_FALSE(parse_ip_addr(nullptr, &a));
  EXPECT_FALSE(parse_ip_prefix(nullptr, &p));
  EXPECT_EQ("192.0.2.1", a.to_string());
  EXPECT_EQ("192.0.2.0/24", p.to_string());

  // What a C string cannot hold reaches the platform's parser alone.
  platform::IpAddr raw;
  EXPECT_FALSE(parse(std::string_view("1.2.3.4\0", 8), &raw));
  EXPECT_TRUE(parse(std::string_view("1.2.3.45", 7), &raw));
  EXPECT_EQ("1.2.3.4", raw.toString());
}

TEST(IpAddr, RawBytesAreTakenInNetworkOrder) {
  in_addr four;
  std::memcpy(&four.s_addr, "\xc0\x00\x02\x01", 4);
  EXPECT_EQ("192.0.2.1", ip_addr_t(four).to_string());
  EXPECT_EQ(0xc0000201u, ip_addr_t(four).addr_v4());
  in6_addr six = {};
  six.s6_addr[0] = 0x20;
  six.s6_addr[15] = 1;
  EXPECT_EQ("2000::1", ip_addr_t(six).to_string());
  EXPECT_EQ(0u, ip_addr_t(six).addr_v4());

  // Only 4 bytes are read of an IPv4 address; the rest of the area is zero.
  auto exactly4 = std::make_unique<uint8_t[]>(4);
  exactly4[3] = 7;
  ip_addr_t a(AF_IPV4, exactly4.get());
  EXPECT_EQ(Bytes(12), Bytes(a.bytes() + 4, a.bytes() + 16));
}

TEST(IpAddr, NoAddress) {
  uint8_t ones[16];
  std::memset(ones, 1, sizeof ones);
  ip_addr_t none, withBytes(AF_NULL, ones);
  EXPECT_TRUE(!none);
  EXPECT_EQ(none, withBytes);
  EXPECT_EQ(none.hash(), withBytes.hash());
  EXPECT_LT(none, withBytes);
  EXPECT_EQ(1, withBytes.bytes()[15]);
  EXPECT_LT(withBytes, addr("0.0.0.0"));
  EXPECT_EQ("Unknown IP address type.", none.to_string());
  EXPECT_EQ("Unknown IP address type./0", ip_prefix_t().to_string());
  EXPECT_FALSE(!addr("::"));
  EXPECT_NE(addr("0.0.0.0"), addr("::"));
  EXPECT_LT(addr("255.255.255.255"), addr("::"));
  std::ostringstream text;
  text << AF_NULL << " " << AF_IPV4 << " " << static_cast<af_t>(5) << " " << none;
  EXPECT_EQ("AF_NULL AF_IPV4 af_t(5) Unknown IP address type.", text.str());
}

// Bit by bit: whether any bit from `length` on is set.
bool hostBits(const Bytes& bytes, size_t length) {
  for (size_t bit = length; bit < bytes.size() * 8; ++bit) {
    if (bytes[bit / 8] >> (7 - bit % 8) & 1) return true;
  }
  return false;
}

TEST(IpPrefix, AcceptsExactlyTheNetworks) {
  std::mt19937 random(2);
  int networks = 0;
  for (int i = 0; i < 20000; ++i) {
    ip_addr_t a = randomAddr(random);
    uint8_t bits = a.af() == AF_IPV4 ? 32 : 128;
    auto length = static_cast<uint8_t>(random() % (bits + 1));
    std::string text = a.to_string() + "/" + std::to_string(length);
    bool network = !hostBits(bytesOf(a), length);
    ip_prefix_t p;
    ASSERT_EQ(network, parse_ip_prefix(text.c_str(), &p)) << text;
    if (network) {
      ++networks;
      ASSERT_EQ(text, p.to_string());
      ASSERT_EQ(ip_prefix_t(a, length), p);
      ASSERT_TRUE(p.address() == a && p.prefix_length() == length && p.af() == a.af());
    } else {
      ASSERT_THROW(ip_prefix_t(a, length), invalid_argument_error) << text;
    }

    // The platform's network of the address clears those bits and no others, and holds an address
    // exactly when its first bits are the same.
    platform::IpAddr raw(static_cast<platform::Af>(a.af()), a.bytes());
    platform::IpPrefix held = platform::IpPrefix::containing(raw, length);
    ASSERT_TRUE(held.isValid() && held.contains(raw)) << text;
    Bytes flipped = bytesOf(a);
    size_t bit = random() % bits;
    flipped[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
    ASSERT_EQ(bit >= length, held.contains(platform::IpAddr(raw.af(), flipped.data()))) << text;
  }
  EXPECT_GT(networks, 2000);
  for (const char* text : {"0.0.0.0/0", "::/0", "1.2.3.4/32", "2001:db8::1/128", "255.0.0.0/8"}) {
    EXPECT_EQ(text, prefix(text).to_string());
  }
  EXPECT_EQ("255.255.254.0", prefix("10.0.0.0/23").mask().to_string());
  EXPECT_EQ("0.0.0.0", prefix("0.0.0.0/0").mask().to_string());
  EXPECT_EQ("ffff:ffff:8000::", prefix("2001:db8::/33").mask().to_string());
  EXPECT_TRUE(!ip_prefix_t().mask());
}

template <class Error, class F>
std::string messageOf(F&& raise) {
  try {
    raise();
  } catch (const Error& e) {
    return e.what();
  }
  return "nothing was raised";
}

TEST(IpTypes, Refusals) {
  ip_addr_t v4 = addr("10.0.0.1");
  EXPECT_EQ("10.0.0.1/128", ip_addr_mask_t(v4, 128).to_string());
  EXPECT_EQ("2001:db8::1/128", ip_addr_mask_t(addr("2001:db8::1"), 128).to_string());
  EXPECT_EQ("Invalid argument 'ip.ip_addr_mask_t': mask_length must be between 0..128.",
            messageOf<invalid_argument_error>([&] { ip_addr_mask_t(v4, 129); }));
  EXPECT_EQ(
      "Invalid argument 'ip.ip_addr_mask_t': Must have a valid address family to convert to "
      "string.",
      messageOf<invalid_argument_error>([&] { ip_addr_mask_t().to_string(); }));
  EXPECT_EQ("Invalid argument 'ip.ip_prefix_t': prefix_length must be between 0..32.",
            messageOf<invalid_argument_error>([&] { ip_prefix_t(v4, 33); }));
  EXPECT_THROW(ip_prefix_t(ip_addr_t(), 1), invalid_argument_error);
  EXPECT_EQ("IpAddrMask::length > 128 not allowed",
            messageOf<range_error>([&] { platform::IpAddrMask({}, 129); }));
  platform::IpAddr raw = platform::IpAddr::v4(0x0a000001);
  EXPECT_EQ("IpPrefix::length > IpPrefix::maxLength not allowed",
            messageOf<range_error>([&] { platform::IpPrefix(raw, 33); }));
  EXPECT_EQ("IpPrefix::addr with host bits not allowed",
            messageOf<range_error>([&] { platform::IpPrefix(raw, 31); }));
}

template <class Value>
void orderedAndHashed(const std::vector<std::tuple<uint32_t, Bytes, uint8_t>>& models,
                      const std::vector<Value>& values) {
  std::unordered_set<Value> distinct;
  for (size_t i = 0; i < values.size(); ++i) {
    distinct.insert(values[i]);
    for (size_t j = 0; j < values.size(); ++j) {
      ASSERT_EQ(models[i] < models[j], values[i] < values[j]) << values[i] << " " << values[j];
      ASSERT_EQ(models[i] == models[j], values[i] == values[j]) << values[i] << " " << values[j];
    }
  }
  std::vector<std::tuple<uint32_t, Bytes, uint8_t>> sorted = models;
  std::sort(sorted.begin(), sorted.end());
  sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
  EXPECT_EQ(sorted.size(), distinct.size());
}

TEST(IpTypes, OrderEqualityAndHash) {
  std::mt19937 random(3);
  std::vector<std::tuple<uint32_t, Bytes, uint8_t>> models;
  std::vector<ip_addr_mask_t> masks;
  std::vector<platform::IpAddrMask> platformMasks;
  std::vector<std::tuple<uint32_t, Bytes, uint8_t>> networkModels;
  std::vector<ip_prefix_t> prefixes;
  std::vector<platform::IpPrefix> platformPrefixes;
  for (int i = 0; i < 300; ++i) {
    ip_addr_t a = i % 5 ? randomAddr(random) : addr(i % 2 ? "0.0.0.1" : "::1");
    auto length = static_cast<uint8_t>(30 + random() % 3);
    platform::IpAddr raw(static_cast<platform::Af>(a.af()), a.bytes());
    models.emplace_back(a.af(), bytesOf(a), length);
    masks.emplace_back(a, length);
    platformMasks.emplace_back(raw, length);
    platformPrefixes.push_back(platformMasks.back().subnet());
    prefixes.push_back(prefix(platformPrefixes.back().toString().c_str()));
    networkModels.emplace_back(a.af(), bytesOf(prefixes.back().address()), length);
  }
  orderedAndHashed(models, masks);
  orderedAndHashed(models, platformMasks);
  orderedAndHashed(networkModels, prefixes);
  orderedAndHashed(networkModels, platformPrefixes);
}

TEST(IpTypes, ValuesFromOutsideAreRecognised) {
  auto forged = [](uint8_t af, size_t index, uint8_t byte) {
    uint8_t bytes[17] = {af};
    bytes[1 + index] = byte;
    platform::IpAddr a;
    std::memcpy(static_cast<void*>(&a), bytes, sizeof bytes);
    return a.isValid();
  };
  EXPECT_TRUE(forged(4, 3, 1) && forged(6, 15, 1) && forged(0, 0, 0));
  EXPECT_FALSE(forged(4, 4, 1) || forged(4, 15, 1) || forged(0, 0, 1) || forged(5, 0, 0));
  platform::IpPrefix p(platform::IpAddr::v4(0x0a000000), 8);
  uint8_t bytes[18];
  std::memcpy(bytes, &p, sizeof bytes);
  for (int length = 0; length < 256; ++length) {
    bytes[17] = static_cast<uint8_t>(length);
    std::memcpy(static_cast<void*>(&p), bytes, sizeof bytes);
    EXPECT_EQ(length >= 7 && length <= 32, p.isValid()) << length;
  }
}

TEST(IpTypes, Classes) {
  auto is = [](const char* text, bool (platform::IpAddr::*test)() const) {
    platform::IpAddr a;
    EXPECT_TRUE(parse(text, &a)) << text;
    return (a.*test)();
  };
  using platform::IpAddr;
  for (auto [test, inside, outside] :
       std::vector<std::tuple<bool (IpAddr::*)() const, std::vector<const char*>,
                              std::vector<const char*>>>{
           {&IpAddr::isLinkLocal,
            {"169.254.0.0", "169.254.255.255", "fe80::", "febf:ffff::1"},
            {"169.253.255.255", "169.255.0.0", "fec0::", "fe7f:ffff::"}},
           {&IpAddr::isMulticast,
            {"224.0.0.0", "239.255.255.255", "ff00::", "ffff::1"},
            {"223.255.255.255", "240.0.0.0", "fe00::"}},
           {&IpAddr::isLoopback,
            {"127.0.0.0", "127.255.255.255", "::1"},
            {"126.255.255.255", "128.0.0.0", "::", "::2", "1::1"}},
           {&IpAddr::isUnspecified, {"0.0.0.0", "::"}, {"0.0.0.1", "::1", "8000::"}}}) {
    for (const char* text : inside) EXPECT_TRUE(is(text, test)) << text;
    for (const char* text : outside) EXPECT_FALSE(is(text, test)) << text;
  }
}

TEST(IpTypes, ParsingIsTracedAtLevel8) {
  auto& facility = platform::TraceFacility::named("RyxSdkIp");
  auto parseAll = [] {
    testing::internal::CaptureStderr();
    ip_addr_t a;
    ip_prefix_t p;
    EXPECT_TRUE(parse_ip_addr("192.0.2.1", &a));
    EXPECT_FALSE(parse_ip_addr(nullptr, &a));
    EXPECT_FALSE(parse_ip_prefix("192.0.2.1/8", &p));
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ("", parseAll());
  facility.enabledIs(8, true);
  std::string lines = parseAll();
  facility.enabledIs(8, false);
  EXPECT_NE(std::string::npos, lines.find("parse_ip_addr addr=192.0.2.1\n")) << lines;
  EXPECT_NE(std::string::npos, lines.find("parse_ip_addr addr=\n")) << lines;
  EXPECT_NE(std::string::npos, lines.find("parse_ip_prefix prefix=192.0.2.1/8\n")) << lines;
  EXPECT_EQ(3, std::count(lines.begin(), lines.end(), '\n'));
}

}  // namespace
}  // namespace ryx
