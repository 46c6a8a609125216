// What an agent declares between resync_init() and resync_complete(), of one table: the keys, and
// with each whatever the table compares besides (a route's vias).
//
//   if (resync_.isOn()) resync_.declare(key) = {};
//   ...
//   resync_.complete();   // or an error
//   for each key there is: if (!resync_.find(key)) it goes
//   resync_.end();
#pragma once

#include "lib/key_table.h"
#include "ryx/panic.h"

namespace ryx {

template <class K, class Detail>
class Resync {
 public:
  bool isOn() const { return isOn_; }

  // Starts, or starts over.
  void init() {
    declared_.clear();
    isOn_ = true;
  }
  Detail& declare(const K& key) { return declared_[key]; }
  void withdraw(const K& key) {
    if (isOn_) declared_.erase(key);
  }
  // Null when it was not declared.
  Detail* find(const K& key) const {
    auto* entry = isOn_ ? declared_.find(key) : nullptr;
    return entry ? &entry->value : nullptr;
  }

  // All of it, for a table that is written directly: what was not declared goes.
  template <class Entries>
  void eraseUndeclared(Entries& entries) {
    checkOn();
    for (auto it = entries.iterator(); it; it.next())
      if (!declared_.contains(it.key())) entries.remove(*it);
    end();
  }

  // Raises the error when it was not started.
  void checkOn() const {
    if (!isOn_) panic("Resync mode was not initialized; cannot complete resync");
  }
  void end() {
    declared_.clear();
    isOn_ = false;
  }

 private:
  bool isOn_ = false;
  KeyTable<K, Detail> declared_;
};

}  // namespace ryx
