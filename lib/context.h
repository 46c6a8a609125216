// What stands behind an sdk object: its connection, and the managers that it owns. And the one form
// in which a manager's slots of sdk are defined, in the manager's own source:
//
//   void sdk::init_vrf_mgr() { create<VrfMgrImpl>(vrf_mgr_); }
//   vrf_mgr* sdk::get_vrf_mgr() { return get(vrf_mgr_, &sdk::init_vrf_mgr, {"vrf"}); }
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "lib/raw_mounter.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/panic.h"
#include "ryx/print_profiles.h"
#include "ryx/sdk.h"

namespace ryx {

namespace platform {
class AgentContainer;
}

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
  bool hosted() const { return host_ != nullptr; }
  void connectionIs(std::unique_ptr<platform::EntityManager> connection);

  RawMounter& mounter() { return mounter_; }

  // The agent's manager, if it was asked for; null for one that the program overrides by its own.
  static agent_mgr* agentManagerOf(sdk& context) { return context.agent_mgr_; }

  template <class Impl>
  Impl* own(std::unique_ptr<Impl> manager) {
    managers_.push_back({manager.get(), [](void* gone) { delete static_cast<Impl*>(gone); }});
    return manager.release();
  }
  bool ownsManagers() const { return !managers_.empty(); }
  void destroyManagers();

  // The sdk object goes: the managers must not ask it any more.
  void orphan(mount_mgr* mounts);

 private:
  struct Owned {
    void* manager;
    void (*destroy)(void*);
  };

  platform::EntityManager* const host_;
  platform::EntityManager* connection_;
  std::unique_ptr<platform::EntityManager> own_;
  RawMounter mounter_{"mounter"};
  std::vector<Owned> managers_;  // in the order of their creation
};

template <class Impl, class Mgr, class... Args>
void sdk::create(Mgr*& slot, Args... args) {
  if (slot != nullptr) return;
  mount_mgr* mounts = get_mount_mgr();
  slot = context_->own(std::make_unique<Impl>(mounts, args...));
}

template <class Mgr, class... Args>
Mgr* sdk::get(Mgr*& slot, void (sdk::*init)(Args...), std::initializer_list<const char*> profiles,
              Args... args) {
  if (slot == nullptr) (this->*init)(args...);
  for (const char* profile : profiles) print_profiles::add_profile(profile);
  return slot;
}

}  // namespace ryx
