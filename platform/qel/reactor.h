// Reactors: what reacts to state. They are queued by a change, never run inside the write that
// caused it, and read the current value when the loop runs them; ten changes before that are one
// call.
//
// EntityReactor follows chosen attributes of one entity. JournalReactor follows everything below a
// directory (or several): it is told of each entity as created, changed or deleted, exactly: never
// of the deletion of what it was not told of, never twice of one creation; a key that was deleted
// and created again is two entities. Long lists are sliced. Reactors run on the loop's thread under
// the activity lock, and may destroy themselves or others, write, and throw.
#pragma once

#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/activity/task.h"
#include "platform/qel/entity.h"
#include "platform/qel/journal.h"

namespace ryx::platform {

// What both kinds of reactors share: while the tree that one follows is between two cuts it waits.
class RYX_PRIVATE Reactor : public Task {
 public:
  ~Reactor() override;

 protected:
  using Task::Task;
  // True when it has to wait; it is woken again when the gate opens.
  bool parkedAt(StoreClock* clock);

 private:
  friend struct StoreClock;
  StoreClock* parkedAt_ = nullptr;
};

class RYX_PRIVATE EntityReactor : public Reactor {
 public:
  ~EntityReactor() override;

  // Follows the attributes of `interest` (bits of AttrOf::bit()) from now on; nothing is reported
  // for what they hold already.
  void follow(Entity& entity, uint32_t interest);
  void unfollow();

 protected:
  explicit EntityReactor(const char* name, Order order = Order::normal) : Reactor(name, order) {}
  // `attributes`: those of its interest that were written since the last call.
  virtual void onAttributes(uint32_t attributes) = 0;
  // For onAttributes(): these are told in a further run, whatever becomes of this one.
  void tellLater(uint32_t attributes) {
    pending_ |= attributes;
    wake();
  }
  bool run(Slice& slice) final;

 private:
  friend class Entity;
  static void attributeChanged(Entity& entity, unsigned field);

  Ref<Entity> entity_;
  EntityReactor* next_ = nullptr;
  uint32_t interest_ = 0;
  uint32_t pending_ = 0;
};

enum class Change : uint8_t { created, changed, deleted };

class RYX_PRIVATE JournalReactor : public Reactor {
 public:
  ~JournalReactor() override;

  // Everything that is in the journal now is reported as created, then what changes. `deep`:
  // journals of their own below it too (directories in a directory), as they come and go. What
  // stands deeper in the tree is reported first: the deletions in a directory before its own.
  void follow(Journal& journal, bool deep = false);
  // What was followed because of it, too. Nothing more is reported.
  void unfollow(Journal& journal);

 protected:
  explicit JournalReactor(const char* name, Order order = Order::normal);
  virtual void onEntity(Entity& entity, Change change) = 0;
  // Tells here and now all that there is to be told: for who starts with what stands there already.
  // It does not wait for a cut: what stands between two is there for whoever looks now.
  void hearAll();
  // Attributes of a followed journal's own root were written.
  virtual void onRootChanged(Entity&) {}
  bool run(Slice& slice) final;

 private:
  class Follow;
  friend class Follow;
  // Follows with something to report whose roots stand equally deep, in the order of their turns.
  struct Level {
    Follow* first = nullptr;
    Follow* last = nullptr;
  };

  void follow(Journal& journal, bool deep, Follow* outer);
  void report(Follow& follow, Entity& entity);
  Follow* deepest() const;
  bool isGated();

  std::unordered_map<const Journal*, std::unique_ptr<Follow>> follows_;
  std::vector<Level> levels_;
  bool* destroyed_ = nullptr;
};

}  // namespace ryx::platform
