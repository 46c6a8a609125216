// From an agent's calls to what the switch has installed: the real managers, the resolver and the
// simulated data plane, in one process; the resolver alone; and the real route manager through a
// hub into a second process.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "bench/measure.h"
#include "bench/processes.h"
#include "platform/activity/activity.h"
#include "platform/model/ip.h"
#include "platform/model/routing.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/fib.h"
#include "ryx/ip_route.h"
#include "ryx/nexthop_group.h"
#include "ryx/sdk.h"
#include "switch/sim/sim.h"

using namespace ryx::bench;
using ryx::platform::activity;
using ryx::platform::EntityManager;
using ryx::platform::Tree;

namespace {

struct Watch final : ryx::fib_handler {
  using fib_handler::fib_handler;
  void on_route_set(const ryx::fib_route_t&) override { ++routes; }
  void on_route_del(const ryx::fib_route_key_t&) override { --routes; }
  void on_fec_set(const ryx::fib_fec_t&) override { ++fecs; }
  size_t routes = 0, fecs = 0;
};
struct Groups final : ryx::nexthop_group_handler {
  explicit Groups(ryx::nexthop_group_mgr* mgr) : nexthop_group_handler(mgr) {
    watch_all_nexthop_groups(true);
  }
  void on_nexthop_group_active(const std::string&, bool isActive) override {
    isActive ? ++active : --active;
  }
  size_t active = 0;
};

// A switch with two interfaces that are up, and an agent on it.
struct Bed {
  Tree tree;
  std::unique_ptr<ryx::sim::Sim> sim;
  std::unique_ptr<EntityManager> em;
  std::unique_ptr<ryx::sdk> sdk;
  ryx::ip_route_mgr* routes;
  ryx::nexthop_group_mgr* groups;
  std::unique_ptr<Watch> fib;
  std::unique_ptr<Groups> active;

  explicit Bed(bool watches) {
    makeWellKnown(tree);
    sim = std::make_unique<ryx::sim::Sim>(tree);
    for (const char* line : {"interface-add Ethernet1", "interface-add Ethernet2",
                             "oper-status Ethernet1 1", "oper-status Ethernet2 1"})
      tell(line);
    address("Ethernet1", "192.168.0.1/16");
    address("Ethernet2", "172.16.0.1/16");
    em = EntityManager::embedded("bench", tree);
    sdk = std::make_unique<ryx::sdk>("bench", em.get());
    routes = sdk->get_ip_route_mgr();
    groups = sdk->get_nexthop_group_mgr();
    if (watches) {
      fib = std::make_unique<Watch>(sdk->get_fib_mgr(ryx::MGR_MODE_READ_NOTIFYING));
      active = std::make_unique<Groups>(groups);
    }
    sdk->initialize_context();
    activity().run(0.05);
    if (fib) fib->routes = 0;
  }
  void tell(const char* line) {
    if (!sim->command(line).empty()) fail(line);
  }
  void address(const char* intf, const char* addr) {
    ryx::platform::IntfId id;
    ryx::platform::IpAddrMask mask;
    if (!parse(intf, &id) || !parse(addr, &mask)) fail("an address");
    tree.find<ryx::platform::Ip::Config>("ip/config")
        ->ipIntfConfig.create(id)
        ->addrWithMask.set(mask);
  }
};

ryx::ip_addr_t v4(uint32_t n) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16),
                            static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return {ryx::AF_IPV4, bytes};
}
ryx::ip_route_key_t key4(uint32_t n) {
  return {{v4(0x01000000 + (n << 8)), 24}, 1};
}
ryx::ip_route_key_t key6(uint32_t n) {
  const uint8_t bytes[16] = {0x20, 0x01, static_cast<uint8_t>(n >> 16),
                             static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return {{ryx::ip_addr_t(ryx::AF_IPV6, bytes), 48}, 1};
}
void setHop(ryx::ip_route_mgr* mgr, const ryx::ip_route_key_t& key) {
  mgr->ip_route_set(ryx::ip_route_t(key));
  ryx::ip_route_via_t via(key);
  if (key.prefix().af() == ryx::AF_IPV4)
    via.hop_is(v4(0xc0a80009));
  else
    via.intf_is("Ethernet1");
  mgr->ip_route_via_set(via);
}
void setGroup(ryx::ip_route_mgr* mgr, const ryx::ip_route_key_t& key) {
  mgr->ip_route_set(ryx::ip_route_t(key), ryx::IP_ROUTE_ACTION_NEXTHOP_GROUP);
  ryx::ip_route_via_t via(key);
  via.nexthop_group_is("g");
  mgr->ip_route_via_set(via);
}

// What is set, until it is committed, and until the handler of the FIB has heard all.
void install(Bed& bed, const char* what, uint32_t count, const char* target,
             const std::function<void(uint32_t)>& set) {
  const size_t before = bed.fib->routes;
  const double start = seconds();
  for (uint32_t n = 0; n < count; ++n) set(n);
  const double called = seconds() - start;
  until([&] { return bed.routes->uncommitted() == 0; });
  const double committed = seconds() - start;
  until([&] { return bed.fib->routes - before == count; });
  std::printf("%u %s: called %.3f s, committed %.3f s%s, seen in the FIB %.3f s\n", count, what,
              called, committed, target, seconds() - start);
}

void embedded(uint32_t million) {
  Bed bed(true);
  install(bed, "IPv4 routes with a via", million, " (target 0.8)",
          [&](uint32_t n) { setHop(bed.routes, key4(n)); });
  double start = seconds();
  for (uint32_t n = 0; n < million; ++n) bed.routes->ip_route_del(key4(n));
  until([&] { return bed.fib->routes == 0; });
  std::printf("  withdrawn until seen in the FIB: %.3f s\n", seconds() - start);

  install(bed, "IPv6 routes with a via", million / 5, "",
          [&](uint32_t n) { setHop(bed.routes, key6(n)); });

  // Of a few sets, as they are where a router has 64 neighbours, and each route with its own.
  for (const uint32_t sets : {16u, million / 10}) {
    const std::string what = "routes with 64 vias, of " + std::to_string(sets) + " sets";
    install(bed, what.c_str(), million / 10, "", [&](uint32_t n) {
      bed.routes->ip_route_set(ryx::ip_route_t(key4(n)));
      for (uint32_t via = 0; via < 64; ++via) {
        ryx::ip_route_via_t one(key4(n));
        one.hop_is(v4(0xc0a80100 + (n % sets * 7 + via) % 60000));
        bed.routes->ip_route_via_set(one);
      }
    });
    for (uint32_t n = 0; n < million / 10; ++n) bed.routes->ip_route_del(key4(n));
    until([&] { return bed.fib->routes == million / 5; });
  }

  // Fail over: every route uses one group, of which one way goes.
  ryx::nexthop_group_t group("g", ryx::NEXTHOP_GROUP_IP);
  group.destination_ip_set(0, v4(0xc0a80009));
  group.destination_ip_set(1, v4(0xac100009));
  bed.groups->nexthop_group_set(group);
  install(bed, "routes to one nexthop group", million, "",
          [&](uint32_t n) { setGroup(bed.routes, key4(n)); });
  activity().run(0);  // what is behind it
  bed.fib->fecs = 0;
  start = seconds();
  bed.tell("oper-status Ethernet2 2");
  while (bed.fib->fecs == 0) activity().run(0);
  std::printf("  one of two links fails, until an agent sees the class changed: %.3f ms\n",
              (seconds() - start) * 1000);
}

void groups(uint32_t count) {
  Bed bed(true);
  const size_t empty = residentBytes();
  const double start = seconds();
  for (uint32_t n = 0; n < count; ++n) {
    ryx::nexthop_group_t group("g" + std::to_string(n), ryx::NEXTHOP_GROUP_IP);
    for (uint16_t entry = 0; entry < 8; ++entry)
      group.destination_ip_set(entry, v4(0xc0a80100 + (n * 7 + entry) % 60000));
    bed.groups->nexthop_group_set(group);
  }
  const double called = seconds() - start;
  until([&] { return bed.active->active == count; });
  std::printf("%u nexthop groups of 8 entries: called %.3f s, active %.3f s (target 1.5)\n", count,
              called, seconds() - start);
  std::printf(
      "  resident bytes an entry (the tables twice, as writer and reader share the process): "
      "%.0f\n",
      static_cast<double>(residentBytes() - empty) / count / 8);
}

// --- through a hub ------------------------------------------------------------------------------

// What the processes share: each writes its own fields.
struct Board {
  volatile int stage;
  double started, committed, arrived;
};
Board* board;

void throughHub(uint32_t count) {
  *board = Board();
  Pair writer, reader;
  Processes all;
  all.add([&] {
    HubProcess h;
    h.hub->accept(writer.a);
    h.hub->accept(reader.a);
    until([] { return board->stage >= 2; });
  });
  all.add([&] {
    auto em = EntityManager::overSocket(reader.b, "");
    auto group = em->mountGroup();
    bool isMounted = false;
    group->add("routing/vrf/input", "Qel::Dir", "r");
    group->close([&](ryx::platform::MountStatus) { isMounted = true; });
    until([&] { return isMounted; });
    board->stage = 1;
    until([&] {
      auto* input =
          em->find<ryx::platform::Routing::RouteInput>("routing/vrf/input/default/RyxSdk-bench");
      return input && input->route.size() == count;
    });
    board->arrived = seconds();
    board->stage = 2;
  });
  all.add([&] {
    auto em = EntityManager::overSocket(writer.b, "bench");
    ryx::sdk sdk("bench", em.get());
    ryx::ip_route_mgr* mgr = sdk.get_ip_route_mgr();
    sdk.initialize_context();
    until([&] { return em->find("routing/vrf/input/default/RyxSdk-bench") != nullptr; });
    until([] { return board->stage >= 1; });
    board->started = seconds();
    for (uint32_t n = 0; n < count; ++n) {
      setHop(mgr, key4(n));
      if ((n & 1023) == 1023) activity().run(0);  // the agent's loop goes on
    }
    until([&] { return mgr->uncommitted() == 0; });
    board->committed = seconds();
    until([] { return board->stage >= 2; });
    std::fflush(stdout);
    ::_exit(0);  // managers live as long as the process
  });
  all.join();
  std::printf(
      "%u IPv4 routes by the manager, through the hub: committed %.3f s, in a second "
      "process %.3f s (target 1.0, aim 0.5)\n",
      count, board->committed - board->started, board->arrived - board->started);
}

// Each in a process of its own: managers live as long as it.
void apart(const std::function<void()>& run) {
  Processes one;
  one.add([&] {
    run();
    std::fflush(stdout);
    ::_exit(0);
  });
  one.join();
}

}  // namespace

int main() {
  const bool small = isSmall();
  const uint32_t million = small ? 1000 : 1'000'000;
  board = static_cast<Board*>(
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (!small) warmMemory(3072);
  apart([&] { embedded(million); });
  apart([&] { groups(million / 10); });
  throughHub(million);
}
