// Mounts: the managers' declarations, the groups in which they are done, and the moment when all of
// them are.
#include "ryx/mount.h"

#include "lib/agent_initialized.h"
#include "lib/api_lock.h"
#include "lib/context.h"
#include "lib/mounts.h"
#include "lib/raw_mounter.h"
#include "platform/activity/activity.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"
#include "ryx/print_profiles.h"
#include "ryx/sdk.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

namespace {

using platform::MountStatus;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkMount");
  return facility;
}

}  // namespace

void checkMountableName(const std::string& name) {
  if (name.empty())
    panic(configuration_error("Invalid agent name. Expected 1 to 32 characters, found none."));
  if (name.back() == '-')
    panic(configuration_error("Invalid agent name '" + name +
                              "'. The part after the last dash names the agent's configuration, "
                              "so the name must not end in a dash."));
}

mount_mgr::mount_mgr(sdk* context) : sdk_(context), agent_name_(context->name()) {}
mount_mgr::~mount_mgr() = default;

bool mount_mgr::mountsToDeclare() {
  int count = 0;
  dispatch(&mount_handler::countUndeclared, &count);
  return count != 0;
}

void mount_mgr::doMounts(mount_group& group) {
  RYX_TRACE_ENTRY(trace(), 7, "");
  checkMountableName(agent_name_);
  dispatch(&mount_handler::declare, &group);
}

void mount_mgr::onMountsComplete(entity_manager& em) {
  RYX_TRACE_ENTRY(trace(), 7, "");
  if (initialization_complete_) return;
  dispatch(&mount_handler::complete, &em);
  // A handler that was created meanwhile has its mounts to come.
  if (mountsToDeclare()) return;
  initialization_complete_ = true;
  agent_mgr* agent = sdk_ == nullptr ? nullptr : sdk_context::agentManagerOf(*sdk_);
  if (agent == nullptr) return;
  print_profiles::add_profile("agent");
  agentInitialized(*agent);
}

mount_handler::mount_handler(mount_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
  RYX_TRACE_ENTRY(trace(), 7, " registering new mount handler");
  if (mgr_->initializationComplete())
    panic("attempt to manage additional state after agent initialization");
  mgr_->add_handler(this);
}

mount_handler::~mount_handler() = default;

void mount_handler::doMounts(mount_group&) {}
void mount_handler::onMountsComplete(entity_manager&) {}

std::string mount_handler::get_mount_point_name() const {
  return "RyxSdk-" + mgr_->agent_name_;
}

void mount_handler::checkInitialized() const {
  if (!initialized_)
    panic(
        "SDK not initialized -- did you forget to wait for your agent_handler to call "
        "on_initialized?");
}

void mount_handler::ensureInitialized() const {
  const platform::ActivityLockGuard guard(platform::activity().lock());
  checkInitialized();
  checkApiThread(apiLock().scopedLockOwner, apiLock().scopedLockOwnerCount);
}

void mount_handler::countUndeclared(int* count) {
  if (!declared_) ++*count;
}

void mount_handler::declare(mount_group* group) {
  if (declared_) return;
  declared_ = true;
  connection_ = &group->connection();
  doMounts(*group);
}

void mount_handler::complete(entity_manager* em) {
  if (!declared_ || initialized_) return;
  onMountsComplete(*em);
  initialized_ = true;
}

void RawMounter::mount(platform::EntityManager& em) {
  if (em_ != nullptr) return;
  em_ = &em;
  mountMore();
}

void RawMounter::stop() {
  groups_.clear();
}

void RawMounter::mountMore() {
  const sdk_scoped_lock lock;
  const platform::WriterScope as(*em_);
  groups_.push_back(em_->mountGroup());
  platform::MountGroup& group = *groups_.back();
  mount_group declared(group, *em_);
  mount_mgr_->doMounts(declared);
  group.close([this](MountStatus status) { onMountDone(status); });
}

void RawMounter::onMountDone(MountStatus status) {
  if (status != MountStatus::success)
    panic("error code %d mounting statehub", static_cast<int>(status));
  // Managers that were created since the last group was declared form a further one.
  if (mount_mgr_->mountsToDeclare()) return mountMore();
  {
    const sdk_scoped_lock lock;
    const platform::WriterScope as(*em_);
    entity_manager em(*em_);
    mount_mgr_->onMountsComplete(em);
  }
  if (mount_mgr_->mountsToDeclare()) mountMore();
}

}  // namespace ryx
