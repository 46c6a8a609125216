// Nexthop groups: sets of next hops or tunnels that have a name, to which routes lead.
//
//   ryx::nexthop_group_t group("uplinks", ryx::NEXTHOP_GROUP_IP);
//   group.destination_ip_set(0, first);
//   group.destination_ip_set(1, second);
//   groups->nexthop_group_set(group);
//   ...
//   via.nexthop_group_is("uplinks");     // an ip_route_via_t, or an mpls_route_via_t
//
// When a next hop fails, or the group is set anew, the switch changes the group alone, however many
// routes lead to it. Groups outlive the agent's process, as routes do: see ip_route.h on restarts.
#ifndef RYX_NEXTHOP_GROUP_H
#define RYX_NEXTHOP_GROUP_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>
#include <ryx/iter_base.h>
#include <ryx/mpls.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <list>
#include <map>
#include <string>

namespace ryx {

/// What packets are put into on their way to a destination.
enum nexthop_group_encap_t : int {
  NEXTHOP_GROUP_TYPE_NULL = 0,      ///< which no group has
  NEXTHOP_GROUP_IP_IN_IP = 1,       ///< RFC 2003
  NEXTHOP_GROUP_GRE = 2,            ///< RFC 2784
  NEXTHOP_GROUP_MPLS = 3,           ///< labels (RFC 3032); destinations are next hops
  NEXTHOP_GROUP_MPLS_OVER_GRE = 4,  ///< labels, and in GRE (RFC 4023)
  NEXTHOP_GROUP_IP = 5,             ///< nothing: destinations are next hops
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, nexthop_group_encap_t type);

/// Whether GRE packets have a key (RFC 2890).
enum gre_key_type_t : int {
  GRE_KEY_TYPE_NULL = 0,      ///< none
  GRE_KEY_TYPE_HARDWARE = 1,  ///< one that the hardware gives them
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, gre_key_type_t type);

/// What an entry does with labels. A plain value.
class RYX_API nexthop_group_mpls_action_t {
 public:
  /// MPLS_ACTION_NULL, and no labels.
  nexthop_group_mpls_action_t();
  nexthop_group_mpls_action_t(mpls_action_t action, const std::list<mpls_label_t>& label_stack);

  mpls_action_t action() const;
  void action_is(mpls_action_t action);
  /// The outermost label first.
  const std::list<mpls_label_t>& label_stack() const;
  void label_stack_is(const std::list<mpls_label_t>& label_stack);

  bool operator==(const nexthop_group_mpls_action_t& other) const;
  bool operator!=(const nexthop_group_mpls_action_t& other) const;
  bool operator<(const nexthop_group_mpls_action_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  mpls_action_t action_ = MPLS_ACTION_NULL;
  std::list<mpls_label_t> label_stack_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const nexthop_group_mpls_action_t& action);

/// One entry of a group, as it is read. A plain value.
class RYX_API nexthop_group_entry_t {
 public:
  nexthop_group_entry_t();
  nexthop_group_entry_t(const ip_addr_t& destination_ip,
                        const nexthop_group_mpls_action_t& mpls_action);

  const ip_addr_t& destination_ip() const;
  void destination_ip_is(const ip_addr_t& destination_ip);
  const nexthop_group_mpls_action_t& mpls_action() const;
  void mpls_action_is(const nexthop_group_mpls_action_t& mpls_action);

  bool operator==(const nexthop_group_entry_t& other) const;
  bool operator!=(const nexthop_group_entry_t& other) const;
  bool operator<(const nexthop_group_entry_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_addr_t destination_ip_;
  nexthop_group_mpls_action_t mpls_action_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const nexthop_group_entry_t& entry);

/// A group. Its entries have numbers, 0 to 65535: what has the same number among the destinations
/// and the label actions is one entry. A plain value.
class RYX_API nexthop_group_t {
 public:
  /// No name, NEXTHOP_GROUP_TYPE_NULL.
  nexthop_group_t();
  nexthop_group_t(const std::string& name, nexthop_group_encap_t type);

  /// 1 to 256 letters, digits, '-' and '_'.
  const std::string& name() const;
  void name_is(const std::string& name);
  nexthop_group_encap_t type() const;
  void type_is(nexthop_group_encap_t type);
  /// Of the outer header, 0 to 255; 0: that of the packet. At first 64.
  uint8_t ttl() const;
  void ttl_is(uint8_t ttl);
  /// The source address of the outer header; IPv4. At first none.
  const ip_addr_t& source_ip() const;
  void source_ip_is(const ip_addr_t& source_ip);
  /// The interface whose address is the source address when there is no other.
  intf_id_t source_intf() const;
  void source_intf_is(intf_id_t source_intf);
  gre_key_type_t gre_key_type() const;
  void gre_key_type_is(gre_key_type_t gre_key_type);
  /// The number of slots: what was set, but at least one more than the highest number of an entry.
  uint16_t size() const;
  void size_is(uint16_t size);

  /// Where entries lead, by their numbers: all of one family.
  const std::map<uint16_t, ip_addr_t>& destination_ips() const;
  void destination_ip_set(uint16_t index, const ip_addr_t& destination_ip);
  void destination_ip_del(uint16_t index);
  const std::map<uint16_t, nexthop_group_mpls_action_t>& mpls_actions() const;
  void mpls_action_set(uint16_t index, const nexthop_group_mpls_action_t& mpls_action);
  void mpls_action_del(uint16_t index);
  /// Both together, by their numbers.
  std::map<uint16_t, nexthop_group_entry_t> entries() const;

  bool operator==(const nexthop_group_t& other) const;
  bool operator!=(const nexthop_group_t& other) const;
  /// By name, then the other fields.
  bool operator<(const nexthop_group_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  std::string name_;
  nexthop_group_encap_t type_ = NEXTHOP_GROUP_TYPE_NULL;
  uint8_t ttl_ = 64;
  ip_addr_t source_ip_;
  intf_id_t source_intf_;
  gre_key_type_t gre_key_type_ = GRE_KEY_TYPE_NULL;
  uint16_t size_ = 0;
  std::map<uint16_t, ip_addr_t> destination_ips_;
  std::map<uint16_t, nexthop_group_mpls_action_t> mpls_actions_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const nexthop_group_t& group);

/// What an entry has sent since its counters were last cleared. A plain value.
class RYX_API nexthop_group_counter_t {
 public:
  nexthop_group_counter_t();
  nexthop_group_counter_t(uint64_t packets, uint64_t bytes);

  uint64_t packets() const;
  void packets_is(uint64_t packets);
  uint64_t bytes() const;
  void bytes_is(uint64_t bytes);

  bool operator==(const nexthop_group_counter_t& other) const;
  bool operator!=(const nexthop_group_counter_t& other) const;
  bool operator<(const nexthop_group_counter_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  uint64_t packets_ = 0;
  uint64_t bytes_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const nexthop_group_counter_t& counter);

class nexthop_group_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. A group that is active when
/// the SDK is initialized is reported too, soon after.
class RYX_API nexthop_group_handler
    : public base_handler<nexthop_group_mgr, nexthop_group_handler> {
 public:
  explicit nexthop_group_handler(nexthop_group_mgr* mgr);
  ~nexthop_group_handler() override;

  /// Whether the handler wants the events of every group, of all agents, or of that one.
  void watch_all_nexthop_groups(bool interest);
  void watch_nexthop_group(const std::string& nexthop_group_name, bool interest);

  /// From now on the hardware has the group with at least one way for its packets, or has it no
  /// more.
  virtual void on_nexthop_group_active(const std::string& nexthop_group_name, bool active);
};

class RYX_API nexthop_group_iter_impl;
/// The names of the agent's own groups.
using nexthop_group_iter_t = iter_base<std::string, nexthop_group_iter_impl>;

/// Obtained from `sdk::get_nexthop_group_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// An agent sees its own groups alone. What is set is told to the switch at once; while the
/// connection takes no more it waits, once each, and goes before the routes that wait, deletions
/// behind them. Where several agents have a group of one name, that of the agent whose name comes
/// first counts.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. An operation that raises an error
/// has changed nothing.
class RYX_API nexthop_group_mgr : public base_mgr<nexthop_group_handler, std::string> {
 public:
  ~nexthop_group_mgr() override;

  /// From now on, what is set is declared; what was declared before is forgotten.
  virtual void resync_init() = 0;
  /// Deletes every group that was not declared since. Raises a legacy_exception without
  /// resync_init(): "Resync mode was not initialized; cannot complete resync".
  virtual void resync_complete() = 0;

  virtual nexthop_group_iter_t nexthop_group_iter() const = 0;
  virtual bool exists(const std::string& nexthop_group_name) const = 0;
  /// `nexthop_group_t()` when there is none.
  virtual nexthop_group_t nexthop_group(const std::string& nexthop_group_name) const = 0;

  /// Makes a group, or replaces the one of that name. Raises, in this order:
  ///  - for "nexthop_group.name" an invalid_argument_error, "group name must be non-empty"; for
  ///    "nexthop_group.name.length" an invalid_range_error, 1 to 256; for "nexthop_group.name" an
  ///    invalid_argument_error, "nexthop group name may contain only chars 'a-zA-Z0-9_-'";
  ///  - invalid_argument_errors for "nexthop_group.type", "type cannot be NEXTHOP_GROUP_TYPE_NULL",
  ///    "type is not supported on hardware", and for "destination_ip", "Cannot mix Ipv4 and Ipv6
  ///    destination entries";
  ///  - unsupported_errors for more labels than the hardware takes ("No hardware support for 9 MPLS
  ///    labels on NEXTHOP_GROUP_MPLS nexthop groups (max: 6 labels)") and for an action that it
  ///    does not have ("No hardware support for MPLS_ACTION_POP action on ... nexthop groups"), and
  ///    between the two an invalid_argument_error for "mpls_action" for one without labels
  ///    ("MPLS_ACTION_PUSH label action with no labels");
  ///  - invalid_argument_errors for "destination_ip", "Invalid address family: AF_NULL"; for
  ///    "nexthop_group.source_ip", "source IP must be an IPv4 address", "MPLS nexthop groups cannot
  ///    specify source_ip"; for "nexthop_group.gre_key_type", "MPLS-over-GRE nexthop groups cannot
  ///    specify gre_key_type";
  ///  - range_errors for a label that is too large ("MplsLabel::value < MplsLabel::min or >
  ///    MplsLabel::luWithdraw not allowed") and for more than 32 of them
  ///    ("MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not
  ///    allowed").
  virtual void nexthop_group_set(const nexthop_group_t& group) = 0;
  /// One that is not there is no error. Withdraws its declaration. Its routes forward no more.
  virtual void nexthop_group_del(const std::string& nexthop_group_name) = 0;

  /// What an entry of a group that is programmed, of any agent, has sent since its counters were
  /// cleared, or since it is programmed. Raises legacy_exceptions: "Invalid entry (%u) in nexthop
  /// NAME", "Counter for entry(%u) in nexthop group NAME not found".
  virtual nexthop_group_counter_t counter(const std::string& nexthop_group_name,
                                          uint16_t entry) const = 0;

 protected:
  nexthop_group_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::nexthop_group_mpls_action_t> {
  std::size_t operator()(const ryx::nexthop_group_mpls_action_t& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::nexthop_group_entry_t> {
  std::size_t operator()(const ryx::nexthop_group_entry_t& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::nexthop_group_t> {
  std::size_t operator()(const ryx::nexthop_group_t& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::nexthop_group_counter_t> {
  std::size_t operator()(const ryx::nexthop_group_counter_t& v) const { return v.hash(); }
};

#endif  // RYX_NEXTHOP_GROUP_H
