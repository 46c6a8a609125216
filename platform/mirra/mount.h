// The mount facility of the Mirra tables: status that is too large or too hot for replication, with
// one writer and any number of readers. It is apart from Statehub's mounts, since a table is handed
// over, not replicated: a reader mounts it by name and type, read-only, and is attached to whatever
// the writer offers under that name, now or later, and again after the writer came back.
//
// A mount completes at once with success, whether the table exists yet or not; it fails when a
// table of that name is of another type. Within one process the facility hands over the object
// itself.
//
// Under the activity lock. Offers and mounts may come and go in any order.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/api.h"

namespace ryx::platform::mirra {

// What a writer hands over. Its type is named like "Mirra::Fib::RouteStatus".
class Table {
 public:
  virtual ~Table() = default;
};

enum class MountStatus : int { pending = 0, wrongType = 2, success = 4 };

// A writer's side: the table is to be had as long as this lives.
class RYX_PRIVATE Offer {
 public:
  // One writer a name: a second offer while the first lives replaces it, as a restarted writer's
  // does.
  Offer(std::string_view name, std::string_view typeName, std::shared_ptr<Table> table);
  ~Offer();
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;

 private:
  std::string name_;
  uint64_t incarnation_;
};

// A reader's side.
class RYX_PRIVATE Mount {
 public:
  Mount(std::string_view name, std::string_view typeName);
  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  MountStatus status() const;
  // The table, or null while nobody offers it. What was read from stays valid as long as it is
  // held.
  std::shared_ptr<const Table> table() const;
  // Which of the writers that came after each other this is; 0: none.
  uint64_t incarnation() const;
  // Called from the loop, never from within, once for the completed mount and then each time the
  // table came, went or was replaced; several changes before the call are one.
  void onChangeIs(std::function<void()> changed);

 private:
  friend class Offer;
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace ryx::platform::mirra
