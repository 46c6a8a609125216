// Physical Ethernet interfaces: front-panel ports and management ports.
#ifndef RYX_ETH_PHY_INTF_H
#define RYX_ETH_PHY_INTF_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/inline/types/intf.h>
#include <ryx/iter_base.h>

namespace ryx {

class eth_phy_intf_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. Interfaces that are there
/// when the SDK is initialized are not reported; `eth_phy_intf_mgr::eth_phy_intf_iter()` finds
/// them.
class RYX_API eth_phy_intf_handler : public base_handler<eth_phy_intf_mgr, eth_phy_intf_handler> {
 public:
  explicit eth_phy_intf_handler(eth_phy_intf_mgr* mgr);
  ~eth_phy_intf_handler() override;

  /// Whether the handler wants the events of every physical Ethernet interface, or of that one.
  void watch_all_eth_phy_intfs(bool interest);
  void watch_eth_phy_intf(intf_id_t intf, bool interest);

  /// A physical Ethernet interface was created, and `exists` is true. Handlers of more general
  /// managers hear of it afterwards.
  virtual void on_eth_phy_intf_create(intf_id_t intf);
  /// It was deleted, and `exists` is false.
  virtual void on_eth_phy_intf_delete(intf_id_t intf);
};

/// The identifiers of physical Ethernet interfaces.
class RYX_API eth_phy_intf_iter_impl;
using eth_phy_intf_iter_t = iter_base<intf_id_t, eth_phy_intf_iter_impl>;

/// Obtained from `sdk::get_eth_phy_intf_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Physical Ethernet interfaces are front-panel ports and management ports. An interface belongs
/// here by its `intf_type()`, which for the subinterface of a port is that of the port: so
/// subinterfaces of ports belong here too, and `is_subintf()` tells them apart.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call.
class RYX_API eth_phy_intf_mgr : public base_mgr<eth_phy_intf_handler, intf_id_t> {
 public:
  ~eth_phy_intf_mgr() override;

  /// All of them.
  virtual eth_phy_intf_iter_t eth_phy_intf_iter() const = 0;

  /// Whether the switch has that interface and it is one of them. Raises nothing for any
  /// identifier.
  virtual bool exists(intf_id_t intf) const = 0;

 protected:
  eth_phy_intf_mgr();
};

}  // namespace ryx

#endif  // RYX_ETH_PHY_INTF_H
