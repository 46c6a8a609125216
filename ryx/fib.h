// The forwarding information base: the routes that the switch has installed, and what packets to
// them do (forwarding equivalence classes, RFC 3031), as they are.
//
//   class watcher : public ryx::fib_handler {
//     explicit watcher(ryx::sdk& sdk)
//         : fib_handler(sdk.get_fib_mgr(ryx::MGR_MODE_READ_NOTIFYING)) {}
//     void on_route_set(const ryx::fib_route_t& route) override { ... }
//   };
//
// The tables stand in memory that the switch shares: reading takes no message and no lock, and a
// million routes are there at once. Nobody writes to them but the switch: what an agent wants to be
// routed it says to ip_route_mgr.
#ifndef RYX_FIB_H
#define RYX_FIB_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/eth.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>
#include <ryx/iter_base.h>
#include <ryx/mpls.h>
#include <ryx/sdk.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <list>
#include <string>

namespace ryx {

/// Where a route comes from.
enum fib_route_type_t : int {
  ROUTE_TYPE_INVALID,
  ROUTE_TYPE_RECEIVE,        ///< an address of the switch's own
  ROUTE_TYPE_RECEIVE_BCAST,  ///< a broadcast address of the switch's own
  ROUTE_TYPE_ATTACHED,
  ROUTE_TYPE_UNKNOWN,  ///< none of these
  ROUTE_TYPE_STATIC_CONFIG,
  ROUTE_TYPE_KERNEL,
  ROUTE_TYPE_RIP,
  ROUTE_TYPE_CONNECTED,  ///< the network of an interface's address
  ROUTE_TYPE_REDIRECT,
  ROUTE_TYPE_BGP_AGGREGATE,
  ROUTE_TYPE_OSPF_AGGREGATE,
  ROUTE_TYPE_OSPF_INTRA_AREA,
  ROUTE_TYPE_OSPF_INTER_AREA,
  ROUTE_TYPE_OSPF_EXTERNAL_TYPE1,
  ROUTE_TYPE_OSPF_EXTERNAL_TYPE2,
  ROUTE_TYPE_OSPF_NSSA_EXTERNAL_TYPE1,
  ROUTE_TYPE_OSPF_NSSA_EXTERNAL_TYPE2,
  ROUTE_TYPE_BGP,
  ROUTE_TYPE_IBGP,
  ROUTE_TYPE_EBGP,
  ROUTE_TYPE_ISIS,
  ROUTE_TYPE_ISIS_LEVEL1,
  ROUTE_TYPE_ISIS_LEVEL2,
  ROUTE_TYPE_NEXTHOP_GROUP,  ///< an agent's route to a nexthop group
  ROUTE_TYPE_OSPF3,
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, fib_route_type_t type);

/// What a route is: a destination. A plain value.
class RYX_API fib_route_key_t {
 public:
  fib_route_key_t();
  explicit fib_route_key_t(const ip_prefix_t& prefix);

  const ip_prefix_t& prefix() const;
  void prefix_is(const ip_prefix_t& prefix);

  bool operator==(const fib_route_key_t& other) const;
  bool operator!=(const fib_route_key_t& other) const;
  bool operator<(const fib_route_key_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_prefix_t prefix_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const fib_route_key_t& key);

/// A route that is installed. A plain value.
class RYX_API fib_route_t {
 public:
  /// No route: no prefix, ROUTE_TYPE_INVALID.
  fib_route_t();
  explicit fib_route_t(const fib_route_key_t& route_key);
  explicit fib_route_t(const ip_prefix_t& prefix);

  const fib_route_key_t& route_key() const;
  void route_key_is(const fib_route_key_t& route_key);
  /// The administrative distance, 0 to 255.
  uint8_t preference() const;
  void preference_is(uint8_t preference);
  uint32_t metric() const;
  void metric_is(uint32_t metric);
  fib_route_type_t route_type() const;
  void route_type_is(fib_route_type_t route_type);
  /// The class of its packets; 0: none.
  uint64_t fec_id() const;
  void fec_id_is(uint64_t fec_id);

  bool operator==(const fib_route_t& other) const;
  bool operator!=(const fib_route_t& other) const;
  /// By key, then the other fields in their order.
  bool operator<(const fib_route_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  fib_route_key_t route_key_;
  uint8_t preference_ = 0;
  uint32_t metric_ = 0;
  fib_route_type_t route_type_ = ROUTE_TYPE_INVALID;
  uint64_t fec_id_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const fib_route_t& route);

/// What a class is: its number in the switch. A plain value.
class RYX_API fib_fec_key_t {
 public:
  /// The number 0, which no class has.
  fib_fec_key_t();
  explicit fib_fec_key_t(uint64_t fec_id);

  uint64_t fec_id() const;
  void fec_id_is(uint64_t fec_id);

  bool operator==(const fib_fec_key_t& other) const;
  bool operator!=(const fib_fec_key_t& other) const;
  bool operator<(const fib_fec_key_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  uint64_t fec_id_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const fib_fec_key_t& key);

/// One way that packets of a class go. A plain value.
class RYX_API fib_via_t {
 public:
  /// Nothing is set.
  fib_via_t();
  fib_via_t(const ip_addr_t& hop, intf_id_t intf, mpls_label_t mpls_label);

  /// The neighbour; none: who the packet is for is at the interface's link itself.
  const ip_addr_t& hop() const;
  void hop_is(const ip_addr_t& hop);
  /// The interface that packets leave by; Null0: they are dropped.
  intf_id_t intf() const;
  void intf_is(intf_id_t intf);
  /// The outermost label that they leave with.
  mpls_label_t mpls_label() const;
  void mpls_label_is(mpls_label_t mpls_label);
  /// A VXLAN tunnel that they go through (RFC 7348): the address of its far end, the network
  /// identifier, and the MAC address of the router there. All three, or none.
  const ip_addr_t& vtep_addr() const;
  void vtep_addr_is(const ip_addr_t& vtep_addr);
  uint32_t vni() const;
  void vni_is(uint32_t vni);
  eth_addr_t router_mac() const;
  void router_mac_is(const eth_addr_t& router_mac);

  bool operator==(const fib_via_t& other) const;
  bool operator!=(const fib_via_t& other) const;
  bool operator<(const fib_via_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_addr_t hop_;
  intf_id_t intf_;
  mpls_label_t mpls_label_;
  ip_addr_t vtep_addr_;
  uint32_t vni_ = 0;
  eth_addr_t router_mac_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const fib_via_t& via);

/// A forwarding equivalence class: what packets of the routes do that have its number. Without a
/// via they are for the switch itself. A plain value.
class RYX_API fib_fec_t {
 public:
  fib_fec_t();
  explicit fib_fec_t(const fib_fec_key_t& fec_key);
  explicit fib_fec_t(uint64_t fec_id);

  const fib_fec_key_t& fec_key() const;
  void fec_key_is(const fib_fec_key_t& fec_key);
  const std::list<fib_via_t>& vias() const;
  /// Replaces the via at that index, or adds one behind the last; vias that are missing before it
  /// are empty ones. Raises a range_error, "ViaIndex::value < ViaIndex::min or > ViaIndex::max not
  /// allowed", for an index above 65535.
  void via_set(uint32_t index, const fib_via_t& via);
  /// Takes it out; nothing happens when there is none. Raises the same error.
  void via_del(uint32_t index);

  bool operator==(const fib_fec_t& other) const;
  bool operator!=(const fib_fec_t& other) const;
  bool operator<(const fib_fec_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  fib_fec_key_t fec_key_;
  std::list<fib_via_t> vias_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const fib_fec_t& fec);

class fib_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held, by a manager in the mode
/// MGR_MODE_READ_NOTIFYING alone. What is installed when the SDK is initialized is reported too,
/// soon after. Several changes of one route before the loop got to it are one callback, with what
/// it is then. A class is not reported as gone while a route of any table may have it.
class RYX_API fib_handler : public base_handler<fib_mgr, fib_handler> {
 public:
  /// Registers the handler for all events.
  explicit fib_handler(fib_mgr* mgr);
  ~fib_handler() override;

  /// The route is new, or has changed.
  virtual void on_route_set(const fib_route_t& route);
  virtual void on_route_del(const fib_route_key_t& key);
  /// The class is new, or its vias have changed.
  virtual void on_fec_set(const fib_fec_t& fec);
  virtual void on_fec_del(const fib_fec_key_t& key);
};

class RYX_API fib_route_iter_impl;
using fib_route_iter_t = iter_base<fib_route_t, fib_route_iter_impl>;
class RYX_API fib_fec_iter_impl;
using fib_fec_iter_t = iter_base<fib_fec_t, fib_fec_iter_impl>;

/// Obtained from `sdk::get_fib_mgr(mode)`; the mode counts that it is created with. For the loop's
/// thread, or one that holds an sdk_scoped_lock.
///
/// It reads the default VRF and those that were registered. A key is looked up in the default VRF
/// first, then in the others by their names; iterators show all of them, and events come from all.
///
/// Every operation but mode_type() and register_vrf() raises a legacy_exception, "SDK not
/// initialized -- did you forget to wait for your agent_handler to call on_initialized?", before
/// the SDK is initialized, and a no_scoped_lock_obtained_error in a thread that may not call.
class RYX_API fib_mgr : public base_mgr<fib_handler, int> {
 public:
  ~fib_mgr() override;

  virtual mgr_mode_type_t mode_type() const = 0;

  /// Adds a VRF, or takes it out: what was reported of it is then reported as gone. The VRF need
  /// not be there yet. False when that changes nothing: it is registered already, or is not, and
  /// the default VRF, which always is. To be called before the SDK is initialized or later. Raises
  /// a range_error, "VrfName::bytes > VrfName::maxLength not allowed", for a name of more than 100
  /// bytes.
  virtual bool register_vrf(const std::string& vrf, bool registers) = 0;

  /// IPv4 routes of a VRF before its IPv6 routes.
  virtual fib_route_iter_t fib_route_iter() const = 0;
  virtual bool fib_route_exists(const fib_route_key_t& key) const = 0;
  /// `fib_route_t()` when it is not installed.
  virtual fib_route_t fib_route(const fib_route_key_t& key) const = 0;

  virtual fib_fec_iter_t fib_fec_iter() const = 0;
  virtual bool fib_fec_exists(const fib_fec_key_t& key) const = 0;
  /// `fib_fec_t()` when there is none.
  virtual fib_fec_t fib_fec(const fib_fec_key_t& key) const = 0;

  /// Each raises a legacy_exception: "Write mode not supported !!!".
  virtual void fib_route_set(const fib_route_t& route) = 0;
  virtual void fib_route_del(const fib_route_key_t& key) = 0;
  virtual void fib_fec_set(const fib_fec_t& fec) = 0;
  virtual void fib_fec_del(const fib_fec_key_t& key) = 0;

 protected:
  fib_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::fib_route_key_t> {
  std::size_t operator()(const ryx::fib_route_key_t& key) const { return key.hash(); }
};
template <>
struct std::hash<ryx::fib_route_t> {
  std::size_t operator()(const ryx::fib_route_t& route) const { return route.hash(); }
};
template <>
struct std::hash<ryx::fib_fec_key_t> {
  std::size_t operator()(const ryx::fib_fec_key_t& key) const { return key.hash(); }
};
template <>
struct std::hash<ryx::fib_via_t> {
  std::size_t operator()(const ryx::fib_via_t& via) const { return via.hash(); }
};
template <>
struct std::hash<ryx::fib_fec_t> {
  std::size_t operator()(const ryx::fib_fec_t& fec) const { return fec.hash(); }
};

#endif  // RYX_FIB_H
