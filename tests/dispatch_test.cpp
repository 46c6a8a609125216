// Registration and dispatch: the rules one by one, then random operations against a model that
// knows nothing but the rules.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "ryx/base_handler.h"
#include "ryx/base_mgr.h"
#include "tests/slots.h"
#include "tests/support/random_runs.h"

namespace {

using std::string;

// Counts its live objects, so that a registration that is left behind shows.
class port {
 public:
  explicit port(int number) : number_(number) { ++live; }
  port(const port& other) : number_(other.number_) { ++live; }
  ~port() { --live; }
  bool operator<(const port& other) const { return number_ < other.number_; }
  static inline int live = 0;

 private:
  int number_;
};

class port_mgr;

// The default callbacks count, for they must never be called.
class port_handler : public ryx::base_handler<port_mgr, port_handler> {
 public:
  explicit port_handler(port_mgr* mgr);
  virtual void on_speed(int) { ++default_calls; }
  virtual void on_status(int, const string&) { ++default_calls; }
  void watch_all(bool interest);
  void watch(int number, bool interest);
  bool bound() const { return mgr_ != nullptr; }
  static inline int default_calls = 0;
};

class port_mgr : public ryx::base_mgr<port_handler, port> {
 public:
  void speed(int mbps) { dispatch(&port_handler::on_speed, mbps); }
  void speed_of(int number, int mbps) { dispatch_key(port(number), &port_handler::on_speed, mbps); }
  void status(const char* text) { dispatch(&port_handler::on_status, 0, text); }
  void status_of(int number, const char* text) {
    dispatch_key(port(number), &port_handler::on_status, number, text);
  }
};

port_handler::port_handler(port_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}

void port_handler::watch_all(bool interest) {
  if (interest)
    mgr_->add_handler(this);
  else
    mgr_->remove_handler(this);
}

void port_handler::watch(int number, bool interest) {
  if (interest)
    mgr_->add_handler(port(number), this);
  else
    mgr_->remove_handler(port(number), this);
}

class speed_watcher : public port_handler {
 public:
  using port_handler::port_handler;
  void on_speed(int mbps) override {
    heard.push_back(mbps);
    if (then) then();
  }
  std::vector<int> heard;
  std::function<void()> then;
};

using heard = std::vector<int>;

// Two watchers whose addresses are in the order of their names.
struct two_watchers {
  port_mgr mgr;
  std::array<std::optional<speed_watcher>, 2> watchers;
  speed_watcher& first;
  speed_watcher& second;
  two_watchers() : first(watchers[0].emplace(&mgr)), second(watchers[1].emplace(&mgr)) {}
};

TEST(Dispatch, allAndByKey) {
  two_watchers w;
  w.second.watch_all(true);
  w.first.watch(7, true);
  w.mgr.speed_of(7, 10);
  w.mgr.speed_of(8, 40);
  w.mgr.speed(100);
  EXPECT_EQ(heard({10, 40, 100}), w.second.heard);
  EXPECT_EQ(heard({10}), w.first.heard);

  w.first.watch_all(true);  // clears what it wants of port 7
  w.mgr.speed_of(7, 25);
  EXPECT_EQ(heard({10, 25}), w.first.heard);
  w.first.watch(7, true);  // has no effect while it watches all
  w.first.watch_all(false);
  w.mgr.speed_of(7, 1);
  EXPECT_EQ(heard({10, 25}), w.first.heard);
  w.first.watch(7, true);
  w.mgr.speed_of(7, 2);
  EXPECT_EQ(heard({10, 25, 2}), w.first.heard);
}

TEST(Dispatch, allBeforeKeyAndByAddress) {
  two_watchers w;
  string order;
  w.first.then = [&] { order += "1"; };
  w.second.then = [&] { order += "2"; };
  w.second.watch(7, true);
  w.first.watch(7, true);
  w.mgr.speed_of(7, 10);
  EXPECT_EQ("12", order);
  w.second.watch_all(true);
  w.mgr.speed_of(7, 10);
  EXPECT_EQ("1221", order);
}

TEST(Dispatch, removedStaysRemovedUntilADispatchPasses) {
  two_watchers w;
  w.first.watch_all(true);
  w.first.watch_all(false);
  w.first.watch_all(true);
  w.mgr.speed(10);
  EXPECT_EQ(heard(), w.first.heard);
  w.first.watch_all(true);  // the dispatch purged the entry
  w.mgr.speed(25);
  EXPECT_EQ(heard({25}), w.first.heard);

  w.second.watch(7, true);
  w.second.watch(7, false);
  w.second.watch(7, true);
  w.mgr.speed_of(8, 1);  // passes other entries
  w.mgr.speed_of(7, 2);
  EXPECT_EQ(heard(), w.second.heard);
  w.second.watch(7, true);
  w.mgr.speed_of(7, 3);
  EXPECT_EQ(heard({3}), w.second.heard);
}

TEST(Dispatch, removalByACallback) {
  two_watchers w;
  w.first.watch_all(true);
  w.second.watch_all(true);
  w.first.then = [&] { w.second.watch_all(false), w.first.watch_all(false); };
  w.mgr.speed(10);
  w.mgr.speed(25);
  EXPECT_EQ(heard({10}), w.first.heard);
  EXPECT_EQ(heard(), w.second.heard);
}

TEST(Dispatch, additionByACallback) {
  two_watchers w;
  w.second.watch_all(true);
  w.second.then = [&] { w.first.watch_all(true); };
  w.mgr.speed(10);
  EXPECT_EQ(heard(), w.first.heard);
  w.mgr.speed(25);
  EXPECT_EQ(heard({25}), w.first.heard);
}

TEST(Dispatch, nestedDispatchPurgesNothing) {
  two_watchers w;
  w.first.watch_all(true);
  w.second.watch_all(true);
  w.first.then = [&] {
    if (w.first.heard.size() > 1) return;
    w.second.watch_all(false);
    w.mgr.speed(99);
    w.second.watch_all(true);  // the entry still stands, removed
  };
  w.mgr.speed(10);
  EXPECT_EQ(heard({10, 99}), w.first.heard);
  EXPECT_EQ(heard(), w.second.heard);
}

TEST(Dispatch, destroyedAndConstructedAgain) {
  two_watchers w;
  // Without any dispatch between: the new handler's registration counts.
  w.watchers[1]->watch_all(true);
  w.watchers[1].emplace(&w.mgr).watch_all(true);
  w.mgr.speed(10);
  EXPECT_EQ(heard({10}), w.watchers[1]->heard);
  // In a callback of the handler itself, and in one of another.
  w.watchers[0]->watch_all(true);
  w.watchers[0]->then = [&] { w.watchers[1].emplace(&w.mgr).watch(7, true); };
  w.mgr.speed_of(7, 25);
  EXPECT_EQ(heard({25}), w.watchers[1]->heard);
  w.watchers[1]->then = [&] { w.watchers[1].emplace(&w.mgr).watch_all(true); };
  w.watchers[0].reset();
  w.mgr.speed_of(7, 40);
  EXPECT_EQ(heard(), w.watchers[1]->heard);
  w.mgr.speed_of(7, 100);
  EXPECT_EQ(heard({100}), w.watchers[1]->heard);
}

TEST(Dispatch, nothingStaysOfTheDestroyed) {
  {
    port_mgr mgr;
    {
      speed_watcher one(&mgr);
      for (int i = 0; i < 100; ++i) one.watch(i, true);
      one.watch(3, false);
      EXPECT_EQ(200, port::live);
    }
    EXPECT_EQ(0, port::live);
    speed_watcher all(&mgr);
    auto doomed = std::make_unique<speed_watcher>(&mgr);
    all.watch_all(true);
    for (int i = 0; i < 100; ++i) doomed->watch(i, true);
    all.then = [&] { doomed.reset(); };
    mgr.speed(10);
    EXPECT_EQ(0, port::live);
  }
  EXPECT_EQ(0, port::live);
}

TEST(Dispatch, managerDiesFirst) {
  auto mgr = std::make_unique<port_mgr>();
  speed_watcher all(mgr.get()), one(mgr.get()), left(mgr.get()), never(mgr.get());
  all.watch_all(true);
  one.watch(7, true);
  left.watch_all(true);
  left.watch_all(false);
  mgr.reset();
  EXPECT_FALSE(all.bound() || one.bound() || left.bound() || never.bound());
  // Their destructors must not touch what was the manager: the address sanitizer watches.
}

TEST(Dispatch, exceptionOutOfACallback) {
  two_watchers w;
  w.first.watch_all(true);
  w.second.watch_all(true);
  w.first.then = [&] {
    if (w.first.heard.size() == 1) {
      w.first.watch_all(false);
      throw std::runtime_error("first");
    }
  };
  EXPECT_THROW(w.mgr.speed(10), std::runtime_error);
  EXPECT_EQ(heard(), w.second.heard);
  w.mgr.speed(25);
  EXPECT_EQ(heard({25}), w.second.heard);
  w.first.watch_all(true);  // the second dispatch was an outermost one again, and purged
  w.mgr.speed(40);
  EXPECT_EQ(heard({10, 40}), w.first.heard);
}

TEST(Dispatch, argumentsAreConverted) {
  class status_watcher : public port_handler {
   public:
    using port_handler::port_handler;
    void on_status(int number, const string& text) override {
      heard = std::to_string(number) + text;
    }
    string heard;
  };
  port_mgr mgr;
  status_watcher watcher(&mgr);
  watcher.watch_all(true);
  mgr.status_of(7, "up");
  EXPECT_EQ("7up", watcher.heard);
}

TEST(Dispatch, virtualOperationsOfTheManagerAreHonoured) {
  class strict_mgr : public port_mgr {
   public:
    void add_handler(port_handler* h) override {
      log += "+";
      port_mgr::add_handler(h);
    }
    void remove_handler(port_handler* h) override {
      log += "-";
      port_mgr::remove_handler(h);
    }
    using port_mgr::add_handler;
    using port_mgr::remove_handler;
    string log;
  };
  strict_mgr mgr;
  { speed_watcher watcher(&mgr); }
  EXPECT_EQ("+-", mgr.log);
}

TEST(Dispatch, slots) {
  using mgr = ryx::base_mgr<port_handler, port>;
  EXPECT_EQ(2, slot(static_cast<void (mgr::*)(port_handler*)>(&mgr::add_handler)));
  EXPECT_EQ(3, slot(static_cast<void (mgr::*)(const port&, port_handler*)>(&mgr::add_handler)));
  EXPECT_EQ(4, slot(static_cast<void (mgr::*)(port_handler*)>(&mgr::remove_handler)));
  EXPECT_EQ(5, slot(static_cast<void (mgr::*)(const port&, port_handler*)>(&mgr::remove_handler)));
}

// Handler classes of an agent's own, which do not make their table known. Each has a manager of its
// own kind, and a default callback that counts.
template <class Handler>
class plain_mgr : public ryx::base_mgr<Handler> {
 public:
  void event() { this->dispatch(&Handler::on_event); }
};

class plain_handler : public ryx::base_handler<plain_mgr<plain_handler>, plain_handler> {
 public:
  explicit plain_handler(plain_mgr<plain_handler>* mgr) : base_handler(mgr) {
    ++constructed;
    mgr->add_handler(this);
  }
  virtual void on_event() { ++default_calls; }
  static inline int constructed = 0;
  static inline int default_calls = 0;
};

class abstract_handler : public ryx::base_handler<plain_mgr<abstract_handler>, abstract_handler> {
 public:
  using base_handler::base_handler;
  virtual void on_event() { ++default_calls; }
  virtual void name() = 0;
  static inline int default_calls = 0;
};

class throwing_handler : public ryx::base_handler<plain_mgr<throwing_handler>, throwing_handler> {
 public:
  throwing_handler(plain_mgr<throwing_handler>* mgr, bool fails = true) : base_handler(mgr) {
    mgr->add_handler(this);
    if (fails) throw std::runtime_error("no");
  }
  virtual void on_event() { ++default_calls; }
  static inline int default_calls = 0;
};

TEST(Dispatch, tableOfAnAgentsOwnBase) {
  {
    struct overriding : plain_handler {
      using plain_handler::plain_handler;
      void on_event() override { ++calls; }
      int calls = 0;
    };
    plain_mgr<plain_handler> mgr;
    plain_handler plain(&mgr);
    overriding over(&mgr);
    mgr.event();
    mgr.event();
    EXPECT_EQ(2, over.calls);
    EXPECT_EQ(0, plain_handler::default_calls);
    EXPECT_EQ(3, plain_handler::constructed);  // the third is the manager's, to look at
  }
  // Where none can be built, everybody is called.
  {
    struct concrete : abstract_handler {
      using abstract_handler::abstract_handler;
      void name() override {}
    };
    plain_mgr<abstract_handler> mgr;
    concrete handler(&mgr);
    mgr.add_handler(&handler);
    mgr.event();
    EXPECT_EQ(1, abstract_handler::default_calls);
  }
  {
    plain_mgr<throwing_handler> mgr;
    throwing_handler handler(&mgr, false);
    mgr.event();
    mgr.event();
    EXPECT_EQ(2, throwing_handler::default_calls);
  }
}

// The model. Handlers live in slots of one array, so that the order of the slots is that of their
// addresses. The model holds entries by slot and walks them step by step; each callback of the real
// dispatch must be the model's next step. In a callback anything may happen, to both.

constexpr int kSlots = 9;
constexpr int kPorts = 4;
constexpr int kDepth = 3;

enum event { kSpeed, kStatus, kEvents };

class model {
 public:
  enum entry { active, removed, destroyed };
  using entries = std::map<int, entry>;

  struct frame {
    event what;
    int key;  // -1: an event of no key
    bool outermost;
    bool by_key = false;
    int next = -1;  // the slot, or kSlots for the end
    bool entered = false;
  };

  void construct(int slot, unsigned overrides) {
    living[slot] = true;
    overridden[slot] = overrides;
  }
  void destroy(int slot) {
    living[slot] = false;
    add_all(slot);  // as every handler does when it goes: positions may rest on this entry
    auto mark = [&](entries& list) {
      if (list.count(slot) != 0) list[slot] = destroyed;
    };
    mark(all);
    for (auto& [key, list] : keyed) mark(list);
    if (frames.empty()) sweep();
  }
  void add_all(int slot) {
    add(all, slot);
    for (auto& [key, list] : keyed) remove(list, slot);
  }
  void remove_all(int slot) { remove(all, slot); }
  void add_key(int key, int slot) {
    auto found = all.find(slot);
    if (found == all.end() || found->second != active) add(keyed[key], slot);
  }
  void remove_key(int key, int slot) { remove(keyed[key], slot); }

  void begin(event what, int key) { frames.push_back({what, key, frames.empty()}); }
  // The slot of the next call of the dispatch that runs; kSlots when there is none any more.
  int step() {
    frame& f = frames.back();
    for (;;) {
      entries& list = f.by_key ? keyed[f.key] : all;
      if (!f.entered) {
        f.entered = true;
        f.next = list.empty() ? kSlots : list.begin()->first;
      }
      while (f.next != kSlots) {
        int at = f.next;
        auto after = list.upper_bound(at);
        f.next = after == list.end() ? kSlots : after->first;
        if (list.at(at) == active) {
          if ((overridden[at] >> f.what & 1) != 0) return at;
        } else if (f.outermost) {
          list.erase(at);
        }
      }
      if (f.by_key || f.key < 0) return kSlots;
      f.by_key = true;
      f.entered = false;
    }
  }
  void end() {
    frames.pop_back();
    if (frames.empty()) sweep();
  }

  bool living[kSlots] = {};
  std::vector<frame> frames;

 private:
  static void add(entries& list, int slot) {
    auto [place, added] = list.emplace(slot, active);
    if (!added && place->second == destroyed) place->second = active;
  }
  static void remove(entries& list, int slot) {
    auto found = list.find(slot);
    if (found != list.end() && found->second == active) found->second = removed;
  }
  void sweep() {
    auto clean = [](entries& list) {
      for (int slot = 0; slot < kSlots; ++slot)
        if (list.count(slot) != 0 && list[slot] == destroyed) list.erase(slot);
    };
    clean(all);
    for (auto& [key, list] : keyed) clean(list);
  }

  unsigned overridden[kSlots] = {};
  entries all;
  std::map<int, entries> keyed;
};

class random_dispatches {
 public:
  explicit random_dispatches(unsigned seed) : random_(seed) {}
  ~random_dispatches() {
    for (int slot = 0; slot < kSlots; ++slot)
      if (model_.living[slot]) destroy(slot);
  }

  void run(int operations) {
    for (left_ = operations; left_ > 0 && !testing::Test::HasFailure();) operation();
  }

  void called(int slot, event what) {
    ASSERT_FALSE(model_.frames.empty());
    ASSERT_EQ(model_.frames.back().what, what);
    ASSERT_EQ(model_.step(), slot) << left_ << " operations before the end";
    ++calls_;
    for (int n = upTo(3); n > 0 && left_ > 0; --n) operation();
    if (upTo(20) == 0) throw slot;
  }
  int calls() const { return calls_; }

 private:
  template <unsigned Overrides>
  class watcher;

  int upTo(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(random_); }

  port_handler* at(int slot) { return handlers_[slot]; }

  void operation() {
    --left_;
    int slot = upTo(kSlots);
    if (!model_.living[slot]) return construct(slot);
    int key = upTo(kPorts);
    switch (upTo(9)) {
      case 0:
        return destroy(slot);
      case 1:
        destroy(slot);
        return construct(slot);
      case 2:
        model_.add_all(slot);
        return at(slot)->watch_all(true);
      case 3:
        model_.remove_all(slot);
        return at(slot)->watch_all(false);
      case 4:
      case 5:
        model_.add_key(key, slot);
        return at(slot)->watch(key, true);
      case 6:
        model_.remove_key(key, slot);
        return at(slot)->watch(key, false);
      default:
        return dispatch(static_cast<event>(upTo(kEvents)), upTo(kPorts + 1) - 1);
    }
  }

  void construct(int slot);
  void destroy(int slot) {
    model_.destroy(slot);
    at(slot)->~port_handler();
  }

  void dispatch(event what, int key) {
    if (model_.frames.size() == kDepth) return;
    model_.begin(what, key);
    try {
      if (key < 0 && what == kSpeed)
        mgr_.speed(1);
      else if (key < 0)
        mgr_.status("up");
      else if (what == kSpeed)
        mgr_.speed_of(key, 1);
      else
        mgr_.status_of(key, "up");
      EXPECT_EQ(model_.step(), kSlots) << left_ << " operations before the end";
    } catch (int) {
    }
    model_.end();
  }

  struct alignas(64) room {
    std::byte bytes[64];
  };

  std::mt19937 random_;
  int left_ = 0;
  int calls_ = 0;
  port_mgr mgr_;
  model model_;
  room rooms_[kSlots];
  port_handler* handlers_[kSlots] = {};
};

// The bits of Overrides say which callbacks the class overrides.
template <>
class random_dispatches::watcher<0> : public port_handler {
 public:
  watcher(port_mgr* mgr, random_dispatches*, int) : port_handler(mgr) {}
};

template <>
class random_dispatches::watcher<1> : public port_handler {
 public:
  watcher(port_mgr* mgr, random_dispatches* test, int slot)
      : port_handler(mgr), test_(test), slot_(slot) {}
  void on_speed(int) override { test_->called(slot_, kSpeed); }

 protected:
  random_dispatches* test_;
  int slot_;
};

template <>
class random_dispatches::watcher<2> : public port_handler {
 public:
  watcher(port_mgr* mgr, random_dispatches* test, int slot)
      : port_handler(mgr), test_(test), slot_(slot) {}
  void on_status(int, const string&) override { test_->called(slot_, kStatus); }

 private:
  random_dispatches* test_;
  int slot_;
};

template <>
class random_dispatches::watcher<3> : public random_dispatches::watcher<1> {
 public:
  using watcher<1>::watcher;
  void on_status(int, const string&) override { test_->called(slot_, kStatus); }
};

void random_dispatches::construct(int slot) {
  unsigned overrides = static_cast<unsigned>(upTo(4));
  model_.construct(slot, overrides);
  void* place = &rooms_[slot];
  switch (overrides) {
    case 0:
      handlers_[slot] = new (place) watcher<0>(&mgr_, this, slot);
      break;
    case 1:
      handlers_[slot] = new (place) watcher<1>(&mgr_, this, slot);
      break;
    case 2:
      handlers_[slot] = new (place) watcher<2>(&mgr_, this, slot);
      break;
    default:
      handlers_[slot] = new (place) watcher<3>(&mgr_, this, slot);
  }
}

TEST(Dispatch, randomOperationsAgainstTheModel) {
  constexpr int kEach = 1000;
  const unsigned wanted = 40 * ryx::test::testTimes();
  unsigned runs = 0;
  port_handler::default_calls = 0;
  int calls = 0;
  ryx::test::seededRuns([&] { return runs == wanted; },
                        [&](unsigned seed) {
                          random_dispatches test(seed);
                          test.run(kEach);
                          calls += test.calls();
                          ++runs;
                        });
  EXPECT_EQ(0, port_handler::default_calls);
  EXPECT_EQ(0, port::live);
  EXPECT_GT(calls, static_cast<int>(runs) * 50) << "the operations hardly dispatched anything";
  ryx::test::tellOperations(uint64_t{runs} * kEach);
}

}  // namespace
