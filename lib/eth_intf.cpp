// Ethernet interfaces: all kinds of layer 2.
#include "ryx/eth_intf.h"

#include "lib/context.h"
#include "lib/intf_kind_mgr.h"
#include "lib/watch.h"
#include "platform/trace/trace.h"

namespace ryx {

class eth_intf_iter_impl : public chained_iter_impl<intf_id_t> {};
template class iter_base<intf_id_t, eth_intf_iter_impl>;

namespace {

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkEthIntf");
  return facility;
}

bool is_mine(intf_id_t intf) {
  return kindsOf(intf).eth;
}

}  // namespace

class EthIntfMgrImpl final : public IntfKindMgr<eth_intf_mgr, eth_intf_handler> {
 public:
  EthIntfMgrImpl(mount_mgr* mounts, intf_mgr_helper* helper)
      : IntfKindMgr(mounts, helper, &is_mine, &eth_intf_handler::on_eth_intf_create,
                    &eth_intf_handler::on_eth_intf_delete) {
    helper_.register_eth_intf_mgr(this);
  }
  ~EthIntfMgrImpl() override { helper_.register_eth_intf_mgr(nullptr); }

  eth_intf_iter_t eth_intf_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return iter<eth_intf_iter_impl>();
  }
  bool exists(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    return has(intf);
  }
};

// --- the public classes -------------------------------------------------------------------------

eth_intf_mgr::eth_intf_mgr() = default;
eth_intf_mgr::~eth_intf_mgr() = default;

eth_intf_handler::eth_intf_handler(eth_intf_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
eth_intf_handler::~eth_intf_handler() = default;

void eth_intf_handler::watch_all_eth_intfs(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void eth_intf_handler::watch_eth_intf(intf_id_t intf, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as an interface-specific handler");
  watchOne(mgr_, this, intf, interest);
}

void eth_intf_handler::on_eth_intf_create(intf_id_t) {}
void eth_intf_handler::on_eth_intf_delete(intf_id_t) {}

void sdk::init_eth_intf_mgr() {
  if (eth_intf_mgr_ != nullptr) return;
  init_intf_mgr_helper();
  create<EthIntfMgrImpl>(eth_intf_mgr_, intf_mgr_helper_);
}
eth_intf_mgr* sdk::get_eth_intf_mgr() {
  return get(eth_intf_mgr_, &sdk::init_eth_intf_mgr, {"IntfMgrHelper", "eth_intf"});
}

}  // namespace ryx
