// Ethernet interfaces: all that carry Ethernet frames, whether a port, a port-channel, a VLAN
// interface or a tunnel.
#ifndef RYX_ETH_INTF_H
#define RYX_ETH_INTF_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/inline/types/intf.h>
#include <ryx/iter_base.h>

namespace ryx {

class eth_intf_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. Interfaces that are there
/// when the SDK is initialized are not reported; `eth_intf_mgr::eth_intf_iter()` finds them.
class RYX_API eth_intf_handler : public base_handler<eth_intf_mgr, eth_intf_handler> {
 public:
  explicit eth_intf_handler(eth_intf_mgr* mgr);
  ~eth_intf_handler() override;

  /// Whether the handler wants the events of every Ethernet interface, or of that one.
  void watch_all_eth_intfs(bool interest);
  void watch_eth_intf(intf_id_t intf, bool interest);

  /// An Ethernet interface was created, and `exists` is true. Handlers of eth_phy_intf_mgr and
  /// eth_lag_intf_mgr heard of it before, those of intf_mgr hear of it afterwards.
  virtual void on_eth_intf_create(intf_id_t intf);
  /// It was deleted, and `exists` is false.
  virtual void on_eth_intf_delete(intf_id_t intf);
};

/// The identifiers of Ethernet interfaces.
class RYX_API eth_intf_iter_impl;
using eth_intf_iter_t = iter_base<intf_id_t, eth_intf_iter_impl>;

/// Obtained from `sdk::get_eth_intf_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Ethernet interfaces are ports and management ports, port-channels, VLAN interfaces and VXLAN
/// interfaces, and the subinterfaces of ports and port-channels; loopbacks are none.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call.
class RYX_API eth_intf_mgr : public base_mgr<eth_intf_handler, intf_id_t> {
 public:
  ~eth_intf_mgr() override;

  /// All of them.
  virtual eth_intf_iter_t eth_intf_iter() const = 0;

  /// Whether the switch has that interface and it is one of them. Raises nothing for any
  /// identifier.
  virtual bool exists(intf_id_t intf) const = 0;

 protected:
  eth_intf_mgr();
};

}  // namespace ryx

#endif  // RYX_ETH_INTF_H
