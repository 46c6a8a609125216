// What the managers have in common that write straight into an input of the agent's own: the input,
// its entries in an iterator, and the resync.
//
//   class DecapGroupMgrImpl final
//       : public OwnInputMgr<decap_group_mgr, ConfigInput, &ConfigInput::decapGroup> { ... };
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "lib/resync.h"
#include "platform/trace/trace.h"

namespace ryx {

// `Declared`: what a resync keeps of a key that was declared.
template <class Mgr, class Input, auto kEntries, class Declared = bool>
class OwnInputMgr : public Mgr, public mount_handler {
 public:
  void doMounts(mount_group& group) override { group.add(path(), Input::kTypeName, "cwS"); }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE(trace_, 1, name_ << ": all mounts completed");
    input_ = em->find<Input>(path());
  }

  void resync_init() override {
    RYX_TRACE_ENTRY(trace_, 7, "");
    const ApiGuard guard(*this);
    resync_.init();
  }
  void resync_complete() override {
    RYX_TRACE_ENTRY(trace_, 7, "");
    const ApiGuard guard(*this);
    resync_.eraseUndeclared(entries());
  }

 protected:
  using Key = typename std::remove_reference_t<decltype(std::declval<Input&>().*kEntries)>::Key;

  // `name`: the implementation's own. `place`: where the inputs of all agents stand.
  OwnInputMgr(mount_mgr* mounts, const char* name, const char* place,
              platform::TraceFacility& trace)
      : mount_handler(mounts), name_(name), place_(place), trace_(trace) {}

  // All entries, as `convert` makes them.
  template <class T, class IterImpl, class Convert>
  iter_base<T, IterImpl> iterator(Convert convert) const {
    auto iter = std::make_unique<IterImpl>();
    iter->add_iter(
        elementSource<T>(entries().iterator(), [convert](const auto& it) { return convert(*it); }));
    iter->initialize();
    return iter_base<T, IterImpl>(iter.release());
  }

  auto& entries() const { return input_->*kEntries; }
  // While a resync is on, the key is declared, or is not any more.
  void declare(const Key& key) {
    if (resync_.isOn()) resync_.declare(key) = {};
  }
  void withdraw(const Key& key) { resync_.withdraw(key); }
  Resync<Key, Declared>& resync() { return resync_; }

 private:
  std::string path() const { return std::string(place_) + "/" + this->get_mount_point_name(); }

  const char* const name_;
  const char* const place_;
  platform::TraceFacility& trace_;
  Input* input_ = nullptr;
  Resync<Key, Declared> resync_;
};

}  // namespace ryx
