// The link between a hub and participants, over socketpairs in one process: mounts, changes both
// ways, order at cuts, acknowledgement, refusal and repair, private places, loss and return,
// hostile bytes.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/model/interface.h"
#include "platform/model/routing.h"
#include "platform/model/wellknown.h"
#include "platform/qel/reactor.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "platform/statehub/wire.h"
#include "tests/support/mirror.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::platform {
namespace {

using Interface::EthLagIntfConfigDir;
using Interface::EthLagIntfStatusDir;
using ryx::testing::settle;

struct Peer {
  std::unique_ptr<EntityManager> em;
  std::unique_ptr<MountGroup> group;
  MountStatus status = MountStatus::pending;

  void mount(std::vector<MountRequest> requests) {
    group = em->mountGroup();
    status = MountStatus::pending;
    for (auto& r : requests) group->add(r.path, r.typeName, r.mode);
    group->close([this](MountStatus s) { status = s; });
    settle();
  }
};

class LinkTest : public ::testing::Test {
 public:
  struct Sockets {
    int participant, client, hub;
  };

 protected:
  LinkTest() { makeWellKnown(tree); }
  // A participant's end, what it is connected to, and what the hub is.
  Sockets sockets() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    return {fds[0], fds[1], socket()};
  }
  VirtualClock time;  // no cut is forced unless a test lets time pass
  int socket() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    hub->accept(fds[0]);
    return fds[1];
  }
  Peer peer(const char* name, std::vector<MountRequest> mounts) {
    Peer p;
    p.em = EntityManager::overSocket(socket(), name);
    if (!mounts.empty()) p.mount(std::move(mounts));
    return p;
  }

  Tree tree;
  std::unique_ptr<Hub> hub = std::make_unique<Hub>(tree);
};

IntfId lag(int n) {
  IntfId id;
  EXPECT_TRUE(parse("Port-Channel" + std::to_string(n), &id));
  return id;
}
const MountRequest kLagConfig{"interface/config/eth/lag", "Interface::EthLagIntfConfigDir", "w"};
const MountRequest kLagStatus{"interface/status/eth/lag", "Interface::EthLagIntfStatusDir", "r"};
const MountRequest kSlices{"interface/config/eth/phy/slice", "Qel::Dir", "w"};
const MountRequest kAgentStatus{"daemon/agent/status", "Qel::Dir", "wi"};
const MountRequest kInput{"routing/vrf/input", "Qel::Dir", "wi"};
const MountRequest kAgentConfig{"daemon/agent/config", "Qel::Dir", "w"};
const std::vector<MountRequest> kAllMounts{kLagConfig, kSlices, kAgentConfig, kAgentStatus, kInput};
// What a follower of a journal believes to be there, from what it is told alone.
class Mirror : public JournalReactor {
 public:
  explicit Mirror(Journal& journal, bool deep = false) : JournalReactor("Mirror") {
    follow(journal, deep);
  }
  std::map<Entity*, int> alive;
  int created = 0, changed = 0, deleted = 0;

 protected:
  void onEntity(Entity& e, Change c) override {
    if (c == Change::deleted) {
      ++deleted;
      EXPECT_EQ(1u, alive.erase(&e));
    } else {
      ++(c == Change::created ? created : changed);
      EXPECT_EQ(c == Change::created, alive.insert({&e, 1}).second);
    }
  }
};

TEST_F(LinkTest, MountsDeliverWhatIsThereAndEveryLaterChange) {
  auto* status = tree.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  status->intf.create(lag(1))->operStatus.set(1);
  Peer a = peer("a", {kLagStatus});
  ASSERT_EQ(MountStatus::success, a.status);
  auto* mine = a.em->find<EthLagIntfStatusDir>("interface/status/eth/lag");
  ASSERT_TRUE(mine && mine->intf.find(lag(1)));
  EXPECT_EQ(1, mine->intf.find(lag(1))->operStatus());
  Mirror mirror(mine->journal);
  settle();
  EXPECT_EQ(1, mirror.created);

  status->intf.find(lag(1))->operStatus.set(2);
  status->intf.find(lag(1))->operStatus.set(
      0);  // back to the default: an attribute that is not sent
  status->intf.create(lag(2))->deviceName.set("po2");
  settle();
  EXPECT_EQ(0, mine->intf.find(lag(1))->operStatus());
  EXPECT_EQ("po2", mine->intf.find(lag(2))->deviceName());
  EXPECT_EQ(1, mirror.changed);

  // A key deleted and made again is another entity; one made and deleted unseen is none.
  status->intf.erase(lag(1));
  status->intf.create(lag(1))->operStatus.set(7);
  status->intf.create(lag(3));
  status->intf.erase(lag(3));
  settle();
  EXPECT_EQ(7, mine->intf.find(lag(1))->operStatus());
  EXPECT_EQ(1, mirror.deleted);
  EXPECT_EQ(3, mirror.created);
  EXPECT_EQ(2u, mine->intf.size());
}

TEST_F(LinkTest, MountFailuresCarryTheirStatus) {
  struct Case {
    MountRequest request;
    MountStatus status;
  } cases[] = {
      {{"no/such/place", "Qel::Dir", "r"}, MountStatus::noSuchPath},
      {{"interface/status/eth/lag", "Qel::Dir", "r"}, MountStatus::wrongType},
      {{"interface/status/eth/lag", "No::Such", "r"}, MountStatus::wrongType},
      {{"interface/status/eth/lag", "Interface::EthLagIntfStatusDir", "x"}, MountStatus::badMode},
      {{"my/own/place", "Qel::Dir", "wc"}, MountStatus::refused},
  };
  for (auto& c : cases) {
    Peer p = peer("a", {kLagStatus, c.request});
    EXPECT_EQ(c.status, p.status) << c.request.path << " " << c.request.typeName;
  }
}

TEST_F(LinkTest, WritesReachTheHubAndTheOthersButNotTheirWriter) {
  Peer a = peer("a", {kLagConfig}), b = peer("b", {kLagConfig});
  auto* da = a.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* db = b.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* hd = tree.find<EthLagIntfConfigDir>("interface/config/eth/lag");
  Mirror seenByA(da->journal), seenByB(db->journal);
  da->intf.create(lag(5))->description.set("first");
  settle();
  ASSERT_TRUE(hd->intf.find(lag(5)));
  EXPECT_EQ("first", hd->intf.find(lag(5))->description());
  EXPECT_EQ("first", db->intf.find(lag(5))->description());
  EXPECT_EQ(a.em->batches(), a.em->acknowledged());

  // Two writers of two attributes of one entity: neither undoes the other's.
  da->intf.find(lag(5))->description.set("from a");
  db->intf.find(lag(5))->adminEnabledStateLocal.set(2);
  settle();
  for (auto* d : {da, db, hd}) {
    EXPECT_EQ("from a", d->intf.find(lag(5))->description());
    EXPECT_EQ(2, d->intf.find(lag(5))->adminEnabledStateLocal());
  }
  // Of one attribute: all end with the same value.
  da->intf.find(lag(5))->description.set("one");
  db->intf.find(lag(5))->description.set("two");
  settle();
  EXPECT_EQ(hd->intf.find(lag(5))->description(), da->intf.find(lag(5))->description());
  EXPECT_EQ(hd->intf.find(lag(5))->description(), db->intf.find(lag(5))->description());

  EXPECT_EQ(1, seenByA.created);
  EXPECT_EQ(0, seenByA.deleted);
  db->intf.erase(lag(5));
  settle();
  EXPECT_EQ(nullptr, da->intf.find(lag(5)));
  EXPECT_EQ(nullptr, hd->intf.find(lag(5)));
  EXPECT_EQ(1, seenByA.deleted);
  EXPECT_EQ(1, seenByB.deleted);
}

TEST_F(LinkTest, BothCreateOneKeyAtOnce) {
  Peer a = peer("a", {kLagConfig}), b = peer("b", {kLagConfig});
  auto* da = a.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* db = b.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* hd = tree.find<EthLagIntfConfigDir>("interface/config/eth/lag");
  da->intf.create(lag(1))->description.set("a's");
  db->intf.create(lag(1))->adminEnabledStateLocal.set(1);
  settle();
  for (auto* d : {da, db, hd}) {
    ASSERT_TRUE(d->intf.find(lag(1)));
    EXPECT_EQ("a's", d->intf.find(lag(1))->description());
    EXPECT_EQ(1, d->intf.find(lag(1))->adminEnabledStateLocal());
  }
  // One deletes it while the other writes it: the deletion holds everywhere.
  db->intf.erase(lag(1));
  da->intf.find(lag(1))->description.set("late");
  settle();
  for (auto* d : {da, db, hd}) EXPECT_EQ(nullptr, d->intf.find(lag(1)));
}

TEST_F(LinkTest, WhatTheHubRefusesIsRepaired) {
  auto* status = tree.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  status->intf.create(lag(1))->operStatus.set(1);
  MountRequest greedy = kLagStatus;
  greedy.mode = "w";  // a mode grants nothing
  Peer a = peer("a", {greedy}), other = peer("other", {kLagStatus});
  auto* mine = a.em->find<EthLagIntfStatusDir>("interface/status/eth/lag");
  auto* others = other.em->find<EthLagIntfStatusDir>("interface/status/eth/lag");
  Mirror undisturbed(others->journal);
  settle();
  // Past the participant's own guard (no WriterScope), as hostile code would.
  mine->intf.find(lag(1))->operStatus.set(2);
  mine->intf.create(lag(9));
  settle();
  EXPECT_EQ(1, mine->intf.find(lag(1))->operStatus());
  EXPECT_EQ(nullptr, mine->intf.find(lag(9)));
  mine->intf.erase(lag(1));
  settle();
  ASSERT_TRUE(mine->intf.find(lag(1)));
  EXPECT_EQ(1, mine->intf.find(lag(1))->operStatus());
  EXPECT_EQ(1, status->intf.find(lag(1))->operStatus());
  EXPECT_EQ(3u, hub->counters().refusedWrites);
  EXPECT_EQ(1, undisturbed.created);
  EXPECT_EQ(0, undisturbed.changed + undisturbed.deleted);
  // Its own guard says no at once, and nothing changes.
  WriterScope as(*a.em);
  EXPECT_FALSE(mine->intf.find(lag(1))->operStatus.set(2));
  EXPECT_EQ(nullptr, mine->intf.create(lag(9)));
  EXPECT_FALSE(mine->intf.erase(lag(1)));
  EXPECT_EQ(3u, a.em->refusals());
}

TEST_F(LinkTest, TablesInEntitiesAndOwnEntities) {
  Peer a = peer("a", {kAgentStatus}), b = peer("b", {kAgentStatus});
  auto* da = a.em->find<Dir>("daemon/agent/status");
  auto* db = b.em->find<Dir>("daemon/agent/status");
  {
    WriterScope as(*a.em);
    auto* own = da->entry.create<GenericAgent::Status>("a");
    ASSERT_TRUE(own);
    EXPECT_TRUE(own->data.set("k1", "v1"));
    EXPECT_TRUE(own->data.set("k2", std::string(10000, 'x')));
    own->running.set(true);
    EXPECT_EQ(nullptr, da->entry.create<GenericAgent::Status>("b"));
  }
  settle();
  auto* seen = db->entry.find<GenericAgent::Status>("a");
  ASSERT_TRUE(seen);
  EXPECT_TRUE(seen->running());
  ASSERT_TRUE(seen->data.get("k1"));
  EXPECT_EQ("v1", *seen->data.get("k1"));
  EXPECT_EQ(10000u, seen->data.get("k2")->size());
  da->entry.find<GenericAgent::Status>("a")->data.erase("k1");
  settle();
  EXPECT_EQ(nullptr, seen->data.get("k1"));
  Mirror mirror(db->journal);
  settle();
  da->entry.erase("a");
  settle();
  EXPECT_EQ(nullptr, db->entry.find("a"));
  EXPECT_EQ(2, mirror.deleted);  // the table's entry and the entity
}

TEST_F(LinkTest, PrivatePlacesShowTheirOwnersAlone) {
  tree.make<Dir>("routing/vrf/input/default");
  Peer a = peer("a", {kInput}), b = peer("b", {kInput}), service = peer("", {kInput});
  auto own = [](Peer& p, const char* name) {
    auto* vrf = p.em->find<Dir>("routing/vrf/input/default");
    return vrf ? vrf->entry.create<Routing::RouteInput>(name) : nullptr;
  };
  auto* ra = own(a, "RyxSdk-a");
  ASSERT_TRUE(ra);
  Routing::RouteKey key{IpPrefix(IpAddr::v4(0x0a000000), 8), 1};
  ra->route.create(key, [](auto& r) { r.routeType.init(Routing::RouteType::drop); })->tag.set(42);
  own(b, "RyxSdk-b")->route.create(key);
  settle();
  EXPECT_EQ(nullptr, b.em->find("routing/vrf/input/default/RyxSdk-a"));
  auto* served = service.em->find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  ASSERT_TRUE(served && served->route.find(key));
  EXPECT_EQ(42u, served->route.find(key)->tag());
  EXPECT_EQ(Routing::RouteType::drop, served->route.find(key)->routeType());
  EXPECT_TRUE(service.em->find("routing/vrf/input/default/RyxSdk-b"));
  // An agent's configuration outlives its process: the next one finds it.
  a.em.reset();
  settle();
  Peer again = peer("a", {kInput});
  auto* found = again.em->find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  ASSERT_TRUE(found && found->route.find(key));
  EXPECT_EQ(42u, found->route.find(key)->tag());
  found->route.find(key)->tag.set(43);
  settle();
  EXPECT_EQ(43u, served->route.find(key)->tag());
}

TEST_F(LinkTest, ReactorsRunAtCutsAlone) {
  Peer a = peer("a", {kLagStatus});
  auto* mine = a.em->find<EthLagIntfStatusDir>("interface/status/eth/lag");
  auto* status = tree.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  // Far more than a frame takes: a reactor that runs sees all of it or none.
  class AllOrNothing : public JournalReactor {
   public:
    explicit AllOrNothing(EthLagIntfStatusDir& dir) : JournalReactor("AllOrNothing"), dir_(dir) {
      follow(dir.journal);
    }
    size_t told = 0;
    size_t least = SIZE_MAX;

   protected:
    void onEntity(Entity&, Change) override {
      ++told;
      least = std::min(least, dir_.intf.size());
    }

   private:
    EthLagIntfStatusDir& dir_;
  } reactor(*mine);
  constexpr int kCount = 20000;
  for (int i = 1; i <= kCount; ++i)
    status->intf.create(lag(i))->deviceName.set("a name of some length");
  settle();
  EXPECT_EQ(size_t{kCount}, reactor.told);
  EXPECT_EQ(size_t{kCount}, reactor.least);
}

TEST_F(LinkTest, LossAndReturnShowOnlyTheDifferences) {
  auto* status = tree.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  tree.make<Dir>("routing/vrf/input/default");
  for (int i = 1; i <= 5; ++i) status->intf.create(lag(i))->operStatus.set(1);
  Peer a = peer("a", {kLagStatus, kLagConfig, kInput, kAgentStatus});
  ASSERT_EQ(MountStatus::success, a.status);
  auto* mine = a.em->find<EthLagIntfStatusDir>("interface/status/eth/lag");
  auto* config = a.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* input =
      a.em->find<Dir>("routing/vrf/input/default")->entry.create<Routing::RouteInput>("RyxSdk-a");
  auto route = [](uint32_t n) { return Routing::RouteKey{IpPrefix(IpAddr::v4(n << 8), 24), 1}; };
  for (uint32_t i = 1; i <= 100; ++i) input->route.create(route(i))->tag.set(i);
  auto* own = a.em->find<Dir>("daemon/agent/status")->entry.create<GenericAgent::Status>("a");
  own->data.set("stays", "1");
  own->data.set("goes", "1");
  config->intf.create(lag(1))->description.set("before");
  config->intf.create(lag(2))->description.set("goes");
  settle();
  Mirror mirror(mine->journal);
  settle();
  int lost = 0;
  a.em->onLostIs([&] { ++lost; });

  hub->dropAll();
  settle();
  EXPECT_EQ(1, lost);
  EXPECT_FALSE(a.em->connected());
  // Meanwhile: at the hub ...
  status->intf.find(lag(1))->operStatus.set(2);
  status->intf.erase(lag(2));
  status->intf.erase(lag(3));
  status->intf.create(lag(3))->operStatus.set(5);
  status->intf.create(lag(6));
  // ... and here.
  for (uint32_t i = 1; i <= 50; ++i) input->route.erase(route(i));
  input->route.find(route(60))->tag.set(0);
  input->route.create(route(200))->tag.set(200);
  own->data.erase("goes");
  config->intf.find(lag(1))->description.set("after");
  config->intf.erase(lag(2));
  config->intf.create(lag(3))->description.set("new");
  settle();

  a.em->reconnected(socket());
  settle();
  EXPECT_TRUE(a.em->connected());
  EXPECT_EQ(2, mine->intf.find(lag(1))->operStatus());
  EXPECT_EQ(nullptr, mine->intf.find(lag(2)));
  EXPECT_EQ(5, mine->intf.find(lag(3))->operStatus());
  EXPECT_TRUE(mine->intf.find(lag(6)));
  EXPECT_EQ(5 + 2, mirror.created);  // 3 anew, and 6
  EXPECT_EQ(2, mirror.deleted);      // 2, and 3 as it was
  EXPECT_EQ(1, mirror.changed);      // 1
  auto* hubInput = tree.find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  ASSERT_TRUE(hubInput);
  EXPECT_EQ(51u, hubInput->route.size());
  EXPECT_EQ(0u, hubInput->route.find(route(60))->tag());
  EXPECT_EQ(99u, hubInput->route.find(route(99))->tag());
  EXPECT_EQ(200u, hubInput->route.find(route(200))->tag());
  auto* hubOwn = tree.find<GenericAgent::Status>("daemon/agent/status/a");
  EXPECT_TRUE(hubOwn->data.get("stays"));
  EXPECT_FALSE(hubOwn->data.get("goes"));
  auto* hubConfig = tree.find<EthLagIntfConfigDir>("interface/config/eth/lag");
  EXPECT_EQ("after", hubConfig->intf.find(lag(1))->description());
  EXPECT_EQ(nullptr, hubConfig->intf.find(lag(2)));
  EXPECT_EQ("new", hubConfig->intf.find(lag(3))->description());
  EXPECT_EQ(51u, input->route.size());
}

TEST_F(LinkTest, AfterAShortBreakOnlyWhatHappenedIsSent) {
  constexpr uint32_t kRoutes = 20'000;
  auto* input = tree.make<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  const auto route = [](uint32_t i) {
    return Routing::RouteKey{IpPrefix(IpAddr::v4(0x0a000000 + i), 32), 1};
  };
  for (uint32_t i = 0; i < kRoutes; ++i) input->route.create(route(i));
  Peer reader = peer("", kAllMounts);
  auto* seen = reader.em->find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  const auto breaks = [&](const std::function<void()>& meanwhile) {
    hub->dropAll();
    settle();
    meanwhile();
    reader.em->reconnected(socket());
    settle();
    EXPECT_TRUE(reader.em->connected());
    EXPECT_EQ(input->route.size(), seen->route.size());
    for (auto it = input->route.iterator(); it; it.next())
      if (auto* r = seen->route.find(it.key()); !r || r->tag() != it->tag()) return uint64_t{0};
    return hub->participants()[0].bytesSent;
  };
  Mirror mirror(seen->journal);
  settle();
  EXPECT_EQ(static_cast<int>(kRoutes), mirror.created);
  const uint64_t nothing = breaks([] {});
  EXPECT_LT(nothing, 2'000u);
  const uint64_t some = breaks([&] {
    input->route.find(route(0))->tag.set(5);
    input->route.erase(route(1));
    input->route.erase(route(2));
    input->route.create(route(2))->tag.set(6);
    input->route.create(route(kRoutes));
    tree.make<Routing::RouteInput>("routing/vrf/input/other/RyxSdk-a")->route.create(route(7));
    tree.make<Dir>("interface/config/eth/phy/slice/9");
  });
  EXPECT_LT(nothing, some);
  EXPECT_LT(some, 3'000u);
  EXPECT_EQ(static_cast<int>(kRoutes) + 2, mirror.created);
  EXPECT_EQ(2, mirror.deleted);
  EXPECT_EQ(1, mirror.changed);
  EXPECT_TRUE(reader.em->find("interface/config/eth/phy/slice/9"));
  auto* other = reader.em->find<Routing::RouteInput>("routing/vrf/input/other/RyxSdk-a");
  ASSERT_TRUE(other && other->route.find(route(7)));
  EntityOps::remove(*tree.find("routing/vrf/input/other"));
  breaks([] {});
  EXPECT_FALSE(reader.em->find("routing/vrf/input/other"));
  // More deletions than are remembered: everything is compared.
  const uint64_t all = breaks([&] {
    for (uint32_t i = 100; i < 100 + 3 * Journal::kKeptTombstones; ++i)
      input->route.erase(route(i));
  });
  EXPECT_LT(200'000u, all);
  EXPECT_EQ(static_cast<int>(3 * Journal::kKeptTombstones) + 2, mirror.deleted);
  // And what happens while nobody looks for long is found all the same.
  for (int round = 0; round < 5; ++round)
    EXPECT_NE(0u, breaks([&] {
                for (uint32_t i = 0; i < 500; ++i) {
                  input->route.erase(route(10'000 + i));
                  if (i % 2 == 0) input->route.create(route(10'000 + i))->tag.set(i);
                }
              }));
}

TEST_F(LinkTest, ANewLifeOfTheHubGetsBackWhatItsParticipantsOwn) {
  tree.make<Dir>("routing/vrf/input/default");
  Peer a = peer("a", {kLagStatus, kInput, kAgentStatus});
  auto* status = tree.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  status->intf.create(lag(1))->operStatus.set(1);
  status->intf.create(lag(2))->operStatus.set(1);
  auto* input =
      a.em->find<Dir>("routing/vrf/input/default")->entry.create<Routing::RouteInput>("RyxSdk-a");
  for (uint32_t i = 1; i <= 100; ++i)
    input->route.create(Routing::RouteKey{IpPrefix(IpAddr::v4(i << 8), 24), 1})->tag.set(i);
  a.em->find<Dir>("daemon/agent/status")
      ->entry.create<GenericAgent::Status>("a")
      ->data.set("k", "v");
  settle();
  Mirror mirror(a.em->find<EthLagIntfStatusDir>("interface/status/eth/lag")->journal);
  settle();

  Tree second;
  makeWellKnown(second);
  second.make<Dir>("routing/vrf/input/default");
  second.find<EthLagIntfStatusDir>("interface/status/eth/lag")
      ->intf.create(lag(1))
      ->operStatus.set(1);
  hub = std::make_unique<Hub>(second);
  settle();
  a.em->reconnected(socket());
  settle();
  auto* back = second.find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  ASSERT_TRUE(back);
  EXPECT_EQ(100u, back->route.size());
  auto* own = second.find<GenericAgent::Status>("daemon/agent/status/a");
  ASSERT_TRUE(own && own->data.get("k"));
  EXPECT_EQ(2, mirror.created);
  EXPECT_EQ(1, mirror.deleted);  // what was the same before and after is no news
  EXPECT_EQ(0, mirror.changed);
  a.em.reset();
  hub.reset();
}

TEST_F(LinkTest, AReaderThatSleepsThroughMoreThanTheBoundEndsEqual) {
  auto* status = tree.find<EthLagIntfStatusDir>("interface/status/eth/lag");
  for (int i = 1; i <= 1000; ++i) status->intf.create(lag(i))->operStatus.set(1);
  Peer a = peer("a", {kLagStatus});
  auto* mine = a.em->find<EthLagIntfStatusDir>("interface/status/eth/lag");
  Mirror mirror(mine->journal);
  settle();
  // Nothing runs meanwhile: ever-new keys come and go, and half of the old ones.
  for (int i = 0; i < 200000; ++i) {
    status->intf.create(lag(2000 + i));
    status->intf.erase(lag(2000 + i));
    if (i < 500) status->intf.erase(lag(2 * i + 1));
  }
  EXPECT_LE(status->journal.tombstones(), Journal::kMaxTombstones + 1);
  EXPECT_GT(status->journal.overruns(), 0u);
  settle();
  EXPECT_EQ(500u, mine->intf.size());
  EXPECT_EQ(500u, mirror.alive.size());
  EXPECT_EQ(500, mirror.deleted);
  EXPECT_GE(2 * Journal::kKeptTombstones, status->journal.tombstones());
}

TEST_F(LinkTest, ASecondConnectionUnderOneNameIsRefused) {
  Peer a = peer("a", {kLagStatus, kAgentStatus});
  Peer second = peer("a", {kLagStatus});
  EXPECT_EQ(MountStatus::pending, second.status);
  EXPECT_FALSE(second.em->connected());
  EXPECT_FALSE(second.em->welcomed());
  EXPECT_EQ("another agent named 'a' is connected (process " + std::to_string(getpid()) + ")",
            second.em->farewell());
  EXPECT_TRUE(a.em->connected());
  EXPECT_EQ(1u, hub->counters().refusedNames);
  // A dead one's place is free at once, and its last words are heard first: the next one comes
  // before the hub has looked at either of the two connections.
  int toHub = dup(a.em->connections()[0]);
  Encoder last;
  last.u8(static_cast<uint8_t>(Op::mount));
  for (int n : {9, 0}) last.varint(static_cast<uint64_t>(n));
  for (const char* text : {"daemon/agent/status", "Qel::Dir", "r"}) last.text(text);
  last.u8(0);
  last.varint(0);
  const char length[] = {static_cast<char>(last.size()), 0, 0, 0};
  ASSERT_EQ(4, write(toHub, length, 4));
  ASSERT_LT(0, write(toHub, last.view().data(), last.size()));
  a.em.reset();
  close(toHub);
  Peer third;
  third.em = EntityManager::overSocket(socket(), "a");
  third.mount({kLagStatus});
  EXPECT_EQ(MountStatus::success, third.status);
  EXPECT_EQ(1u, hub->counters().refusedNames);
  EXPECT_EQ(1u, hub->sessions());
}

TEST_F(LinkTest, AnAnswerWaitsForCompany) {
  hub->lingerIs(0.001);
  Peer a = peer("a", {kLagConfig}), b = peer("b", {kLagConfig});
  auto* mine = a.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* others = b.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  mine->intf.create(lag(1))->description.set("x");
  settle();
  EXPECT_EQ("x", others->intf.find(lag(1))->description()) << "what was written does not wait";
  EXPECT_LT(a.em->acknowledged(), a.em->batches());
  time.advance(0.0005);
  settle();
  EXPECT_LT(a.em->acknowledged(), a.em->batches());
  time.advance(0.0006);
  settle();
  EXPECT_EQ(a.em->acknowledged(), a.em->batches());
  // With a change of somebody else it goes at once.
  mine->intf.find(lag(1))->description.set("y");
  settle();
  EXPECT_LT(a.em->acknowledged(), a.em->batches());
  others->intf.create(lag(2));
  settle();
  EXPECT_TRUE(mine->intf.find(lag(2)));
  EXPECT_EQ(a.em->acknowledged(), a.em->batches());
  EXPECT_LT(b.em->acknowledged(), b.em->batches());
}

// Lets nobody in but agents with short names.
class Short final : public Doorkeeper {
 public:
  std::string turnsAway(const Participant& who, const HubPeer& peer) override {
    EXPECT_EQ(getuid(), peer.uid);
    return who.role == Role::agent && who.name.size() < 3 ? "" : "too long a name";
  }
};

TEST_F(LinkTest, WhoIsTurnedAwayIsToldWhy) {
  Short keeper;
  hub->doorkeeperIs(&keeper);
  Peer longer = peer("abc", {kLagStatus}), service = peer("", {kLagStatus});
  Peer dotted = peer("a.b", {kLagStatus}), good = peer("a", {kLagStatus});
  EXPECT_EQ("too long a name", longer.em->farewell());
  EXPECT_EQ("too long a name", service.em->farewell());
  EXPECT_NE(std::string::npos, dotted.em->farewell().find("expected a name of 1 to 64 letters"));
  EXPECT_EQ(MountStatus::success, good.status);
  EXPECT_EQ(3u, hub->counters().refusedNames);
  EXPECT_EQ(0u, hub->counters().broken);
  // Whoever breaks the protocol is told so, too.
  int fd = socket();
  ASSERT_EQ(6, write(fd, "\2\0\0\0\x7f\x7f", 6));
  settle();
  char said[200] = "";
  EXPECT_LT(0, read(fd, said, sizeof said));
  EXPECT_NE(nullptr, std::strstr(said + 6, "it broke the protocol: an operation before hello"));
  close(fd);
  ASSERT_EQ(1u, hub->participants().size());
  const HubParticipant a = hub->participants()[0];
  EXPECT_EQ("a", a.name);
  EXPECT_EQ(getpid(), a.peer.pid);
  EXPECT_EQ(std::vector<std::string>{kLagStatus.path}, a.mounts);
  EXPECT_LT(0u, a.bytesReceived);
  hub->drop(a.number);
  settle();
  EXPECT_FALSE(good.em->connected());
}

TEST_F(LinkTest, WhoeverSaysNothingKeepsNobodyOut) {
  Peer a = peer("a", {kLagStatus});
  std::vector<int> mute;
  for (size_t i = 0; i < Hub::kMaxMute + 20; ++i) mute.push_back(socket());
  settle();
  EXPECT_EQ(Hub::kMaxMute + 1, hub->sessions());
  EXPECT_EQ(20u, hub->counters().mute);
  Peer b = peer("b", {kLagStatus});
  EXPECT_EQ(MountStatus::success, b.status);
  EXPECT_TRUE(a.em->connected());
  // Nor may it have the hub keep much for it.
  const uint32_t longest = kMaxFirstFrame + 1;
  ASSERT_EQ(4, write(mute.back(), &longest, 4));
  settle();
  EXPECT_EQ(Hub::kMaxMute, hub->sessions());
  for (int fd : mute) close(fd);
  settle();
  EXPECT_EQ(2u, hub->sessions());
}

TEST_F(LinkTest, WhatIsPastALimitIsRefusedToldAndCounted) {
  constexpr const char* kOwnStatus = "daemon/agent/status/a";
  hub->limitsAre({.entities = 4, .bytes = 20'000, .mounts = 2});
  Peer a = peer("a", {kAgentStatus, kLagConfig, {kOwnStatus, "GenericAgent::Status", "wc"}});
  Peer b = peer("b", {kAgentStatus});
  EXPECT_EQ(MountStatus::refused, a.status);
  EXPECT_EQ(nullptr, tree.find(kOwnStatus)) << "a mount that is refused makes nothing";
  EXPECT_EQ(1u, hub->counters().pastLimits);
  auto* mine = a.em->find<Dir>("daemon/agent/status")->entry.create<GenericAgent::Status>("a");
  for (int i = 0; i < 3; ++i) mine->data.set(std::to_string(i), "x");
  settle();
  mine->data.set("3", "x");
  settle();
  EXPECT_EQ(3u, mine->data.size()) << "the fifth entity went again";
  EXPECT_EQ(2u, hub->counters().pastLimits);
  time.advance(2);
  mine->data.erase("0");
  settle();
  mine->data.set("3", "y");
  settle();
  EXPECT_EQ("y", mine->data.get("3")->bytes()) << "what went makes room";
  // Bytes: a value grows past the bound, and is what it was again.
  mine->data.set("1", std::string(9'000, 'v'));
  mine->data.set("2", std::string(9'000, 'v'));
  settle();
  time.advance(2);
  mine->data.set("3", std::string(9'000, 'v'));
  settle();
  time.advance(2);
  mine->data.set("1", std::string(9'999, 'w'));
  settle();
  EXPECT_EQ(std::string(9'000, 'v'), mine->data.get("1")->bytes());
  EXPECT_LT(2u, hub->counters().pastLimits);
  // The same for a container's own attributes.
  Peer c = peer("c", {kInput});
  auto* input =
      c.em->find<Dir>("routing/vrf/input/default")->entry.create<Routing::RouteInput>("RyxSdk-c");
  input->showRouteKey.set(std::string(9'000, 'v'));
  settle();
  input->redistributionName.set(std::string(19'000, 'v'));
  settle();
  time.advance(2);
  input->redistributionName.set(std::string(18'000, 'w'));
  settle();
  EXPECT_EQ(std::string(19'000, 'v'), input->redistributionName());
  // The others notice nothing.
  b.em->find<Dir>("daemon/agent/status")
      ->entry.create<GenericAgent::Status>("b")
      ->running.set(true);
  settle();
  EXPECT_TRUE(tree.find<GenericAgent::Status>("daemon/agent/status/b")->running());
  EXPECT_LT(0u, hub->participants()[0].pastLimits);
  EXPECT_EQ(0u, hub->participants()[1].pastLimits);
}

struct SafeEntry : EntityType<SafeEntry> {
  static constexpr const char* kTypeName = "LinkTest::SafeEntry";
  Key<Name> key;
  Attr<"shown", std::string> shown;
  Attr<"pin", std::string, kSecret> pin;
};
struct Safe : JournalRootType<Safe> {
  static constexpr const char* kTypeName = "LinkTest::Safe";
  Key<Name> key;
  Attr<"label", std::string> label;
  Attr<"code", std::string, kSecret> code;
  Collection<"entry", SafeEntry> entry;
  Collection<"hidden", SafeEntry, kSecret> hidden;
};

TEST_F(LinkTest, SecretsGoToTheirOwnerAlone) {
  typeOf<Safe>();
  typeOf<SafeEntry>();
  auto* safe = tree.make<Safe>("daemon/agent/status/a");
  safe->label.set("box");
  safe->code.set("1234");
  safe->entry.create("x")->pin.set("5678");
  safe->entry.find("x")->shown.set("front");
  safe->hidden.create("y")->shown.set("9012");
  Peer a = peer("a", {kAgentStatus}), b = peer("b", {kAgentStatus}),
       service = peer("", {kAgentStatus});
  const auto seen = [](Peer& p) {
    auto* there = p.em->find<Safe>("daemon/agent/status/a");
    if (!there || !there->entry.find("x")) return std::string("nothing");
    auto* hidden = there->hidden.find("y");
    return there->label() + there->code() + there->entry.find("x")->shown() +
           there->entry.find("x")->pin() + (hidden ? hidden->shown() : "");
  };
  EXPECT_EQ("box1234front56789012", seen(a));
  EXPECT_EQ("boxfront", seen(b));
  EXPECT_EQ("boxfront", seen(service)) << "the model names no service for these";
  // A change of a secret reaches its owner, and what the others have stays whole.
  safe->code.set("0000");
  safe->entry.find("x")->pin.set("1111");
  safe->hidden.find("y")->shown.set("2222");
  settle();
  EXPECT_EQ("box0000front11112222", seen(a));
  EXPECT_EQ("boxfront", seen(b));
  // Nor does an answer to a write tell it.
  service.em->find<Safe>("daemon/agent/status/a")->label.set("chest");
  settle();
  EXPECT_EQ("chest0000front11112222", seen(a));
  EXPECT_EQ("chestfront", seen(service));
  EXPECT_EQ("0000", safe->code());
}

TEST_F(LinkTest, OperatorsConfigureAndWriteNoStatus) {
  Peer o;
  o.em = EntityManager::overSocket(socket(), Participant(Role::operators, "root"));
  o.mount({{"daemon/agent/config", "Qel::Dir", "w"},
           kLagConfig,
           {"interface/status/eth/lag", "", "w"}});
  ASSERT_EQ(MountStatus::success, o.status) << "of whatever type";
  o.em->find<Dir>("daemon/agent/config")
      ->entry.create<GenericAgent::Config>("a")
      ->enabled.set(true);
  o.em->find<EthLagIntfStatusDir>("interface/status/eth/lag")->intf.create(lag(1));
  settle();
  EXPECT_TRUE(tree.find<GenericAgent::Config>("daemon/agent/config/a")->enabled());
  EXPECT_EQ(0u, tree.find<EthLagIntfStatusDir>("interface/status/eth/lag")->intf.size());
  EXPECT_EQ(0u, o.em->find<EthLagIntfStatusDir>("interface/status/eth/lag")->intf.size());
  EXPECT_EQ(1u, hub->counters().refusedWrites);
  // Nobody takes a well-known place away.
  Peer service = peer("", {{"interface/config", "Qel::Dir", "w"}});
  EntityOps::remove(*service.em->find("interface/config/eth/lag"));
  settle();
  EXPECT_TRUE(tree.find("interface/config/eth/lag"));
  EXPECT_TRUE(service.em->find("interface/config/eth/lag"));
}

// A connection that dies while its first mount is under way: what is the agent's own is at the hub
// alone, and is not taken for deleted.
TEST_F(LinkTest, ALossInTheMiddleOfAMountLosesNothing) {
  tree.make<Dir>("routing/vrf/input/default");
  constexpr uint32_t kRoutes = 30'000;
  auto* input = tree.make<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
  for (uint32_t i = 0; i < kRoutes; ++i)
    input->route.create({IpPrefix(IpAddr::v4(0x0a000000 + i), 32), 1});
  const Sockets ends = sockets();
  Peer a;
  a.em = EntityManager::overSocket(ends.participant, "a");
  a.group = a.em->mountGroup();
  a.group->add(kInput.path, kInput.typeName, kInput.mode);
  a.group->close([&](MountStatus s) { a.status = s; });
  auto* mine = [&]() -> Routing::RouteInput* {
    for (char buffer[4096];;) {  // some of it passes
      activity().run(0);
      ssize_t n = recv(ends.client, buffer, sizeof buffer, MSG_DONTWAIT);
      EXPECT_TRUE(n <= 0 || n == send(ends.hub, buffer, static_cast<size_t>(n), 0));
      activity().run(0);
      n = recv(ends.hub, buffer, sizeof buffer, MSG_DONTWAIT);
      EXPECT_TRUE(n <= 0 || n == send(ends.client, buffer, static_cast<size_t>(n), 0));
      auto* there = a.em->find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a");
      if (there && there->route.size() > 1000) return there;
    }
  }();
  EXPECT_LT(mine->route.size(), kRoutes);
  EXPECT_EQ(MountStatus::pending, a.status);
  close(ends.client);
  close(ends.hub);
  settle();
  ASSERT_FALSE(a.em->connected());
  a.em->reconnected(socket());
  settle();
  EXPECT_EQ(MountStatus::success, a.status);
  EXPECT_EQ(kRoutes, input->route.size());
  EXPECT_EQ(kRoutes, mine->route.size());
  // From here on it is the agent that knows.
  mine->route.erase({IpPrefix(IpAddr::v4(0x0a000000), 32), 1});
  hub->dropAll();
  settle();
  mine->route.erase({IpPrefix(IpAddr::v4(0x0a000001), 32), 1});
  a.em->reconnected(socket());
  settle();
  EXPECT_EQ(kRoutes - 2, input->route.size());
  // And one that waited for its first hub finds what an earlier life left there.
  a.em.reset();
  settle();
  Peer late;
  late.em = EntityManager::overSocket(-1, "a");
  late.mount({kInput});
  EXPECT_EQ(MountStatus::pending, late.status);
  EXPECT_FALSE(late.em->connected());
  late.em->reconnected(socket());
  settle();
  EXPECT_EQ(MountStatus::success, late.status);
  EXPECT_EQ(kRoutes - 2,
            late.em->find<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a")->route.size());
  EXPECT_EQ(kRoutes - 2, input->route.size());
}

TEST_F(LinkTest, AnyBytesLeaveTheHubAndTheOthersAsTheyWere) {
  Peer a = peer("a", {kLagConfig});
  a.em->find<EthLagIntfConfigDir>("interface/config/eth/lag")
      ->intf.create(lag(1))
      ->description.set("x");
  settle();
  std::mt19937 random(20261124);
  for (int round = 0; round < 300; ++round) {
    int fd = socket();
    std::string bytes;
    if (round % 2 == 0) {
      // A well-formed hello and mount first, so that what follows gets further in.
      Encoder e;
      e.u8(static_cast<uint8_t>(Op::hello));
      e.varint(kWireMagic);
      e.varint(kWireVersion);
      e.varint(static_cast<uint64_t>(Role::agent));
      e.text("evil");
      e.varint(0);
      e.varint(0);
      e.u8(static_cast<uint8_t>(Op::mount));
      e.varint(0);
      e.varint(1);
      e.text("interface/config/eth/lag");
      e.text("Interface::EthLagIntfConfigDir");
      e.text("w");
      e.u8(0);
      e.varint(0);
      auto n = static_cast<uint32_t>(e.size());
      bytes.append(reinterpret_cast<char*>(&n), 4);
      bytes += e.bytes();
    }
    std::string junk(random() % 400, '\0');
    for (char& c : junk) c = static_cast<char>(random() % 4 == 0 ? random() : random() % 40);
    auto n = static_cast<uint32_t>(round % 7 == 0 ? random() : junk.size());
    bytes.append(reinterpret_cast<char*>(&n), 4);
    bytes += junk;
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
    settle();
    close(fd);
    settle();
  }
  EXPECT_GT(hub->counters().broken, 100u);
  EXPECT_EQ(1u, hub->sessions());
  auto* dir = tree.find<EthLagIntfConfigDir>("interface/config/eth/lag");
  ASSERT_TRUE(dir->intf.find(lag(1)));
  EXPECT_EQ("x", dir->intf.find(lag(1))->description());
  EXPECT_TRUE(a.em->connected());
}

// A participant whose bytes pass through the test's hands.
class Relay {
 public:
  Relay(LinkTest::Sockets sockets, const char* name) : client_(sockets.client), hub_(sockets.hub) {
    peer.em = EntityManager::overSocket(sockets.participant, name);
  }
  ~Relay() {
    peer.em.reset();
    close(client_);
    close(hub_);
  }
  // Until nothing moves in the directions that are open.
  void pass(bool toHub, bool toClient) {
    for (bool moved = true; moved;) {
      settle();
      moved = toHub && move(client_, hub_, &atHub);
      moved |= toClient && move(hub_, client_, &atClient);
    }
  }
  // So many bytes of what the participant sent.
  void passBytes(size_t bytes) {
    char buffer[4096];
    ASSERT_LE(bytes, sizeof buffer);
    ASSERT_EQ(static_cast<ssize_t>(bytes), recv(client_, buffer, bytes, MSG_DONTWAIT));
    ASSERT_EQ(static_cast<ssize_t>(bytes), send(hub_, buffer, bytes, 0));
    settle();
  }
  size_t waiting() const {
    int bytes = 0;
    EXPECT_EQ(0, ioctl(client_, FIONREAD, &bytes));
    return static_cast<size_t>(bytes);
  }
  void mount(std::vector<MountRequest> requests) {
    peer.mount(std::move(requests));
    pass(true, true);
    EXPECT_EQ(MountStatus::success, peer.status);
  }

  Peer peer;

 private:
  // What did not fit goes first the next time.
  static bool move(int from, int to, std::string* left) {
    char buffer[65536];
    if (left->empty()) {
      ssize_t n = recv(from, buffer, sizeof buffer, MSG_DONTWAIT);
      if (n > 0) left->assign(buffer, static_cast<size_t>(n));
    }
    if (left->empty()) return false;
    ssize_t sent = send(to, left->data(), left->size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) left->erase(0, static_cast<size_t>(sent));
    return sent > 0;
  }
  int client_, hub_;
  std::string atHub, atClient;
};

TEST_F(LinkTest, WhoDoesNotReadIsNotReadAndLosesNothing) {
  Relay relay(sockets(), "a");
  relay.mount({kLagConfig});
  auto* mine = relay.peer.em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
  auto* config = tree.find<EthLagIntfConfigDir>("interface/config/eth/lag");
  constexpr int kCount = 60000;
  for (int i = 1; i <= kCount; ++i) mine->intf.create(lag(i))->description.set(std::to_string(i));
  relay.pass(true, false);
  // What is owed to it is bounded: by its bound and what one read and the sockets hold.
  EXPECT_GT(config->intf.size(), kMaxTold);
  EXPECT_LT(config->intf.size(), 50000u);
  EXPECT_EQ(0u, relay.peer.em->acknowledged());
  relay.pass(true, true);
  EXPECT_EQ(size_t{kCount}, config->intf.size());
  EXPECT_EQ(size_t{kCount}, mine->intf.size());
  EXPECT_EQ(relay.peer.em->batches(), relay.peer.em->acknowledged());
  EXPECT_EQ(config->intf.find(lag(kCount))->generation(),
            mine->intf.find(lag(kCount))->generation());
}

TEST_F(LinkTest, ACutWaitsForThoseAloneWhoseChangesItHas) {
  Relay slow(sockets(), "");
  slow.mount({kSlices});
  Peer a = peer("a", {kLagConfig}), b = peer("b", {kLagConfig}), reader = peer("", {kSlices});
  auto* slices = slow.peer.em->find<Dir>("interface/config/eth/phy/slice");
  Mirror lags(b.em->find<EthLagIntfConfigDir>("interface/config/eth/lag")->journal);
  Mirror seen(reader.em->find<Dir>("interface/config/eth/phy/slice")->journal);
  for (int i = 0; i < 1000; ++i)
    slices->entry.create<Dir>(Name("a name of some length " + std::to_string(i)));
  settle();
  // All of its first frames and a piece of the next: it is in the middle of its batch.
  for (size_t left = slow.waiting(); left > 100;) {
    size_t n = std::min<size_t>(left - 100, 4096);
    slow.passBytes(n);
    left -= n;
  }
  a.em->find<EthLagIntfConfigDir>("interface/config/eth/lag")->intf.create(lag(1));
  settle();
  EXPECT_EQ(1, lags.created);
  EXPECT_EQ(0, seen.created);
  EXPECT_EQ(0u, hub->counters().forcedCuts);
  // It stays there: the others go on with a part of it.
  time.advance(kForcedCutSeconds + 0.01);
  activity().run(0.001);
  settle();
  EXPECT_EQ(1u, hub->counters().forcedCuts);
  EXPECT_GT(seen.created, 0);
  EXPECT_LT(seen.created, 1000);
  slow.pass(true, true);
  EXPECT_EQ(1000, seen.created);
}

// --- random writers ------------------------------------------------------------------------------

using Interface::EthPhyIntfConfigDir;

// Whether two trees hold the same below two entities, generations included where they are shared.
void expectEqual(Entity& hub, Entity& replica, bool own) {
  ASSERT_EQ(&hub.type(), &replica.type());
  EXPECT_TRUE(EntityOps::equalAttributes(hub, replica)) << hub.path();
  EXPECT_TRUE(own || hub.generation() == replica.generation()) << hub.path();
  for (const CollectionInfo& c : hub.type().collections) {
    CollectionBase &theirs = hub.collection(c), &mine = replica.collection(c);
    EXPECT_EQ(theirs.size(), mine.size()) << hub.path();
    for (CollectionIterator it(theirs); it; it.next()) {
      Entity& e = *it.get();
      Entity* there = mine.findErased(e.keyData(), *e.type().keyKind);
      ASSERT_TRUE(there) << e.path();
      bool ownBelow =
          e.path() == "/daemon/agent/status/a" || e.path() == "/routing/vrf/input/default/RyxSdk-a";
      expectEqual(e, *there, own || ownBelow);
    }
  }
}

// The mirror of a replica, where generations come from the hub later: an own creation gets one, and
// all that a participant holds get new ones from a hub that was started anew.
class ReplicaMirror : public test::Mirror {
 public:
  using test::Mirror::Mirror;

 protected:
  bool sameGeneration(uint64_t, uint64_t) const override { return true; }
};

// An agent, a service and the hub's own side write at random what they may and, now and then, what
// they may not, with connections that come and go, cuts that are forced, and work that is done in
// part between two writes.
class Chaos {
 public:
  struct Side {
    Tree* tree;
    Peer peer;
    std::vector<std::unique_ptr<ReplicaMirror>> mirrors;
  };

  Chaos(unsigned seed, unsigned keys, VirtualClock& time)
      : random_(seed), keys_(keys), time_(time), linger_(seed % 2 == 0 ? 0 : 0.001) {
    makeWellKnown(tree_);
    newHub();
    for (const char* name : {"a", "", ""}) {
      Side side;
      side.peer.em = EntityManager::overSocket(socket(), name);
      side.peer.mount(kAllMounts);
      EXPECT_EQ(MountStatus::success, side.peer.status);
      side.tree = &side.peer.em->tree();
      for (auto& m : kAllMounts)
        side.mirrors.push_back(
            std::make_unique<ReplicaMirror>(*side.peer.em->find(m.path)->childJournal()));
      sides_.push_back(std::move(side));
    }
  }
  ~Chaos() {
    sides_.clear();
    hub_.reset();
  }

  void step() {
    unsigned op = pick(100);
    if (op < 50) {
      write();
    } else if (op < 80) {
      int turns = activity().zeroRunTurns();
      activity().zeroRunTurnsIs(1 + static_cast<int>(pick(3)));
      activity().run(0);
      activity().zeroRunTurnsIs(turns);
    } else if (op < 88) {
      activity().run(0);
    } else if (op < 92) {
      time_.advance(0.03);
    } else if (op < 95) {
      comeBack(sides_[pick(3)]);
    } else if (op < 97) {
      for (int fd : sides_[pick(3)].peer.em->connections()) shutdown(fd, SHUT_RDWR);
    } else if (op < 98) {
      hub_->dropAll();
    } else if (op < 99) {
      settle();
    } else if (pick(4) == 0) {
      hub_.reset();
      newHub();
    }
  }
  void expectAllEqual() {
    for (int i = 0; i < 3; ++i) {
      settle();
      time_.advance(2 * linger_);
      settle();
      for (Side& s : sides_) comeBack(s);
    }
    settle();
    for (Side& s : sides_) {
      ASSERT_TRUE(s.peer.em->connected());
      ASSERT_TRUE(s.peer.em->drained()) << s.peer.em->unsentBytes();
      ASSERT_EQ(s.peer.em->batches(), s.peer.em->acknowledged());
      for (size_t i = 0; i < kAllMounts.size(); ++i) {
        Entity *theirs = tree_.find(kAllMounts[i].path), *mine = s.tree->find(kAllMounts[i].path);
        expectEqual(*theirs, *mine, false);
        s.mirrors[i]->check();
      }
      if (::testing::Test::HasFailure()) return;
    }
  }

 private:
  void newHub() {
    hub_ = std::make_unique<Hub>(tree_);
    hub_->lingerIs(linger_);
  }
  unsigned pick(unsigned n) { return static_cast<unsigned>(random_() % n); }
  int socket() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    if (pick(3) == 0)  // one that takes little at a time
      for (int fd : fds) {
        int bytes = 1;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
      }
    hub_->accept(fds[0]);
    return fds[1];
  }
  void comeBack(Side& s) {
    if (!s.peer.em->connected()) s.peer.em->reconnected(socket());
  }
  std::string anyText() { return std::to_string(pick(3)); }

  // As one of the four sides.
  void write() {
    unsigned who = pick(4);
    Tree& tree = who == 3 ? tree_ : *sides_[who].tree;
    bool may = who != 0;
    switch (pick(who == 0 ? 9 : 6)) {
      case 0:
      case 1:
        return intf(tree.find<EthLagIntfConfigDir>("interface/config/eth/lag")->intf, 0);
      case 2:
      case 3: {
        auto* slices = tree.find<Dir>("interface/config/eth/phy/slice");
        Name name(std::to_string(pick(2)));
        unsigned op = pick(8);
        if (op == 0) {
          slices->entry.erase(name);
        } else if (auto* dir = slices->entry.create<EthPhyIntfConfigDir>(name)) {
          if (op != 1) intf(dir->intf, 1);
        }
        return;
      }
      case 4:
      case 5: {
        // An agent may not.
        if (!may && pick(4) != 0) return;
        auto* config = tree.find<Dir>("daemon/agent/config");
        Name name(std::to_string(pick(2)));
        unsigned op = pick(8);
        if (op == 0) {
          config->entry.erase(name);
        } else if (auto* c = config->entry.create<GenericAgent::Config>(name)) {
          table(c->option);
          if (op == 1) c->enabled.set(pick(2) != 0);
        }
        return;
      }
      case 6: {
        auto* status = tree.find<Dir>("daemon/agent/status");
        if (pick(8) == 0) {
          status->entry.erase("a");
        } else {
          auto* own = status->entry.create<GenericAgent::Status>("a");
          table(own->data);
          if (pick(4) == 0) own->running.set(pick(2) != 0);
        }
        return;
      }
      default: {
        auto* vrf = tree.find<Dir>("routing/vrf/input/default");
        if (!vrf) return;
        if (pick(12) == 0) {
          vrf->entry.erase("RyxSdk-a");
          return;
        }
        auto* input = vrf->entry.create<Routing::RouteInput>("RyxSdk-a");
        if (pick(5) == 0) input->defaultPreference.set(pick(3));
        Routing::RouteKey key{IpPrefix(IpAddr::v4((1 + pick(keys_)) << 8), 24), 1};
        if (pick(4) == 0) {
          input->route.erase(key);
          return;
        }
        auto* route =
            input->route.create(key, [&](auto& r) { r.routeType.init(Routing::RouteType::drop); });
        route->tag.set(pick(4));
      }
    }
  }
  template <class Intfs>
  void intf(Intfs& intfs, int sub) {
    IntfId id;
    std::string name = sub ? "Ethernet" : "Port-Channel";
    EXPECT_TRUE(parse(name + std::to_string(1 + pick(keys_)), &id));
    switch (pick(6)) {
      case 0:
        intfs.erase(id);
        return;
      case 1:
      case 2:
        intfs.create(id)->description.set(std::to_string(pick(100)));
        return;
      case 3:
        if (auto* e = intfs.find(id)) e->adminEnabledStateLocal.set(static_cast<uint8_t>(pick(3)));
        return;
      default:
        if (auto* e = intfs.find(id)) e->description.set(anyText());
    }
  }
  template <class T>
  void table(T& t) {
    std::string key = std::to_string(pick(keys_));
    if (pick(3) == 0)
      t.erase(key);
    else
      t.set(key, pick(20) == 0 ? std::string(10000, 'x') : anyText());
  }

  std::mt19937 random_;
  const unsigned keys_;
  VirtualClock& time_;
  const double linger_;  // of the hub
  Tree tree_;
  std::unique_ptr<Hub> hub_;
  std::vector<Side> sides_;
};

TEST_F(LinkTest, RandomWritersEndEqual) {
  hub.reset();
  const uint64_t wanted = uint64_t{60'000} * test::testTimes();
  uint64_t steps = 0;
  test::seededRuns([&] { return steps >= wanted; },
                   [&](unsigned seed) {
                     const int lengths[] = {25, 60, 200, 1000};
                     const unsigned keys[] = {1, 2, 3, 20};
                     int length = lengths[seed % 4];
                     Chaos chaos(seed, keys[seed / 4 % 4], time);
                     for (int i = 0; i < length; ++i) chaos.step();
                     chaos.expectAllEqual();
                     steps += static_cast<unsigned>(length);
                   });
  test::tellOperations(steps);
}

}  // namespace
}  // namespace ryx::platform
