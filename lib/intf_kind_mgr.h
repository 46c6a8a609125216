// What the managers of one kind of interface have in common: which of all interfaces are theirs,
// and that their handlers hear of those.
//
//   class EthIntfMgrImpl final : public IntfKindMgr<eth_intf_mgr, eth_intf_handler> { ... };
#pragma once

#include <memory>

#include "lib/IntfMgrHelper.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"

namespace ryx {

// An iterator over the interfaces that agents see and that are `mine`.
template <class IterImpl, class Mine>
iter_base<intf_id_t, IterImpl> intfIter(const IntfMgrHelper& helper, Mine mine) {
  const auto id = [](const auto& it) { return convert(it.key()); };
  const auto hidden = [&helper, mine](const auto& it) {
    const intf_id_t intf = convert(it.key());
    return !mine(intf) || !helper.shows(intf);
  };
  auto intfs = std::make_unique<IterImpl>();
  intfs->add_iter(elementSource<intf_id_t>(helper.allIntfConfigDir().intf.iterator(), id, hidden));
  intfs->initialize();
  return iter_base<intf_id_t, IterImpl>(intfs.release());
}

template <class Mgr, class Handler>
class IntfKindMgr : public Mgr, public mount_handler, public intf_existence_listener {
 public:
  void doMounts(mount_group&) override {}  // all it needs is the helper's
  void onMountsComplete(entity_manager& em) override { helper_.assemble(*em); }

  void on_intf_existence(intf_id_t intf, bool created) override {
    const CallbackGuard guard(*this);
    this->dispatch_key(intf, created ? created_ : deleted_, intf);
  }

 protected:
  using Callback = void (Handler::*)(intf_id_t);

  IntfKindMgr(mount_mgr* mounts, intf_mgr_helper* helper, bool (*mine)(intf_id_t), Callback created,
              Callback deleted)
      : mount_handler(mounts),
        helper_(static_cast<IntfMgrHelper&>(*helper)),
        mine_(mine),
        created_(created),
        deleted_(deleted) {}

  bool has(intf_id_t intf) const { return mine_(intf) && helper_.sees(intf); }

  template <class IterImpl>
  iter_base<intf_id_t, IterImpl> iter() const {
    return intfIter<IterImpl>(helper_, mine_);
  }

  IntfMgrHelper& helper_;

 private:
  bool (*const mine_)(intf_id_t);
  const Callback created_;
  const Callback deleted_;
};

}  // namespace ryx
