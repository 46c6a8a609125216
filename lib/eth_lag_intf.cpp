// Link aggregation: port-channels.
#include "ryx/eth_lag_intf.h"

#include "lib/context.h"
#include "lib/intf_kind_mgr.h"
#include "lib/watch.h"
#include "platform/trace/trace.h"

namespace ryx {

class eth_lag_intf_iter_impl : public chained_iter_impl<intf_id_t> {};
template class iter_base<intf_id_t, eth_lag_intf_iter_impl>;

namespace {

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkEthLagIntf");
  return facility;
}

bool is_mine(intf_id_t intf) {
  return kindsOf(intf).eth_lag;
}

}  // namespace

class EthLagIntfMgrImpl final : public IntfKindMgr<eth_lag_intf_mgr, eth_lag_intf_handler> {
 public:
  EthLagIntfMgrImpl(mount_mgr* mounts, intf_mgr_helper* helper)
      : IntfKindMgr(mounts, helper, &is_mine, &eth_lag_intf_handler::on_eth_lag_intf_create,
                    &eth_lag_intf_handler::on_eth_lag_intf_delete) {
    helper_.register_eth_lag_intf_mgr(this);
  }
  ~EthLagIntfMgrImpl() override { helper_.register_eth_lag_intf_mgr(nullptr); }

  eth_lag_intf_iter_t eth_lag_intf_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return iter<eth_lag_intf_iter_impl>();
  }
  bool exists(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    return has(intf);
  }
};

// --- the public classes -------------------------------------------------------------------------

eth_lag_intf_mgr::eth_lag_intf_mgr() = default;
eth_lag_intf_mgr::~eth_lag_intf_mgr() = default;

eth_lag_intf_handler::eth_lag_intf_handler(eth_lag_intf_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
eth_lag_intf_handler::~eth_lag_intf_handler() = default;

void eth_lag_intf_handler::watch_all_eth_lag_intfs(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void eth_lag_intf_handler::watch_eth_lag_intf(intf_id_t intf, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as an interface-specific handler");
  watchOne(mgr_, this, intf, interest);
}

void eth_lag_intf_handler::on_eth_lag_intf_create(intf_id_t) {}
void eth_lag_intf_handler::on_eth_lag_intf_delete(intf_id_t) {}

void sdk::init_eth_lag_intf_mgr() {
  if (eth_lag_intf_mgr_ != nullptr) return;
  init_intf_mgr_helper();
  create<EthLagIntfMgrImpl>(eth_lag_intf_mgr_, intf_mgr_helper_);
}
eth_lag_intf_mgr* sdk::get_eth_lag_intf_mgr() {
  return get(eth_lag_intf_mgr_, &sdk::init_eth_lag_intf_mgr, {"IntfMgrHelper", "eth_lag_intf"});
}

}  // namespace ryx
