// A reactor that keeps what it was told of, and nothing else: whenever the loop is done it has to
// equal the state below the journal that it follows.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

#include "platform/qel/collection.h"
#include "platform/qel/entity.h"
#include "platform/qel/journal.h"
#include "platform/qel/reactor.h"

namespace ryx::test {

class Mirror : public platform::JournalReactor {
 public:
  explicit Mirror(platform::Journal& journal, bool deep = true)
      : JournalReactor("Mirror"), root_(journal.root()), deep_(deep) {
    follow(journal, deep);
  }

  void check() const {
    size_t there = 0;
    if (!root_->dead() && root_->childJournal()->clock()) checkBelow(*root_, &there);
    EXPECT_EQ(told_.size(), there);
    EXPECT_TRUE(!rootTold_ || platform::EntityOps::equalAttributes(*rootTold_, *root_));
  }

 protected:
  // After each thing that it was told. It may destroy the mirror.
  virtual void told() {}
  // Whether an entity may have that generation, which had the other one when it was told of.
  virtual bool sameGeneration(uint64_t then, uint64_t now) const { return then == now; }

  void onEntity(platform::Entity& e, platform::Change change) override {
    using platform::Change;
    auto at = told_.find(&e);
    const bool known = at != told_.end();
    EXPECT_EQ(known, change != Change::created) << "told twice of a creation, or of the unknown";
    EXPECT_EQ(e.dead(), change == Change::deleted);
    EXPECT_TRUE(!known || sameGeneration(at->second.generation, e.generation())) << e.path();
    if (change == Change::deleted) {
      for (auto& [entity, told] : told_)
        EXPECT_NE(told.parent, &e) << "a child's deletion comes before its parent's";
      told_.erase(&e);
    } else {
      told_[&e] = {e.generation(), e.parent(), copyOf(e)};
    }
    told();
  }
  void onRootChanged(platform::Entity& e) override {
    if (auto at = told_.find(&e); at != told_.end())
      at->second.copy = copyOf(e);
    else if (&e == root_.get())
      rootTold_ = copyOf(e);
    else
      ADD_FAILURE() << "of a root that it does not know";
    told();
  }

 private:
  using EntityRef = platform::Ref<platform::Entity>;
  struct Told {
    uint64_t generation;
    const platform::Entity* parent;
    EntityRef copy;
  };

  static EntityRef copyOf(platform::Entity& e) {
    EntityRef copy = platform::EntityOps::make(e.type());
    for (const platform::FieldInfo& f : e.type().fields)
      f.kind->assign(copy->at(f.offset), std::as_const(e).at(f.offset));
    return copy;
  }
  void checkBelow(platform::Entity& e, size_t* there) const {
    for (const platform::CollectionInfo& c : e.type().collections)
      for (platform::CollectionIterator it(e.collection(c)); it; it.next()) {
        platform::Entity& child = *it.get();
        ++*there;
        auto at = told_.find(&child);
        ASSERT_TRUE(at != told_.end()) << "never told of " << child.path();
        const bool own = child.type().journalOffset != 0;
        if (own && !deep_) continue;
        ASSERT_TRUE(platform::EntityOps::equalAttributes(*at->second.copy, child)) << child.path();
        checkBelow(child, there);
      }
  }

  const EntityRef root_;
  EntityRef rootTold_;
  const bool deep_;
  std::map<const platform::Entity*, Told> told_;
};

}  // namespace ryx::test
