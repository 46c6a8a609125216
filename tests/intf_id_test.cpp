// Interface identifiers and the name codec: names against a model of the grammar made of regular
// expressions and bounds, identifiers against their names, the fixed codes and types, and the
// order.
#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <unordered_set>
#include <vector>

#include "platform/types/intf.h"
#include "ryx/inline/types/intf.h"
#include "ryx/panic.h"

namespace ryx {
namespace {

using platform::IntfId;

IntfId parsed(const std::string& name) {
  IntfId id;
  EXPECT_TRUE(parse(name, &id)) << name;
  return id;
}

// The grammar once more, written differently: shapes as POSIX extended regular expressions, in
// which # is a number, and the bounds of the numbers in them.
using Bounds = std::vector<std::pair<uint64_t, uint64_t>>;

struct Shape {
  regex_t expression;
  Bounds bounds;  // of the numbers before a full stop; what follows one is 1..16777215
};

std::vector<Shape> grammarModel() {
  std::vector<Shape> model;
  for (const auto& [pattern, bounds] : std::vector<std::pair<std::string, Bounds>>{
           {"Ethernet#(/#(/#)?)?(\\.#)?", {{0, 65535}, {1, 511}, {1, 255}}},
           {"PeerEthernet#(/#(/#)?)?", {{0, 65535}, {1, 511}, {1, 255}}},
           {"Port-Channel#(\\.#)?", {{1, 16777215}}},
           {"Management#(/#)?", {{0, 65535}, {1, 511}}},
           {"Vlan#", {{1, 4094}}},
           {"(Loopback|Vxlan|Tunnel|Internal)#", {{0, 16777215}}},
           {"PeerPort-Channel#", {{1, 16777215}}},
           {"Cpu(#)?", {{1, 16777215}}},
           {"Null0", {{0, 0}}}}) {
    std::string expression = "^" + pattern + "$";
    for (size_t at; (at = expression.find('#')) != expression.npos;) {
      expression.replace(at, 1, "(0|[1-9][0-9]*)");
    }
    model.push_back({{}, bounds});
    EXPECT_EQ(0, regcomp(&model.back().expression, expression.c_str(), REG_EXTENDED | REG_NOSUB));
  }
  return model;
}

bool modelAccepts(const std::string& name) {
  static const auto& kModel = *new std::vector<Shape>(grammarModel());  // kept to the end
  for (const Shape& shape : kModel) {
    if (regexec(&shape.expression, name.c_str(), 0, nullptr, 0) != 0) continue;
    size_t index = 0;
    for (size_t at = name.find_first_of("0123456789"); at != name.npos;) {
      size_t end = std::min(name.find_first_not_of("0123456789", at), name.size());
      if (end - at > 9) return false;
      uint64_t number = std::stoull(name.substr(at, end - at));
      bool sub = name[at - 1] == '.';
      auto [min, max] = sub ? std::pair<uint64_t, uint64_t>(1, 16777215) : shape.bounds[index++];
      if (number < min || number > max) return false;
      at = name.find_first_of("0123456789", end);
    }
    return true;
  }
  return false;
}

// Names around every bound of the grammar, good and bad.
std::vector<std::string> boundaryNames() {
  const char* prefixes[] = {"Ethernet", "PeerEthernet", "Port-Channel", "PeerPort-Channel",
                            "Vlan",     "Management",   "Loopback",     "Vxlan",
                            "Tunnel",   "Internal",     "Cpu",          "Null"};
  const char* numbers[] = {"",      "0",        "1",        "00",        "01",   "255",
                           "256",   "511",      "512",      "4094",      "4095", "65535",
                           "65536", "16777215", "16777216", "4294967297"};
  const char* parts[] = {"", "0", "1", "255", "256", "511", "512", "16777215", "16777216", "01"};
  std::vector<std::string> names;
  for (const char* prefix : prefixes) {
    for (const char* number : numbers) {
      std::string base = std::string(prefix) + number;
      names.push_back(base);
      for (const char* part : parts) {
        names.push_back(base + "/" + part);
        names.push_back(base + "." + part);
        names.push_back(base + "/1/" + part);
        names.push_back(base + "/511." + part);
        names.push_back(base + "/511/255." + part);
        names.push_back(base + ".1/" + part);
        names.push_back(base + "/1/1/" + part);
      }
    }
  }
  return names;
}

void checkName(const std::string& name, int* accepted) {
  IntfId id;
  bool taken = parse(name, &id);
  ASSERT_EQ(modelAccepts(name), taken) << name;
  *accepted += taken;
  if (!taken) {
    ASSERT_TRUE(id.isEmpty()) << name;
    return;
  }
  ASSERT_TRUE(id.isValid()) << name;
  ASSERT_EQ(name, id.toString());
  bool dotted = name.find('.') != name.npos;
  ASSERT_EQ(dotted, id.isSubintf()) << name;
  ASSERT_EQ(name.substr(0, name.find('.')), id.parent().toString());
  if (dotted) {
    ASSERT_EQ(std::stoul(name.substr(name.find('.') + 1)), id.subintfId());
    ASSERT_LT(id.parent(), id);
  }
}

TEST(IntfCodec, AcceptsExactlyTheGrammar) {
  int accepted = 0;
  std::vector<std::string> good;
  std::unordered_set<IntfId> ids;
  for (const std::string& name : boundaryNames()) {
    int before = accepted;
    ASSERT_NO_FATAL_FAILURE(checkName(name, &accepted));
    if (accepted != before) {
      good.push_back(name);
      ids.insert(parsed(name));
    }
  }
  std::sort(good.begin(), good.end());
  good.erase(std::unique(good.begin(), good.end()), good.end());
  EXPECT_EQ(good.size(), ids.size());  // two names, two identifiers
  EXPECT_GT(good.size(), 150u);

  std::mt19937 random(1);
  static constexpr char kAlphabet[] = "0123456789/.-EPVaet \n";
  for (int i = 0; i < 4000; ++i) {
    std::string name = good[random() % good.size()];
    size_t at = random() % (name.size() + 1);
    char c = kAlphabet[random() % (sizeof kAlphabet - 1)];
    if (random() % 2) {
      name.insert(at, 1, c);
    } else if (at < name.size()) {
      name[at] = c;
    } else {
      name.pop_back();
    }
    ASSERT_NO_FATAL_FAILURE(checkName(name, &accepted));
  }
}

TEST(IntfCodec, AnyNumberIsSafeAndOnlyNamedOnesAreValid) {
  std::mt19937_64 random(2);
  int valid = 0;
  for (int i = 0; i < 200000; ++i) {
    // Sparse numbers, small kinds: so that valid identifiers are met.
    uint64_t value = random() & random() & random() & ~(uint64_t{0x78} << 57);
    if (i % 4 == 0) value = random();
    if (i % 4 == 1) value &= ~(random() & 0x1ffffffffffffffu);
    IntfId id(value);
    std::string text = id.toString();
    IntfId back;
    bool named = parse(text, &back);
    ASSERT_EQ(id.isValid(), named) << text;
    ASSERT_EQ(named ? id : IntfId(), back) << text;
    valid += named;
    ASSERT_LE(text.size(), IntfId::kMaxText);
    ASSERT_EQ(text, intf_id_t::from_value(value).to_string());
    intf_id_t::from_value(value).intf_type();
  }
  EXPECT_GT(valid, 1000);
  EXPECT_EQ("InvalidIntf(0xfedcba9876543210)", IntfId(0xfedcba9876543210u).toString());
  EXPECT_EQ("", IntfId().toString());
  EXPECT_FALSE(IntfId().isValid());
}

TEST(IntfId, TypesAndKindCodes) {
  struct Row {
    const char* name;
    int code;  // -1: any but the listed ones
    intf_type_t type;
    bool subintf, internal, peer;
  };
  for (const Row& row :
       std::vector<Row>{{"Ethernet1", 0, INTF_TYPE_ETH, false, false, false},
                        {"Ethernet3/1/4", 0, INTF_TYPE_ETH, false, false, false},
                        {"Ethernet3/1/4.100", 0, INTF_TYPE_ETH, true, false, false},
                        {"Vlan4094", 1, INTF_TYPE_VLAN, false, false, false},
                        {"Management1", 2, INTF_TYPE_MANAGEMENT, false, false, false},
                        {"Loopback0", 3, INTF_TYPE_LOOPBACK, false, false, false},
                        {"Cpu", 6, INTF_TYPE_SYSTEM, false, true, false},
                        {"Port-Channel5", 7, INTF_TYPE_LAG, false, false, false},
                        {"Port-Channel5.7", 7, INTF_TYPE_LAG, true, false, false},
                        {"Vxlan1", 56, INTF_TYPE_VXLAN, false, false, false},
                        {"Null0", -1, INTF_TYPE_NULL0, false, false, false},
                        {"Tunnel1", -1, INTF_TYPE_OTHER, false, false, false},
                        {"Internal1", -1, INTF_TYPE_OTHER, false, true, false},
                        {"PeerEthernet1", -1, INTF_TYPE_OTHER, false, false, true},
                        {"PeerPort-Channel10", -1, INTF_TYPE_OTHER, false, false, true}}) {
    intf_id_t intf(row.name);
    IntfId id(intf.value());
    EXPECT_EQ(row.type, intf.intf_type()) << row.name;
    EXPECT_EQ(row.subintf, intf.is_subintf()) << row.name;
    EXPECT_EQ(row.type == INTF_TYPE_NULL0, intf.is_null0()) << row.name;
    EXPECT_EQ(row.internal, id.isInternal()) << row.name;
    EXPECT_EQ(row.peer, id.isPeerEth() || id.isPeerLag()) << row.name;
    EXPECT_EQ(row.name, intf.to_string());
    EXPECT_FALSE(!intf);
    int code = static_cast<int>(intf.value() >> 57);
    if (row.code >= 0) {
      EXPECT_EQ(row.code, code) << row.name;
    } else {
      EXPECT_FALSE(code <= 3 || code == 6 || code == 7 || code == 56 || code == 127) << row.name;
    }
  }
  EXPECT_EQ(4094, parsed("Vlan4094").vlanId());
  EXPECT_EQ(0, parsed("Ethernet12").vlanId());
  EXPECT_EQ(INTF_TYPE_OTHER, intf_id_t::from_value(uint64_t{100} << 57).intf_type());
  std::ostringstream text;
  text << intf_id_t("Vlan7").intf_type() << " " << INTF_TYPE_VXLAN << " "
       << static_cast<intf_type_t>(10) << " " << intf_id_t("Vlan7");
  EXPECT_EQ("INTF_TYPE_VLAN INTF_TYPE_VXLAN intf_type_t(10) Vlan7", text.str());
}

TEST(IntfId, Empty) {
  intf_id_t none;
  EXPECT_TRUE(!none);
  EXPECT_EQ(0xffffffff00000000u, none.value());
  EXPECT_EQ(INTF_TYPE_NULL, none.intf_type());
  EXPECT_FALSE(none.is_subintf() || none.is_null0());
  EXPECT_EQ(none, intf_id_t::from_value(IntfId().value()));
  EXPECT_FALSE(!intf_id_t::from_value(0xffffffff00000001u));
  EXPECT_EQ("", none.to_string());
}

TEST(IntfId, UnknownNamesAreRefused) {
  for (const char* name :
       {"", "Null", "Null1", "ethernet1", "Ethernet", "Ethernet1x", "Vlan4095"}) {
    try {
      intf_id_t refused(name);
      ADD_FAILURE() << name;
    } catch (const no_such_interface_error& e) {
      EXPECT_EQ(std::string("Bad interface name: ") + name, e.what());
    }
    EXPECT_THROW(intf_id_t(std::string(name)), no_such_interface_error) << name;
  }
  EXPECT_THROW(intf_id_t(static_cast<const char*>(nullptr)), no_such_interface_error);
  EXPECT_THROW(intf_id_t(std::string("Ethernet1\0", 10)), no_such_interface_error);
}

TEST(IntfId, OrderIsNatural) {
  std::vector<std::string> names = {"Ethernet0",
                                    "Ethernet1",
                                    "Ethernet1.1",
                                    "Ethernet1.100",
                                    "Ethernet1/1",
                                    "Ethernet1/1.5",
                                    "Ethernet1/1/1",
                                    "Ethernet1/1/1.1",
                                    "Ethernet1/1/2",
                                    "Ethernet1/2",
                                    "Ethernet1/10",
                                    "Ethernet2",
                                    "Ethernet10",
                                    "Vlan2",
                                    "Vlan10",
                                    "Port-Channel2",
                                    "Port-Channel2.16777215",
                                    "Port-Channel10"};
  std::vector<intf_id_t> ids(names.begin(), names.end());
  std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
  ids.emplace_back();
  std::sort(ids.begin(), ids.end());
  EXPECT_TRUE(!ids.back());
  ids.pop_back();
  std::vector<std::string> sorted;
  for (const intf_id_t& id : ids) sorted.push_back(id.to_string());
  EXPECT_EQ(names, sorted);

  std::unordered_set<intf_id_t> set(ids.begin(), ids.end());
  EXPECT_EQ(names.size(), set.size());
  EXPECT_EQ(1u, set.count("Ethernet1/1.5"));
  EXPECT_EQ(0u, set.count(intf_id_t()));
}

}  // namespace
}  // namespace ryx
