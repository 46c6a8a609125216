// Where the Mirra tables of one switch are handed over: a writer offers a memory file under the
// table's name, and whoever reads a table of that name is told of it, now, later, and again when a
// restarted writer offers the next one. The notices of a writer that something changed come this
// way too: a reader sleeps until then.
//
// Apart from the state of the tree: what is handed over is a file, and notices are about no value.
// A tree knows its exchange (Tree::tables()): the one of this process, or a link's to the hub's.
//
// Under the activity lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/api.h"
#include "platform/base/file.h"

namespace ryx::platform::mirra {

struct Offered {
  std::string typeName;     // as "Mirra::Fib::RouteStatus"
  uint64_t incarnation;     // which table it is: each has its own
  File file = {};           // none: there is one, and it cannot be handed over
  std::string writer = {};  // who offers it, where a hub knows
};

// Who waits for a table. It is called by whatever tells the exchange, and does nothing there but
// note it.
class Listener {
 public:
  virtual ~Listener() = default;
  // Another table is offered, or none is any more.
  virtual void tableChanged() = 0;
  // Something was written to the table, since the last time at the latest.
  virtual void tableRang() = 0;
};

class Exchange {
 public:
  virtual ~Exchange() = default;
  // In the place of what is offered under that name.
  virtual void offer(const std::string& name, const Offered& table) = 0;
  // Nothing is, unless another table is by now.
  virtual void withdraw(const std::string& name, uint64_t incarnation) = 0;
  virtual void ring(const std::string& name, uint64_t incarnation) = 0;
  // Whoever offers here offers all that it has: what its forerunner left besides goes.
  virtual void settle() = 0;
  // The listener outlives its attachment. There may be several of one name.
  virtual void attach(const std::string& name, Listener& listener) = 0;
  virtual void detach(const std::string& name, Listener& listener) = 0;
  // Null while nothing is.
  virtual const Offered* offered(const std::string& name) const = 0;
};

// Of one process, and a hub's.
class RYX_PRIVATE LocalExchange final : public Exchange {
 public:
  void offer(const std::string& name, const Offered& table) override;
  void withdraw(const std::string& name, uint64_t incarnation) override;
  void ring(const std::string& name, uint64_t incarnation) override;
  void settle() override {}  // one process has no forerunner
  void attach(const std::string& name, Listener& listener) override;
  void detach(const std::string& name, Listener& listener) override;
  const Offered* offered(const std::string& name) const override;

  const std::map<std::string, Offered, std::less<>>& all() const { return offered_; }
  // `changed` is called when a table is offered or withdrawn, or has another number of readers.
  void onChangeIs(std::function<void()> changed) { changed_ = std::move(changed); }
  size_t readers(const std::string& name) const;

 private:
  template <class F>
  void tell(const std::string& name, F&& call);
  void changed() const {
    if (changed_) changed_();
  }

  std::map<std::string, Offered, std::less<>> offered_;
  std::map<std::string, std::set<Listener*>, std::less<>> listeners_;
  std::function<void()> changed_;
};

}  // namespace ryx::platform::mirra
