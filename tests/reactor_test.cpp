// Reactors: random operations on trees, with mirrors that are built from callbacks alone and have
// to equal the state whenever the loop is done, while reactors come, go, write, throw, destroy each
// other and run the loop inside their callbacks.
#include "platform/qel/reactor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>

#include "platform/activity/activity.h"
#include "platform/qel/dir.h"
#include "tests/support/mirror.h"
#include "tests/support/random_runs.h"

namespace ryx::platform {
namespace {

using ryx::test::randomRuns;
using ryx::test::tellOperations;

struct Leaf : EntityType<Leaf> {
  static constexpr const char* kTypeName = "test::ReactorLeaf";
  Key<uint32_t> key;
  Attr<"number", uint32_t> number;
  Attr<"text", std::string> text;
};
struct Branch : EntityType<Branch> {
  static constexpr const char* kTypeName = "test::ReactorBranch";
  Key<uint32_t> key;
  Attr<"number", uint32_t> number;
  Collection<"leaf", Leaf> leaf;
};
// A journal of its own, with more of them inside.
struct Box : JournalRootType<Box> {
  static constexpr const char* kTypeName = "test::ReactorBox";
  Key<Name> key;
  Attr<"size", uint32_t> size;
  Collection<"branch", Branch> branch;
  Table<"note", std::string, std::string> note;
  DirEntries inner;
};

// --- the tree under random operations ------------------------------------------------------------

class Mirror;
class Watcher;

struct World {
  explicit World(std::mt19937& r) : random(r) {}
  ~World();

  std::mt19937& random;
  Tree tree;
  std::vector<std::unique_ptr<Mirror>> mirrors;
  std::vector<std::unique_ptr<Watcher>> watchers;
  int chaos = 0;  // things that callbacks may still do
  int throws = 0;

  unsigned draw(unsigned n) { return static_cast<unsigned>(random() % n); }
  Name name() { return Name(std::string(1, static_cast<char>('a' + draw(3)))); }

  // A place at random, down from the root: a directory or a box.
  Entity* place() {
    Entity* at = &tree.root();
    for (unsigned depth = draw(4); depth > 0; --depth) {
      Entity* below = nullptr;
      if (Dir* dir = at->as<Dir>())
        below = dir->entry.find(name());
      else if (Box* box = at->as<Box>())
        below = box->inner.find(name());
      if (!below) break;
      at = below;
    }
    return at;
  }

  static inline uint64_t changes = 0;
  void change() {
    ++changes;
    Entity* at = place();
    if (Dir* dir = at->as<Dir>())
      changeDir(*dir);
    else
      changeBox(static_cast<Box&>(*at));
  }
  void changeDir(Dir& dir) {
    switch (draw(6)) {
      case 0:
        dir.entry.erase(name());
        break;
      case 1:
      case 2:
        dir.entry.create<Dir>(name());
        break;
      default:
        dir.entry.create<Box>(name());
    }
  }
  void changeBox(Box& box) {
    uint32_t key = draw(4);
    Branch* branch = box.branch.find(key);
    switch (draw(13)) {
      case 0:
        box.branch.erase(key);
        break;
      case 1:
        box.branch.create(key);
        break;
      case 2:
        box.branch.create(key, [&](Branch& b) {
          b.number.init(draw(3));
          b.leaf.create(1);
        });
        break;
      case 3:
        if (branch) branch->number.set(draw(3));
        break;
      case 4:
      case 5:
        if (branch) branch->leaf.create(draw(3))->number.set(draw(3));
        break;
      case 6:
        if (branch) branch->leaf.erase(draw(3));
        break;
      case 7:
        box.note.set(std::to_string(draw(3)), std::to_string(draw(3)));
        break;
      case 8:
        box.note.erase(std::to_string(draw(3)));
        break;
      case 9:
        box.size.set(draw(3));
        break;
      case 10:
        box.inner.create<Box>(name());
        break;
      case 11:
        box.inner.erase(name());
        break;
      default:  // gone, and there again before anyone looks
        if (box.branch.erase(key)) box.branch.create(key)->number.set(1);
    }
  }
  void changeReactors();
  void act(Mirror* inside);
  void settle();
  void check();
};

// Does more than it is told of, now and then.
class Mirror : public test::Mirror {
 public:
  Mirror(World& world, Journal& journal, bool deep) : test::Mirror(journal, deep), world_(world) {}

 protected:
  void told() override { world_.act(this); }

 private:
  World& world_;
};

// Follows one entity's attributes, and knows them when the loop is done.
class Watcher : public EntityReactor {
 public:
  explicit Watcher(Branch& b) : EntityReactor("Watcher"), branch_(&b), number_(b.number()) {
    follow(b, b.number.bit());
  }
  void check() const { EXPECT_EQ(number_, branch_->number()); }

 protected:
  void onAttributes(uint32_t attributes) override {
    EXPECT_EQ(attributes, branch_->number.bit());
    number_ = branch_->number();
  }

 private:
  Ref<Branch> branch_;
  uint32_t number_;
};

World::~World() {
  mirrors.clear();
  watchers.clear();
  activity().run(0);
}

void World::changeReactors() {
  switch (draw(5)) {
    case 0:
      if (!mirrors.empty())
        mirrors.erase(mirrors.begin() + draw(static_cast<unsigned>(mirrors.size())));
      break;
    case 1:
      if (!watchers.empty()) watchers.pop_back();
      break;
    case 2:
      if (Box* box = place()->as<Box>())
        if (Branch* b = box->branch.find(draw(4)); b && watchers.size() < 8)
          watchers.push_back(std::make_unique<Watcher>(*b));
      break;
    default: {
      if (mirrors.size() >= 14) break;
      Entity* root = draw(2) ? &tree.root() : place();
      mirrors.push_back(std::make_unique<Mirror>(*this, *root->childJournal(), draw(3) != 0));
    }
  }
}

// What a callback does besides: seldom something, and a bounded number of times.
void World::act(Mirror* inside) {
  if (chaos == 0 || draw(8) != 0) return;
  --chaos;
  switch (draw(7)) {
    case 0:
    case 1:
      return change();
    case 2:
      return changeReactors();  // itself, it may be
    case 3:
      return activity().run(0);
    case 4:
      ++throws;
      throw std::runtime_error("out of a callback");
    case 5:
      for (auto& m : mirrors)
        if (m.get() == inside) {
          std::swap(m, mirrors.back());
          return mirrors.pop_back();
        }
      return;
    default:
      for (int i = 0; i < 5; ++i) change();
  }
}

void World::settle() {
  for (;;) {
    try {
      activity().run(0);
      return;
    } catch (const std::runtime_error&) {
      --throws;
    }
  }
}

void World::check() {
  ASSERT_EQ(activity().queued(), 0u);
  ASSERT_EQ(throws, 0);
  for (auto& m : mirrors) m->check();
  for (auto& w : watchers) w->check();
  EXPECT_TRUE(!mirrors.empty() || tree.root().journal.tombstones() == 0);
}

TEST(ReactorTest, MirrorsEqualTheState) {
  World::changes = 0;
  randomRuns(100, [](std::mt19937& random) {
    World world(random);
    for (int i = 0; i < 150 && !::testing::Test::HasFailure(); ++i) {
      for (unsigned n = world.draw(30); n > 0; --n) world.change();
      if (world.draw(2)) world.changeReactors();
      world.settle();
      world.check();
    }
  });
  tellOperations(World::changes);
}

TEST(ReactorTest, MirrorsEqualTheStateWhateverCallbacksDo) {
  World::changes = 0;
  randomRuns(200, [](std::mt19937& random) {
    World world(random);
    for (int i = 0; i < 100 && !::testing::Test::HasFailure(); ++i) {
      for (unsigned n = world.draw(30); n > 0; --n) world.change();
      for (unsigned n = world.draw(3); n > 0; --n) world.changeReactors();
      world.chaos = 30;
      world.settle();
      world.check();
    }
  });
  tellOperations(World::changes);
}

TEST(ReactorTest, ReactorsOutliveTrees) {
  randomRuns(50, [](std::mt19937& random) {
    World before(random);
    for (int i = 0; i < 100; ++i) before.change();
    {
      World world(random);
      for (int i = 0; i < 300; ++i) world.change();
      for (int i = 0; i < 10; ++i) world.changeReactors();
      if (random() % 2) world.settle();
      for (auto& m : world.mirrors) before.mirrors.push_back(std::move(m));
      for (auto& w : world.watchers) before.watchers.push_back(std::move(w));
      world.mirrors.clear();
      world.watchers.clear();
    }
    activity().run(0);
    before.mirrors.clear();
  });
}

// --- single rules --------------------------------------------------------------------------------

// Calls what a test gives it.
class Lambda : public JournalReactor {
 public:
  explicit Lambda(std::function<void(Entity&, Change)> f)
      : JournalReactor("Lambda"), f_(std::move(f)) {}

 protected:
  void onEntity(Entity& e, Change c) override { f_(e, c); }

 private:
  std::function<void(Entity&, Change)> f_;
};

class OnAttributes : public EntityReactor {
 public:
  explicit OnAttributes(std::function<void(uint32_t)> f)
      : EntityReactor("OnAttributes"), f_(std::move(f)) {}
  using EntityReactor::tellLater;

 protected:
  void onAttributes(uint32_t a) override { f_(a); }

 private:
  std::function<void(uint32_t)> f_;
};

class ReactorRules : public ::testing::Test {
 protected:
  Tree tree;
  Box* box = tree.make<Box>("box");
};

TEST_F(ReactorRules, AttributesOfInterestOnceARun) {
  Branch* b = box->branch.create(1);
  Leaf* leaf = b->leaf.create(1);
  std::vector<uint32_t> calls;
  OnAttributes number([&](uint32_t a) { calls.push_back(a); });
  OnAttributes both([&](uint32_t a) { calls.push_back(a << 8); });
  uint32_t n = leaf->number.bit(), t = leaf->text.bit();
  number.follow(*leaf, n);
  both.follow(*leaf, n | t);
  for (uint32_t i = 1; i <= 10; ++i) leaf->number.set(i);
  leaf->text.set("x");
  EXPECT_TRUE(calls.empty()) << "never within the write";
  activity().run(0);
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, (std::vector<uint32_t>{n, (n | t) << 8}));
  calls.clear();
  leaf->text.set("y");
  both.unfollow();
  leaf->number.set(99);
  activity().run(0);
  EXPECT_EQ(calls, std::vector<uint32_t>{n}) << "what was pending went with the interest";
}

TEST_F(ReactorRules, AttributeReactorsMayEndWriteThrowAndRunTheLoop) {
  Leaf* leaf = box->branch.create(1)->leaf.create(1);
  uint32_t n = leaf->number.bit(), t = leaf->text.bit();
  int calls = 0;
  std::unique_ptr<OnAttributes> one, other;
  one = std::make_unique<OnAttributes>([&](uint32_t) {
    ++calls;
    one.reset();
  });
  other = std::make_unique<OnAttributes>([&](uint32_t a) {
    ++calls;
    if (a & n) {
      leaf->text.set("by the reactor itself");
      activity().run(0);
      other->tellLater(n);
      throw std::runtime_error("out of a callback");
    }
  });
  one->follow(*leaf, n);
  other->follow(*leaf, n | t);
  leaf->number.set(1);
  EXPECT_THROW(activity().run(0), std::runtime_error);
  EXPECT_GE(calls, 2);
  EXPECT_TRUE(!one || activity().queued() > 0);
  other->unfollow();
  activity().run(0);
  EXPECT_FALSE(one);
}

TEST_F(ReactorRules, AThrowLosesNothingThatWasQueued) {
  for (uint32_t i = 0; i < 5; ++i) box->branch.create(i);
  std::map<uint32_t, int> told;
  Lambda r([&](Entity& e, Change) {
    if (++told[e.as<Branch>()->key()] == 1 && e.as<Branch>()->key() % 2)
      throw std::runtime_error("out of a callback");
  });
  r.follow(box->journal);
  int thrown = 0;
  while (activity().queued() > 0) try {
      activity().run(0);
    } catch (const std::runtime_error&) {
      ++thrown;
    }
  EXPECT_EQ(thrown, 2);
  EXPECT_EQ(told.size(), 5u);
  for (auto& [key, times] : told) EXPECT_EQ(times, 1) << key;
}

TEST_F(ReactorRules, LongListsAreSliced) {
  constexpr uint32_t kCount = 50000;
  for (uint32_t i = 0; i < kCount; ++i) box->branch.create(i);
  struct Other : Task {
    Other() : Task("Other") {}
    bool run(Slice&) override { return ++runs, wanted; }
    int runs = 0;
    bool wanted = true;
  } other;
  uint32_t told = 0;
  Lambda r([&](Entity&, Change) {
    if (++told == kCount) other.wanted = false;
  });
  r.follow(box->journal);
  other.wake();
  activity().run(0);
  EXPECT_EQ(told, kCount);
  EXPECT_GE(other.runs, static_cast<int>(kCount / Slice::kItems));
}

// Two followed journals of one reactor take turns, however much there is in one.
TEST_F(ReactorRules, OneJournalDoesNotStarveAnother) {
  Box* second = tree.make<Box>("second");
  second->branch.create(7);
  Branch* restless = box->branch.create(1);
  bool heard = false;
  int turns = 0;
  Lambda r([&](Entity& e, Change) {
    if (e.parent() == second) heard = true;
    if (!heard && ++turns < 200000) restless->number.set(restless->number() + 1);
  });
  r.follow(second->journal);
  r.follow(box->journal);
  restless->number.set(1);
  activity().run(0);
  EXPECT_TRUE(heard);
  EXPECT_LT(turns, 200000);
}

TEST_F(ReactorRules, UnfollowingTakesWhatWasFoundBelow) {
  Box* inner = box->inner.create<Box>("inner");
  inner->inner.create<Box>("innermost")->branch.create(1);
  int told = 0;
  Lambda r([&](Entity&, Change) { ++told; });
  r.follow(tree.root().journal, true);
  activity().run(0);
  EXPECT_EQ(told, 4);
  told = 0;
  r.unfollow(tree.root().journal);
  inner->inner.find<Box>("innermost")->branch.find(1)->number.set(3);
  inner->branch.create(1);
  box->branch.create(2);
  tree.root().entry.erase("box");
  activity().run(0);
  EXPECT_EQ(told, 0);
  r.follow(tree.root().journal, true);
  tree.make<Box>("box")->branch.create(1);
  activity().run(0);
  EXPECT_EQ(told, 2);
}

TEST_F(ReactorRules, BetweenTwoCutsAllWait) {
  Branch* b = box->branch.create(1);
  std::vector<std::string> told;
  Lambda r([&](Entity& e, Change) {
    told.push_back(e.path());
    if (e.path() == "/box/branch/1") tree.clock().gated = true;  // by a loop inside it, say
  });
  OnAttributes attributes([&](uint32_t) { told.push_back("attributes"); });
  auto gone = std::make_unique<Lambda>([](Entity&, Change) { ADD_FAILURE(); });
  tree.clock().gated = true;
  r.follow(box->journal);
  gone->follow(box->journal);
  attributes.follow(*b, b->number.bit());
  b->number.set(1);
  activity().run(0);
  EXPECT_TRUE(told.empty());
  gone.reset();
  box->branch.create(2);
  tree.clock().openGate();
  activity().run(0);
  EXPECT_EQ(std::count(told.begin(), told.end(), "/box/branch/1"), 1);
  EXPECT_EQ(std::count(told.begin(), told.end(), "/box/branch/2"), 0) << "closed again";
  tree.clock().openGate();
  activity().run(0);
  std::sort(told.begin(), told.end());
  EXPECT_EQ(told, (std::vector<std::string>{"/box/branch/1", "/box/branch/2", "attributes"}));
}

// Who starts with what stands there looks at it also between two cuts; later changes wait again.
TEST_F(ReactorRules, WhatStandsThereIsHeardAtOnce) {
  struct Starting final : JournalReactor {
    explicit Starting(Journal& journal) : JournalReactor("starting") {
      follow(journal);
      hearAll();
    }
    void onEntity(Entity& e, Change) override { told.push_back(e.path()); }
    std::vector<std::string> told;
  };
  box->branch.create(1);
  tree.clock().gated = true;
  Starting r(box->journal);
  EXPECT_EQ(r.told, std::vector<std::string>{"/box/branch/1"});
  EXPECT_TRUE(tree.clock().gated);
  box->branch.create(2);
  activity().run(0);
  EXPECT_EQ(r.told.size(), 1u);
  tree.clock().openGate();
  activity().run(0);
  EXPECT_EQ(r.told.size(), 2u);
}

}  // namespace
}  // namespace ryx::platform
