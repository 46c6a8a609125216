// What an agent has set and the switch has not been told yet. A change is made on a working copy,
// outside of the tree, and its key is dirty from then on; when the loop runs, each dirty key is
// committed in the order in which it became dirty. Ten changes of one key are one write then, an
// operation that fails half way has changed nothing, and while the connection is clogged the keys
// wait here, once each, instead of in an output buffer.
//
//   class IpRouteMgrSm final : public DirtyTable<DirtyRouteKey, Routing::Route> {
//     bool run(Slice& slice) override {
//       CallbackGuard guard(mgr_);
//       return commitSome(slice);
//     }
//     void commit(const DirtyRouteKey& key, Routing::Route* copy) override;  // null: deleted
//   };
//
// The key is a platform value with a hash (members()). Its iterators survive every change, commits
// included: an entry may be seen or missed, never invalid.
#pragma once

#include <algorithm>
#include <utility>

#include "lib/backlog.h"
#include "lib/key_table.h"
#include "platform/activity/task.h"
#include "platform/activity/timer.h"
#include "platform/base/clock.h"

namespace ryx {

template <class K, class T>
class DirtyTable : protected platform::Task, private platform::Timer, private Backlog::Table {
 public:
  // A key and its working copy (`value`), which is null where the key is to be deleted.
  using Entry = typename KeyTable<K, platform::Ref<T>>::Entry;
  using Iterator = typename KeyTable<K, platform::Ref<T>>::Iterator;

  // Null when the key is not dirty.
  Entry* find(const K& key) const { return entries_.find(key); }
  bool isDirty(const K& key) const { return entries_.contains(key); }
  // Null when there is none: the key is not dirty, or is to be deleted.
  T* copy(const K& key) const {
    const Entry* entry = entries_.find(key);
    return entry ? entry->value.get() : nullptr;
  }
  // The key is dirty, and this is what it is to become: a working copy, or, when null, nothing.
  void set(const K& key, platform::Ref<T> copy) {
    entries_[key] = std::move(copy);
    wake();
  }
  // The same for one that was found, and was not committed since.
  void set(Entry& entry, platform::Ref<T> copy) {
    entry.value = std::move(copy);
    wake();
  }
  // It is as it is committed.
  void clean(const K& key) {
    if (entries_.erase(key) && isEmpty()) backlog_.emptied(rank_);
  }
  size_t size() const { return entries_.size(); }
  Iterator iterator() const { return entries_.iterator(); }

 protected:
  // Its keys have that rank in the backlog, which outlives it.
  DirtyTable(const char* name, Backlog& backlog, BacklogRank rank)
      : Task(name), Timer(name), backlog_(backlog), rank_(rank) {
    backlog_.join(*this);
  }
  ~DirtyTable() override { backlog_.leave(*this); }

  // Writes what the key has become.
  virtual void commit(const K& key, T* copy) = 0;
  // The connection takes no more now.
  virtual bool clogged() const = 0;
  // Told once each time that commits are put off.
  virtual void deferred() {}

  // For run(): commits as many as the slice allows. A key that a commit makes dirty again is
  // committed again. Nothing while it is the turn of others.
  bool commitSome(platform::Slice& slice) {
    if (!backlog_.isTurnOf(rank_)) return false;
    most_ = std::max(most_, size());
    while (Iterator first = iterator()) {
      if (clogged()) {
        deferred();
        armAt(platform::clock().now() + kRetrySeconds);
        return false;
      }
      const platform::Ref<Entry> entry(&*first);
      entries_.erase(*entry);
      commit(entry->key(), entry->value.get());
      if (slice.spent()) return true;
    }
    if (std::exchange(most_, 0) > kKeptKeys) entries_.clear();
    backlog_.emptied(rank_);
    return false;
  }

 private:
  static constexpr double kRetrySeconds = 0.001;
  // After so many, the table's own memory is given back when it is empty.
  static constexpr size_t kKeptKeys = 4096;

  void onTimer() override { wake(); }
  BacklogRank rank() const override { return rank_; }
  bool isEmpty() const override { return entries_.empty(); }
  void turn() override { wake(); }

  Backlog& backlog_;
  const BacklogRank rank_;
  KeyTable<K, platform::Ref<T>> entries_;
  size_t most_ = 0;  // that waited since it was empty
};

}  // namespace ryx
