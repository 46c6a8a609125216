#include "ryx/testing.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/model/wellknown.h"
#include "platform/qel/codec.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/local.h"
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

struct simulated_switch::impl {
  impl() {
    platform::makeWellKnown(tree);
    std::string why;
    feed = platform::loadFeed(tree, "sim", "", &why);
    if (!feed) panic(configuration_error("no simulated switch: " + why));
  }
  Config& configOf(const std::string& agent) {
    return *tree.find<Dir>("daemon/agent/config")->entry.create<Config>(platform::Name(agent));
  }

  platform::VirtualClock clock;
  platform::Tree tree;
  std::unique_ptr<Feed> feed;
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

}  // namespace

simulated_switch::simulated_switch() : impl_(std::make_unique<impl>()) {}

simulated_switch::~simulated_switch() {
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
  run_for(0);
}

void simulated_switch::run_for(double seconds) {
  if (!(seconds >= 0)) panic("duration must be 0 or greater");
  activity().run(seconds);
}

bool simulated_switch::run_until(const std::function<bool()>& condition, double seconds) {
  // From one wake-up to the next: the condition may begin to hold at any of them.
  const double end = platform::clock().now() + seconds;
  for (run(); !condition();) {
    const double now = platform::clock().now();
    if (now >= end) return false;
    run_for(std::min(std::max(activity().nextWakeUp(), now), end) - now);
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
  const auto* status = impl_->tree.find<Status>("daemon/agent/status/" + agent);
  const auto* value = status ? status->data.get(key) : nullptr;
  return value ? std::string(value->bytes()) : "";
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
  std::unique_ptr<EntityManager> em;
};

agent_sdk::agent_sdk(simulated_switch& connected_to, const std::string& name)
    : agent_sdk(connected_to, name,
                std::make_unique<connection>(
                    connection{EntityManager::embedded(name, connected_to.impl_->tree)})) {}

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
