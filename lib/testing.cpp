#include "ryx/testing.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

#include "lib/agent_initialized.h"
#include "lib/signals.h"
#include "platform/activity/activity.h"
#include "platform/base/check.h"
#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/model/wellknown.h"
#include "platform/qel/codec.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/local.h"
#include "ryx/agent.h"
#include "ryx/event_loop.h"
#include "ryx/panic.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx::testing {

using platform::activity;
using platform::Dir;
using platform::EntityManager;
using platform::Feed;
using platform::GenericAgent::Config;
using platform::GenericAgent::Status;

namespace {

bool oneIsThere = false;

class OneAtATime {
 public:
  OneAtATime() {
    if (oneIsThere) panic("there is another simulated_switch: a process has one at a time");
    oneIsThere = true;
  }
  ~OneAtATime() { oneIsThere = false; }
  OneAtATime(const OneAtATime&) = delete;
};

// Under which an agent's configuration and status stand.
std::string entityName(const std::string& agent) {
  checkMountableName(agent);
  return agentTitle2agentName(agent);
}

}  // namespace

struct simulated_switch::impl {
  impl() {
    platform::makeWellKnown(tree);
    std::string why;
    feed = platform::loadFeed(tree, "sim", "", &why);
    if (!feed) panic(configuration_error("no simulated switch: " + why));
  }
  Config& configOf(const std::string& agent) {
    return *tree.find<Dir>("daemon/agent/config")
                ->entry.create<Config>(platform::Name(entityName(agent)));
  }
  const Status* statusOf(const std::string& agent) {
    return tree.find<Status>("daemon/agent/status/" + entityName(agent));
  }

  const OneAtATime one;
  platform::VirtualClock clock;
  platform::Tree tree;
  std::unique_ptr<Feed> feed;
  int agents = 0;  // contexts that are connected
};

namespace {

// In it writes are the switch's, in an agent's callback too.
class AsSwitch {
 public:
  explicit AsSwitch(platform::Tree& tree)
      : clock_(tree.clock()), outer_(std::exchange(clock_.writer, nullptr)) {}
  ~AsSwitch() { clock_.writer = outer_; }
  AsSwitch(const AsSwitch&) = delete;

 private:
  const sdk_scoped_lock lock_;
  platform::StoreClock& clock_;
  platform::Writer* const outer_;
};

// The most rounds in which what is due, and what comes of it, is done before time passes all the
// same.
constexpr int kRounds = 1000;
// Of those, the ones for descriptors alone: one may be ready for ever.
constexpr int kDescriptorRounds = 100;
// Times that are as near as that are the same: now() + 5 and five seconds from now.
constexpr double kRounding = 1e-6;

enum class Ended {
  atRest,   // nothing more is due
  busy,     // an agent always has something to do
  byAgent,  // one left by agent_mgr::exit()
};

void checkDuration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) panic("duration must be finite, and 0 or greater");
}

double untilNextTimer() {
  return activity().nextWakeUp() - platform::clock().now();
}

// Does what is due, and what comes of it.
Ended settle() {
  platform::Activity& loop = activity();
  const uint64_t stops = loop.stops();
  for (int round = 1; round <= kRounds; ++round) {
    const platform::ActivityCounters before = loop.counters();
    const double due = untilNextTimer();
    loop.run(due <= kRounding ? std::max(due, 0.0) : 0);
    exitIfSignalled();
    if (loop.stops() != stops) return Ended::byAgent;
    const platform::ActivityCounters& after = loop.counters();
    if (after.zeroRunsCut != before.zeroRunsCut) return Ended::busy;
    if (loop.queued() == 0 && untilNextTimer() > kRounding &&
        (after.descriptorEvents == before.descriptorEvents || round >= kDescriptorRounds))
      return Ended::atRest;
  }
  return Ended::busy;
}

// Lets the time pass to `end`, after what was due before ended so.
Ended passTo(double end, Ended before) {
  const uint64_t stops = activity().stops();
  const double seconds = end - platform::clock().now();
  if (seconds <= 0 || before == Ended::byAgent) return before;
  if (before == Ended::busy)
    platform::clock().skipTo(end);
  else
    activity().run(seconds);
  exitIfSignalled();
  return activity().stops() != stops ? Ended::byAgent : settle();
}

}  // namespace

simulated_switch::simulated_switch() : impl_(std::make_unique<impl>()) {}

simulated_switch::~simulated_switch() {
  platform::check(impl_->agents == 0, "a simulated_switch outlives the contexts of its agents");
  const sdk_scoped_lock lock;
  impl_->feed.reset();
  activity().run(0);
}

void simulated_switch::command(const std::string& lines) {
  const AsSwitch as(impl_->tree);
  size_t number = 0;
  for (std::string_view left = lines; !left.empty();) {
    const std::string_view line = left.substr(0, left.find('\n'));
    left.remove_prefix(std::min(left.size(), line.size() + 1));
    ++number;
    if (const std::string why = impl_->feed->command(line); !why.empty())
      panic(configuration_error("line " + std::to_string(number) + ": " + why));
  }
}

void simulated_switch::run() {
  (void)settle();
}

void simulated_switch::run_for(double seconds) {
  checkDuration(seconds);
  const double end = platform::clock().now() + seconds;
  (void)passTo(end, settle());
}

bool simulated_switch::run_until(const std::function<bool()>& condition, double seconds) {
  checkDuration(seconds);
  // From one timer to the next: the condition may begin to hold at any of them.
  const double end = platform::clock().now() + seconds;
  for (Ended ended = settle(); !condition();) {
    if (platform::clock().now() >= end || ended == Ended::byAgent) return false;
    const double next = ended == Ended::busy ? end : std::min(activity().nextWakeUp(), end);
    ended = passTo(next, ended);
  }
  return true;
}

void simulated_switch::agent_enabled_is(const std::string& agent, bool enabled) {
  const AsSwitch as(impl_->tree);
  impl_->configOf(agent).enabled.set(enabled);
}

void simulated_switch::agent_option_set(const std::string& agent, const std::string& option,
                                        const std::string& value) {
  const AsSwitch as(impl_->tree);
  impl_->configOf(agent).option.set(option, value);
}

void simulated_switch::agent_option_del(const std::string& agent, const std::string& option) {
  const AsSwitch as(impl_->tree);
  impl_->configOf(agent).option.erase(option);
}

std::string simulated_switch::agent_status(const std::string& agent, const std::string& key) const {
  const sdk_scoped_lock lock;
  const Status* status = impl_->statusOf(agent);
  const auto* value = status ? status->data.get(key) : nullptr;
  return value ? std::string(value->bytes()) : "";
}

bool simulated_switch::agent_running(const std::string& agent) const {
  const sdk_scoped_lock lock;
  const Status* status = impl_->statusOf(agent);
  return status && status->running();
}

std::string simulated_switch::show(const std::string& path) const {
  const sdk_scoped_lock lock;
  const platform::Entity* entity = impl_->tree.find(path);
  if (!entity) return "";
  platform::JsonWriter json;
  entity->dump(json);
  return json.text();
}

struct agent_sdk::connection {
  connection(simulated_switch::impl& to, const std::string& name)
      : em(EntityManager::embedded(name, to.tree)), agents(to.agents) {
    ++agents;
  }
  ~connection() { --agents; }
  connection(const connection&) = delete;

  const std::unique_ptr<EntityManager> em;
  int& agents;
};

agent_sdk::agent_sdk(simulated_switch& connected_to, const std::string& name)
    : agent_sdk(connected_to, name, std::make_unique<connection>(*connected_to.impl_, name)) {}

agent_sdk::agent_sdk(simulated_switch& connected_to, const std::string& name,
                     std::unique_ptr<connection> made)
    : sdk(name, made->em.get()), switch_(connected_to), connection_(std::move(made)) {}

agent_sdk::~agent_sdk() {
  destroy_managers();
}

void agent_sdk::start() {
  initialize_context();
  get_event_loop()->wait_for_initialized();
  switch_.run();
}

}  // namespace ryx::testing
