// MAC addresses and VLAN numbers, public and platform: every single-character change of every text
// form against a regular expression, values against the system's own functions, and the refusals.
#include "ryx/eth.h"

#include <gtest/gtest.h>
#include <netinet/ether.h>
#include <regex.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <unordered_set>
#include <vector>

#include "platform/types/eth.h"
#include "ryx/panic.h"

namespace ryx {
namespace {

bool accepts(const std::string& text) {
  try {
    eth_addr_t addr(text);
    return true;
  } catch (const invalid_argument_error& e) {
    EXPECT_STREQ("Invalid argument 'MAC address'", e.what());
    EXPECT_EQ("MAC address", e.argument_name());
    return false;
  }
}

TEST(EthAddr, AcceptsExactlyTheTextForms) {
  regex_t form;
  ASSERT_EQ(0, regcomp(&form,
                       "^(([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}|([0-9a-fA-F]{2}-){5}[0-9a-fA-F]{2}|"
                       "([0-9a-fA-F]{4}\\.){2}[0-9a-fA-F]{4})$",
                       REG_EXTENDED | REG_NOSUB));
  for (std::string text : {"00:1c:73:a0:FC:9e", "00-1c-73-a0-FC-9e", "001c.73a0.FC9e"}) {
    EXPECT_EQ("00:1c:73:a0:fc:9e", eth_addr_t(text).to_string());
    for (size_t at = 0; at < text.size(); ++at) {
      std::string shorter = text, longer = text;
      EXPECT_FALSE(accepts(shorter.erase(at, 1)));
      EXPECT_FALSE(accepts(longer.insert(at, 1, '0')));
      for (int c = 1; c < 256; ++c) {
        std::string other = text;
        other[at] = static_cast<char>(c);
        ASSERT_EQ(regexec(&form, other.c_str(), 0, nullptr, 0) == 0, accepts(other)) << other;
      }
    }
  }
  using namespace std::string_literals;
  for (const std::string& text : {""s, "0:1:2:3:4:5"s, "001c73a0fc9e"s, " 00:1c:73:a0:fc:9"s,
                                  "00:1c:73:a0:fc:9e\0"s, "00:1c-73:a0-fc:9e"s}) {
    EXPECT_FALSE(accepts(text)) << text;
  }
  regfree(&form);
  EXPECT_THROW(eth_addr_t(static_cast<const char*>(nullptr)), invalid_argument_error);
}

TEST(EthAddr, ValuesAgreeWithTheSystem) {
  std::mt19937 random(1);
  std::vector<std::vector<uint8_t>> models;
  std::vector<eth_addr_t> addrs;
  std::unordered_set<eth_addr_t> distinct;
  for (int i = 0; i < 400; ++i) {
    std::vector<uint8_t> bytes(6);
    for (uint8_t& b : bytes)
      b = static_cast<uint8_t>(random() % 2 ? 0x7f + random() % 2 : random());
    eth_addr_t a(bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]);
    ether_addr system;
    ASSERT_NE(nullptr, ether_aton_r(a.to_string().c_str(), &system));
    ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), system.ether_addr_octet)) << a;
    ASSERT_EQ(a, eth_addr_t(a.to_string().c_str()));
    uint8_t copy[6];
    a.bytes(copy);
    for (int n = 0; n < 6; ++n) ASSERT_TRUE(a.byte(n) == bytes[n] && copy[n] == bytes[n]) << a;
    ASSERT_EQ((bytes[0] & 1) != 0, a.is_multicast());
    ASSERT_NE(a.is_unicast(), a.is_multicast());
    ASSERT_EQ(platform::MacAddr(bytes.data()).toString(), a.to_string());
    models.push_back(bytes);
    addrs.push_back(a);
    distinct.insert(a);
  }
  for (size_t i = 0; i < addrs.size(); ++i) {
    for (size_t j = 0; j < addrs.size(); ++j) {
      ASSERT_EQ(models[i] < models[j], addrs[i] < addrs[j]) << addrs[i] << " " << addrs[j];
      ASSERT_EQ(models[i] == models[j], addrs[i] == addrs[j]) << addrs[i] << " " << addrs[j];
      ASSERT_EQ(models[i] < models[j],
                platform::MacAddr(models[i].data()) < platform::MacAddr(models[j].data()));
    }
  }
  std::sort(models.begin(), models.end());
  EXPECT_EQ(std::unique(models.begin(), models.end()) - models.begin(),
            static_cast<ptrdiff_t>(distinct.size()));
}

TEST(EthAddr, ClassesAndBounds) {
  eth_addr_t broadcast("ff:ff:ff:ff:ff:ff");
  EXPECT_TRUE(broadcast.is_broadcast() && broadcast.is_multicast() && !broadcast.is_unicast());
  for (int n = 0; n < 6; ++n) {
    uint8_t b[6] = {255, 255, 255, 255, 255, 255};
    b[n] = 0x7f;
    EXPECT_FALSE(eth_addr_t(b[0], b[1], b[2], b[3], b[4], b[5]).is_broadcast()) << n;
  }
  EXPECT_TRUE(eth_addr_t("01:00:5e:00:00:01").is_multicast());
  EXPECT_TRUE(eth_addr_t("02:00:00:00:00:01").is_unicast());
  EXPECT_EQ("00:00:00:00:00:00", eth_addr_t().to_string());
  for (int index : {-1, 6, INT32_MAX, INT32_MIN}) {
    try {
      broadcast.byte(index);
      ADD_FAILURE() << index;
    } catch (const invalid_range_error& e) {
      EXPECT_EQ("index", e.argument_name());
      EXPECT_TRUE(e.min_valid() == 0 && e.max_valid() == 5);
    }
  }
}

TEST(VlanId, HoldsOnlyVlans) {
  for (uint32_t number = 0; number < 65536; ++number) {
    auto value = static_cast<uint16_t>(number);
    platform::VlanId parsed;
    bool vlan = number >= 1 && number <= 4094;
    ASSERT_EQ(vlan, parse(std::to_string(number), &parsed)) << number;
    ASSERT_EQ(vlan ? value : 1, parsed.value());
    if (vlan) {
      ASSERT_EQ(value, platform::VlanId(value).value());
      continue;
    }
    try {
      platform::VlanId refused(value);
      FAIL() << number;
    } catch (const range_error& e) {
      ASSERT_STREQ("VlanId::value < 1 or > 4094 not allowed", e.what());
    }
  }
  platform::VlanId vlan;
  for (const char* text : {"", "01", "+1", "-1", " 1", "1 ", "0x1", "4294967297", "65537"}) {
    EXPECT_FALSE(parse(text, &vlan)) << text;
  }
  EXPECT_EQ(4096u, vlan_set_t().size());
}

}  // namespace
}  // namespace ryx
