// Timers on the virtual clock, against a sorted list.
#include "platform/activity/timer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"

namespace ryx::platform {
namespace {

struct CallTimer : Timer {
  explicit CallTimer(std::function<void()> f = [] {}) : Timer("test timer"), call(std::move(f)) {}
  void onTimer() override {
    const auto copy = call;  // the callback may destroy the timer
    copy();
  }
  std::function<void()> call;
};

class TimerTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(Timer::kNever, activity().nextWakeUp()); }
  VirtualClock time;
};

TEST_F(TimerTest, FiresOnceAtItsTime) {
  std::vector<double> fired;
  CallTimer timer([&] { fired.push_back(time.now()); });
  EXPECT_FALSE(timer.armed());
  timer.armAt(1005);
  EXPECT_TRUE(timer.armed());
  EXPECT_EQ(1005, activity().nextWakeUp());
  activity().run(4.75);
  EXPECT_TRUE(fired.empty());
  activity().run(0.25);  // ends when the timer is due: that is part of it
  EXPECT_EQ(std::vector<double>{1005}, fired);
  EXPECT_FALSE(timer.armed());
  EXPECT_EQ(Timer::kNever, timer.wakeUp());
  activity().run(600);
  EXPECT_EQ(1u, fired.size());
  EXPECT_EQ(1605, time.now());

  timer.armAt(10);  // past: as soon as possible
  activity().run(0);
  EXPECT_EQ(2u, fired.size());
  timer.armAt(2000);
  timer.armAt(Timer::kNever);
  EXPECT_FALSE(timer.armed());
}

TEST_F(TimerTest, EqualTimesFireInTheOrderOfArming) {
  std::vector<int> fired;
  std::vector<std::unique_ptr<CallTimer>> timers;
  for (int i = 0; i < 100; ++i)
    timers.push_back(std::make_unique<CallTimer>([&fired, i] { fired.push_back(i); }));
  for (auto& timer : timers) timer->armAt(1010);
  timers[3]->armAt(1500);  // later and back: the youngest arming
  timers[3]->armAt(1010);
  timers[0]->armAt(1010);  // the same time again
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i)
    if (i != 3 && i != 0) expected.push_back(i);
  expected.insert(expected.end(), {3, 0});
  activity().run(20);
  EXPECT_EQ(expected, fired);
}

TEST_F(TimerTest, CallbacksRearmAndDestroy) {
  int first = 0;
  int second = 0;
  std::unique_ptr<CallTimer> self;
  std::unique_ptr<CallTimer> other;
  self = std::make_unique<CallTimer>([&] {
    ++first;
    self.reset();
    other.reset();  // due, and taken out to fire already
  });
  other = std::make_unique<CallTimer>([&] { ++second; });
  CallTimer third([&] { ++second; });
  self->armAt(1001);
  other->armAt(1001);
  third.armAt(1001);
  activity().run(2);
  EXPECT_EQ(1, first);
  EXPECT_EQ(1, second);

  // Due timers that are moved or disarmed before their turn do not fire.
  CallTimer late([&] { FAIL(); });
  CallTimer moved([&] { EXPECT_EQ(1020, time.now()); });
  CallTimer mover([&] {
    late.disarm();
    moved.armAt(1020);
    EXPECT_EQ(1020, activity().nextWakeUp());
  });
  for (Timer* timer :
       {static_cast<Timer*>(&mover), static_cast<Timer*>(&late), static_cast<Timer*>(&moved)})
    timer->armAt(1010);
  activity().run(20);
}

TEST_F(TimerTest, RearmedForThePastFiresInALaterTurn) {
  int fired = 0;
  CallTimer restless;
  restless.call = [&] {
    ++fired;
    restless.armAt(time.now() - 1);
  };
  restless.armAt(time.now());
  activity().run(0);
  EXPECT_EQ(1, fired);
  activity().run(0);
  EXPECT_EQ(2, fired);
  EXPECT_LT(activity().nextWakeUp(), time.now());

  // Time passes all the same: the run ends.
  const uint64_t skips = activity().counters().busyTimeSkips;
  activity().zeroRunTurnsIs(5);
  activity().run(3);
  activity().zeroRunTurnsIs(Activity::kZeroRunTurns);
  EXPECT_GT(activity().counters().busyTimeSkips, skips);
  restless.disarm();
}

TEST_F(TimerTest, ExceptionLeavesTheOthersDue) {
  int fired = 0;
  CallTimer thrower([] { throw std::runtime_error("timer"); });
  CallTimer next([&] { ++fired; });
  thrower.armAt(1001);
  next.armAt(1001);
  EXPECT_THROW(activity().run(5), std::runtime_error);
  EXPECT_FALSE(activity().running());
  EXPECT_EQ(0, fired);
  EXPECT_EQ(1001, activity().nextWakeUp());
  activity().run(0);
  EXPECT_EQ(1, fired);
}

TEST_F(TimerTest, HundredThousandThatAreDueAtOnceFireInSlices) {
  constexpr int kTimers = 100'000;
  int fired = 0;
  int turnsOfTask = 0;
  std::vector<std::unique_ptr<CallTimer>> timers;
  for (int i = 0; i < kTimers; ++i) timers.push_back(std::make_unique<CallTimer>([&] { ++fired; }));
  for (auto& timer : timers) timer->armAt(1001);
  struct Watcher : Task {
    Watcher(int& f, int& t) : Task("watcher"), fired(f), turns(t) {}
    bool run(Slice&) override {
      EXPECT_LE(fired - seen, static_cast<int>(Slice::kItems));
      seen = fired;
      ++turns;
      return fired != kTimers;
    }
    int& fired;
    int& turns;
    int seen = 0;
  } watcher(fired, turnsOfTask);
  time.advance(2);
  watcher.wake();
  activity().run(0);
  EXPECT_EQ(kTimers, fired);
  EXPECT_GE(turnsOfTask, kTimers / static_cast<int>(Slice::kItems));
}

// Random arming, moving, disarming, destroying and passing time, in and outside of callbacks; the
// model is a sorted set of (time, number of the arming).
class Model {
 public:
  Model(VirtualClock& time, uint32_t seed) : time_(time), random_(seed) {
    for (int i = 0; i < kTimers; ++i) timers_.push_back(std::make_unique<Item>(*this, i));
  }

  void run(int operations) {
    for (int n = 0; n < operations && !testing::Test::HasFailure(); ++n) {
      if (random_() % 8 == 0)
        pass();
      else
        change();
      ASSERT_EQ(armed_.empty() ? Timer::kNever : armed_.begin()->time, activity().nextWakeUp());
    }
    for (auto& timer : timers_) timer.reset();
  }

 private:
  static constexpr int kTimers = 200;

  struct Arming {
    double time;
    uint64_t number;
    int timer;
    bool operator<(const Arming& other) const {
      return time != other.time ? time < other.time : number < other.number;
    }
  };

  struct Item : Timer {
    Item(Model& m, int i) : model(m), index(i) {}
    void onTimer() override { model.fired(index); }
    Model& model;
    const int index;
    std::set<Arming>::iterator arming;
    bool inModel = false;
  };

  void change() {
    const int index = static_cast<int>(random_() % kTimers);
    Item& item = *timers_[index];
    switch (random_() % 6) {
      case 0:
        item.disarm();
        drop(item);
        break;
      case 1:
        drop(item);
        timers_[index] = std::make_unique<Item>(*this, index);
        break;
      default: {
        // Coarse times, so that many are equal; some are past.
        const double when = time_.now() + static_cast<int>(random_() % 64) - 2;
        item.armAt(when);
        drop(item);
        item.arming = armed_.insert({when, ++number_, index}).first;
        item.inModel = true;
      }
    }
  }

  void drop(Item& item) {
    if (item.inModel) armed_.erase(item.arming);
    item.inModel = false;
  }

  // A callback: must be for the first of those that were due when the turn began. Changes
  // something.
  void fired(int index) {
    Item& item = *timers_[index];
    ASSERT_TRUE(item.inModel);
    EXPECT_LE(item.arming->time, time_.now());
    for (const Arming& earlier : armed_) {
      if (&*item.arming == &earlier) break;
      // An earlier one was armed in this turn, and has to wait.
      EXPECT_GT(earlier.number, turnBegan_);
    }
    EXPECT_LE(item.arming->number, turnBegan_);
    drop(item);
    if (random_() % 2 == 0) change();
  }

  void pass() {
    time_.advance(static_cast<int>(random_() % 8));
    turnBegan_ = number_;
    activity().run(0);
    for (const Arming& left : armed_) {
      if (left.time > time_.now()) break;
      EXPECT_GT(left.number, turnBegan_) << "a timer that was due did not fire";
    }
  }

  VirtualClock& time_;
  std::mt19937 random_;
  std::vector<std::unique_ptr<Item>> timers_;
  std::set<Arming> armed_;
  uint64_t number_ = 0;
  uint64_t turnBegan_ = 0;
};

TEST_F(TimerTest, BehavesLikeASortedList) {
  const char* more = std::getenv("RYX_TEST_ROUNDS");
  const uint32_t rounds = more ? static_cast<uint32_t>(std::atoi(more)) : 10;
  for (uint32_t seed = 1; seed <= rounds && !HasFailure(); ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Model(time, seed).run(5'000);
  }
}

}  // namespace
}  // namespace ryx::platform
