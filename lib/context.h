// What stands behind an sdk object: its connection, and the managers that it owns. And the one form
// in which a manager's slots of sdk are defined, in the manager's own source:
//
//   void sdk::init_vrf_mgr() { create<VrfMgrImpl>(vrf_mgr_); }
//   vrf_mgr* sdk::get_vrf_mgr() { return get(vrf_mgr_, &sdk::init_vrf_mgr, {"vrf"}); }
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "lib/backlog.h"
#include "lib/raw_mounter.h"
#include "platform/agent/connection.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/panic.h"
#include "ryx/print_profiles.h"
#include "ryx/sdk.h"

namespace ryx {

namespace platform {
class AgentContainer;
class TraceControl;
}  // namespace platform

// It outlives its sdk object, because managers live until the process exits.
class sdk_context {
 public:
  explicit sdk_context(platform::EntityManager* host);
  ~sdk_context();
  sdk_context(const sdk_context&) = delete;
  sdk_context& operator=(const sdk_context&) = delete;

  static sdk_context& of(sdk& context) { return *context.context_; }

  // Those of the process, for as long as they have managers.
  static const std::vector<sdk_context*>& all();

  // The connection: the host's, that of the event loop, or that of main_loop; null while there is
  // none.
  platform::EntityManager* connection() const { return connection_; }
  // One that was made by those settings, and is made again by them when it dies.
  void connectionIs(std::unique_ptr<platform::EntityManager> connection,
                    const platform::ConnectionSettings& settings);

  RawMounter& mounter() { return mounter_; }
  // What waits for the connection.
  Backlog& backlog() { return backlog_; }

  // The agent's manager, if it was asked for; null for one that the program overrides by its own.
  static agent_mgr* agentManagerOf(sdk& context) { return context.agent_mgr_; }

  // Takes a manager over, for as long as the process lives, and puts it into its slot.
  template <class Mgr, class Impl>
  void own(Mgr*& slot, std::unique_ptr<Impl> manager) {
    Impl* owned = manager.get();
    managers_.push_back([&slot, owned] {
      delete owned;
      slot = nullptr;
    });
    slot = manager.release();
  }
  bool ownsManagers() const { return !managers_.empty(); }

  // The last one that was created goes first.
  void destroyManagers();

  // The mount manager that was created here, and the container that main_loop made.
  void mountMgrIs(mount_mgr* mounts) { mounts_ = mounts; }
  void containerIs(std::unique_ptr<platform::AgentContainer> container);

  // The sdk object goes: the managers must not ask it any more.
  void orphan();

 private:
  platform::EntityManager* connection_;
  std::unique_ptr<platform::EntityManager> own_;
  std::unique_ptr<platform::Reconnection> reconnection_;
  std::unique_ptr<platform::TraceControl> traces_;
  std::unique_ptr<platform::AgentContainer> container_;
  RawMounter mounter_{"mounter"};
  Backlog backlog_;
  mount_mgr* mounts_ = nullptr;
  std::vector<std::function<void()>> managers_;  // each destroys one, in the order of creation
};

template <class Impl, class Mgr, class... Args>
void sdk::create(Mgr*& slot, Args... args) {
  if (slot != nullptr) return;
  mount_mgr* mounts = get_mount_mgr();
  context_->own(slot, std::make_unique<Impl>(mounts, args...));
}

template <class Mgr, class... Args>
Mgr* sdk::get(Mgr*& slot, void (sdk::*init)(Args...), std::initializer_list<const char*> profiles,
              Args... args) {
  if (slot == nullptr) (this->*init)(args...);
  for (const char* profile : profiles) print_profiles::add_profile(profile);
  return slot;
}

}  // namespace ryx
