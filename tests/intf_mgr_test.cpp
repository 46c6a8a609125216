// The managers of interfaces, from both ends: the switch creates, flaps and deletes, the agent
// hears, asks and writes.
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "platform/activity/activity.h"
#include "platform/trace/trace.h"
#include "ryx/agent.h"
#include "ryx/eth_intf.h"
#include "ryx/eth_lag_intf.h"
#include "ryx/eth_phy_intf.h"
#include "ryx/intf.h"
#include "ryx/panic.h"
#include "ryx/subintf.h"
#include "switch/base/interfaces.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"

namespace ryx {
namespace {

using namespace platform::Interface;
using feeds::IntfEntities;
using platform::IntfId;
using testing::settle;
using testing::TestSdk;

using Log = std::vector<std::string>;

IntfId id(const intf_id_t& intf) {
  return IntfId(intf.value());
}

template <class Iter>
std::set<std::string> all(Iter it) {
  std::set<std::string> names;
  for (; it; ++it) EXPECT_TRUE(names.insert(it->to_string()).second) << *it;
  return names;
}

// What a call raises, as text.
std::string raised(const std::function<void()>& call) {
  try {
    call();
  } catch (const error& e) {
    return e.what();
  }
  return "nothing";
}

// Notes every callback of the interface manager, and checks that what is told is so.
class Listener : public intf_handler {
 public:
  Listener(intf_mgr* mgr, Log& log) : intf_handler(mgr), log_(log) {}

  void on_intf_create(intf_id_t intf) override {
    note(intf, "create");
    EXPECT_TRUE(mgr_->exists(intf));
    EXPECT_EQ(1u, all(mgr_->intf_iter()).count(intf.to_string()));
    call(onCreate, intf);
  }
  void on_intf_delete(intf_id_t intf) override {
    note(intf, "delete");
    EXPECT_FALSE(mgr_->exists(intf));
    EXPECT_EQ(0u, all(mgr_->intf_iter()).count(intf.to_string()));
    EXPECT_THROW(mgr_->oper_status(intf), no_such_interface_error);
    call(onDelete, intf);
  }
  void on_oper_status(intf_id_t intf, oper_status_t status) override {
    EXPECT_EQ(mgr_->oper_status(intf), status);
    note(intf, status == INTF_OPER_UP ? "up" : status == INTF_OPER_DOWN ? "down" : "null");
  }
  void on_admin_enabled(intf_id_t intf, bool enabled) override {
    EXPECT_EQ(mgr_->admin_enabled(intf), enabled);
    note(intf, enabled ? "enabled" : "disabled");
    call(onAdmin, intf);
  }
  void on_intf_description(intf_id_t intf, const std::string& text) override {
    EXPECT_EQ(mgr_->description(intf), text);
    note(intf, "'" + text + "'");
  }

  std::function<void(intf_id_t)> onCreate, onDelete, onAdmin;

 private:
  // By a copy: it may be replaced meanwhile, or the listener go.
  static void call(std::function<void(intf_id_t)> action, intf_id_t intf) {
    if (action) action(intf);
  }
  void note(intf_id_t intf, const std::string& what) {
    log_.push_back(intf.to_string() + " " + what);
  }
  Log& log_;
};

// A listener of one of the managers of a kind.
#define KIND_LISTENER(Name, mgr_t, handler_t, iter, on_create, on_delete, watch_all) \
  class Name : public handler_t {                                                    \
   public:                                                                           \
    Name(mgr_t* mgr, Log& log) : handler_t(mgr), log_(log) { watch_all(true); }      \
    void on_create(intf_id_t intf) override {                                        \
      log_.push_back(std::string(#Name) + " +" + intf.to_string());                  \
      EXPECT_TRUE(mgr_->exists(intf));                                               \
      EXPECT_EQ(1u, all(mgr_->iter()).count(intf.to_string()));                      \
    }                                                                                \
    void on_delete(intf_id_t intf) override {                                        \
      log_.push_back(std::string(#Name) + " -" + intf.to_string());                  \
      EXPECT_FALSE(mgr_->exists(intf));                                              \
      EXPECT_EQ(0u, all(mgr_->iter()).count(intf.to_string()));                      \
    }                                                                                \
                                                                                     \
   private:                                                                          \
    Log& log_;                                                                       \
  }
KIND_LISTENER(Phy, eth_phy_intf_mgr, eth_phy_intf_handler, eth_phy_intf_iter,
              on_eth_phy_intf_create, on_eth_phy_intf_delete, watch_all_eth_phy_intfs);
KIND_LISTENER(Lag, eth_lag_intf_mgr, eth_lag_intf_handler, eth_lag_intf_iter,
              on_eth_lag_intf_create, on_eth_lag_intf_delete, watch_all_eth_lag_intfs);
KIND_LISTENER(Eth, eth_intf_mgr, eth_intf_handler, eth_intf_iter, on_eth_intf_create,
              on_eth_intf_delete, watch_all_eth_intfs);
KIND_LISTENER(Sub, subintf_mgr, subintf_handler, subintf_iter, on_subintf_create, on_subintf_delete,
              watch_all_subintfs);
KIND_LISTENER(Intf, intf_mgr, intf_handler, intf_iter, on_intf_create, on_intf_delete,
              watch_all_intfs);

class IntfMgrTest : public testing::StatehubTest {
 protected:
  // As the switch.
  IntfEntities add(const intf_id_t& intf) { return feeds::createIntf(tree(), id(intf)); }
  IntfEntities at(const intf_id_t& intf) { return feeds::findIntf(tree(), id(intf)); }
  void erase(const intf_id_t& intf) { feeds::eraseIntf(tree(), id(intf)); }
  void oper(const intf_id_t& intf, int code) {
    at(intf).status->operStatus.set(static_cast<uint8_t>(code));
  }

  // As the switch, inside a callback of the agent, whose writes end for as long.
  void asSwitch(TestSdk& agent, const std::function<void()>& call) {
    platform::Writer*& here = tree().clock().writer;
    platform::Writer*& there = agent.connection().tree().clock().writer;
    platform::Writer* const writers[] = {std::exchange(here, nullptr),
                                         std::exchange(there, nullptr)};
    call();
    for (int i = 0; i < 10; ++i) platform::activity().run(0);
    there = writers[1];
    here = writers[0];
  }

  // What was noted since the last time.
  Log heard() {
    settle();
    return std::exchange(log, {});
  }

  Log log;
};
RYX_OVER_BOTH(IntfMgrTest);

TEST_P(IntfMgrTest, WhoHearsOfWhichKindAndInWhichOrder) {
  TestSdk sdk(*this, "tester");
  Intf intf(sdk.get_intf_mgr(), log);
  Eth eth(sdk.get_eth_intf_mgr(), log);
  Phy phy(sdk.get_eth_phy_intf_mgr(), log);
  Lag lag(sdk.get_eth_lag_intf_mgr(), log);
  sdk.start();

  const std::vector<std::pair<std::string, Log>> kKinds = {
      {"Ethernet1", {"Phy", "Eth", "Intf"}},
      {"Ethernet3/1/2", {"Phy", "Eth", "Intf"}},
      {"Management1", {"Phy", "Eth", "Intf"}},
      {"Vlan10", {"Eth", "Intf"}},
      {"Port-Channel7", {"Lag", "Eth", "Intf"}},
      {"Vxlan1", {"Eth", "Intf"}},
      {"Loopback0", {"Intf"}},
      // Of the type of what they are part of.
      {"Ethernet1.100", {"Phy", "Eth", "Intf"}},
      {"Port-Channel7.5", {"Lag", "Eth", "Intf"}},
      {"Internal3", {}},
      {"Cpu", {}},
      {"PeerEthernet1", {}},
      {"PeerPort-Channel2", {}},
  };
  for (const auto& [name, who] : kKinds) {
    SCOPED_TRACE(name);
    Log created, deleted;
    for (const std::string& one : who) {
      created.push_back(one + " +" + name);
      deleted.push_back(one + " -" + name);
    }
    add(name);
    EXPECT_EQ(created, heard());
    EXPECT_EQ(!who.empty(), sdk.get_intf_mgr()->exists(name));
    erase(name);
    EXPECT_EQ(deleted, heard());
  }

  // A kind that has no manager: it is there, and nobody is told that it came.
  tree().find<VlanIntfConfigDir>("interface/config/eth/vlan")->intf.create(id("Tunnel1"));
  EXPECT_EQ(Log(), heard());
  EXPECT_EQ(std::set<std::string>{"Tunnel1"}, all(sdk.get_intf_mgr()->intf_iter()));
  EXPECT_FALSE(sdk.get_eth_intf_mgr()->exists("Tunnel1"));
}

TEST_P(IntfMgrTest, EachManagerWorksAlone) {
  Log sub;
  TestSdk subs(*this, "subs");
  Sub s(subs.get_subintf_mgr(), sub);
  subs.start();
  Log lag;
  TestSdk lags(*this, "lags");
  Lag l(lags.get_eth_lag_intf_mgr(), lag);
  lags.start();
  EXPECT_EQ(subs.get_subintf_mgr(), subs.get_subintf_mgr());

  for (const char* name : {"Ethernet1", "Ethernet1.1", "Port-Channel1", "Port-Channel1.9"})
    add(name);
  settle();
  EXPECT_EQ((std::set<std::string>{"Sub +Ethernet1.1", "Sub +Port-Channel1.9"}),
            std::set<std::string>(sub.begin(), sub.end()));
  EXPECT_EQ((std::set<std::string>{"Lag +Port-Channel1", "Lag +Port-Channel1.9"}),
            std::set<std::string>(lag.begin(), lag.end()));
  EXPECT_EQ((std::set<std::string>{"Ethernet1.1", "Port-Channel1.9"}),
            all(subs.get_subintf_mgr()->subintf_iter()));
  sub.clear();
  erase("Ethernet1.1");
  add("Ethernet1.1");
  erase("Port-Channel1.9");
  settle();
  EXPECT_EQ(3u, sub.size());
  EXPECT_LT(std::find(sub.begin(), sub.end(), "Sub -Ethernet1.1"),
            std::find(sub.begin(), sub.end(), "Sub +Ethernet1.1"));

  // One interface alone, and no longer.
  class One : public subintf_handler {
   public:
    using subintf_handler::subintf_handler;
    void on_subintf_create(intf_id_t) override { ++created; }
    int created = 0;
  } one(subs.get_subintf_mgr());
  one.watch_subintf("Ethernet9.9", true);
  add("Ethernet9.9");
  add("Ethernet9.8");
  settle();
  one.watch_subintf("Ethernet9.9", false);
  erase("Ethernet9.9");
  settle();
  add("Ethernet9.9");
  settle();
  EXPECT_EQ(1, one.created);
}

TEST_P(IntfMgrTest, WhatIsThereAtTheStart) {
  for (const char* name : {"Ethernet1", "Ethernet2", "Ethernet3", "Internal1", "PeerEthernet1"})
    add(name);
  oper("Ethernet1", 1);
  oper("Ethernet2", 7);
  oper("Internal1", 1);
  at("Ethernet1").config->description.set("uplink");
  at("Ethernet1").config->adminEnabledStateLocal.set(2);
  tree().find<VlanIntfConfigDir>("interface/config/eth/vlan")->intf.create(id("Vlan1"));

  TestSdk sdk(*this, "tester");
  intf_mgr* mgr = sdk.get_intf_mgr();
  class Agent : public agent_handler {
   public:
    Agent(agent_mgr* agents, std::function<void()> call)
        : agent_handler(agents), call_(std::move(call)) {}
    void on_initialized() override { call_(); }

   private:
    std::function<void()> call_;
  } agent(sdk.get_agent_mgr(), [&] {
    log.push_back("initialized");
    EXPECT_EQ((std::set<std::string>{"Ethernet1", "Ethernet2", "Ethernet3", "Vlan1"}),
              all(mgr->intf_iter()));
    EXPECT_EQ("uplink", mgr->description("Ethernet1"));
    EXPECT_FALSE(mgr->admin_enabled("Ethernet1"));
    EXPECT_EQ(INTF_OPER_NULL, mgr->oper_status("Vlan1"));  // it has no status
  });
  EXPECT_EQ(
      "SDK not initialized -- did you forget to wait for your agent_handler to call "
      "on_initialized?",
      raised([&] { mgr->exists("Ethernet1"); }));
  Listener everything(mgr, log);
  everything.watch_all_intfs(true);
  sdk.start();

  ASSERT_FALSE(log.empty());
  EXPECT_EQ("initialized", log[0]);
  EXPECT_EQ((std::set<std::string>{"initialized", "Ethernet1 up", "Ethernet2 down"}),
            std::set<std::string>(log.begin(), log.end()));
  EXPECT_EQ(3u, log.size());
  log.clear();

  // And from there on it is as if it had been heard of.
  oper("Ethernet1", 2);
  erase("Ethernet2");
  at("Ethernet3").config->adminEnabledStateLocal.set(2);
  Log now = heard();
  std::sort(now.begin(), now.end());
  EXPECT_EQ((Log{"Ethernet1 down", "Ethernet2 delete", "Ethernet3 disabled"}), now);
}

TEST_P(IntfMgrTest, StatusCodes) {
  add("Ethernet1");
  TestSdk sdk(*this, "tester");
  Listener everything(sdk.get_intf_mgr(), log);
  everything.watch_all_intfs(true);
  sdk.start();
  EXPECT_EQ(Log(), heard());

  using Step = std::pair<int, const char*>;
  for (auto [code, told] : {Step{2, "down"},
                            {7, ""},
                            {1, "up"},
                            {0, "null"},
                            {3, ""},
                            {4, ""},
                            {8, ""},
                            {255, ""},
                            {5, "down"},
                            {6, ""},
                            {1, "up"},
                            {6, "down"}}) {
    SCOPED_TRACE(code);
    oper("Ethernet1", code);
    EXPECT_EQ(*told ? Log{"Ethernet1 " + std::string(told)} : Log(), heard());
    EXPECT_EQ(code == 1                               ? INTF_OPER_UP
              : code == 2 || (code >= 5 && code <= 7) ? INTF_OPER_DOWN
                                                      : INTF_OPER_NULL,
              sdk.get_intf_mgr()->oper_status("Ethernet1"));
  }

  // A flap that is over before anybody looked was none; several are told as the last.
  oper("Ethernet1", 1);
  oper("Ethernet1", 2);
  EXPECT_EQ(Log(), heard());
  oper("Ethernet1", 1);
  oper("Ethernet1", 0);
  oper("Ethernet1", 1);
  EXPECT_EQ(Log{"Ethernet1 up"}, heard());

  // A status that goes means: nothing is known. One that comes back the same is no news.
  platform::EntityOps::remove(*at("Ethernet1").status);
  add("Ethernet1");
  oper("Ethernet1", 1);
  EXPECT_EQ(Log(), heard());
  platform::EntityOps::remove(*at("Ethernet1").status);
  EXPECT_EQ(Log{"Ethernet1 null"}, heard());
  add("Ethernet1");
  EXPECT_EQ(Log(), heard());
  oper("Ethernet1", 2);
  EXPECT_EQ(Log{"Ethernet1 down"}, heard());
}

TEST_P(IntfMgrTest, CreationComesBeforeStatusAndDeletionBeforeCreation) {
  TestSdk sdk(*this, "tester");
  Listener everything(sdk.get_intf_mgr(), log);
  everything.watch_all_intfs(true);
  sdk.start();

  // A status that is there first waits for its interface.
  auto& slice = *tree().make<EthPhyIntfStatusDir>("interface/status/eth/phy/slice/1");
  slice.intf.create(id("Ethernet1"))->operStatus.set(1);
  EXPECT_EQ(Log(), heard());
  EXPECT_FALSE(sdk.get_intf_mgr()->exists("Ethernet1"));
  add("Ethernet1");
  EXPECT_EQ((Log{"Ethernet1 create", "Ethernet1 up"}), heard());

  erase("Ethernet1");
  add("Ethernet1").config->description.set("another");
  oper("Ethernet1", 1);
  EXPECT_EQ((Log{"Ethernet1 delete", "Ethernet1 create", "Ethernet1 up"}), heard());
  EXPECT_EQ("another", sdk.get_intf_mgr()->description("Ethernet1"));
  at("Ethernet1").config->description.set("the new one is followed");
  EXPECT_EQ(Log{"Ethernet1 'the new one is followed'"}, heard());

  // The configuration alone is made anew.
  platform::EntityOps::remove(*at("Ethernet1").config);
  add("Ethernet1");
  EXPECT_EQ((Log{"Ethernet1 delete", "Ethernet1 create", "Ethernet1 up"}), heard());

  add("Ethernet2");
  erase("Ethernet2");
  EXPECT_EQ(Log(), heard());

  // A card that moves: the port goes and comes, and is then the one of the new slot.
  auto& moved = *tree().make<EthPhyIntfConfigDir>("interface/config/eth/phy/slice/2");
  auto* config = moved.intf.create(id("Ethernet1"));
  EXPECT_EQ((Log{"Ethernet1 delete", "Ethernet1 create", "Ethernet1 up"}), heard());
  sdk.get_intf_mgr()->description_is("Ethernet1", "moved");
  EXPECT_EQ(Log{"Ethernet1 'moved'"}, heard());
  EXPECT_EQ("moved", config->description());
  platform::EntityOps::remove(*tree().find("interface/config/eth/phy/slice/1"));
  EXPECT_EQ(Log(), heard());
}

TEST_P(IntfMgrTest, WhatTheAgentWrites) {
  TestSdk sdk(*this, "tester"), other(*this, "other");
  intf_mgr* mgr = sdk.get_intf_mgr();
  Listener one(mgr, log), elsewhere(other.get_intf_mgr(), log);
  one.watch_intf("Ethernet1", true);
  elsewhere.watch_all_intfs(true);
  sdk.start();
  other.start();
  for (const char* name : {"Ethernet1", "Port-Channel1", "Loopback0", "Vlan7", "Management1",
                           "Vxlan1", "Ethernet1.5"}) {
    add(name);
    settle();
    log.clear();
    SCOPED_TRACE(name);
    EXPECT_TRUE(mgr->admin_enabled(name));
    mgr->admin_enabled_is(name, false);
    mgr->description_is(name, "as text");
    EXPECT_FALSE(mgr->admin_enabled(name));
    EXPECT_EQ("as text", mgr->description(name));  // at once
    Log now = heard();
    std::sort(now.begin(), now.end());
    Log expected(name == std::string("Ethernet1") ? 2 : 1, name + std::string(" disabled"));
    expected.insert(expected.begin(), expected.size(), name + std::string(" 'as text'"));
    EXPECT_EQ(expected, now);
    EXPECT_EQ(2, at(name).config->adminEnabledStateLocal());
    EXPECT_EQ("as text", at(name).config->description());

    // What is so already is no change.
    mgr->admin_enabled_is(name, false);
    mgr->description_is(name, std::string("as text"));
    EXPECT_EQ(Log(), heard());
    mgr->admin_enabled_is(name, true);
    mgr->description_is(name, nullptr);
    settle();
    EXPECT_EQ(1, at(name).config->adminEnabledStateLocal());
    EXPECT_EQ("", at(name).config->description());
  }
  // A text is any bytes, and many of them.
  const std::string odd = std::string("a\0b\xff\n", 5) + std::string(100000, 'x');
  mgr->description_is("Vlan7", odd);
  settle();
  EXPECT_EQ(odd, at("Vlan7").config->description());
}

TEST_P(IntfMgrTest, InterfacesThatAreNotThere) {
  for (const char* name : {"Internal1", "Cpu", "PeerEthernet1", "PeerPort-Channel3"}) {
    add(name);
    oper(name, 1);
    at(name).status->deviceName.set(name);
  }
  TestSdk sdk(*this, "tester");
  intf_mgr* mgr = sdk.get_intf_mgr();
  Listener everything(mgr, log);
  everything.watch_all_intfs(true);
  sdk.start();
  EXPECT_EQ(std::set<std::string>(), all(mgr->intf_iter()));

  std::vector<intf_id_t> missing = {intf_id_t(), "Ethernet1", "Null0",
                                    intf_id_t::from_value(0xfe00000000000001u)};
  for (const char* name : {"Internal1", "Cpu", "PeerEthernet1", "PeerPort-Channel3"}) {
    EXPECT_TRUE(is_internal_interface(name)) << name;
    missing.push_back(name);
  }
  for (const char* name : {"Ethernet1", "Management0", "Null0", "Port-Channel1.1"})
    EXPECT_FALSE(is_internal_interface(name)) << name;
  for (intf_id_t intf : missing) {
    SCOPED_TRACE(intf);
    const std::string text = "No such interface: " + intf.to_string();
    EXPECT_FALSE(mgr->exists(intf));
    EXPECT_EQ(text, raised([&] { mgr->admin_enabled(intf); }));
    EXPECT_EQ(text, raised([&] { mgr->admin_enabled_is(intf, false); }));
    EXPECT_EQ(text, raised([&] { mgr->description(intf); }));
    EXPECT_EQ(text, raised([&] { mgr->description_is(intf, "x"); }));
    EXPECT_EQ(text, raised([&] { mgr->description_is(intf, std::string("x")); }));
    EXPECT_EQ(text, raised([&] { mgr->oper_status(intf); }));
    EXPECT_THROW(mgr->oper_status(intf), no_such_interface_error);
    EXPECT_EQ("", mgr->kernel_intf_name(intf));
  }
  // And they raise no events, whatever happens to them.
  oper("PeerEthernet1", 2);
  at("Internal1").config->description.set("x");
  at("Cpu").config->adminEnabledStateLocal.set(2);
  erase("Cpu");
  EXPECT_EQ(Log(), heard());
  EXPECT_EQ(0, at("PeerEthernet1").config->adminEnabledStateLocal());
}

TEST_P(IntfMgrTest, KernelNames) {
  add("Ethernet1").status->deviceName.set("eth1");
  add("Port-Channel1").status->deviceName.set("po1");
  add("Internal1").status->deviceName.set("internal");
  add("Loopback0");
  TestSdk sdk(*this, "tester");
  intf_mgr* mgr = sdk.get_intf_mgr();
  sdk.start();
  EXPECT_EQ(intf_id_t("Ethernet1"), mgr->ryx_intf_name("eth1"));
  EXPECT_EQ(intf_id_t("Port-Channel1"), mgr->ryx_intf_name("po1"));
  EXPECT_EQ("eth1", mgr->kernel_intf_name("Ethernet1"));
  EXPECT_EQ("po1", mgr->kernel_intf_name("Port-Channel1"));

  ASSERT_EQ("", platform::setTraceFromText("RyxSdkIntf/0-9"));
  ::testing::internal::CaptureStderr();
  for (const char* name : {"eth2", "", "internal"}) EXPECT_TRUE(!mgr->ryx_intf_name(name)) << name;
  for (const char* name : {"Loopback0", "Ethernet2", "Internal1"})
    EXPECT_EQ("", mgr->kernel_intf_name(name));
  const std::string text = ::testing::internal::GetCapturedStderr();
  ASSERT_EQ("", platform::setTraceFromText(""));
  const auto count = [&](const std::string& line) {
    size_t n = 0;
    for (size_t from = 0; (from = text.find(line, from)) != std::string::npos; ++from) ++n;
    return n;
  };
  EXPECT_EQ(3u, count("Interface does not have a valid RYX type.")) << text;
  EXPECT_EQ(3u, count("Cannot find interface in status!")) << text;

  at("Ethernet1").status->deviceName.set("renamed");
  settle();
  EXPECT_TRUE(!mgr->ryx_intf_name("eth1"));
  EXPECT_EQ(intf_id_t("Ethernet1"), mgr->ryx_intf_name("renamed"));
  EXPECT_EQ("renamed", mgr->kernel_intf_name("Ethernet1"));
}

// What handlers may do inside a callback.
TEST_P(IntfMgrTest, HandlersThatInterfere) {
  TestSdk sdk(*this, "tester");
  intf_mgr* mgr = sdk.get_intf_mgr();
  auto first = std::make_unique<Listener>(mgr, log);
  first->watch_all_intfs(true);
  sdk.start();

  // The loop runs inside a callback: no status overtakes a creation.
  std::set<std::string> created;
  first->onCreate = [&](intf_id_t intf) {
    created.insert(intf.to_string());
    asSwitch(sdk, [] {});
  };
  for (int i = 1; i <= 20; ++i) {
    const std::string name = "Ethernet" + std::to_string(i);
    add(name);
    oper(name, 1);
  }
  Log now = heard();
  EXPECT_EQ(20u, created.size());
  EXPECT_EQ(40u, now.size());
  std::set<std::string> known;
  for (const std::string& line : now) {
    const std::string name = line.substr(0, line.find(' '));
    if (line.ends_with(" create"))
      known.insert(name);
    else
      EXPECT_EQ(1u, known.count(name)) << line;
  }

  // It deletes the interface that is being told, or makes it anew.
  first->onCreate = [&](intf_id_t intf) {
    first->onCreate = nullptr;
    asSwitch(sdk, [&] { erase(intf); });
  };
  add("Ethernet30");
  oper("Ethernet30", 1);
  EXPECT_EQ((Log{"Ethernet30 create", "Ethernet30 delete"}), heard());
  first->onDelete = [&](intf_id_t intf) {
    first->onDelete = nullptr;
    EXPECT_FALSE(mgr->exists(intf));
    asSwitch(sdk, [&] {
      add(intf);
      oper(intf, 2);
      EXPECT_FALSE(mgr->exists(intf));  // until its creation is told
    });
    EXPECT_TRUE(mgr->exists(intf));
  };
  erase("Ethernet1");
  EXPECT_EQ((Log{"Ethernet1 delete", "Ethernet1 create", "Ethernet1 down"}), heard());

  // It throws: the others miss that one event, and nothing else is lost.
  Listener second(mgr, log);
  second.watch_intf("Ethernet40", true);
  first->onCreate = [&](intf_id_t) {
    first->onCreate = nullptr;
    throw std::runtime_error("thrown");
  };
  add("Ethernet40");
  oper("Ethernet40", 1);
  EXPECT_THROW(settle(), std::runtime_error);
  EXPECT_EQ((Log{"Ethernet40 create", "Ethernet40 up", "Ethernet40 up"}), heard());
  first->onAdmin = [&](intf_id_t) {
    first->onAdmin = nullptr;
    throw std::runtime_error("thrown");
  };
  at("Ethernet40").config->description.set("kept");
  at("Ethernet40").config->adminEnabledStateLocal.set(2);
  EXPECT_THROW(settle(), std::runtime_error);
  EXPECT_EQ((Log{"Ethernet40 disabled", "Ethernet40 'kept'", "Ethernet40 'kept'"}), heard());

  // It writes what it is being told.
  second.onAdmin = [&](intf_id_t intf) { mgr->description_is(intf, "from inside"); };
  first->onAdmin = [&](intf_id_t) { first.reset(); };  // and goes
  at("Ethernet40").config->adminEnabledStateLocal.set(1);
  now = heard();
  std::sort(now.begin(), now.end());
  EXPECT_EQ((Log{"Ethernet40 'from inside'", "Ethernet40 enabled", "Ethernet40 enabled"}), now);
  EXPECT_EQ("from inside", at("Ethernet40").config->description());
}

// Random operations of the switch and of two agents, against a mirror that is built from what one
// of them hears alone.
TEST_P(IntfMgrTest, MirrorFromCallbacks) {
  const unsigned seed = test::fromEnvironment("RYX_TEST_SEED", std::random_device()());
  SCOPED_TRACE("RYX_TEST_SEED=" + std::to_string(seed));
  const int operations = 5000 * static_cast<int>(test::testTimes());
  std::mt19937 random(seed);
  const auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };

  const std::vector<std::string> kNames = {"Ethernet1",     "Ethernet2",       "Ethernet2.7",
                                           "Port-Channel3", "Port-Channel3.1", "Vlan4",
                                           "Loopback5",     "Internal6",       "PeerEthernet7",
                                           "Management8",   "Vxlan9",          "Ethernet1/2/3"};
  struct Known {
    bool enabled;
    std::string description;
    oper_status_t status = INTF_OPER_NULL;
    bool operator==(const Known&) const = default;
  };
  using Mirror = std::map<std::string, Known>;
  class Follower : public intf_handler {
   public:
    explicit Follower(intf_mgr* mgr) : intf_handler(mgr) { watch_all_intfs(true); }
    void start() {
      for (auto it = mgr_->intf_iter(); it; ++it) learn(*it);
    }
    void on_intf_create(intf_id_t intf) override { EXPECT_TRUE(learn(intf)) << intf; }
    void on_intf_delete(intf_id_t intf) override {
      EXPECT_EQ(1u, mirror.erase(intf.to_string())) << intf;
    }
    void on_oper_status(intf_id_t intf, oper_status_t status) override {
      Known& known = at(intf);
      EXPECT_NE(known.status, status) << intf;
      known.status = status;
    }
    void on_admin_enabled(intf_id_t intf, bool enabled) override { at(intf).enabled = enabled; }
    void on_intf_description(intf_id_t intf, const std::string& d) override {
      at(intf).description = d;
    }
    Mirror mirror;

   private:
    bool learn(intf_id_t intf) {
      return mirror
          .emplace(intf.to_string(), Known{mgr_->admin_enabled(intf), mgr_->description(intf)})
          .second;
    }
    Known& at(intf_id_t intf) {
      EXPECT_EQ(1u, mirror.count(intf.to_string())) << intf << " is not known";
      return mirror[intf.to_string()];
    }
  };

  std::unique_ptr<TestSdk> agents[2];
  std::unique_ptr<Follower> followers[2];
  const auto start = [&](int n) {
    followers[n].reset();
    agents[n].reset();
    settle();
    agents[n] = std::make_unique<TestSdk>(*this, "agent" + std::to_string(n));
    agents[n]->get_intf_mgr();
    agents[n]->start();
    // Registered late, it has missed the first reports of the status.
    followers[n] = std::make_unique<Follower>(agents[n]->get_intf_mgr());
    followers[n]->start();
    for (auto& [name, known] : followers[n]->mirror)
      known.status = agents[n]->get_intf_mgr()->oper_status(name);
  };
  start(0);
  start(1);

  for (int i = 0; i < operations && !HasFailure(); ++i) {
    const std::string& name = kNames[static_cast<size_t>(pick(static_cast<int>(kNames.size())))];
    const IntfEntities there = at(name);
    intf_mgr* mgr = agents[pick(2)]->get_intf_mgr();
    switch (pick(10)) {
      case 0:
      case 1:
        add(name);
        break;
      case 2:
        erase(name);
        break;
      case 3:
        if (there.config) platform::EntityOps::remove(*there.config);
        break;
      case 4:
        if (there.status) platform::EntityOps::remove(*there.status);
        break;
      case 5:
      case 6:
        if (there.status) there.status->operStatus.set(static_cast<uint8_t>(pick(9)));
        break;
      case 7:
        if (mgr->exists(name)) mgr->admin_enabled_is(name, pick(2) != 0);
        break;
      case 8:
        if (mgr->exists(name)) mgr->description_is(name, std::to_string(pick(1000)));
        break;
      case 9:
        if (there.config) there.config->adminEnabledStateLocal.set(static_cast<uint8_t>(pick(3)));
        break;
    }
    if (pick(500) == 0) start(pick(2));
    if (pick(4) != 0) continue;
    settle();
    for (int n = 0; n < 2; ++n) {
      mgr = agents[n]->get_intf_mgr();
      Mirror state;
      for (const std::string& each : kNames) {
        const IntfEntities now = at(each);
        if (!now.config || is_internal_interface(each)) continue;
        const int code = now.status ? now.status->operStatus() : 0;
        state[each] = {now.config->adminEnabled(), now.config->description(),
                       code == 1                              ? INTF_OPER_UP
                       : code == 2 || (code >= 5 && code < 8) ? INTF_OPER_DOWN
                                                              : INTF_OPER_NULL};
        ASSERT_EQ(state[each],
                  (Known{mgr->admin_enabled(each), mgr->description(each), mgr->oper_status(each)}))
            << each << " after " << i;
      }
      ASSERT_EQ(state, followers[n]->mirror) << "agent " << n << " after " << i;
    }
  }
  followers[0].reset();
  followers[1].reset();
}

}  // namespace
}  // namespace ryx
