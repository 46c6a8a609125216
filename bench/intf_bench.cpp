// Interfaces by the hundred thousand, in one process: from the switch's creation of them to the
// agent's callbacks, what a flap of all costs, what single calls cost, and the memory of an
// interface. No target is set for these; the figures are there to be watched.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "bench/ports.h"
#include "platform/activity/activity.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/eth_intf.h"
#include "ryx/eth_phy_intf.h"
#include "ryx/intf.h"
#include "ryx/sdk.h"

using namespace ryx;
using platform::activity;

namespace {

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

template <class F>
double perItem(uint32_t count, F&& work) {
  const double at = bench::cpuSeconds();
  work();
  return (bench::cpuSeconds() - at) * 1e9 / count;
}

void single(intf_mgr* mgr, const bench::Ports& sw) {
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
  const uint32_t count = argc > 1 && std::atoi(argv[1]) > 0
                             ? static_cast<uint32_t>(std::atoi(argv[1]))
                             : (bench::isSmall() ? 2000 : 100000);
  std::printf("%u interfaces\n", count);
  bench::Ports sw(count);

  // The agent is there first.
  auto connection = platform::EntityManager::embedded("bench").release();
  auto* agent = new sdk("bench", connection);
  intf_mgr* mgr = agent->get_intf_mgr();
  Counter heard(mgr);
  PhyCounter phy(agent->get_eth_phy_intf_mgr());
  agent->initialize_context();
  activity().run(0);

  const size_t empty = bench::residentBytes();
  const double written = perItem(count, [&] { sw.create(); });
  const size_t state = bench::residentBytes();
  const double created = perItem(count, [&] { activity().run(0); });
  const size_t followed = bench::residentBytes();
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
  const double at = bench::cpuSeconds();
  second->initialize_context();
  activity().run(0);
  std::printf("start of an agent that finds them there, to the last status: %.0f ms\n",
              (bench::cpuSeconds() - at) * 1e3);
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
