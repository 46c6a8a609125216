// Neighbours: the agent's own entries, and the table that the simulated switch makes of them and of
// what it learned.
#include "ryx/neighbor_table.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/model/arp.h"
#include "ryx/agent.h"
#include "ryx/panic.h"
#include "switch/base/interfaces.h"
#include "switch/sim/sim.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::testing {
namespace {

ip_addr_t v4(uint32_t n) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16),
                            static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return {AF_IPV4, bytes};
}
ip_addr_t v6(uint8_t last) {
  const uint8_t bytes[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last};
  return {AF_IPV6, bytes};
}
neighbor_entry_t entryOf(const neighbor_key_t& key, const std::string& mac,
                         neighbor_entry_type_t type = NEIGHBOR_ENTRY_TYPE_STATIC) {
  neighbor_entry_t entry(key);
  entry.eth_addr_is(eth_addr_t(mac));
  entry.entry_type_is(type);
  return entry;
}

class NeighborTableTest : public StatehubTest {
 protected:
  void does(const std::string& line) {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command(line)) << line;
  }
  template <class Iter>
  static std::set<std::string> keys(Iter iter) {
    std::set<std::string> all;
    for (; iter; ++iter) all.insert(iter->to_string());
    return all;
  }

  sim::Sim sim{tree()};
};
RYX_OVER_BOTH(NeighborTableTest);

// What a handler is told, as lines; and what the table is by that alone.
class Watch : public neighbor_table_handler {
 public:
  explicit Watch(neighbor_table_mgr* mgr) : neighbor_table_handler(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  std::map<neighbor_key_t, neighbor_entry_t> table;

  void on_neighbor_entry_set(const neighbor_entry_t& entry) override {
    lines_ += "set " + entry.to_string() + "\n";
    table[entry.neighbor_key()] = entry;
  }
  void on_neighbor_entry_del(const neighbor_key_t& key) override {
    lines_ += "del " + key.to_string() + "\n";
    EXPECT_EQ(1u, table.erase(key));
  }

 private:
  std::string lines_;
};

TEST_P(NeighborTableTest, TheSwitchsTableIsReadAndFollowed) {
  does("interface-add Ethernet1");
  does("interface-add Ethernet2");
  does("neighbor-learn 10.0.0.1 Ethernet1 00:1c:73:00:00:01");
  TestSdk sdk(*this, "tester");
  neighbor_table_mgr* mgr = sdk.get_neighbor_table_mgr();
  struct Early : agent_handler {
    Early(agent_mgr* agents, neighbor_table_mgr* m) : agent_handler(agents), mgr(m) {}
    void on_initialized() override {
      found = mgr->neighbor_entry_status({v4(0x0a000001), "Ethernet1"});
    }
    neighbor_table_mgr* mgr;
    neighbor_entry_t found;
  } early(sdk.get_agent_mgr(), mgr);
  Watch all(mgr), one(mgr);
  all.watch_all_neighbor_entries(true);
  one.watch_neighbor_entry({v6(7), "Ethernet2"}, true);
  EXPECT_THROW(mgr->neighbor_table_iter(), legacy_exception);
  sdk.start();
  const neighbor_entry_t first =
      entryOf({v4(0x0a000001), "Ethernet1"}, "00:1c:73:00:00:01", NEIGHBOR_ENTRY_TYPE_DYNAMIC);
  EXPECT_EQ(first, early.found) << "it can be read as soon as anything can";
  EXPECT_EQ("set " + first.to_string() + "\n", all.told());
  EXPECT_EQ("", one.told());
  does("neighbor-learn fe80::7 Ethernet2 00:1c:73:00:00:02");
  does("neighbor-learn 10.0.0.1 Ethernet1 00:1c:73:00:00:03");
  settle();
  const std::string second =
      "set neighbor_entry_t(neighbor_key=neighbor_key_t(fe80::7, intf_id=Ethernet2), "
      "eth_addr=00:1c:73:00:00:02, entry_type=NEIGHBOR_ENTRY_TYPE_DYNAMIC)\n";
  EXPECT_EQ(second, one.told());
  EXPECT_EQ(second +
                "set neighbor_entry_t(neighbor_key=neighbor_key_t(10.0.0.1, intf_id=Ethernet1), "
                "eth_addr=00:1c:73:00:00:03, entry_type=NEIGHBOR_ENTRY_TYPE_DYNAMIC)\n",
            all.told());
  EXPECT_EQ((std::set<std::string>{"neighbor_key_t(10.0.0.1, intf_id=Ethernet1)",
                                   "neighbor_key_t(fe80::7, intf_id=Ethernet2)"}),
            keys(mgr->neighbor_table_status_iter()));
  EXPECT_FALSE(mgr->neighbor_table_iter()) << "none of them is the agent's own";
  does("neighbor-age 10.0.0.1 Ethernet1");
  does("interface-del Ethernet2");
  settle();
  EXPECT_EQ("del neighbor_key_t(fe80::7, intf_id=Ethernet2)\n", one.told());
  EXPECT_EQ(std::set<std::string>{}, keys(mgr->neighbor_table_status_iter()));
  EXPECT_TRUE(all.table.empty());
  EXPECT_EQ(neighbor_entry_t(), mgr->neighbor_entry_status({v6(7), "Ethernet2"}));
}

TEST_P(NeighborTableTest, OwnEntriesTakeEffectWhereThereIsAnInterface) {
  TestSdk sdk(*this, "tester");
  neighbor_table_mgr* mgr = sdk.get_neighbor_table_mgr();
  Watch watch(mgr);
  watch.watch_all_neighbor_entries(true);
  sdk.start();
  const neighbor_key_t key(v4(0x0a000001), "Ethernet1"), other(v6(1), "Ethernet1");
  // Of whatever type it is set, it is static; the last MAC address counts.
  mgr->neighbor_entry_set(entryOf(key, "00:1c:73:00:00:01", NEIGHBOR_ENTRY_TYPE_DYNAMIC));
  mgr->neighbor_entry_set(entryOf(key, "00:1c:73:00:00:02"));
  mgr->neighbor_entry_set(entryOf(other, "00:1c:73:00:00:03"));
  EXPECT_EQ(entryOf(key, "00:1c:73:00:00:02"), mgr->neighbor_entry(key));
  EXPECT_EQ(2u, keys(mgr->neighbor_table_iter()).size());
  settle();
  EXPECT_EQ("", watch.told()) << "the switch has no such interface";
  does("interface-add Ethernet1");
  settle();
  EXPECT_EQ(entryOf(key, "00:1c:73:00:00:02"), watch.table[key]);
  EXPECT_EQ(entryOf(other, "00:1c:73:00:00:03"), mgr->neighbor_entry_status(other));
  // What is learned does not go before it, and is there when it goes.
  does("neighbor-learn 10.0.0.1 Ethernet1 00:1c:73:00:00:09");
  settle();
  EXPECT_EQ(entryOf(key, "00:1c:73:00:00:02"), mgr->neighbor_entry_status(key));
  mgr->neighbor_entry_del(key);
  mgr->neighbor_entry_del(key);
  settle();
  EXPECT_EQ(neighbor_entry_t(), mgr->neighbor_entry(key));
  EXPECT_EQ(entryOf(key, "00:1c:73:00:00:09", NEIGHBOR_ENTRY_TYPE_DYNAMIC), watch.table[key]);
  // What is not the agent's own stays.
  mgr->neighbor_entry_del(key);
  settle();
  EXPECT_EQ(1u, watch.table.count(key));
  // Of two agents the one whose name comes first has its way.
  TestSdk before(*this, "abc");
  neighbor_table_mgr* theirs = before.get_neighbor_table_mgr();
  before.start();
  mgr->neighbor_entry_set(entryOf(key, "00:1c:73:00:00:04"));
  theirs->neighbor_entry_set(entryOf(key, "00:1c:73:00:00:05"));
  EXPECT_EQ(1u, keys(theirs->neighbor_table_iter()).size());
  settle();
  EXPECT_EQ(entryOf(key, "00:1c:73:00:00:05"), watch.table[key]);
  theirs->neighbor_entry_del(key);
  settle();
  EXPECT_EQ(entryOf(key, "00:1c:73:00:00:04"), watch.table[key]);
  does("interface-del Ethernet1");
  settle();
  EXPECT_TRUE(watch.table.empty());
  EXPECT_EQ(2u, keys(mgr->neighbor_table_iter()).size()) << "what is configured stays so";
}

TEST_P(NeighborTableTest, AKeyWithoutAddressIsRefused) {
  TestSdk sdk(*this, "tester");
  neighbor_table_mgr* mgr = sdk.get_neighbor_table_mgr();
  sdk.start();
  const neighbor_key_t none(ip_addr_t(), "Ethernet1");
  const std::function<void()> calls[] = {
      [&] { mgr->neighbor_entry_set(neighbor_entry_t(none)); },
      [&] { mgr->neighbor_entry_del(none); },
      [&] { mgr->neighbor_entry(none); },
      [&] { mgr->neighbor_entry_status(none); },
  };
  for (const auto& call : calls) {
    try {
      call();
      ADD_FAILURE() << "it was taken";
    } catch (const legacy_exception& e) {
      EXPECT_STREQ("unknown address family.", e.what());
    }
  }
  EXPECT_FALSE(mgr->neighbor_table_iter());
}

// Random entries of two agents, learned ones, interfaces that come and go: at each rest what a
// handler was told is what the table has, and that is what a model of the rules says.
TEST_P(NeighborTableTest, RandomEntriesAgainstAModel) {
  test::randomRuns(6, [&](std::mt19937& random) {
    TestSdk first(*this, "a"), second(*this, "b");
    neighbor_table_mgr* mgrs[] = {first.get_neighbor_table_mgr(), second.get_neighbor_table_mgr()};
    Watch watch(mgrs[0]);
    watch.watch_all_neighbor_entries(true);
    first.start();
    second.start();
    std::map<neighbor_key_t, std::string> own[2], learned;
    std::set<int> interfaces;
    const auto nameOf = [](int n) { return "Ethernet" + std::to_string(n); };
    const auto mac = [&] { return "00:1c:73:00:00:" + std::to_string(10 + random() % 90); };
    for (int n = 0; n < 400; ++n) {
      const int port = 1 + static_cast<int>(random() % 3);
      const bool isV4 = random() % 2;
      const auto host = static_cast<uint8_t>(1 + random() % 9);
      const neighbor_key_t key(isV4 ? v4(0x0a000000u + host) : v6(host), nameOf(port));
      const size_t who = random() % 2;
      switch (random() % 8) {
        case 0:
          does((interfaces.count(port) ? "interface-del " : "interface-add ") + nameOf(port));
          if (!interfaces.insert(port).second) {
            interfaces.erase(port);
            std::erase_if(learned, [&](auto& e) { return e.first.intf_id() == nameOf(port); });
          }
          break;
        case 1:
          mgrs[who]->neighbor_entry_del(key);
          own[who].erase(key);
          break;
        case 2:
          if (!learned.erase(key)) break;
          does("neighbor-age " + key.ip_addr().to_string() + " " + nameOf(port));
          break;
        case 3:
        case 4:
          if (!interfaces.count(port)) break;
          learned[key] = mac();
          does("neighbor-learn " + key.ip_addr().to_string() + " " + nameOf(port) + " " +
               learned[key]);
          break;
        default:
          own[who][key] = mac();
          mgrs[who]->neighbor_entry_set(entryOf(key, own[who][key]));
      }
      if (random() % 3 != 0) continue;
      settle();
      std::map<neighbor_key_t, neighbor_entry_t> wanted;
      for (auto& [k, m] : learned) wanted[k] = entryOf(k, m, NEIGHBOR_ENTRY_TYPE_DYNAMIC);
      for (const size_t agent : {size_t{1}, size_t{0}})
        for (auto& [k, m] : own[agent]) wanted[k] = entryOf(k, m);
      std::erase_if(wanted, [&](auto& e) {
        return !interfaces.count(std::stoi(e.first.intf_id().to_string().substr(8)));
      });
      ASSERT_EQ(wanted, watch.table);
      ASSERT_EQ(wanted.size(), keys(mgrs[1]->neighbor_table_status_iter()).size());
    }
    for (const int port : interfaces) does("interface-del " + nameOf(port));
    for (size_t who : {0, 1})
      for (auto& [key, m] : own[who]) mgrs[who]->neighbor_entry_del(key);
    settle();
  });
}

TEST_P(NeighborTableTest, AHundredThousandNeighboursWhileTheLoopStaysAlive) {
  constexpr uint32_t kCount = 100'000;
  TestSdk sdk(*this, "tester");
  neighbor_table_mgr* mgr = sdk.get_neighbor_table_mgr();
  struct Count : neighbor_table_handler {
    explicit Count(neighbor_table_mgr* m) : neighbor_table_handler(m) {
      watch_all_neighbor_entries(true);
    }
    void on_neighbor_entry_set(const neighbor_entry_t&) override { ++set; }
    void on_neighbor_entry_del(const neighbor_key_t&) override { ++del; }
    uint32_t set = 0, del = 0;
  } count(mgr);
  sdk.start();
  does("interface-add Ethernet1");
  const auto slow = platform::activity().counters().slowCallbacks;
  {
    const AsSwitch writes(*this);
    for (uint32_t n = 0; n < kCount; ++n)
      ASSERT_EQ("", sim.command("neighbor-learn " + v4(0x0b000000 + n).to_string() +
                                " Ethernet1 00:1c:73:00:00:01"));
  }
  settle();
  EXPECT_EQ(kCount, count.set);
  uint32_t listed = 0;
  for (auto it = mgr->neighbor_table_status_iter(); it; ++it) ++listed;
  EXPECT_EQ(kCount, listed);
  for (uint32_t n = 0; n < kCount; ++n)
    ASSERT_EQ("", sim.command("neighbor-age " + v4(0x0b000000 + n).to_string() + " Ethernet1"));
  settle();
  EXPECT_EQ(kCount, count.del);
  EXPECT_EQ(slow, platform::activity().counters().slowCallbacks);
}

TEST(NeighborValuesTest, AreRegular) {
  const neighbor_key_t key(v4(0x0a000001), "Ethernet1");
  neighbor_key_t same;
  same.ip_addr_is(v4(0x0a000001));
  same.intf_id_is("Ethernet1");
  EXPECT_EQ(key, same);
  EXPECT_EQ(key.hash(), std::hash<neighbor_key_t>()(same));
  EXPECT_LT(key, neighbor_key_t(v4(0x0a000002), "Ethernet1"));
  EXPECT_LT(key, neighbor_key_t(v4(0x0a000001), "Ethernet2"));
  EXPECT_LT(key, neighbor_key_t(v6(1), "Ethernet1"));
  neighbor_entry_t entry(key);
  EXPECT_EQ(entry, neighbor_entry_t(v4(0x0a000001), "Ethernet1"));
  entry.entry_type_is(NEIGHBOR_ENTRY_TYPE_STATIC);
  EXPECT_LT(neighbor_entry_t(key), entry);
  entry.neighbor_key_is(neighbor_key_t());
  std::ostringstream text;
  text << entry << " " << static_cast<neighbor_entry_type_t>(7);
  EXPECT_EQ(
      "neighbor_entry_t(neighbor_key=neighbor_key_t(Unknown IP address type., intf_id=), "
      "eth_addr=00:00:00:00:00:00, entry_type=NEIGHBOR_ENTRY_TYPE_STATIC) 7",
      text.str());
}

}  // namespace
}  // namespace ryx::testing
