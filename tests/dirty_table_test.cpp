// Changes that wait: one commit a key, in order, put off while the connection is clogged.
#include "lib/dirty_table.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/model/routing.h"

namespace ryx {
namespace {

using platform::activity;
using platform::Ref;
using platform::Routing::Route;
using platform::Routing::RouteKey;

RouteKey key(uint8_t n) {
  return {platform::IpPrefix(platform::IpAddr::v4(uint32_t{n} << 24), 8), 1};
}

Backlog backlog;

class Routes final : public DirtyTable<RouteKey, Route> {
 public:
  explicit Routes(BacklogRank rank = BacklogRank::routes) : Routes(backlog, rank) {}
  Routes(Backlog& of, BacklogRank rank) : DirtyTable("Routes", of, rank) {}
  void tag(uint8_t n, uint32_t tag) {
    Ref<Route> working = platform::make<Route>(key(n));
    working->tag.set(tag);
    set(key(n), working);
  }
  std::string take() { return std::exchange(told_, {}); }
  void putInto(std::string* told) { told_in_ = told; }

  bool full = false;  // the connection
  int putOff = 0;
  int again = 0;  // commits that make their key dirty again

 private:
  bool run(platform::Slice& slice) override { return commitSome(slice); }
  bool clogged() const override { return full; }
  void deferred() override { ++putOff; }
  void commit(const RouteKey& of, Route* working) override {
    EXPECT_FALSE(isDirty(of));
    told_ += std::to_string(of.prefix.addr().v4() >> 24) +
             (working ? "=" + std::to_string(working->tag()) : " gone") + " ";
    if (told_in_) *told_in_ += std::exchange(told_, {});
    if (again > 0 && again-- > 0) tag(static_cast<uint8_t>(of.prefix.addr().v4() >> 24), 99);
  }
  std::string told_;
  std::string* told_in_ = nullptr;
};

TEST(DirtyTable, CommitsEachKeyOnceInTheOrderInWhichItBecameDirty) {
  Routes routes;
  routes.tag(2, 1);
  routes.tag(1, 5);
  routes.tag(2, 7);
  routes.set(key(3), nullptr);
  routes.tag(4, 1);
  routes.set(key(4), nullptr);
  EXPECT_EQ(4u, routes.size());
  EXPECT_EQ(7u, routes.copy(key(2))->tag());
  EXPECT_TRUE(routes.isDirty(key(3)));
  EXPECT_EQ(nullptr, routes.copy(key(3)));
  EXPECT_FALSE(routes.isDirty(key(5)));
  EXPECT_EQ("", routes.take()) << "never within the call";
  activity().run(0);
  EXPECT_EQ("2=7 1=5 3 gone 4 gone ", routes.take());
  EXPECT_EQ(0u, routes.size());

  // Deleted and set again is the new one alone; what a commit makes dirty is committed too.
  routes.set(key(1), nullptr);
  routes.tag(1, 8);
  routes.again = 1;
  activity().run(0);
  EXPECT_EQ("1=8 1=99 ", routes.take());
}

TEST(DirtyTable, WaitsWhileTheConnectionIsClogged) {
  platform::VirtualClock clock;
  Routes routes;
  routes.full = true;
  routes.tag(1, 1);
  routes.tag(2, 2);
  activity().run(0.0005);
  EXPECT_EQ("", routes.take());
  EXPECT_EQ(1, routes.putOff);
  routes.tag(1, 3);
  activity().run(0.002);
  EXPECT_GT(routes.putOff, 2);
  EXPECT_EQ(2u, routes.size());
  routes.full = false;
  activity().run(0.001);
  EXPECT_EQ("1=3 2=2 ", routes.take());
}

TEST(KeyTable, KeepsByKeyAndOutlivesItsClearing) {
  KeyTable<RouteKey, std::vector<int>> kept;
  EXPECT_TRUE(kept.empty());
  kept[key(1)].push_back(1);
  kept[key(1)].push_back(2);
  kept[key(2)] = {};
  EXPECT_EQ(2u, kept.size());
  EXPECT_EQ((std::vector<int>{1, 2}), kept.find(key(1))->value);
  EXPECT_FALSE(kept.contains(key(3)));
  EXPECT_TRUE(kept.erase(key(2)));
  EXPECT_FALSE(kept.erase(key(2)));
  auto it = kept.iterator();
  kept.clear();
  EXPECT_TRUE(kept.empty());
  EXPECT_FALSE(it) << "it is at the end";
  it.next();
  // Another type of entry, of the same key, is another type.
  KeyTable<RouteKey, std::string> others;
  others[key(1)] = "text";
  kept[key(1)] = {3};
  EXPECT_EQ("text", others.find(key(1))->value);
}

TEST(DirtyTable, IteratorsOutliveCommits) {
  Routes routes;
  for (uint8_t n = 1; n < 100; ++n) routes.tag(n, n);
  auto it = routes.iterator();
  it.next();
  EXPECT_EQ(2u, it->value->tag());
  auto copy = it;
  activity().run(0);
  EXPECT_EQ(2u, it->value->tag()) << "where it stands, though the entry is gone";
  it.next();
  EXPECT_FALSE(it);
  routes.tag(7, 7);
  copy.next();
  ASSERT_TRUE(copy);
  EXPECT_EQ(7u, copy->value->tag());
}

TEST(DirtyTable, TablesOfOneConnectionGoByTheirRank) {
  platform::VirtualClock clock;
  Backlog of;
  std::string told;
  Routes deletions(of, BacklogRank::groupDeletions), routes(of, BacklogRank::routes),
      groups(of, BacklogRank::groups);
  for (Routes* table : {&deletions, &routes, &groups}) {
    table->putInto(&told);
    table->full = true;
  }
  deletions.set(key(3), nullptr);
  routes.tag(2, 2);
  groups.tag(1, 1);
  activity().run(0);
  routes.full = deletions.full = false;  // they could, but it is not their turn
  clock.advance(0.01);
  activity().run(0);
  EXPECT_EQ("", told);
  groups.full = false;
  clock.advance(0.01);
  activity().run(0);
  EXPECT_EQ("1=1 2=2 3 gone ", told);
  groups.full = true;
  groups.tag(1, 1);
  deletions.set(key(3), nullptr);
  activity().run(0);
  groups.clean(key(1));  // nobody waits for it any more
  activity().run(0);
  EXPECT_EQ("1=1 2=2 3 gone 3 gone ", told);
}

}  // namespace
}  // namespace ryx
