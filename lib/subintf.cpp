// Subinterfaces, which the manager follows itself.
#include "ryx/subintf.h"

#include "lib/context.h"
#include "lib/intf_kind_mgr.h"
#include "lib/watch.h"
#include "platform/trace/trace.h"

namespace ryx {

class subintf_iter_impl : public chained_iter_impl<intf_id_t> {};
template class iter_base<intf_id_t, subintf_iter_impl>;

class SubIntfMgrImpl;

namespace {

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkSubIntf");
  return facility;
}

bool is_mine(intf_id_t intf) {
  return intf.is_subintf();
}

class SubIntfMgrSm final : public IntfExistenceReactor {
 public:
  SubIntfMgrSm(SubIntfMgrImpl& mgr, IntfMgrHelper& helper)
      : IntfExistenceReactor("SubIntfMgrSm", helper), mgr_(mgr), helper_(helper) {}

 private:
  void onExistence(intf_id_t intf, bool created) override;

  SubIntfMgrImpl& mgr_;
  IntfMgrHelper& helper_;
};

}  // namespace

class SubIntfMgrImpl final : public IntfKindMgr<subintf_mgr, subintf_handler> {
 public:
  SubIntfMgrImpl(mount_mgr* mounts, intf_mgr_helper* helper)
      : IntfKindMgr(mounts, helper, &is_mine, &subintf_handler::on_subintf_create,
                    &subintf_handler::on_subintf_delete) {
    helper_.register_subintf_mgr(this);
  }
  ~SubIntfMgrImpl() override { helper_.register_subintf_mgr(nullptr); }

  void onMountsComplete(entity_manager& em) override {
    IntfKindMgr::onMountsComplete(em);
    sm_ = std::make_unique<SubIntfMgrSm>(*this, helper_);
  }

  subintf_iter_t subintf_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return iter<subintf_iter_impl>();
  }
  bool exists(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    return has(intf);
  }

 private:
  std::unique_ptr<SubIntfMgrSm> sm_;
};

void SubIntfMgrSm::onExistence(intf_id_t intf, bool created) {
  if (is_mine(intf) && helper_.reporting()) mgr_.on_intf_existence(intf, created);
}

// --- the public classes -------------------------------------------------------------------------

subintf_mgr::subintf_mgr() = default;
subintf_mgr::~subintf_mgr() = default;

subintf_handler::subintf_handler(subintf_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
subintf_handler::~subintf_handler() = default;

void subintf_handler::watch_all_subintfs(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void subintf_handler::watch_subintf(intf_id_t intf, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as an interface-specific handler");
  watchOne(mgr_, this, intf, interest);
}

void subintf_handler::on_subintf_create(intf_id_t) {}
void subintf_handler::on_subintf_delete(intf_id_t) {}

void sdk::init_subintf_mgr() {
  if (subintf_mgr_ != nullptr) return;
  init_intf_mgr_helper();
  create<SubIntfMgrImpl>(subintf_mgr_, intf_mgr_helper_);
}
subintf_mgr* sdk::get_subintf_mgr() {
  return get(subintf_mgr_, &sdk::init_subintf_mgr, {"IntfMgrHelper"});
}

}  // namespace ryx
