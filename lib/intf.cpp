// The interface manager: configuration and status of interfaces of every kind.
//
// Each interface that agents see has an IntfSm, from the moment that it is in the collection of all
// configurations: an IntfConfigSm on its configuration and an IntfStatusSm on its status, as far as
// it has one. IntfMgrSm keeps them. Status is reported in the third order of tasks, and only of an
// interface whose creation was told, so that whoever hears of a status knows the interface.
#include "ryx/intf.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "lib/context.h"
#include "lib/intf_kind_mgr.h"
#include "lib/watch.h"
#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

class intf_iter_impl : public chained_iter_impl<intf_id_t> {};
template class iter_base<intf_id_t, intf_iter_impl>;

class IntfMgrImpl;

namespace {

using platform::Change;
using platform::Entity;
using platform::Slice;
using platform::Interface::AllIntfStatusDir;
using platform::Interface::IntfConfig;
using platform::Interface::IntfStatus;
using platform::Interface::OperStatus;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkIntf");
  return facility;
}

// The platform's status code.
oper_status_t convert_oper_status(uint8_t code) {
  switch (static_cast<OperStatus>(code)) {
    case OperStatus::up:
      return INTF_OPER_UP;
    case OperStatus::down:
    case OperStatus::dormant:
    case OperStatus::lowerLayerDown:
    case OperStatus::notConnected:
      return INTF_OPER_DOWN;
    default:
      return INTF_OPER_NULL;
  }
}

// --- reactors -----------------------------------------------------------------------------------

class IntfMgrSm;

class IntfConfigSm final : public platform::EntityReactor {
 public:
  IntfConfigSm(IntfMgrImpl& mgr, intf_id_t intf)
      : EntityReactor("IntfConfigSm"), mgr_(mgr), intf_(intf) {}

  void configIs(IntfConfig& config) {
    if (config_ == &config) return;
    config_ = &config;
    follow(config, config.adminEnabledStateLocal.bit() | config.description.bit());
  }

 private:
  void onAttributes(uint32_t attributes) override;

  IntfMgrImpl& mgr_;
  const intf_id_t intf_;
  IntfConfig* config_ = nullptr;  // kept by what follows it
};

class IntfStatusSm final : public platform::EntityReactor {
 public:
  IntfStatusSm(IntfMgrImpl& mgr, intf_id_t intf)
      : EntityReactor("IntfStatusSm"), mgr_(mgr), intf_(intf) {}

  // Null: the interface has no status.
  void statusIs(IntfStatus* status) {
    if (status_ == status) return;
    unfollow();
    status_ = status;
    if (status_) follow(*status_, status_->operStatus.bit());
  }
  void creationTold() { told_ = true; }

  // Reports the status, unless the one that was reported last means the same to agents.
  void report();

 private:
  void onAttributes(uint32_t) override { report(); }

  IntfMgrImpl& mgr_;
  const intf_id_t intf_;
  IntfStatus* status_ = nullptr;  // kept by what follows it
  uint8_t previous_ = 0;          // the code that was reported last; 0: none
  bool told_ = false;
};

struct IntfSm {
  IntfSm(IntfMgrImpl& mgr, intf_id_t intf) : config(mgr, intf), status(mgr, intf) {}
  IntfConfigSm config;
  IntfStatusSm status;
};

// Keeps the interfaces' reactors, and sees to the first report of each status.
class IntfMgrSm final : public platform::JournalReactor, private IntfMgrHelper::Follower {
 public:
  IntfMgrSm(IntfMgrImpl& mgr, IntfMgrHelper& helper);
  ~IntfMgrSm() override { helper_.followerIs(nullptr); }

 private:
  // Reports what is new, in slices, once handlers may be told anything.
  class FirstReports final : public platform::Task, private platform::Timer {
   public:
    explicit FirstReports(IntfMgrSm& sm) : Task("IntfFirstReports"), sm_(sm) {}
    void add(intf_id_t intf) {
      intfs_.push_back(intf);
      wake();
    }

   private:
    // Another manager's mounts are not complete yet.
    static constexpr double kRetry = 0.001;

    bool run(Slice& slice) override;
    void onTimer() override { wake(); }

    IntfMgrSm& sm_;
    std::vector<intf_id_t> intfs_;
  };

  void onEntity(Entity& entity, Change change) override;
  void configCame(intf_id_t intf) override;
  void creationTold(intf_id_t intf) override;
  void configWent(intf_id_t intf) override { intfs_.erase(intf); }
  IntfSm* find(intf_id_t intf) {
    auto at = intfs_.find(intf);
    return at == intfs_.end() ? nullptr : &at->second;
  }

  IntfMgrImpl& mgr_;
  IntfMgrHelper& helper_;
  std::unordered_map<intf_id_t, IntfSm> intfs_;
  FirstReports first_reports_{*this};
};

}  // namespace

// --- IntfMgrImpl --------------------------------------------------------------------------------

class IntfMgrImpl final : public IntfKindMgr<intf_mgr, intf_handler> {
 public:
  IntfMgrImpl(mount_mgr* mounts, intf_mgr_helper* helper)
      : IntfKindMgr(
            mounts, helper, [](intf_id_t) { return true; }, &intf_handler::on_intf_create,
            &intf_handler::on_intf_delete) {
    helper_.register_intf_mgr(this);
  }
  ~IntfMgrImpl() override { helper_.register_intf_mgr(nullptr); }

  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    IntfKindMgr::onMountsComplete(em);
    sm_ = std::make_unique<IntfMgrSm>(*this, helper_);
  }

  intf_iter_t intf_iter() const override;
  bool exists(intf_id_t intf) const override;
  bool admin_enabled(intf_id_t intf) const override;
  void admin_enabled_is(intf_id_t intf, bool enabled) override;
  std::string description(intf_id_t intf) const override;
  void description_is(intf_id_t intf, const char* description) override;
  void description_is(intf_id_t intf, const std::string& description) override;
  oper_status_t oper_status(intf_id_t intf) const override;
  intf_id_t ryx_intf_name(std::string kernel_name) const override;
  std::string kernel_intf_name(intf_id_t intf) const override;

  // Events.
  void on_oper_status(intf_id_t intf, uint8_t code, uint8_t previous);
  void on_admin_enabled(intf_id_t intf, bool enabled);
  void on_intf_description(intf_id_t intf, const std::string& description);
  bool reporting() const { return helper_.reporting(); }

 private:
  // What each operation that names an interface does first.
  IntfConfig& config(intf_id_t intf) const {
    IntfConfig* found = helper_.config(intf);
    if (found == nullptr) panic(no_such_interface_error(intf));
    return *found;
  }

  std::unique_ptr<IntfMgrSm> sm_;
};

namespace {

// One attribute a run: a handler that throws, or deletes the interface, takes no other along.
void IntfConfigSm::onAttributes(uint32_t attributes) {
  if (!mgr_.reporting()) return;
  const CallbackGuard guard(mgr_);
  const uint32_t admin = config_->adminEnabledStateLocal.bit();
  if (!(attributes & admin)) return mgr_.on_intf_description(intf_, config_->description());
  if (attributes & ~admin) tellLater(attributes & ~admin);
  mgr_.on_admin_enabled(intf_, config_->adminEnabled());
}

void IntfStatusSm::report() {
  if (!told_ || !mgr_.reporting()) return;
  const CallbackGuard guard(mgr_);
  const uint8_t code = status_ == nullptr ? 0 : status_->operStatus();
  mgr_.on_oper_status(intf_, code, std::exchange(previous_, code));
}

IntfMgrSm::IntfMgrSm(IntfMgrImpl& mgr, IntfMgrHelper& helper)
    : JournalReactor("IntfMgrSm"), mgr_(mgr), helper_(helper) {
  for (auto it = helper.allIntfConfigDir().intf.iterator(); it; it.next()) {
    const intf_id_t intf = convert(it.key());
    if (is_internal_interface(intf)) continue;
    configCame(intf);
    creationTold(intf);
  }
  helper.followerIs(this);
  follow(helper.allIntfStatusDir().journal);
}

void IntfMgrSm::configCame(intf_id_t intf) {
  IntfSm& sm = intfs_.try_emplace(intf, mgr_, intf).first->second;
  if (IntfConfig* config = helper_.config(intf)) sm.config.configIs(*config);
  sm.status.statusIs(helper_.status(intf));
}

void IntfMgrSm::creationTold(intf_id_t intf) {
  IntfSm* sm = find(intf);
  if (sm == nullptr) return;
  sm->status.creationTold();
  first_reports_.add(intf);
}

void IntfMgrSm::onEntity(Entity& entity, Change) {
  auto& entry = static_cast<decltype(AllIntfStatusDir::intf)::Entry&>(entity);
  const intf_id_t intf = convert(entry.key());
  IntfSm* sm = find(intf);
  if (sm == nullptr) return;
  wake();  // a loop that a handler runs gets on with what is left
  sm->status.statusIs(helper_.status(intf));
  sm->status.report();
}

bool IntfMgrSm::FirstReports::run(Slice& slice) {
  if (!sm_.helper_.reporting()) {
    armAt(platform::clock().now() + kRetry);
    return false;
  }
  while (!intfs_.empty()) {
    const intf_id_t intf = intfs_.back();
    intfs_.pop_back();
    if (!intfs_.empty()) wake();
    if (IntfSm* sm = sm_.find(intf)) sm->status.report();
    if (slice.spent()) break;
  }
  if (intfs_.empty()) intfs_.shrink_to_fit();
  return !intfs_.empty();
}

}  // namespace

intf_iter_t IntfMgrImpl::intf_iter() const {
  RYX_TRACE_ENTRY(trace(), 7, "");
  const ApiGuard guard(*this);
  return iter<intf_iter_impl>();
}

bool IntfMgrImpl::exists(intf_id_t intf) const {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
  const ApiGuard guard(*this);
  return has(intf);
}

bool IntfMgrImpl::admin_enabled(intf_id_t intf) const {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
  const ApiGuard guard(*this);
  return config(intf).adminEnabled();
}

void IntfMgrImpl::admin_enabled_is(intf_id_t intf, bool enabled) {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf << " enabled=" << enabled);
  const ApiGuard guard(*this);
  config(intf).adminEnabledStateLocal.set(enabled ? 1 : 2);
}

std::string IntfMgrImpl::description(intf_id_t intf) const {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
  const ApiGuard guard(*this);
  return config(intf).description();
}

void IntfMgrImpl::description_is(intf_id_t intf, const char* description) {
  description_is(intf, std::string(description == nullptr ? "" : description));
}

void IntfMgrImpl::description_is(intf_id_t intf, const std::string& description) {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf << " description=" << description);
  const ApiGuard guard(*this);
  config(intf).description.set(description);
}

oper_status_t IntfMgrImpl::oper_status(intf_id_t intf) const {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
  const ApiGuard guard(*this);
  config(intf);
  const IntfStatus* status = helper_.status(intf);
  return status == nullptr ? INTF_OPER_NULL : convert_oper_status(status->operStatus());
}

intf_id_t IntfMgrImpl::ryx_intf_name(std::string kernel_name) const {
  RYX_TRACE_ENTRY(trace(), 7, " kernel_name=" << kernel_name);
  const ApiGuard guard(*this);
  const platform::IntfId id = helper_.collections().byKernelName(kernel_name);
  if (id.isValid() && !is_internal_interface(convert(id))) return convert(id);
  RYX_TRACE(trace(), 1, "Interface does not have a valid RYX type.");
  return intf_id_t();
}

std::string IntfMgrImpl::kernel_intf_name(intf_id_t intf) const {
  RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
  const ApiGuard guard(*this);
  const auto* entry = helper_.allIntfStatusLocalDir().intf.find(convert(intf));
  if (entry != nullptr && !is_internal_interface(intf)) return entry->value()->deviceName();
  RYX_TRACE(trace(), 1, "Cannot find interface in status!");
  return std::string();
}

void IntfMgrImpl::on_oper_status(intf_id_t intf, uint8_t code, uint8_t previous) {
  const oper_status_t status = convert_oper_status(code);
  if (status == convert_oper_status(previous)) return;
  RYX_TRACE(trace(), 5, intf << " is " << status << ", code " << int{code});
  dispatch_key(intf, &intf_handler::on_oper_status, intf, status);
}

void IntfMgrImpl::on_admin_enabled(intf_id_t intf, bool enabled) {
  RYX_TRACE(trace(), 5, intf << (enabled ? " enabled" : " disabled"));
  dispatch_key(intf, &intf_handler::on_admin_enabled, intf, enabled);
}

// By a copy: a handler may set it again.
void IntfMgrImpl::on_intf_description(intf_id_t intf, const std::string& description) {
  RYX_TRACE(trace(), 5, intf << " is now '" << description << "'");
  dispatch_key(intf, &intf_handler::on_intf_description, intf, std::string(description));
}

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, oper_status_t status) {
  switch (status) {
    case INTF_OPER_NULL:
      return out << "INTF_OPER_NULL";
    case INTF_OPER_UP:
      return out << "INTF_OPER_UP";
    case INTF_OPER_DOWN:
      return out << "INTF_OPER_DOWN";
  }
  return out << static_cast<int>(status);
}

intf_mgr::intf_mgr() = default;
intf_mgr::~intf_mgr() = default;

intf_handler::intf_handler(intf_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
intf_handler::~intf_handler() = default;

void intf_handler::watch_all_intfs(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void intf_handler::watch_intf(intf_id_t intf, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as an interface-specific handler");
  watchOne(mgr_, this, intf, interest);
}

void intf_handler::on_intf_create(intf_id_t) {}
void intf_handler::on_intf_delete(intf_id_t) {}
void intf_handler::on_oper_status(intf_id_t, oper_status_t) {}
void intf_handler::on_admin_enabled(intf_id_t, bool) {}
void intf_handler::on_intf_description(intf_id_t, const std::string&) {}

void sdk::init_intf_mgr() {
  if (intf_mgr_ != nullptr) return;
  init_intf_mgr_helper();
  create<IntfMgrImpl>(intf_mgr_, intf_mgr_helper_);
}
intf_mgr* sdk::get_intf_mgr() {
  return get(intf_mgr_, &sdk::init_intf_mgr, {"IntfMgrHelper", "intf"});
}

}  // namespace ryx
