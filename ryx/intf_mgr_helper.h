// What the managers of interfaces share: the interfaces that agents see, and who is told, in which
// order, when one comes or goes. Agents need none of it but is_internal_interface().
#ifndef RYX_INTF_MGR_HELPER_H
#define RYX_INTF_MGR_HELPER_H

#include <ryx/api.h>
#include <ryx/inline/types/intf.h>
#include <ryx/mount.h>

namespace ryx {

/// True for the switch's internal interfaces and for those that stand for the Ethernet ports and
/// port-channels of an MLAG partner. Agents never see them: they do not exist, are not iterated,
/// and raise no events. Any thread.
RYX_API bool is_internal_interface(intf_id_t intf);

/// A manager of interfaces, as the helper sees it.
class RYX_API intf_existence_listener {
 public:
  virtual ~intf_existence_listener();

  /// An interface that concerns the manager was created, or deleted.
  virtual void on_intf_existence(intf_id_t intf, bool created) = 0;
};

/// One for each context, created before the managers of interfaces, which register themselves. For
/// the loop's thread, or one that holds an sdk_scoped_lock.
class RYX_API intf_mgr_helper : public mount_handler {
 public:
  ~intf_mgr_helper() override;

  /// One manager of each kind; null takes it away.
  void register_intf_mgr(intf_existence_listener* mgr) { intf_mgr_ = mgr; }
  void register_eth_intf_mgr(intf_existence_listener* mgr) { eth_intf_mgr_ = mgr; }
  void register_eth_phy_intf_mgr(intf_existence_listener* mgr) { eth_phy_intf_mgr_ = mgr; }
  void register_eth_lag_intf_mgr(intf_existence_listener* mgr) { eth_lag_intf_mgr_ = mgr; }
  void register_subintf_mgr(intf_existence_listener* mgr) { subintf_mgr_ = mgr; }

  /// Tells the managers that an interface came or went: those whose kind, by its `intf_type()`, it
  /// is, the more specific ones first.
  ///
  ///     intf_type()             | eth_phy | eth_lag | eth  | intf
  ///     INTF_TYPE_ETH           | yes     | no      | yes  | yes
  ///     INTF_TYPE_MANAGEMENT    | yes     | no      | yes  | yes
  ///     INTF_TYPE_VLAN          | no      | no      | yes  | yes
  ///     INTF_TYPE_LAG           | no      | yes     | yes  | yes
  ///     INTF_TYPE_VXLAN         | no      | no      | yes  | yes
  ///     INTF_TYPE_LOOPBACK      | no      | no      | no   | yes
  ///     others                  | no      | no      | if is_subintf()
  ///
  /// Subinterfaces have the type of the port or port-channel that they are part of. The manager of
  /// subinterfaces is not told here: it follows them itself.
  void dispatch_intf_existence_handlers(intf_id_t intf, bool created);

 protected:
  explicit intf_mgr_helper(mount_mgr* mgr);

 private:
  intf_existence_listener* intf_mgr_ = nullptr;
  intf_existence_listener* eth_intf_mgr_ = nullptr;
  intf_existence_listener* eth_phy_intf_mgr_ = nullptr;
  intf_existence_listener* eth_lag_intf_mgr_ = nullptr;
  intf_existence_listener* subintf_mgr_ = nullptr;
};

}  // namespace ryx

#endif  // RYX_INTF_MGR_HELPER_H
