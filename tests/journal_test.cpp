// Journals and their cursors: what a follower sees, in which order, and what is kept for it.
#include "platform/qel/journal.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <vector>

#include "platform/qel/dir.h"
#include "tests/support/random_runs.h"

namespace ryx::platform {
namespace {

using ryx::test::randomRuns;

struct Item : EntityType<Item> {
  static constexpr const char* kTypeName = "test::Item";
  Key<uint32_t> key;
  Attr<"number", uint32_t> number;
};
struct Items : JournalRootType<Items> {
  static constexpr const char* kTypeName = "test::Items";
  Key<Name> key;
  Attr<"size", uint32_t> size;
  Collection<"item", Item> item;
};

class Follower : public Cursor {
 public:
  explicit Follower(bool bounded = true) : bounded_(bounded) {}
  int activations = 0;
  int overruns = 0;
  // The keys of what lies ahead, the deleted ones negative.
  std::vector<int64_t> read() {
    std::vector<int64_t> keys;
    while (Ref<Entity> e = next()) {
      auto key = static_cast<int64_t>(e->as<Item>()->key());
      keys.push_back(e->dead() ? -key : key);
    }
    return keys;
  }

 protected:
  void activated() override { ++activations; }
  void overrun() override { ++overruns; }
  bool isBounded() const override { return bounded_; }

 private:
  bool bounded_;
};
using Keys = std::vector<int64_t>;

class JournalTest : public ::testing::Test {
 protected:
  std::unique_ptr<Tree> tree = std::make_unique<Tree>();
  Items* items = tree->make<Items>("items");
  Journal& journal = items->journal;
  void change(uint32_t key) {
    Item* i = items->item.create(key);
    i->number.set(i->number() + 1);
  }
};

TEST_F(JournalTest, HeadEndAndOrderOfLastChanges) {
  Follower head, end;
  head.attachAtHead(journal, false);
  EXPECT_TRUE(head.atEnd());
  EXPECT_EQ(head.activations, 0);
  EXPECT_EQ(head.read(), Keys{});
  for (uint32_t i = 1; i <= 3; ++i) change(i);
  EXPECT_EQ(head.activations, 1) << "once until it has read all";
  end.attachAtEnd(journal, false);
  change(1);
  EXPECT_EQ(head.read(), (Keys{2, 3, 1})) << "each once, in the order of the last changes";
  EXPECT_EQ(end.read(), Keys{1});
  items->item.erase(2);
  items->item.create(2);
  EXPECT_EQ(head.activations, 2);
  EXPECT_EQ(head.read(), (Keys{-2, 2}));
  EXPECT_EQ(journal.tombstones(), 1u) << "the other follower has not seen it";
  Follower late;
  late.attachAtHead(journal, false);
  EXPECT_EQ(late.activations, 1) << "there is something ahead";
  EXPECT_EQ(end.read(), (Keys{-2, 2}));
  late.read();
  EXPECT_EQ(journal.tombstones(), 0u);
  EXPECT_TRUE(head.atEnd() && end.atEnd() && late.atEnd());
  EXPECT_EQ(head.version, items->item.find(2)->version);
}

TEST_F(JournalTest, TheRootsOwnAttributes) {
  Follower f, dir;
  f.attachAtHead(journal, false);
  dir.attachAtEnd(tree->root().journal, false);
  items->size.set(1);
  items->size.set(2);
  change(1);
  EXPECT_EQ(f.next().get(), items);
  EXPECT_EQ(f.read(), Keys{1});
  EXPECT_EQ(dir.activations, 0) << "its directory's followers do not hear of it";
  items->size.set(3);
  Follower late;
  late.attachAtHead(journal, false);
  EXPECT_EQ(late.next().get(), items->item.find(1));
  EXPECT_EQ(late.next().get(), items);
  EXPECT_EQ(late.next().get(), nullptr);
}

// Every follower sees, at each step, the item whose last change is the next after what it saw last,
// deletions included; nothing is kept that all have seen; each is told once when there is more.
TEST_F(JournalTest, ManyFollowersAgainstAModel) {
  struct Model {
    std::unique_ptr<Follower> cursor;
    uint64_t seen;      // the version of what it saw last
    uint64_t attached;  // deaths after this are kept for it
    bool idle;
    int activations;
  };
  randomRuns(300, [this](std::mt19937& random) {
    tree = std::make_unique<Tree>();
    auto& box = *tree->make<Items>("items");
    std::vector<Ref<Entity>> all;  // that ever was: no address twice
    std::vector<Model> models;
    auto& version = tree->clock().version;
    auto appended = [&] {
      for (Model& m : models) {
        m.activations += m.idle;
        m.idle = false;
      }
    };
    for (int i = 0; i < 400; ++i) {
      uint32_t key = random() % 8;
      Item* there = box.item.find(key);
      switch (random() % 7) {
        case 0:
          if (there) {
            if (!models.empty()) appended();
            box.item.erase(key);
          } else {
            all.emplace_back(box.item.create(key));
            appended();
          }
          break;
        case 1:
          if (!there) break;
          for (unsigned n = random() % 3 + 1; n > 0; --n) there->number.set(there->number() + 1);
          appended();
          break;
        case 2: {
          if (models.size() >= 6) break;
          bool head = random() % 2;
          Model m{std::make_unique<Follower>(random() % 2), head ? 0 : version, version, !head, 0};
          if (head)
            m.cursor->attachAtHead(box.journal, false);
          else
            m.cursor->attachAtEnd(box.journal, false);
          m.idle = m.cursor->activations == 0;
          m.activations = m.cursor->activations;
          ASSERT_EQ(m.cursor->activations != 0, !m.cursor->atEnd());
          models.push_back(std::move(m));
          break;
        }
        case 3:
          if (!models.empty() && random() % 4 == 0)
            models.erase(models.begin() + static_cast<ptrdiff_t>(random() % models.size()));
          break;
        default: {
          if (models.empty()) break;
          Model& m = models[random() % models.size()];
          Entity* expected = nullptr;
          for (auto& e : all)
            if (e->version > m.seen && (!e->dead() || e->version > m.attached) &&
                (!expected || e->version < expected->version))
              expected = e.get();
          Ref<Entity> got = m.cursor->next();
          // A deletion from before it came may be there still.
          bool old = got && got->dead() && got->version <= m.attached && got->version > m.seen;
          ASSERT_TRUE(old || got.get() == expected);
          if (got)
            m.seen = got->version;
          else
            m.idle = true;
        }
      }
      bool allAtEnd = true;
      for (Model& m : models) {
        ASSERT_EQ(m.cursor->activations, m.activations);
        allAtEnd = allAtEnd && m.cursor->atEnd();
      }
      ASSERT_TRUE(!allAtEnd || box.journal.tombstones() == 0);
    }
    for (Model& m : models) m.cursor->read();
    ASSERT_EQ(box.journal.tombstones(), 0u);
  });
}

TEST_F(JournalTest, TombstonesGoWithTheLastThatWaits) {
  Follower first, second;
  for (uint32_t i = 1; i <= 100; ++i) change(i);
  size_t before = journal.tombstones();
  first.attachAtEnd(journal, false);
  second.attachAtEnd(journal, false);
  for (uint32_t i = 1; i <= 50; ++i) items->item.erase(i);
  EXPECT_EQ(journal.tombstones(), before + 50);
  second.read();
  EXPECT_EQ(journal.tombstones(), 50u);
  for (int i = 0; i < 20; ++i) first.next();
  EXPECT_EQ(journal.tombstones(), 30u);
  for (uint32_t i = 51; i <= 60; ++i) items->item.erase(i);
  first.detach();  // the oldest
  EXPECT_EQ(journal.tombstones(), 10u) << "what the other has not seen";
  {
    Follower third;
    third.attachAtHead(journal, false);
    second.detach();
    EXPECT_EQ(journal.tombstones(), 10u);
  }
  EXPECT_EQ(journal.tombstones(), 0u);
  items->item.erase(61);
  EXPECT_EQ(journal.tombstones(), 0u) << "nobody follows";
}

TEST_F(JournalTest, TooManyTombstonesSendTheBoundedBack) {
  constexpr uint32_t kMax = Journal::kMaxTombstones;
  for (uint32_t i = 1; i <= kMax + 20; ++i) items->item.create(i);
  Follower slow, behind, prompt, ours(false);
  slow.attachAtEnd(journal, false);
  behind.attachAtHead(journal, false);
  prompt.attachAtEnd(journal, false);
  for (uint32_t i = 1; i <= kMax; ++i) items->item.erase(i);
  EXPECT_EQ(journal.tombstones(), kMax);
  EXPECT_EQ(slow.overruns, 0);
  prompt.read();
  ours.attachAtEnd(journal, false);
  items->item.erase(kMax + 1);
  EXPECT_EQ(slow.overruns, 1);
  EXPECT_EQ(behind.overruns, 1);
  EXPECT_EQ(prompt.overruns, 1) << "the deletion that went past the bound lay ahead of it too";
  EXPECT_EQ(journal.overruns(), 3u);
  EXPECT_EQ(journal.tombstones(), 1u) << "for the one that must not miss any";
  // From the head: all that lives, and what dies from now on.
  items->item.erase(kMax + 2);
  Keys living;
  for (uint32_t i = kMax + 3; i <= kMax + 20; ++i) living.push_back(i);
  for (Follower* f : {&slow, &behind, &prompt}) {
    Keys keys = f->read();
    ASSERT_GE(keys.size(), living.size());
    EXPECT_TRUE(std::equal(living.begin(), living.end(), keys.begin()));
    EXPECT_EQ(keys.back(), -static_cast<int64_t>(kMax + 2));
  }
  EXPECT_EQ(ours.read(), (Keys{-static_cast<int64_t>(kMax + 1), -static_cast<int64_t>(kMax + 2)}));
  EXPECT_EQ(journal.tombstones(), 0u);
  // Who reads in time is never sent back, whatever the sum.
  behind.detach();
  slow.detach();
  for (uint32_t i = 0; i < 2 * kMax; ++i) {
    items->item.create(1);
    items->item.erase(1);
    if (i % 1000 == 0) {
      prompt.read();
      ours.read();
    }
  }
  EXPECT_EQ(prompt.overruns, 1);
}

// What unbounded followers hold back is not gone through at every deletion past the bound.
TEST_F(JournalTest, UnboundedFollowersMayFallFarBehind) {
  constexpr uint32_t kCount = 4 * Journal::kMaxTombstones;
  Follower ours(false), remote;
  ours.attachAtEnd(journal, false);
  for (uint32_t i = 1; i <= kCount; ++i) items->item.create(i);
  ours.read();
  remote.attachAtEnd(journal, false);
  for (uint32_t i = 1; i <= kCount; ++i) items->item.erase(i);
  EXPECT_EQ(ours.overruns, 0);
  EXPECT_GE(remote.overruns, 1);
  EXPECT_LE(remote.overruns, 4);
  EXPECT_EQ(journal.tombstones(), kCount);
  EXPECT_EQ(ours.read().size(), kCount);
  remote.read();
  EXPECT_EQ(journal.tombstones(), 0u);
}

TEST_F(JournalTest, EitherMayEndFirst) {
  Follower f, g;
  f.attachAtHead(journal, false);
  g.attachAtEnd(journal, false);
  change(1);
  items->item.erase(1);
  tree.reset();
  for (Follower* c : {&f, &g}) {
    EXPECT_FALSE(c->attached());
    EXPECT_FALSE(c->next());
    c->detach();
  }
  // And on to another.
  Tree other;
  auto* box = other.make<Items>("items");
  f.attachAtHead(box->journal, false);
  box->item.create(5);
  EXPECT_EQ(f.read(), Keys{5});
}

// A directory that was deleted still tells what died in it.
TEST_F(JournalTest, OfADeletedRoot) {
  Ref<Items> hold(items);
  Follower f;
  change(1);
  f.attachAtHead(journal, false);
  EXPECT_EQ(f.read(), Keys{1});
  tree->root().entry.erase("items");
  EXPECT_EQ(f.read(), Keys{-1});
  items->item.create(2);
  items->size.set(7);
  EXPECT_EQ(f.read(), Keys{});
  EXPECT_EQ(journal.tombstones(), 0u);
}

// With the time of one pass for each, ten thousand followers are nothing; with that of a pass over
// all the others, this would not end.
TEST_F(JournalTest, TenThousandFollowers) {
  constexpr size_t kFollowers = 10000;
  std::vector<Follower*> order;
  struct Queued : Follower {
    explicit Queued(std::vector<Follower*>& o) : queue(o) {}
    void activated() override { queue.push_back(this); }
    std::vector<Follower*>& queue;
  };
  std::vector<std::unique_ptr<Queued>> followers;
  for (size_t i = 0; i < kFollowers; ++i) {
    followers.push_back(std::make_unique<Queued>(order));
    followers.back()->attachAtHead(journal, false);
  }
  for (int i = 0; i < 30; ++i) {
    for (int n = 0; n < 1000; ++n) change(1);
    change(2);
    ASSERT_EQ(order.size(), kFollowers);
    for (Follower* f : std::exchange(order, {})) ASSERT_EQ(f->read(), (Keys{1, 2}));
  }
}

}  // namespace
}  // namespace ryx::platform
