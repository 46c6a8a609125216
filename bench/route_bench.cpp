// An agent's static routes, by its own calls: from setting a million of them with a via each to
// their being committed, iterating them, and declaring them again after a restart. In process.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "bench/measure.h"
#include "platform/activity/activity.h"
#include "platform/activity/timer.h"
#include "platform/model/routing.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/ip_route.h"
#include "ryx/sdk.h"

using namespace ryx::bench;
using ryx::platform::activity;

namespace {

// How late a timer of 10 ms is while the loop works.
class Ticker final : public ryx::platform::Timer {
 public:
  Ticker() : Timer("ticker") { arm(); }
  double latest = 0;
  void onTimer() override {
    latest = std::max(latest, seconds() - due_);
    arm();
  }

 private:
  void arm() { armAt(due_ = seconds() + 0.010); }
  double due_ = 0;
};

void run(uint32_t count) {
  ryx::platform::Tree tree;
  makeWellKnown(tree);
  const auto em = ryx::platform::EntityManager::embedded("bench", tree);
  ryx::sdk sdk("bench", em.get());
  ryx::ip_route_mgr* mgr = sdk.get_ip_route_mgr();
  sdk.initialize_context();
  activity().run(0.01);
  auto* input =
      tree.find<ryx::platform::Routing::RouteInput>("routing/vrf/input/default/RyxSdk-bench");
  if (!input) fail("the agent has no input");

  const uint8_t gateway[4] = {192, 0, 2, 1};
  const ryx::ip_addr_t hop(ryx::AF_IPV4, gateway);
  const auto setAll = [&] {
    for (uint32_t n = 0; n < count; ++n) {
      const uint32_t net = 0x01000000 + (n << 8);
      const uint8_t bytes[4] = {static_cast<uint8_t>(net >> 24), static_cast<uint8_t>(net >> 16),
                                static_cast<uint8_t>(net >> 8), 0};
      const ryx::ip_route_key_t key({ryx::ip_addr_t(ryx::AF_IPV4, bytes), 24}, 1);
      mgr->ip_route_set(ryx::ip_route_t(key));
      ryx::ip_route_via_t via(key);
      via.hop_is(hop);
      mgr->ip_route_via_set(via);
    }
  };
  // The loop's own turns, as main_loop runs them.
  const auto commit = [&] {
    Ticker ticker;
    const uint64_t version = tree.clock().version;
    for (uint64_t before = ~uint64_t{0}; before != activity().counters().tasks;) {
      before = activity().counters().tasks;
      activity().run(0.001);
    }
    std::printf("  a timer of 10 ms was %.1f ms late at most (target 5)\n", ticker.latest * 1000);
    return tree.clock().version - version;
  };
  const size_t empty = residentBytes();
  double start = seconds();
  setAll();
  const double set = seconds() - start;
  commit();
  const double first = seconds() - start;
  if (input->route.size() != count) fail("not all routes are committed");
  std::printf("%u routes with a via: called %.3f s, committed %.3f s (target 0.8)\n", count, set,
              first);
  std::printf("  bytes a route when settled: %.0f (target 300)\n",
              static_cast<double>(residentBytes() - empty) / count);

  start = seconds();
  uint32_t seen = 0;
  for (auto it = mgr->ip_route_iter(); it; ++it) ++seen;
  if (seen != count) fail("not all routes are iterated");
  std::printf("iterated: %.0f ns a route (target 100)\n", (seconds() - start) / count * 1e9);

  start = seconds();
  mgr->resync_init();
  setAll();
  mgr->resync_complete();
  const uint64_t writes = commit();
  const double again = seconds() - start;
  std::printf(
      "declared again: %.3f s, %.2f times setting them (target 1.5), %llu writes (target 0)\n",
      again, again / first, static_cast<unsigned long long>(writes));

  start = seconds();
  mgr->resync_init();
  mgr->resync_complete();
  commit();
  if (input->route.size() != 0) fail("routes are left");
  std::printf("none declared, all gone: %.3f s\n", seconds() - start);
}

}  // namespace

int main() {
  const bool small = isSmall();
  if (!small) warmMemory(2048);
  run(small ? 1000 : 1'000'000);
  std::fflush(stdout);
  ::_Exit(0);  // managers live as long as the process
}
