// The store, beside its budgets: a million routes from an agent's calls to committed, and what one
// settled route costs in memory. The road is the one a route manager takes: a working copy and a
// dirty key a call, then a commit that copies them into the agent's input, followed by one reactor.
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "platform/activity/activity.h"
#include "platform/model/routing.h"
#include "platform/qel/dir.h"
#include "platform/qel/reactor.h"

using namespace ryx::platform;
using namespace ryx::platform::Routing;

namespace {

double seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
size_t residentBytes() {
  unsigned long size = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f || std::fscanf(f, "%lu %lu", &size, &resident) != 2) std::abort();
  std::fclose(f);
  return resident * 4096;
}

struct DirtyKey {
  RouteKey route;
  Name vrf;
  static constexpr auto members() {
    return described(member("route", &DirtyKey::route), member("vrf", &DirtyKey::vrf));
  }
  bool operator==(const DirtyKey&) const = default;
};
struct DirtyRoute : EntityType<DirtyRoute> {
  static constexpr const char* kTypeName = "bench::DirtyRoute";
  Key<DirtyKey> key;
  Ref<Route> copy;
};
struct Dirty : JournalRootType<Dirty> {
  static constexpr const char* kTypeName = "bench::Dirty";
  Key<Name> key;
  Collection<"route", DirtyRoute, kLocal> route;
};

class Commit : public JournalReactor {
 public:
  Commit(Dirty& dirty, RouteInput& input) : JournalReactor("Commit"), dirty_(dirty), input_(input) {
    follow(dirty.journal);
  }
  uint64_t committed = 0;

 protected:
  void onEntity(Entity& e, Change change) override {
    if (change == Change::deleted) return;
    auto& d = static_cast<DirtyRoute&>(e);
    Route& copy = *d.copy;
    Route* r = input_.route.create(d.key().route,
                                   [&](Route& made) { made.routeType.init(copy.routeType()); });
    EntityOps::copyAttributes(*r, copy);
    EntityOps::remove(d);
    ++committed;
  }

 private:
  Dirty& dirty_;
  RouteInput& input_;
};

class Follower : public JournalReactor {
 public:
  explicit Follower(RouteInput& input) : JournalReactor("Follower") { follow(input.journal); }
  uint64_t seen = 0;

 protected:
  void onEntity(Entity&, Change) override { ++seen; }
};

RouteKey keyOf(uint32_t i) {
  return {IpPrefix(IpAddr::v4(0x0a000000u + (i << 4)), 28), 1};
}

void million(uint32_t count) {
  size_t before = residentBytes();
  double at = seconds();
  Tree tree;
  auto* input = tree.make<RouteInput>("routing/vrf/input/default/RyxSdk-bench");
  auto* dirty = tree.make<Dirty>("local/dirty");
  Commit commit(*dirty, *input);
  Follower follower(*input);
  Name vrf("default");
  IntfId intf;
  for (uint32_t i = 0; i < count; ++i) {
    RouteKey key = keyOf(i);
    DirtyRoute* d = dirty->route.create(DirtyKey{key, vrf});
    d->copy = make<Route>(key);
    d->copy->tag.set(7);
    d->copy->dynamic.set(true);
    Via via;
    via.hop = IpAddr::v4(0xc0a80001u + (i & 0xff));
    via.intf = intf;
    d->copy->via.edit([&](auto& set) { return set.insert(via); });
    if ((i & 1023) == 0) activity().run(0);
  }
  activity().run(0);
  double took = seconds() - at;
  if (commit.committed != count || input->route.size() != count || follower.seen < count) {
    std::printf("FAILED: %llu committed\n", (unsigned long long)commit.committed);
    std::exit(1);
  }
  malloc_trim(0);
  size_t bytes = residentBytes() - before;
  std::printf(
      "%u routes set to committed, followed by a reactor: %.3f s (target 0.8 s for 1,000,000)\n",
      count, took);
  std::printf("bytes a route when settled: %.0f (target 300)\n", double(bytes) / count);

  at = seconds();
  uint64_t sum = 0;
  for (auto it = input->route.iterator(); it; it.next()) sum += it->tag();
  std::printf("iteration: %.1f ns a route (%llu)\n", (seconds() - at) * 1e9 / count,
              (unsigned long long)sum);
  at = seconds();
  uint32_t found = 0;
  for (uint32_t i = 0; i < count; ++i)
    found += input->route.find(keyOf(static_cast<uint32_t>(i * 2654435761ull % count))) != nullptr;
  std::printf("lookup at random: %.1f ns (%u)\n", (seconds() - at) * 1e9 / count, found);
}

class OneReactor : public EntityReactor {
 public:
  OneReactor() : EntityReactor("OneReactor") {}
  uint64_t runs = 0;

 protected:
  void onAttributes(uint32_t) override { ++runs; }
};

void oneWrite() {
  Tree tree;
  auto* input = tree.make<RouteInput>("routing/vrf/input/default/RyxSdk-bench");
  OneReactor reactor;
  reactor.follow(*input, input->defaultPreference.bit());
  constexpr uint32_t kRounds = 2000000;
  double at = seconds();
  for (uint32_t i = 0; i < kRounds; ++i) {
    input->defaultPreference.set(i + 1);
    activity().run(0);
  }
  double took = seconds() - at;
  std::printf(
      "attribute write with one queued reactor, to the reactor's run: %.1f ns (target 100 ns)\n",
      took * 1e9 / kRounds);
  if (reactor.runs != kRounds) std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t count = argc > 1 ? static_cast<uint32_t>(std::atoi(argv[1])) : 1000000;
  million(count);
  oneWrite();
}
