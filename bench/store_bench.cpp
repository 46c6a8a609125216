// The store, beside its budgets: a million routes from an agent's calls to committed, and what one
// settled route costs in memory. The road is the one a route manager takes: a working copy and a
// dirty key a call, then a commit that copies them into the agent's input, followed by one reactor.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/measure.h"
#include "lib/dirty_table.h"
#include "platform/activity/activity.h"
#include "platform/model/routing.h"
#include "platform/qel/dir.h"
#include "platform/qel/reactor.h"

using namespace ryx::platform;
using namespace ryx::platform::Routing;
using namespace ryx::bench;
using ryx::DirtyTable;

namespace {

struct DirtyKey {
  RouteKey route;
  Name vrf;
  static constexpr auto members() {
    return described(member("route", &DirtyKey::route), member("vrf", &DirtyKey::vrf));
  }
  bool operator==(const DirtyKey&) const = default;
};
ryx::Backlog backlog;
class Commit final : public DirtyTable<DirtyKey, Route> {
 public:
  explicit Commit(RouteInput& input)
      : DirtyTable("Commit", backlog, ryx::BacklogRank::routes), input_(input) {}
  uint64_t committed = 0;

 private:
  bool run(Slice& slice) override { return commitSome(slice); }
  bool clogged() const override { return false; }
  void commit(const DirtyKey& key, Route* copy) override {
    Route* r = input_.route.create(key.route,
                                   [&](Route& made) { made.routeType.init(copy->routeType()); });
    EntityOps::copyAttributes(*r, *copy);
    ++committed;
  }

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

// The multiplier of a walk over all keys in no order that memory knows.
constexpr uint32_t kScatter = 2654435761u;

struct Store {
  Tree tree;
  RouteInput* input = tree.make<RouteInput>("routing/vrf/input/default/RyxSdk-bench");
  Commit commit{*input};
  Follower follower{*input};
};

// In the order of their prefixes, as a table arrives (step 1), or in none. The seconds it took.
double setAll(Store& store, uint32_t count, uint64_t step) {
  double at = seconds();
  Name vrf("default");
  IntfId intf;
  for (uint32_t i = 0; i < count; ++i) {
    RouteKey key = keyOf(static_cast<uint32_t>(i * step % count));
    Ref<Route> copy = make<Route>(key);
    copy->tag.set(7);
    copy->dynamic.set(true);
    Via via;
    via.hop = IpAddr::v4(0xc0a80001u + (i & 0xff));
    via.intf = intf;
    copy->via.edit([&](auto& set) { return set.insert(via); });
    store.commit.set(DirtyKey{key, vrf}, std::move(copy));
    if ((i & 1023) == 0) activity().run(0);
  }
  activity().run(0);
  double took = seconds() - at;
  if (store.commit.committed != count || store.input->route.size() != count ||
      store.follower.seen < count)
    fail("not every route was committed and followed");
  return took;
}

void million(uint32_t count) {
  size_t before = residentBytes();
  Store store;
  double took = setAll(store, count, 1);
  RouteInput* input = store.input;
  size_t bytes = residentBytes() - before;
  std::printf(
      "%u routes set to committed, followed by a reactor: %.3f s (target 0.8 s for 1,000,000)\n",
      count, took);
  std::printf("bytes a route when settled: %.0f (target 300)\n", double(bytes) / count);

  double at = seconds();
  uint64_t sum = 0;
  for (auto it = input->route.iterator(); it; it.next()) sum += it->tag();
  took = seconds() - at;
  if (sum != uint64_t{7} * count) fail("an iteration missed a route");
  std::printf("iteration: %.1f ns a route\n", took * 1e9 / count);
  at = seconds();
  uint32_t found = 0;
  for (uint32_t i = 0; i < count; ++i)
    found +=
        input->route.find(keyOf(static_cast<uint32_t>(uint64_t{i} * kScatter % count))) != nullptr;
  took = seconds() - at;
  if (found != count) fail("a lookup missed a route");
  std::printf("lookup at random: %.1f ns\n", took * 1e9 / count);
}

void unordered(uint32_t count) {
  Store store;
  std::printf("the same in random order: %.3f s\n", setAll(store, count, kScatter));
}

class OneReactor : public EntityReactor {
 public:
  OneReactor() : EntityReactor("OneReactor") {}
  uint64_t runs = 0;

 protected:
  void onAttributes(uint32_t) override { ++runs; }
};

// One write, then a whole run of the loop for it: what a write costs who waits for its effect.
void writeAndRun(uint32_t rounds) {
  Tree tree;
  auto* input = tree.make<RouteInput>("routing/vrf/input/default/RyxSdk-bench");
  OneReactor reactor;
  reactor.follow(*input, input->defaultPreference.bit());
  double at = seconds();
  for (uint32_t i = 0; i < rounds; ++i) {
    input->defaultPreference.set(i + 1);
    activity().run(0);
  }
  double took = seconds() - at;
  if (reactor.runs != rounds) fail("a write did not reach its reactor");
  std::printf("attribute write with one queued reactor and a run(0) of its own: %.1f ns\n",
              took * 1e9 / rounds);
}

// A thousand entities with a reactor each, written one after the other, then one run of the loop.
void writesThenRun(uint32_t rounds) {
  constexpr uint32_t kEntities = 1000;
  Tree tree;
  auto* input = tree.make<RouteInput>("routing/vrf/input/default/RyxSdk-bench");
  std::vector<std::unique_ptr<OneReactor>> reactors;
  std::vector<Route*> routes;
  for (uint32_t i = 0; i < kEntities; ++i) {
    routes.push_back(input->route.create(keyOf(i)));
    reactors.push_back(std::make_unique<OneReactor>());
    reactors.back()->follow(*routes.back(), routes.back()->tag.bit());
  }
  double at = seconds();
  for (uint32_t i = 0; i < rounds; ++i) {
    for (Route* r : routes) r->tag.set(i + 1);
    activity().run(0);
  }
  double took = seconds() - at;
  for (auto& r : reactors)
    if (r->runs != rounds) fail("a write did not reach its reactor");
  std::printf(
      "attribute write with one queued reactor, to the reactor's run, of 1,000: %.1f ns (target "
      "100 ns)\n",
      took * 1e9 / rounds / kEntities);
}

}  // namespace

// store_bench [ROUTES]; a small number of everything where RYX_BENCH_SMALL is set.
int main(int argc, char** argv) {
  bool small = isSmall();
  uint32_t count = small ? 5000 : 1000000;
  if (argc > 1 && argv[1][0] >= '1' && argv[1][0] <= '9')
    count = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
  if (!small) warmMemory(512);
  million(count);
  unordered(count);
  writeAndRun(count);
  writesThenRun(count / 500);
}
