// Static IPv4 and IPv6 routes of the agent's own, in every VRF.
//
//   ryx::ip_route_key_t key(prefix, 1);
//   routes->ip_route_set(ryx::ip_route_t(key));
//   ryx::ip_route_via_t via(key);
//   via.hop_is(gateway);
//   routes->ip_route_via_set(via);
//
// What is set is readable at once, and is told to the switch when the loop runs: many changes of
// one route are one. While the connection to the switch takes no more, changes wait, one a route.
//
// **Restarts.** Routes outlive the agent's process in the switch. An agent that comes back declares
// what it wants between resync_init() and resync_complete(); what it did not declare goes then, and
// what is as it was is not written again.
#ifndef RYX_IP_ROUTE_H
#define RYX_IP_ROUTE_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/eth.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>
#include <ryx/iter_base.h>
#include <ryx/mpls.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

/// What a route is: a destination, and how much it is preferred. Two keys of one prefix are two
/// routes, of which the switch uses the one with the lower number. A plain value.
class RYX_API ip_route_key_t {
 public:
  /// No prefix, preference 0.
  ip_route_key_t();
  ip_route_key_t(const ip_prefix_t& prefix, uint8_t preference);

  const ip_prefix_t& prefix() const;
  void prefix_is(const ip_prefix_t& prefix);
  /// The administrative distance, 0 to 255.
  uint8_t preference() const;
  void preference_is(uint8_t preference);

  bool operator==(const ip_route_key_t& other) const;
  bool operator!=(const ip_route_key_t& other) const;
  /// By prefix, then preference.
  bool operator<(const ip_route_key_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_prefix_t prefix_;
  uint8_t preference_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const ip_route_key_t& key);

/// A route. Where it leads to say its vias. A plain value.
class RYX_API ip_route_t {
 public:
  ip_route_t();
  explicit ip_route_t(const ip_route_key_t& key);
  ip_route_t(const ip_prefix_t& prefix, uint8_t preference);

  const ip_route_key_t& key() const;
  void key_is(const ip_route_key_t& key);
  /// A number for the agent's own use; 0: untagged.
  uint32_t tag() const;
  void tag_is(uint32_t tag);

  bool operator==(const ip_route_t& other) const;
  bool operator!=(const ip_route_t& other) const;
  bool operator<(const ip_route_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_route_key_t key_;
  uint32_t tag_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const ip_route_t& route);

/// One way that a route leads: by a next hop, an interface or both; by a nexthop group alone; to
/// nowhere, by the interface Null0. A plain value.
class RYX_API ip_route_via_t {
 public:
  /// Nothing is set.
  ip_route_via_t();
  explicit ip_route_via_t(const ip_route_key_t& route_key);

  /// The route that it belongs to.
  const ip_route_key_t& route_key() const;
  void route_key_is(const ip_route_key_t& route_key);
  /// The next hop's address; of the prefix's family.
  const ip_addr_t& hop() const;
  void hop_is(const ip_addr_t& hop);
  /// The interface that packets leave by.
  intf_id_t intf() const;
  void intf_is(intf_id_t intf);
  /// The name of a nexthop group.
  const std::string& nexthop_group() const;
  void nexthop_group_is(const std::string& nexthop_group);
  /// A label to push.
  mpls_label_t mpls_label() const;
  void mpls_label_is(mpls_label_t mpls_label);
  /// A VXLAN tunnel (RFC 7348): the address of its far end, the network identifier, and the MAC
  /// address of the router there. All three, or none.
  const ip_addr_t& vtep_addr() const;
  void vtep_addr_is(const ip_addr_t& vtep_addr);
  uint32_t vni() const;
  void vni_is(uint32_t vni);
  eth_addr_t router_mac() const;
  void router_mac_is(const eth_addr_t& router_mac);

  bool operator==(const ip_route_via_t& other) const;
  bool operator!=(const ip_route_via_t& other) const;
  bool operator<(const ip_route_via_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_route_key_t route_key_;
  ip_addr_t hop_;
  intf_id_t intf_;
  std::string nexthop_group_;
  mpls_label_t mpls_label_;
  ip_addr_t vtep_addr_;
  uint32_t vni_ = 0;
  eth_addr_t router_mac_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const ip_route_via_t& via);

/// What a route is made to do.
enum ip_route_action_t : int {
  IP_ROUTE_ACTION_NULL = 0,     ///< the same as to forward
  IP_ROUTE_ACTION_FORWARD = 1,  ///< by its vias
  IP_ROUTE_ACTION_DROP = 2,
  IP_ROUTE_ACTION_NEXTHOP_GROUP = 3,  ///< by the nexthop group that a via names
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, ip_route_action_t action);

class RYX_API ip_route_iter_impl;
using ip_route_iter_t = iter_base<ip_route_t, ip_route_iter_impl>;
class RYX_API ip_route_via_iter_impl;
using ip_route_via_iter_t = iter_base<ip_route_via_t, ip_route_via_iter_impl>;

/// Obtained from `sdk::get_ip_route_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock. It has no handlers.
///
/// An agent sees its own routes alone. Where no VRF is given, it is "default". A route in a VRF
/// that the switch does not have is dropped, with a trace, when it is to be told to the switch; it
/// does not come back when the VRF does.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Those that take a VRF raise a
/// range_error, "VrfName::bytes > VrfName::maxLength not allowed", for a name of more than 100
/// bytes. Other errors are legacy_exceptions, unless another class is named. An operation that
/// raises an error has changed nothing.
class RYX_API ip_route_mgr {
 public:
  virtual ~ip_route_mgr();

  // --- resync ---

  /// From now on, what is set is declared; what was declared before is forgotten.
  virtual void resync_init() = 0;
  /// Deletes every route, and every via of a declared route, that was not declared since. Those of
  /// another tag than the manager's, if that has one, stay. Raises an error without resync_init():
  /// "Resync mode was not initialized; cannot complete resync".
  virtual void resync_complete() = 0;

  // --- the tag ---

  /// Restricts the manager to routes of that tag; 0, which is the default, to none. Raises an error
  /// while resyncing: "Cannot change tag while resyncing".
  virtual void tag_is(uint32_t tag) = 0;
  virtual uint32_t tag() const = 0;

  // --- routes ---

  /// All routes, of every VRF and both families.
  virtual ip_route_iter_t ip_route_iter() const = 0;
  /// How many routes were changed and have not been told to the switch yet.
  virtual std::size_t uncommitted() const = 0;
  /// The vias of a route. A route that drops has one, by Null0; one to a nexthop group has one,
  /// which names it. Raises an error for a route that is not there: "Cannot call
  /// ip_route_via_iter() for nonexistent route".
  virtual ip_route_via_iter_t ip_route_via_iter(const ip_route_key_t& key) const = 0;
  virtual ip_route_via_iter_t ip_route_via_iter(const ip_route_key_t& key,
                                                const std::string& vrf) const = 0;

  virtual bool exists(const ip_route_key_t& key) const = 0;
  virtual bool exists(const ip_route_key_t& key, const std::string& vrf) const = 0;
  virtual bool exists(const ip_route_via_t& via) const = 0;
  virtual bool exists(const ip_route_via_t& via, const std::string& vrf) const = 0;
  /// `ip_route_t()` when there is none.
  virtual ip_route_t ip_route(const ip_route_key_t& key) const = 0;
  virtual ip_route_t ip_route(const ip_route_key_t& key, const std::string& vrf) const = 0;

  /// Makes a route, or changes what there is to this tag and action, and keeps its vias. Without an
  /// action it is to forward. Raises an error when the manager is restricted to another tag: "Tried
  /// to insert a route with tag %d while restricted to tag set %d"; for a prefix without a family:
  /// "Cannot call ip_route_set() for an unknown address family".
  virtual void ip_route_set(const ip_route_t& route) = 0;
  virtual void ip_route_set(const ip_route_t& route, const std::string& vrf) = 0;
  virtual void ip_route_set(const ip_route_t& route, ip_route_action_t action) = 0;
  virtual void ip_route_set(const ip_route_t& route, ip_route_action_t action,
                            const std::string& vrf) = 0;
  /// Deletes a route and its vias; one that is not there is no error. Withdraws its declaration.
  virtual void ip_route_del(const ip_route_key_t& key) = 0;
  virtual void ip_route_del(const ip_route_key_t& key, const std::string& vrf) = 0;

  /// Adds a via, and makes the route one that does what the via says: that forwards, drops
  /// (Null0), or leads to a nexthop group, of which it has one. Raises, in this order:
  ///  - an invalid_argument_error for "route_via": "Supplied via must have nexthop information"
  ///    without hop, interface and group; "Can't specify both a nexthop group and either a hop or
  ///    intf";
  ///  - "Cannot set a via on a nonexistent route";
  ///  - "Tried to insert a via on route tagged with %d while restricted to tag set %d";
  ///  - "Mixing IPv4/6 nexthops on IPv6/4 routes not yet supported"; a range_error for a label that
  ///    is too large; "Invalid vni, vni must be set if vtep_addr and router_mac are set", and the
  ///    same of the other two, when some of the three are missing.
  virtual void ip_route_via_set(const ip_route_via_t& via) = 0;
  virtual void ip_route_via_set(const ip_route_via_t& via, const std::string& vrf) = 0;
  /// Takes a via away; one that is not there, or of a route that is not there, is no error.
  virtual void ip_route_via_del(const ip_route_via_t& via) = 0;
  virtual void ip_route_via_del(const ip_route_via_t& via, const std::string& vrf) = 0;

 protected:
  ip_route_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::ip_route_key_t> {
  std::size_t operator()(const ryx::ip_route_key_t& key) const { return key.hash(); }
};
template <>
struct std::hash<ryx::ip_route_t> {
  std::size_t operator()(const ryx::ip_route_t& route) const { return route.hash(); }
};
template <>
struct std::hash<ryx::ip_route_via_t> {
  std::size_t operator()(const ryx::ip_route_via_t& via) const { return via.hash(); }
};

#endif  // RYX_IP_ROUTE_H
