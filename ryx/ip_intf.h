// IP addresses of interfaces: which are configured, and which come and go.
//
//   class watcher : public ryx::ip_intf_handler {
//    public:
//     explicit watcher(ryx::ip_intf_mgr* mgr) : ip_intf_handler(mgr) { watch_all_ip_intfs(true); }
//     void on_ip_addr_add(ryx::intf_id_t intf, const ryx::ip_addr_mask_t& addr) override { ... }
//   };
//
// An interface has one set of addresses of both families. That the switch has one IPv4 address of
// them as the primary one, and the others as secondary ones, shows nowhere: the manager chooses.
#ifndef RYX_IP_INTF_H
#define RYX_IP_INTF_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/eth.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>

#include <set>

namespace ryx {

class ip_intf_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held.
///
/// They tell of addresses that are active: those that the switch has taken into use, whoever
/// configured them, and whether or not the interface is up. IPv6 link-local addresses (RFC 4291),
/// which every IPv6 interface has of itself, are not told. What is active when the SDK is
/// initialized is no news. Changes that follow each other closely may be told as one: an address
/// that goes and comes back meanwhile is not told at all.
///
/// From what was active at the start, what was told to come less what was told to go is always what
/// is active, once everything is told. An IPv4 address that only becomes the primary one, or ceases
/// to be it, is not told. Where the switch never shows such an address again, it is told to go 5
/// seconds later.
class RYX_API ip_intf_handler : public base_handler<ip_intf_mgr, ip_intf_handler> {
 public:
  explicit ip_intf_handler(ip_intf_mgr* mgr);
  ~ip_intf_handler() override;

  /// Whether the handler wants the events of every interface, or of that one.
  void watch_all_ip_intfs(bool interest);
  void watch_ip_intf(intf_id_t intf, bool interest);

  virtual void on_ip_addr_add(intf_id_t intf, const ip_addr_mask_t& addr);

  /// Also for each active address of an interface that goes.
  virtual void on_ip_addr_del(intf_id_t intf, const ip_addr_mask_t& addr);

  /// Another internal VLAN carries the routed interface; 0: none any more.
  virtual void on_internal_vlan_id(intf_id_t intf, vlan_id_t vlan);
};

/// Obtained from `sdk::get_ip_intf_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Configuration is shared by all agents, and does not ask whether the switch has the interface:
/// what is configured for one takes effect when it comes.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. An operation that raises an error
/// has changed nothing.
///
/// **Overlap.** An address is refused, by an address_overlap_error that has it, when
///  - its subnet overlaps that of an address that is configured for another interface of the same
///    VRF. The state says at "ip/vrf/intf" which VRF an interface is in; where it says nothing,
///    it is in "default".
///  - the interface has the address under another mask.
///  - its subnet is wider than that of an address of the interface, and not inside that of another.
///    So several addresses of one subnet may stand on an interface, and a smaller subnet inside a
///    larger one that is there already.
class RYX_API ip_intf_mgr : public base_mgr<ip_intf_handler, intf_id_t> {
 public:
  ~ip_intf_mgr() override;

  /// Whether the interface has IP state, of either family: whether it was configured, or has an
  /// active address. An interface of any kind, management interfaces included; it need not be
  /// there. Configuration stays when its last address is deleted.
  virtual bool exists(intf_id_t intf) const = 0;

  /// The addresses that are configured.
  virtual std::set<ip_addr_mask_t> ip_addrs(intf_id_t intf) const = 0;

  /// Configures an address; one that is configured already stays as it is. The first IPv4 address
  /// becomes the primary one, later ones secondary.
  ///
  /// Raises an invalid_argument_error for "addr" for an address without family ("Unsupported AF
  /// type"), an IPv6 link-local address ("Link-local addresses unsupported"), an IPv4 mask of more
  /// than 32 bits, and 0.0.0.0/0; an address_overlap_error as above.
  virtual void ip_addr_add(intf_id_t intf, const ip_addr_mask_t& addr) = 0;

  /// Takes an address out of the configuration; one that is not configured, under that mask, is no
  /// error. When the primary IPv4 address goes, the smallest secondary one takes its place.
  ///
  /// Raises an invalid_argument_error for "addr" for an address without family.
  virtual void ip_addr_del(intf_id_t intf, const ip_addr_mask_t& addr) = 0;

  /// Makes the configured set the given one, in one change:
  ///  1. Every new address is checked, as if those that are not in the set were deleted, and the
  ///     new ones then added in ascending order. Raises what ip_addr_add() raises, for the first
  ///     that is refused.
  ///  2. Secondary IPv4 addresses that are not in the set are removed.
  ///  3. The smallest IPv4 address of the set becomes the primary one. The one that was it becomes
  ///     a secondary one when it is in the set, and goes when it is not. Without IPv4 addresses in
  ///     the set there is no primary one.
  ///  4. The other IPv4 addresses of the set become secondary ones.
  ///  5. IPv6 addresses that are not in the set are removed, the others added.
  virtual void ip_addrs_is(intf_id_t intf, const std::set<ip_addr_mask_t>& addrs) = 0;

  /// The VLAN that carries a routed interface inside the switch; 0 for one that has none.
  virtual vlan_id_t internal_vlan_id(intf_id_t intf) const = 0;

 protected:
  ip_intf_mgr();
};

}  // namespace ryx

#endif  // RYX_IP_INTF_H
