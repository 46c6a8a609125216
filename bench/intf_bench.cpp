// Interfaces by the hundred thousand, in one process: from the switch's creation of them to the
// agent's callbacks, what a flap of all costs, what single calls cost, and the memory of an
// interface. No target is set for these; the figures are there to be watched.
#include <malloc.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/model/interface.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/local.h"
#include "ryx/eth_intf.h"
#include "ryx/eth_phy_intf.h"
#include "ryx/intf.h"
#include "ryx/sdk.h"

using namespace ryx;
using namespace ryx::platform::Interface;
using platform::activity;
using platform::IntfId;

namespace {

// Of this process's own time: everything here happens in its one thread, without waiting.
double seconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

size_t residentBytes() {
  malloc_trim(0);
  unsigned long size = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f || std::fscanf(f, "%lu %lu", &size, &resident) != 2) std::abort();
  std::fclose(f);
  return resident * 4096;
}

void expect(uint64_t found, uint64_t expected, const char* what) {
  if (found == expected) return;
  std::printf("FAILED: %llu %s, expected %llu\n", (unsigned long long)found, what,
              (unsigned long long)expected);
  std::exit(1);
}

struct Counter : intf_handler {
  explicit Counter(intf_mgr* mgr) : intf_handler(mgr) { watch_all_intfs(true); }
  void on_intf_create(intf_id_t) override { ++created; }
  void on_intf_delete(intf_id_t) override { ++deleted; }
  void on_oper_status(intf_id_t, oper_status_t) override { ++statuses; }
  uint64_t created = 0, deleted = 0, statuses = 0;
};
struct PhyCounter : eth_phy_intf_handler {
  explicit PhyCounter(eth_phy_intf_mgr* mgr) : eth_phy_intf_handler(mgr) {
    watch_all_eth_phy_intfs(true);
  }
  void on_eth_phy_intf_create(intf_id_t) override { ++created; }
  uint64_t created = 0;
};

// A card's worth of ports in each slice.
constexpr uint32_t kPortsOfSlice = 400;

class Switch {
 public:
  explicit Switch(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      const std::string name = "Ethernet" + std::to_string(1 + i / kPortsOfSlice) + "/" +
                               std::to_string(1 + i % kPortsOfSlice);
      ids.emplace_back();
      if (!platform::parse(name, &ids.back())) std::abort();
    }
  }
  void create() {
    EthPhyIntfConfigDir* configs = nullptr;
    EthPhyIntfStatusDir* states = nullptr;
    for (uint32_t i = 0; i < ids.size(); ++i) {
      if (i % kPortsOfSlice == 0) {
        const std::string slice = "slice/" + std::to_string(1 + i / kPortsOfSlice);
        configs = tree.make<EthPhyIntfConfigDir>("interface/config/eth/phy/" + slice);
        states = tree.make<EthPhyIntfStatusDir>("interface/status/eth/phy/" + slice);
      }
      configs->intf.create(ids[i]);
      EthPhyIntfStatus* status = states->intf.create(ids[i]);
      status->operStatus.set(1);
      status->deviceName.set("eth" + std::to_string(i));
      statuses.push_back(status);
    }
  }
  void flap(uint8_t code) {
    for (EthPhyIntfStatus* status : statuses) status->operStatus.set(code);
  }
  void erase() {
    statuses.clear();
    for (const char* path : {"interface/config/eth/phy/slice", "interface/status/eth/phy/slice"}) {
      auto& slices = tree.find<platform::Dir>(path)->entry;
      for (platform::CollectionIterator it(slices); it; it.next()) slices.remove(*it.get());
    }
  }

  platform::Tree& tree = platform::localTree();
  std::vector<IntfId> ids;
  std::vector<EthPhyIntfStatus*> statuses;
};

template <class F>
double perItem(uint32_t count, F&& work) {
  const double at = seconds();
  work();
  return (seconds() - at) * 1e9 / count;
}

void single(intf_mgr* mgr, const Switch& sw) {
  const auto count = static_cast<uint32_t>(sw.ids.size());
  uint64_t found = 0;
  const auto at = [&](uint32_t i) {
    return intf_id_t::from_value(sw.ids[static_cast<uint32_t>(i * 2654435761ull % count)].value());
  };
  std::vector<std::string> names;
  for (uint32_t i = 0; i < count; ++i)
    names.push_back("eth" + std::to_string(static_cast<uint32_t>(i * 2654435761ull % count)));
  std::printf("exists(): %.0f ns\n", perItem(count, [&] {
                for (uint32_t i = 0; i < count; ++i) found += mgr->exists(at(i));
              }));
  std::printf("oper_status(): %.0f ns\n", perItem(count, [&] {
                for (uint32_t i = 0; i < count; ++i)
                  found += mgr->oper_status(at(i)) == INTF_OPER_DOWN;
              }));
  std::printf("kernel_intf_name(): %.0f ns\n", perItem(count, [&] {
                for (uint32_t i = 0; i < count; ++i) found += !mgr->kernel_intf_name(at(i)).empty();
              }));
  std::printf("ryx_intf_name(): %.0f ns\n", perItem(count, [&] {
                for (uint32_t i = 0; i < count; ++i) found += !!mgr->ryx_intf_name(names[i]);
              }));
  std::printf("intf_iter(): %.0f ns an interface\n", perItem(count, [&] {
                for (auto it = mgr->intf_iter(); it; ++it) ++found;
              }));
  expect(found, 5ull * count, "found");
}

}  // namespace

int main(int argc, char** argv) {
  const char* few = std::getenv("RYX_BENCH_SMALL");
  const uint32_t count = argc > 1 && std::atoi(argv[1]) > 0
                             ? static_cast<uint32_t>(std::atoi(argv[1]))
                             : (few != nullptr ? 2000 : 100000);
  std::printf("%u interfaces\n", count);
  Switch sw(count);

  // The agent is there first.
  auto connection = platform::EntityManager::embedded("bench").release();
  auto* agent = new sdk("bench", connection);
  intf_mgr* mgr = agent->get_intf_mgr();
  Counter heard(mgr);
  PhyCounter phy(agent->get_eth_phy_intf_mgr());
  agent->initialize_context();
  activity().run(0);

  const size_t empty = residentBytes();
  const double written = perItem(count, [&] { sw.create(); });
  const size_t state = residentBytes();
  const double created = perItem(count, [&] { activity().run(0); });
  const size_t followed = residentBytes();
  expect(heard.created, count, "created");
  expect(phy.created, count, "physical interfaces created");
  expect(heard.statuses, count, "first statuses");
  std::printf("created by the switch: %.0f ns, and heard of (two creations, one status): %.0f ns\n",
              written, created);
  std::printf("bytes an interface: %.0f of state, and %.0f that the agent's side adds\n",
              double(state - empty) / count, double(followed - state) / count);

  const double flapped = perItem(count, [&] {
    sw.flap(2);
    activity().run(0);
  });
  expect(heard.statuses, 2ull * count, "statuses");
  std::printf("all go down, to the callbacks: %.0f ns\n", flapped);
  single(mgr, sw);

  // Another agent starts and finds them there.
  auto* second = new sdk("second", platform::EntityManager::embedded("second").release());
  Counter late(second->get_intf_mgr());
  const double at = seconds();
  second->initialize_context();
  activity().run(0);
  std::printf("start of an agent that finds them there, to the last status: %.0f ms\n",
              (seconds() - at) * 1e3);
  expect(late.created, 0, "created at the start");
  expect(late.statuses, count, "statuses at the start");

  const double deleted = perItem(count, [&] {
    sw.erase();
    activity().run(0);
  });
  expect(heard.deleted, count, "deleted");
  expect(late.deleted, count, "deleted");
  std::printf("deleted, to the callbacks of two agents: %.0f ns\n", deleted);
}
