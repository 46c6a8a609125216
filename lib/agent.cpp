// The agent manager: the agent's configuration and status, by its name.
#include "ryx/agent.h"

#include "lib/agent_initialized.h"
#include "lib/context.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "platform/activity/activity.h"
#include "platform/base/check.h"
#include "platform/model/agent.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "ryx/sdk.h"

namespace ryx {

class agent_option_iter_impl : public chained_iter_impl<std::string> {};
class agent_status_iter_impl : public chained_iter_impl<std::string> {};
template class iter_base<std::string, agent_option_iter_impl>;
template class iter_base<std::string, agent_status_iter_impl>;

namespace {

using platform::Change;
using platform::Dir;
using platform::Entity;
using platform::Name;
using platform::GenericAgent::AgentKey;
using platform::GenericAgent::AgentVal;
using platform::GenericAgent::Config;
using platform::GenericAgent::Status;

constexpr const char* kConfigPath = "daemon/agent/config";
constexpr const char* kStatusPath = "daemon/agent/status";

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkAgent");
  return facility;
}

// Empty where there is none; there is none under a key that is longer than keys are.
template <class Table>
std::string valueIn(const Table& table, const std::string& key) {
  if (key.size() > AgentKey::kMaxBytes) return std::string();
  const AgentVal* value = table.get(key);
  return value == nullptr ? std::string() : value->bytes();
}

void checkLength(const std::string& text, uint32_t longest) {
  if (text.size() > longest) panic(invalid_range_error(text, 1, longest));
}

}  // namespace

class AgentMgrImpl;

namespace {

// Follows the configuration of one agent: its entity, which may come and go, and the options.
class GenericAgentSm final : public platform::JournalReactor {
 public:
  GenericAgentSm(AgentMgrImpl& mgr, Dir& configs, const Name& name)
      : JournalReactor("GenericAgentSm"), mgr_(mgr), name_(name) {
    // What stands at the start is no news, but it is known from here on, so that its end will be.
    follow(configs.journal);
    hearAll();
    starting_ = false;
  }

 private:
  using Option = decltype(Config::option)::Entry;

  void onEntity(Entity& entity, Change change) override;
  void onConfig(Config& config, Change change);
  void onOption(Option& option, Change change);

  AgentMgrImpl& mgr_;
  const Name name_;
  bool starting_ = true;
};

}  // namespace

class AgentMgrImpl final : public agent_mgr, public mount_handler {
 public:
  explicit AgentMgrImpl(mount_mgr* mounts)
      : mount_handler(mounts), sdk_name_(mounts->get_sdk()->name()) {}

  bool enabled() const override;
  std::string agent_option(const std::string& name) const override;
  agent_option_iter_t agent_option_iter() const override;
  std::string status(const std::string& key) const override;
  agent_status_iter_t status_iter() const override;
  void status_set(const std::string& key, const std::string& value) override;
  void status_del(const std::string& key) override;
  void agent_shutdown_complete_is(bool complete) override;
  void exit() override;

  void doMounts(mount_group& group) override;
  void onMountsComplete(entity_manager& em) override;

  // Events.
  void on_initialized();
  void on_agent_enabled(bool enabled);
  void on_agent_option(const std::string& name, const std::string& value);

 private:
  const Config* config() const { return configs_->entry.find<Config>(name_); }
  bool configEnabled() const { return config() != nullptr && config()->enabled(); }
  Status* agentStatus() const { return statuses_->entry.find<Status>(name_); }
  Status* makeStatus() { return statuses_->entry.create<Status>(name_); }
  void stop();

  const std::string sdk_name_;
  Name name_;  // of the agent's entities
  platform::Ref<Dir> configs_;
  platform::Ref<Dir> statuses_;
  std::unique_ptr<GenericAgentSm> sm_;
};

// --- GenericAgentSm -----------------------------------------------------------------------------

void GenericAgentSm::onEntity(Entity& entity, Change change) {
  if (starting_) return;
  if (auto* config = entity.as<Config>()) {
    if (config->key() == name_) onConfig(*config, change);
  } else if (auto* option = entity.as<Option>()) {
    auto* owner = option->parent() != nullptr ? option->parent()->as<Config>() : nullptr;
    if (owner != nullptr && owner->key() == name_) onOption(*option, change);
  }
}

void GenericAgentSm::onConfig(Config& config, Change change) {
  const CallbackGuard guard(mgr_);
  if (change == Change::deleted)
    RYX_TRACE(trace(), 7, name_.view() << " configuration deleted");
  else if (change == Change::created)
    RYX_TRACE(trace(), 7, name_.view() << " re-configured");
  mgr_.on_agent_enabled(change != Change::deleted && config.enabled());
}

void GenericAgentSm::onOption(Option& option, Change change) {
  const CallbackGuard guard(mgr_);
  mgr_.on_agent_option(option.key().bytes(),
                       change == Change::deleted ? std::string() : option.value().bytes());
}

// --- AgentMgrImpl: operations -------------------------------------------------------------------

bool AgentMgrImpl::enabled() const {
  RYX_TRACE_ENTRY(trace(), 7, "");
  const ApiGuard guard(*this);
  return configEnabled();
}

std::string AgentMgrImpl::agent_option(const std::string& name) const {
  RYX_TRACE_ENTRY(trace(), 7, " name=" << name);
  const ApiGuard guard(*this);
  const Config* mine = config();
  return mine == nullptr ? std::string() : valueIn(mine->option, name);
}

agent_option_iter_t AgentMgrImpl::agent_option_iter() const {
  RYX_TRACE_ENTRY(trace(), 7, "");
  const ApiGuard guard(*this);
  auto names = std::make_unique<agent_option_iter_impl>();
  if (const Config* mine = config())
    names->add_iter(keySource<std::string>(mine->option.iterator()));
  names->initialize();
  return agent_option_iter_t(names.release());
}

std::string AgentMgrImpl::status(const std::string& key) const {
  RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
  const ApiGuard guard(*this);
  const Status* mine = agentStatus();
  return mine == nullptr ? std::string() : valueIn(mine->data, key);
}

agent_status_iter_t AgentMgrImpl::status_iter() const {
  RYX_TRACE_ENTRY(trace(), 7, "");
  const ApiGuard guard(*this);
  auto keys = std::make_unique<agent_status_iter_impl>();
  if (const Status* mine = agentStatus())
    keys->add_iter(keySource<std::string>(mine->data.iterator()));
  keys->initialize();
  return agent_status_iter_t(keys.release());
}

void AgentMgrImpl::status_set(const std::string& key, const std::string& value) {
  RYX_TRACE(trace(), 7, key << "=" << value);
  checkLength(key, AgentKey::kMaxBytes);
  checkLength(value, AgentVal::kMaxBytes);
  const ApiGuard guard(*this);
  if (Status* mine = makeStatus()) mine->data.set(key, value);
}

void AgentMgrImpl::status_del(const std::string& key) {
  RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
  const ApiGuard guard(*this);
  if (Status* mine = agentStatus(); mine != nullptr && key.size() <= AgentKey::kMaxBytes)
    mine->data.erase(key);
}

void AgentMgrImpl::agent_shutdown_complete_is(bool complete) {
  RYX_TRACE_ENTRY(trace(), 7, " complete=" << complete);
  if (!complete) return;
  const ApiGuard guard(*this);
  if (Status* mine = agentStatus()) mine->running.set(false);
  if (configEnabled()) {
    RYX_TRACE(trace(), 0, "Unexpectedly received agent_shutdown_complete_is call. Exiting");
  } else if (config() == nullptr) {
    RYX_TRACE(trace(), 7, "No configuration, removing agent status");
    statuses_->entry.erase(name_);
  }
  stop();
}

void AgentMgrImpl::exit() {
  RYX_TRACE(trace(), 7, "Agent exiting");
  const ApiGuard guard(*this);
  stop();
}

void AgentMgrImpl::stop() {
  if (Status* mine = agentStatus()) mine->running.set(false);
  platform::activity().executionTimeIs(0);
}

// --- AgentMgrImpl: mounts and events ------------------------------------------------------------

void AgentMgrImpl::doMounts(mount_group& group) {
  group.add(kConfigPath, "Qel::Dir", "ri");
  group.add(kStatusPath, "Qel::Dir", "wi");
}

void AgentMgrImpl::onMountsComplete(entity_manager& em) {
  RYX_TRACE_ENTRY(trace(), 7, "");
  name_ = Name(agentTitle2agentName(sdk_name_));
  configs_ = em->find<Dir>(kConfigPath);
  statuses_ = em->find<Dir>(kStatusPath);
  platform::check(configs_ && statuses_, "what was mounted is there");
  makeStatus();
  sm_ = std::make_unique<GenericAgentSm>(*this, *configs_, name_);
}

void AgentMgrImpl::on_initialized() {
  const CallbackGuard guard(*this);
  RYX_TRACE(trace(), 7, "Agent initialized");
  if (configEnabled())
    if (Status* mine = makeStatus()) mine->running.set(true);
  dispatch(&agent_handler::on_initialized);
}

void AgentMgrImpl::on_agent_enabled(bool enabled) {
  RYX_TRACE_ENTRY(trace(), 7, " enabled=" << enabled);
  dispatch(&agent_handler::on_agent_enabled, enabled);
}

void AgentMgrImpl::on_agent_option(const std::string& name, const std::string& value) {
  RYX_TRACE(trace(), 7, name << " is now '" << value << "'");
  dispatch(&agent_handler::on_agent_option, name, value);
}

void agentInitialized(agent_mgr& mgr) {
  if (auto* impl = dynamic_cast<AgentMgrImpl*>(&mgr)) impl->on_initialized();
}

// --- the public classes -------------------------------------------------------------------------

agent_mgr::agent_mgr() = default;
agent_mgr::~agent_mgr() = default;
void agent_mgr::id(const char*) {}

agent_handler::agent_handler(agent_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
  if (mgr_ != nullptr) mgr_->add_handler(this);
}
agent_handler::~agent_handler() = default;
void agent_handler::on_initialized() {}
void agent_handler::on_agent_enabled(bool) {}
void agent_handler::on_agent_option(const std::string&, const std::string&) {}

std::string agentTitle2agentName(std::string title) {
  const size_t dash = title.rfind('-');
  if (dash == std::string::npos) return title;
  platform::check(dash + 1 < title.size(), "An agent title must not end in a dash");
  return title.substr(dash + 1);
}

void sdk::init_agent_mgr() {
  create<AgentMgrImpl>(agent_mgr_);
}
agent_mgr* sdk::get_agent_mgr() {
  return get(agent_mgr_, &sdk::init_agent_mgr, {});
}

}  // namespace ryx
