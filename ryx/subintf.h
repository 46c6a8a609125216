// Subinterfaces of ports and port-channels: those that carry one VLAN (IEEE 802.1Q) of their
// parent.
#ifndef RYX_SUBINTF_H
#define RYX_SUBINTF_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/inline/types/intf.h>
#include <ryx/iter_base.h>

namespace ryx {

class subintf_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. Interfaces that are there
/// when the SDK is initialized are not reported; `subintf_mgr::subintf_iter()` finds them.
class RYX_API subintf_handler : public base_handler<subintf_mgr, subintf_handler> {
 public:
  explicit subintf_handler(subintf_mgr* mgr);
  ~subintf_handler() override;

  /// Whether the handler wants the events of every subinterface, or of that one.
  void watch_all_subintfs(bool interest);
  void watch_subintf(intf_id_t intf, bool interest);

  /// A subinterface was created, and `exists` is true. Whether handlers of other managers heard of
  /// it before is not specified.
  virtual void on_subintf_create(intf_id_t intf);
  /// It was deleted, and `exists` is false.
  virtual void on_subintf_delete(intf_id_t intf);
};

/// The identifiers of subinterfaces.
class RYX_API subintf_iter_impl;
using subintf_iter_t = iter_base<intf_id_t, subintf_iter_impl>;

/// Obtained from `sdk::get_subintf_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Subinterfaces are those whose name has a number behind a full stop, Ethernet1.100 or
/// Port-Channel5.7.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call.
class RYX_API subintf_mgr : public base_mgr<subintf_handler, intf_id_t> {
 public:
  ~subintf_mgr() override;

  /// All of them.
  virtual subintf_iter_t subintf_iter() const = 0;

  /// Whether the switch has that interface and it is one of them. Raises nothing for any
  /// identifier.
  virtual bool exists(intf_id_t intf) const = 0;

 protected:
  subintf_mgr();
};

}  // namespace ryx

#endif  // RYX_SUBINTF_H
