// The collections of all interfaces against the directories of each kind: a small model, the cases
// that have rules of their own, and random operations.
#include "platform/interface/collections.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/qel/reactor.h"
#include "platform/statehub/local.h"
#include "tests/support/parsed.h"
#include "tests/support/random_runs.h"

namespace ryx::platform {
namespace {

using namespace Interface;
using test::id;

template <class AllDir>
std::map<IntfId, const Entity*> contents(const AllDir& dir) {
  std::map<IntfId, const Entity*> all;
  for (auto it = dir.intf.iterator(); it; it.next()) all[it.key()] = it->value().get();
  return all;
}

// What became of the entries of a table, as text: "+Ethernet1 -Ethernet1".
class Log : public JournalReactor {
 public:
  explicit Log(Journal& journal) : JournalReactor("Log") { follow(journal); }
  std::string take() { return std::exchange(text_, {}); }

 private:
  using Entry = decltype(AllIntfConfigDir::intf)::Entry;
  void onEntity(Entity& e, Change change) override {
    static constexpr char kSigns[] = {'+', '=', '-'};
    if (!text_.empty()) text_ += ' ';
    text_ += kSigns[static_cast<int>(change)];
    text_ += static_cast<const IntfId*>(e.keyData())->toString();
  }
  std::string text_;
};

class IntfCollectionsTest : public testing::Test {
 protected:
  void SetUp() override { view_ = std::make_unique<IntfCollections>(*em_); }
  void TearDown() override {
    for (const char* path : {"interface/config/eth/phy/slice", "interface/status/eth/phy/slice"})
      while (auto it = CollectionIterator(tree_.find<Dir>(path)->entry))
        EntityOps::remove(*it.get());
    clear<EthLagIntfConfigDir>("interface/config/eth/lag");
    clear<EthLagIntfStatusDir>("interface/status/eth/lag");
    clear<VlanIntfConfigDir>("interface/config/eth/vlan");
    clear<VlanIntfStatusDir>("interface/status/eth/vlan");
    auto* lag = tree_.find<Lag::Status>("lag/status");
    while (auto it = lag->phyIntf.iterator()) lag->phyIntf.remove(*it.get());
  }
  template <class D>
  void clear(const char* path) {
    auto* dir = tree_.find<D>(path);
    while (auto it = dir->intf.iterator()) dir->intf.remove(*it.get());
  }

  EthPhyIntfConfigDir& configSlice(const std::string& name) {
    return *tree_.make<EthPhyIntfConfigDir>("interface/config/eth/phy/slice/" + name);
  }
  EthPhyIntfStatusDir& statusSlice(const std::string& name) {
    return *tree_.make<EthPhyIntfStatusDir>("interface/status/eth/phy/slice/" + name);
  }
  static void settle() { activity().run(0); }

  Tree& tree_ = localTree();
  std::unique_ptr<EntityManager> em_ = EntityManager::embedded("view");
  std::unique_ptr<IntfCollections> view_;
};

TEST_F(IntfCollectionsTest, EveryKindIsShownUnderThePlacesOfTheParticipant) {
  // One interface of each kind is there before a second participant looks, one comes later.
  const char* const kPaths[] = {"interface/%s/eth/lag",  "interface/%s/loopback/intf",
                                "interface/%s/subintf",  "interface/%s/eth/managementactive",
                                "interface/%s/eth/vlan", "interface/%s/eth/vxlan"};
  const char* const kNames[] = {"Port-Channel", "Loopback", "Ethernet1.",
                                "Management",   "Vlan",     "Vxlan"};
  std::vector<Entity*> made;
  auto add = [&](const std::string& place, const std::string& name, size_t kind) {
    char path[64];
    std::snprintf(path, sizeof path, kPaths[kind], place.c_str());
    Entity* dir = tree_.find(path);
    const CollectionInfo& info = dir->type().collections[0];
    Ref<Entity> e = EntityOps::make(info.child());
    *static_cast<IntfId*>(e->at(e->type().keyOffset)) = id(name);
    made.push_back(dir->collection(info).add(e));
  };
  for (size_t k = 0; k < std::size(kPaths); ++k)
    for (const char* place : {"config", "status"}) add(place, kNames[k] + std::string("1"), k);
  configSlice("1").intf.create(id("Ethernet1"));
  statusSlice("1").intf.create(id("Ethernet1"));

  // At once, without a turn of the loop, and also while half of a change is there.
  auto other = EntityManager::embedded("other");
  tree_.clock().gated = true;
  IntfCollections late(*other);
  tree_.clock().openGate();
  EXPECT_EQ(contents(late.allIntfConfigDir()).size(), 7u);
  EXPECT_EQ(contents(late.allIntfStatusDir()).size(), 7u);

  for (size_t k = 0; k < std::size(kPaths); ++k)
    for (const char* place : {"config", "status"}) add(place, kNames[k] + std::string("2"), k);
  configSlice("2").intf.create(id("Ethernet2"));
  statusSlice("2").intf.create(id("Ethernet2"));
  settle();
  for (auto* view : {view_.get(), &late}) {
    EXPECT_EQ(contents(view->allIntfConfigDir()).size(), 14u);
    EXPECT_EQ(contents(view->allIntfStatusDir()).size(), 14u);
    EXPECT_EQ(contents(view->allEthPhyIntfConfigDir()).size(), 2u);
    EXPECT_EQ(contents(view->allEthPhyIntfStatusDir()).size(), 2u);
  }
  for (Entity* e : made) {
    auto key = *static_cast<const IntfId*>(e->keyData());
    auto shown = e->as<IntfConfig>() ? contents(late.allIntfConfigDir())[key]
                                     : contents(late.allIntfStatusDir())[key];
    EXPECT_EQ(shown, e) << key.toString();
  }

  // Where others look for them, and each participant its own.
  auto at = [](EntityManager& em, const char* first, const char* second) {
    auto* dir = em.localRoot().entry.find<Dir>(first);
    return dir && dir->entry.find<Dir>(second) ? dir->entry.find<Dir>(second)->entry.find("all")
                                               : nullptr;
  };
  EXPECT_EQ(at(*em_, "interface", "config"), &view_->allIntfConfigDir());
  EXPECT_EQ(at(*other, "interface", "status"), &late.allIntfStatusDir());
  EXPECT_TRUE(em_->localRoot().entry.find<AgentPlugin>("IntfCollections"));

  for (Entity* e : made) EntityOps::remove(*e);
  settle();
  EXPECT_EQ(contents(late.allIntfConfigDir()).size(), 2u);
}

TEST_F(IntfCollectionsTest, AnEntityThatIsMadeAgainIsAnotherEntry) {
  Log log(view_->allIntfConfigDir().journal);
  auto& slice = configSlice("1");
  slice.intf.create(id("Ethernet1"));
  settle();
  EXPECT_EQ(log.take(), "+Ethernet1");

  slice.intf.erase(id("Ethernet1"));
  Entity* again = slice.intf.create(id("Ethernet1"));
  settle();
  EXPECT_EQ(log.take(), "-Ethernet1 +Ethernet1");
  EXPECT_EQ(contents(view_->allIntfConfigDir()).at(id("Ethernet1")), again);

  // What comes and goes within a turn was never there.
  slice.intf.create(id("Ethernet2"));
  slice.intf.erase(id("Ethernet2"));
  settle();
  EXPECT_EQ(log.take(), "");

  // A slice that goes takes its ports along; in one that comes again they are others.
  EntityOps::remove(slice);
  configSlice("1").intf.create(id("Ethernet1"));
  settle();
  EXPECT_EQ(log.take(), "-Ethernet1 +Ethernet1");
}

TEST_F(IntfCollectionsTest, OfTwoEntitiesOfOneInterfaceTheLaterIsShown) {
  auto& first = configSlice("1");
  auto& second = configSlice("2");
  first.intf.create(id("Ethernet1"));
  Entity* moved = second.intf.create(id("Ethernet1"));
  // Whichever of the slices is looked at first.
  auto other = EntityManager::embedded("other");
  IntfCollections late(*other);
  settle();
  Log log(view_->allIntfConfigDir().journal);
  settle();
  log.take();
  for (auto* view : {view_.get(), &late}) {
    EXPECT_EQ(contents(view->allIntfConfigDir()).at(id("Ethernet1")), moved);
    EXPECT_EQ(contents(view->allEthPhyIntfConfigDir()).at(id("Ethernet1")), moved);
    EXPECT_EQ(view->conflicts(), 1u);
  }

  first.intf.erase(id("Ethernet1"));
  settle();
  EXPECT_EQ(log.take(), "");
  EXPECT_EQ(view_->conflicts(), 0u);

  // The one that is shown goes: one that still stands takes its place, as another entry.
  first.intf.create(id("Ethernet1"));
  settle();
  EXPECT_EQ(log.take(), "-Ethernet1 +Ethernet1");
  EntityOps::remove(first);
  settle();
  EXPECT_EQ(log.take(), "-Ethernet1 +Ethernet1");
  EXPECT_EQ(contents(view_->allIntfConfigDir()).at(id("Ethernet1")), moved);
  EntityOps::remove(second);
  settle();
  EXPECT_EQ(log.take(), "-Ethernet1");
  EXPECT_EQ(view_->conflicts(), 0u);
}

TEST_F(IntfCollectionsTest, KernelDevicesAreFoundByTheirPresentName) {
  auto& slice = statusSlice("1");
  auto* one = slice.intf.create(id("Ethernet1"));
  auto* two = slice.intf.create(id("Ethernet2"));
  one->deviceName.set("eth1");
  settle();
  EXPECT_EQ(view_->byKernelName("eth1"), id("Ethernet1"));
  EXPECT_EQ(view_->byKernelName("eth2"), IntfId());
  EXPECT_EQ(view_->byKernelName(""), IntfId());
  EXPECT_EQ(contents(view_->allIntfStatusLocalDir()).count(id("Ethernet2")), 0u);

  two->deviceName.set("eth1");  // two claim it: the last claim counts
  settle();
  EXPECT_EQ(view_->byKernelName("eth1"), id("Ethernet2"));
  one->deviceName.set("eth9");  // the other going changes nothing
  settle();
  EXPECT_EQ(view_->byKernelName("eth1"), id("Ethernet2"));
  one->deviceName.set("eth1");
  settle();
  EXPECT_EQ(view_->byKernelName("eth1"), id("Ethernet1"));
  EXPECT_EQ(view_->byKernelName("eth9"), IntfId());
  one->deviceName.set("");  // the other still stands
  settle();
  EXPECT_EQ(view_->byKernelName("eth1"), id("Ethernet2"));
  EXPECT_EQ(contents(view_->allIntfStatusLocalDir()).count(id("Ethernet1")), 0u);

  one->deviceName.set("eth0");  // and names that change hands within a turn
  two->deviceName.set("eth2");
  settle();
  one->deviceName.set("eth2");
  two->deviceName.set("eth0");
  settle();
  EXPECT_EQ(view_->byKernelName("eth0"), id("Ethernet2"));
  EXPECT_EQ(view_->byKernelName("eth2"), id("Ethernet1"));
  EntityOps::remove(slice);
  settle();
  EXPECT_EQ(view_->byKernelName("eth0"), IntfId());
  EXPECT_EQ(view_->byKernelName("eth2"), IntfId());
}

TEST_F(IntfCollectionsTest, TheStatusOfPortChannelsIsCopied) {
  auto* dir = tree_.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  auto* lag = tree_.find<Lag::Status>("lag/status");
  auto* status = dir->intf.create(id("Port-Channel7"));
  status->operStatus.set(1);
  auto* member = lag->phyIntf.create(id("Ethernet1"));
  member->lag.set(id("Port-Channel7"));
  settle();
  auto* copy = view_->ethLagIntfStatusDir().intf.find(id("Port-Channel7"));
  auto* memberCopy = view_->lagStatus().phyIntf.find(id("Ethernet1"));
  ASSERT_TRUE(copy && memberCopy);
  EXPECT_NE(copy, status);
  EXPECT_TRUE(EntityOps::equalAttributes(*copy, *status));
  EXPECT_TRUE(EntityOps::equalAttributes(*memberCopy, *member));

  member->active.set(true);
  dir->intf.erase(id("Port-Channel7"));
  dir->intf.create(id("Port-Channel7"))->deviceName.set("po7");
  settle();
  copy = view_->ethLagIntfStatusDir().intf.find(id("Port-Channel7"));
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->deviceName(), "po7");
  EXPECT_EQ(copy->operStatus(), 0);
  EXPECT_TRUE(memberCopy->active());
  dir->intf.erase(id("Port-Channel7"));
  lag->phyIntf.erase(id("Ethernet1"));
  settle();
  EXPECT_EQ(view_->ethLagIntfStatusDir().intf.size(), 0u);
  EXPECT_EQ(view_->lagStatus().phyIntf.size(), 0u);
}

// Ports in slices that come, go and overlap, and kernel names that are fought over, against what a
// look at everything gives.
TEST_F(IntfCollectionsTest, RandomOperations) {
  const unsigned seed = test::fromEnvironment("RYX_TEST_SEED", std::random_device()());
  SCOPED_TRACE("RYX_TEST_SEED=" + std::to_string(seed));
  const int operations = 20000 * static_cast<int>(test::testTimes());
  std::mt19937 random(seed);
  auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };

  auto* vlans = tree_.find<VlanIntfStatusDir>("interface/status/eth/vlan");
  Log log(view_->allIntfStatusDir().journal);
  std::set<std::string> mirror;
  auto takeLog = [&] {
    std::string all = log.take();
    for (size_t at = 0; at < all.size();) {
      size_t end = std::min(all.find(' ', at), all.size());
      std::string name = all.substr(at + 1, end - at - 1);
      if (all[at] == '+') {
        ASSERT_TRUE(mirror.insert(name).second) << name;
      } else if (all[at] == '-') {
        ASSERT_EQ(mirror.erase(name), 1u) << name;
      }
      at = end + 1;
    }
  };
  auto check = [&] {
    settle();
    takeLog();
    std::map<IntfId, const IntfStatus*> expected;
    std::map<std::string, std::set<IntfId>> claims;
    std::map<IntfId, int> claimants;
    auto look = [&](const auto& dir) {
      for (auto it = dir.intf.iterator(); it; it.next()) {
        const IntfStatus*& there = expected[it.key()];
        if (!there || there->generation() < it->generation())
          there = it.get()->template as<IntfStatus>();
      }
    };
    for (int s = 0; s < 3; ++s)
      if (auto* slice = tree_.find<EthPhyIntfStatusDir>("interface/status/eth/phy/slice/" +
                                                        std::to_string(s)))
        look(*slice);
    look(*vlans);
    std::map<IntfId, const Entity*> all, local;
    std::set<std::string> names;
    for (auto& [key, status] : expected) {
      all[key] = status;
      names.insert(key.toString());
      if (status->deviceName().empty()) continue;
      local[key] = status;
      claims[status->deviceName()].insert(key);
    }
    ASSERT_EQ(contents(view_->allIntfStatusDir()), all);
    ASSERT_EQ(contents(view_->allIntfStatusLocalDir()), local);
    ASSERT_EQ(mirror, names);
    for (int n = 0; n < 6; ++n) {
      const std::string name = "eth" + std::to_string(n);
      const IntfId found = view_->byKernelName(name);
      ASSERT_TRUE(claims.count(name) ? claims[name].count(found) : found.isEmpty()) << name;
    }
  };

  for (int i = 0; i < operations && !HasFatalFailure(); ++i) {
    const std::string slice = std::to_string(pick(3));
    const IntfId key = id("Ethernet" + std::to_string(pick(4)));
    const std::string name = pick(3) ? "eth" + std::to_string(pick(6)) : "";
    switch (pick(8)) {
      case 0:
      case 1:
        statusSlice(slice).intf.create(key)->deviceName.set(name);
        break;
      case 2:
      case 3:
        statusSlice(slice).intf.erase(key);
        break;
      case 4:
        if (auto* status = statusSlice(slice).intf.find(key)) status->deviceName.set(name);
        break;
      case 5:
        vlans->intf.create(id("Vlan" + std::to_string(1 + pick(3))))->deviceName.set(name);
        break;
      case 6:
        vlans->intf.erase(id("Vlan" + std::to_string(1 + pick(3))));
        break;
      case 7:
        if (pick(4) == 0) EntityOps::remove(statusSlice(slice));
        break;
    }
    if (pick(4) == 0) check();
  }
}

}  // namespace
}  // namespace ryx::platform
