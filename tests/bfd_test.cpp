// BFD sessions: what agents ask for together, the timers, and what the simulated switch makes of
// it.
#include "ryx/bfd.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "platform/model/bfd.h"
#include "ryx/panic.h"
#include "switch/hub/supervisor.h"
#include "switch/sim/sim.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::testing {
namespace {

ip_addr_t v4(uint8_t last) {
  const uint8_t bytes[4] = {10, 0, 0, last};
  return {AF_IPV4, bytes};
}

class BfdTest : public StatehubTest {
 protected:
  void does(const std::string& line) {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command(line)) << line;
  }
  // Requests of agents.
  size_t asked() {
    size_t count = 0;
    auto* app = find<platform::Bfd::AppConfig>("bfd/config/app/ryxsdk");
    if (!app) return 0;
    for (auto vrf = app->vrf.iterator(); vrf; vrf.next()) count += vrf->peer.size();
    return count;
  }

  sim::Sim sim{tree()};
};
RYX_OVER_BOTH(BfdTest);

class Watch : public bfd_session_handler {
 public:
  explicit Watch(bfd_session_mgr* mgr) : bfd_session_handler(mgr), mgr_(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  std::map<bfd_session_key_t, bfd_session_status_t> sessions;

  void on_bfd_session_set(const bfd_session_key_t& key) override {
    EXPECT_TRUE(mgr_->exists(key)) << "inside the callback";
    lines_ += "set " + key.ip_addr().to_string() + "\n";
    EXPECT_TRUE(sessions.insert({key, BFD_SESSION_STATUS_NULL}).second);
  }
  void on_bfd_session_del(const bfd_session_key_t& key) override {
    lines_ += "del " + key.ip_addr().to_string() + "\n";
    EXPECT_EQ(1u, sessions.erase(key));
  }
  void on_bfd_session_status(const bfd_session_key_t& key, bfd_session_status_t status) override {
    std::ostringstream line;
    line << "is " << key.ip_addr().to_string() << " " << status << "\n";
    lines_ += line.str();
    ASSERT_EQ(1u, sessions.count(key));
    EXPECT_NE(status, std::exchange(sessions[key], status));
  }

 private:
  bfd_session_mgr* mgr_;
  std::string lines_;
};

TEST_P(BfdTest, ASessionComesAndIsFollowed) {
  does("interface-add Ethernet1");
  TestSdk sdk(*this, "tester");
  bfd_session_mgr* mgr = sdk.get_bfd_session_mgr();
  const bfd_session_key_t multihop(v4(1), "default", BFD_SESSION_TYPE_MULTIHOP, intf_id_t()),
      onLink(v4(2), "default", BFD_SESSION_TYPE_NORMAL, "Ethernet1");
  Watch all(mgr), one(mgr);
  all.watch_all_bfd_sessions(true);
  one.watch_bfd_session(onLink, true);
  EXPECT_THROW(mgr->session_iter(), legacy_exception);
  sdk.start();
  EXPECT_FALSE(mgr->exists(multihop));
  EXPECT_EQ(BFD_SESSION_STATUS_NULL, mgr->session_status(multihop));
  EXPECT_EQ(bfd_session_t(), mgr->session(multihop));
  mgr->session_set(multihop);
  settle();
  EXPECT_EQ("set 10.0.0.1\nis 10.0.0.1 BFD_SESSION_STATUS_UP\n", all.told());
  mgr->session_set(onLink);
  settle();
  EXPECT_EQ("set 10.0.0.2\nis 10.0.0.2 BFD_SESSION_STATUS_DOWN\n", one.told());
  does("oper-status Ethernet1 1");
  settle();
  EXPECT_EQ("is 10.0.0.2 BFD_SESSION_STATUS_UP\n", one.told());
  bfd_session_t session(onLink);
  session.status_is(BFD_SESSION_STATUS_UP);
  EXPECT_EQ(session, mgr->session(onLink));
  // Held in each state; one that is no status of ours is none.
  for (const auto& [state, told] : std::initializer_list<std::pair<const char*, const char*>>{
           {"init", "INIT"}, {"admin-down", "ADMIN_DOWN"}, {"other", "NULL"}, {"down", "DOWN"}}) {
    does(std::string("bfd-peer 10.0.0.2 default Ethernet1 ") + state);
    settle();
    EXPECT_EQ("is 10.0.0.2 BFD_SESSION_STATUS_" + std::string(told) + "\n", one.told());
  }
  does("interface-del Ethernet1");
  settle();
  does("bfd-peer 10.0.0.2 default Ethernet1 auto");
  settle();
  EXPECT_EQ("", one.told()) << "it is down still";
  std::set<std::string> keys;
  for (auto it = mgr->session_iter(); it; ++it) keys.insert(it->to_string());
  EXPECT_EQ((std::set<std::string>{
                "bfd_session_key_t(ip_addr=10.0.0.1, vrf='default', "
                "type=BFD_SESSION_TYPE_MULTIHOP, intf=)",
                "bfd_session_key_t(ip_addr=10.0.0.2, vrf='default', type=BFD_SESSION_TYPE_NORMAL, "
                "intf=Ethernet1)"}),
            keys);
  mgr->session_del(onLink);
  mgr->session_del(onLink);
  settle();
  EXPECT_EQ("del 10.0.0.2\n", one.told());
  EXPECT_EQ(1u, asked());
}

TEST_P(BfdTest, ASessionIsTheirsWhoAskForIt) {
  TestSdk first(*this, "a"), second(*this, "b");
  bfd_session_mgr *mgr = first.get_bfd_session_mgr(), *other = second.get_bfd_session_mgr();
  first.start();
  second.start();
  const bfd_session_key_t key(v4(1), "default", BFD_SESSION_TYPE_NORMAL, intf_id_t());
  mgr->session_set(key);
  mgr->session_set(key);
  settle();
  other->session_set(key);
  settle();
  EXPECT_EQ(2u, asked());
  mgr->session_del(key);
  settle();
  EXPECT_TRUE(mgr->exists(key)) << "the other one asks for it";
  other->session_del(key);
  settle();
  EXPECT_FALSE(mgr->exists(key));
  EXPECT_EQ(0u, asked());
  // One asks and the other ceases to at one time.
  mgr->session_set(key);
  settle();
  mgr->session_del(key);
  other->session_set(key);
  settle();
  EXPECT_TRUE(mgr->exists(key));
  other->session_del(key);
  settle();
  // A type that is none counts as a single hop, an empty address as 0.0.0.0.
  mgr->session_set({ip_addr_t(), "default", static_cast<bfd_session_type_t>(9), intf_id_t()});
  settle();
  const uint8_t zero[4] = {};
  EXPECT_TRUE(
      mgr->exists({ip_addr_t(AF_IPV4, zero), "default", BFD_SESSION_TYPE_NORMAL, intf_id_t()}));
}

TEST_P(BfdTest, TimersAndTheirRanges) {
  TestSdk sdk(*this, "tester");
  bfd_session_mgr* mgr = sdk.get_bfd_session_mgr();
  sdk.start();
  EXPECT_EQ(bfd_interval_t(300, 300, 3), mgr->default_interval());
  mgr->default_interval_is({50, 60'000, 50});
  mgr->interval_is("Ethernet1", {300, 300, 3});
  settle();
  EXPECT_EQ(bfd_interval_t(50, 60'000, 50), mgr->interval("Ethernet2"));
  EXPECT_EQ(bfd_interval_t(300, 300, 3), mgr->interval("Ethernet1"));
  mgr->interval_reset("Ethernet1");
  mgr->interval_reset("Ethernet1");
  EXPECT_EQ(mgr->default_interval(), mgr->interval("Ethernet1"));
  const std::string multiplier =
      "BfdMultiplier::value < BfdMultiplier::min or > BfdMultiplier::max not allowed";
  const std::string interval =
      "BfdInterval::value < BfdInterval::min or > BfdInterval::max not allowed";
  const std::pair<bfd_interval_t, std::string> bad[] = {{{300, 300, 2}, multiplier},
                                                        {{300, 300, 51}, multiplier},
                                                        {{49, 300, 3}, interval},
                                                        {{300, 60'001, 3}, interval}};
  for (const auto& [value, told] : bad)
    for (const bool global : {true, false}) try {
        global ? mgr->default_interval_is(value) : mgr->interval_is("Ethernet1", value);
        ADD_FAILURE() << value << " was taken";
      } catch (const range_error& e) {
        EXPECT_EQ(told, e.what());
      }
  EXPECT_EQ(bfd_interval_t(50, 60'000, 50), mgr->default_interval());
  EXPECT_EQ(mgr->default_interval(), mgr->interval("Ethernet1")) << "nothing was left behind";
  // VRF names.
  const bfd_session_key_t longest(v4(1), std::string(100, 'v'), BFD_SESSION_TYPE_NORMAL,
                                  intf_id_t()),
      longer(v4(1), std::string(101, 'v'), BFD_SESSION_TYPE_NORMAL, intf_id_t());
  mgr->session_set(longest);
  settle();
  EXPECT_TRUE(mgr->exists(longest));
  const std::function<void()> calls[] = {
      [&] { mgr->session_set(longer); }, [&] { mgr->session_del(longer); },
      [&] { mgr->exists(longer); }, [&] { mgr->session(longer); },
      [&] { mgr->session_status(longer); }};
  for (const auto& call : calls) try {
      call();
      ADD_FAILURE() << "it was taken";
    } catch (const range_error& e) {
      EXPECT_STREQ("VrfName::bytes > VrfName::maxLength not allowed", e.what());
    }
  EXPECT_EQ(1u, asked());
}

TEST_P(BfdTest, TheRequestsOfAnAgentGoWithIt) {
  TestSdk sdks[] = {{*this, "a"}, {*this, "b"}};
  const bfd_session_key_t both(v4(1), "red", BFD_SESSION_TYPE_MULTIHOP, intf_id_t()),
      one(v4(2), "default", BFD_SESSION_TYPE_MULTIHOP, intf_id_t());
  for (TestSdk& sdk : sdks) {
    bfd_session_mgr* mgr = sdk.get_bfd_session_mgr();
    sdk.start();
    mgr->session_set(both);
  }
  sdks[0].get_bfd_session_mgr()->session_set(one);
  settle();
  EXPECT_EQ(3u, asked());
  {
    const AsSwitch writes(*this);
    hub::purgeAgent(tree(), "a");
  }
  settle();
  EXPECT_EQ(1u, asked());
  EXPECT_TRUE(sdks[1].get_bfd_session_mgr()->exists(both));
  EXPECT_FALSE(sdks[1].get_bfd_session_mgr()->exists(one));
}

// Random requests of two agents, held states and interfaces: what a handler was told is what there
// is, and what there is follows from a model.
TEST_P(BfdTest, RandomSessionsAgainstAModel) {
  test::randomRuns(6, [&](std::mt19937& random) {
    TestSdk sdks[] = {{*this, "a"}, {*this, "b"}};
    bfd_session_mgr* mgrs[] = {sdks[0].get_bfd_session_mgr(), sdks[1].get_bfd_session_mgr()};
    Watch watch(mgrs[0]);
    watch.watch_all_bfd_sessions(true);
    for (TestSdk& sdk : sdks) sdk.start();
    std::set<bfd_session_key_t> asked[2];
    std::map<std::pair<int, int>, bfd_session_status_t> held;  // by host and interface
    std::map<int, bool> interfaces;                            // and whether they are up
    const auto nameOf = [](int n) { return "Ethernet" + std::to_string(n); };
    for (int n = 0; n < 300; ++n) {
      const int host = 1 + static_cast<int>(random() % 4), port = static_cast<int>(random() % 3);
      const bfd_session_key_t key(v4(static_cast<uint8_t>(host)), random() % 2 ? "default" : "red",
                                  random() % 2 ? BFD_SESSION_TYPE_NORMAL : BFD_SESSION_TYPE_MICRO,
                                  port ? intf_id_t(nameOf(port)) : intf_id_t());
      const size_t who = random() % 2;
      switch (random() % 6) {
        case 0:
          if (port == 0) break;
          does((interfaces.count(port) ? "interface-del " : "interface-add ") + nameOf(port));
          if (!interfaces.insert({port, false}).second) interfaces.erase(port);
          break;
        case 1:
          if (!interfaces.count(port)) break;
          interfaces[port] = !interfaces[port];
          does("oper-status " + nameOf(port) + (interfaces[port] ? " 1" : " 2"));
          break;
        case 2: {
          const bool holds = random() % 2;
          does("bfd-peer " + key.ip_addr().to_string() + " default " + (port ? nameOf(port) : "-") +
               (holds ? " init" : " auto"));
          if (holds)
            held[{host, port}] = BFD_SESSION_STATUS_INIT;
          else
            held.erase({host, port});
          break;
        }
        case 3:
          mgrs[who]->session_del(key);
          asked[who].erase(key);
          break;
        default:
          mgrs[who]->session_set(key);
          asked[who].insert(key);
      }
      settle();
      std::map<bfd_session_key_t, bfd_session_status_t> wanted;
      for (const auto& keys : asked)
        for (const bfd_session_key_t& k : keys) {
          const int at = !k.intf() ? 0 : std::stoi(k.intf().to_string().substr(8));
          const auto is = held.find({k.ip_addr().bytes()[3], at});
          const auto intf = interfaces.find(at);
          const bool isUp = at == 0 || (intf != interfaces.end() && intf->second);
          wanted[k] = is != held.end() && k.vrf() == "default" ? is->second
                      : isUp                                   ? BFD_SESSION_STATUS_UP
                                                               : BFD_SESSION_STATUS_DOWN;
        }
      ASSERT_EQ(wanted, watch.sessions);
    }
    for (const auto& [port, up] : interfaces) does("interface-del " + nameOf(port));
    for (const auto& [at, state] : held)
      does("bfd-peer 10.0.0." + std::to_string(at.first) + " default " +
           (at.second ? nameOf(at.second) : "-") + " auto");
    for (const size_t who : {0, 1})
      for (const auto& key : std::set<bfd_session_key_t>(asked[who])) mgrs[who]->session_del(key);
    settle();
  });
}

TEST(BfdValuesTest, AreRegular) {
  const bfd_session_key_t key(v4(1), "default", BFD_SESSION_TYPE_NORMAL, "Ethernet1");
  bfd_session_key_t same;
  same.ip_addr_is(v4(1));
  same.vrf_is("default");
  same.type_is(BFD_SESSION_TYPE_NORMAL);
  same.intf_is("Ethernet1");
  EXPECT_EQ(key, same);
  EXPECT_EQ(key.hash(), std::hash<bfd_session_key_t>()(same));
  EXPECT_LT(key, bfd_session_key_t(v4(1), "red", BFD_SESSION_TYPE_NULL, "Ethernet1"));
  EXPECT_LT(key, bfd_session_key_t(v4(1), "default", BFD_SESSION_TYPE_MICRO, "Ethernet1"));
  bfd_session_t session(key);
  EXPECT_EQ(session, bfd_session_t(v4(1), "default", BFD_SESSION_TYPE_NORMAL, "Ethernet1"));
  session.status_is(BFD_SESSION_STATUS_INIT);
  EXPECT_LT(bfd_session_t(key), session);
  std::ostringstream text;
  text << session << bfd_interval_t(1, 2, 3) << static_cast<bfd_session_status_t>(9);
  EXPECT_EQ(
      "bfd_session_t(key=bfd_session_key_t(ip_addr=10.0.0.1, vrf='default', "
      "type=BFD_SESSION_TYPE_NORMAL, intf=Ethernet1), status=BFD_SESSION_STATUS_INIT) tx: 1, rx: "
      "2, mult: 39",
      text.str());
}

}  // namespace
}  // namespace ryx::testing
