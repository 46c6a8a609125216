// Neighbours: which MAC address an IP address has on an interface, by ARP (RFC 826), by IPv6
// neighbour discovery (RFC 4861), or because an agent says so.
//
// An agent has entries of its own, which the switch takes over as static ones; and it reads the
// switch's table, which holds those of all agents and what was learned. Both are of the default
// VRF.
#ifndef RYX_NEIGHBOR_TABLE_H
#define RYX_NEIGHBOR_TABLE_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/eth.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>
#include <ryx/iter_base.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

enum neighbor_entry_type_t : int {
  NEIGHBOR_ENTRY_TYPE_NULL = 0,
  NEIGHBOR_ENTRY_TYPE_DYNAMIC = 1,  ///< learned
  NEIGHBOR_ENTRY_TYPE_STATIC = 2,   ///< configured
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, neighbor_entry_type_t type);

/// A neighbour's address, and the interface that it is reached by. A plain value.
class RYX_API neighbor_key_t {
 public:
  /// No address, and the empty interface.
  neighbor_key_t();
  neighbor_key_t(const ip_addr_t& ip_addr, intf_id_t intf_id);

  const ip_addr_t& ip_addr() const;
  void ip_addr_is(const ip_addr_t& ip_addr);
  intf_id_t intf_id() const;
  void intf_id_is(intf_id_t intf_id);

  bool operator==(const neighbor_key_t& other) const;
  bool operator!=(const neighbor_key_t& other) const;
  /// By address, then by interface.
  bool operator<(const neighbor_key_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_addr_t ip_addr_;
  intf_id_t intf_id_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const neighbor_key_t& key);

/// A neighbour. A plain value.
class RYX_API neighbor_entry_t {
 public:
  /// No neighbour: an empty key, 00:00:00:00:00:00 and NEIGHBOR_ENTRY_TYPE_NULL.
  neighbor_entry_t();
  explicit neighbor_entry_t(const neighbor_key_t& neighbor_key);
  neighbor_entry_t(const ip_addr_t& ip_addr, intf_id_t intf_id);

  const neighbor_key_t& neighbor_key() const;
  void neighbor_key_is(const neighbor_key_t& neighbor_key);

  eth_addr_t eth_addr() const;
  void eth_addr_is(eth_addr_t eth_addr);

  /// Of what an agent sets it is not looked at: that is static.
  neighbor_entry_type_t entry_type() const;
  void entry_type_is(neighbor_entry_type_t entry_type);

  bool operator==(const neighbor_entry_t& other) const;
  bool operator!=(const neighbor_entry_t& other) const;
  /// By key, then by MAC address, then by type.
  bool operator<(const neighbor_entry_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  neighbor_key_t neighbor_key_;
  eth_addr_t eth_addr_;
  neighbor_entry_type_t entry_type_ = NEIGHBOR_ENTRY_TYPE_NULL;
};
RYX_API std::ostream& operator<<(std::ostream& out, const neighbor_entry_t& entry);

class neighbor_table_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. What the switch's table has
/// when the SDK is initialized is reported too, soon after. Several changes of one neighbour before
/// the loop got to it are one callback, with what it is then.
class RYX_API neighbor_table_handler
    : public base_handler<neighbor_table_mgr, neighbor_table_handler> {
 public:
  explicit neighbor_table_handler(neighbor_table_mgr* mgr);
  ~neighbor_table_handler() override;

  /// Whether the handler wants the events of every neighbour, or of that one.
  void watch_all_neighbor_entries(bool interest);
  void watch_neighbor_entry(const neighbor_key_t& key, bool interest);

  /// The switch's table has the entry, which is new or has changed.
  virtual void on_neighbor_entry_set(const neighbor_entry_t& entry);
  /// The switch's table has it no more.
  virtual void on_neighbor_entry_del(const neighbor_key_t& key);
};

class RYX_API neighbor_table_iter_impl;
/// The keys of the agent's own entries.
using neighbor_table_iter_t = iter_base<neighbor_key_t, neighbor_table_iter_impl>;

class RYX_API neighbor_table_status_iter_impl;
/// The keys of the switch's table.
using neighbor_table_status_iter_t = iter_base<neighbor_key_t, neighbor_table_status_iter_impl>;

/// Obtained from `sdk::get_neighbor_table_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Those that take a key raise a
/// legacy_exception, "unknown address family.", for one without an address.
class RYX_API neighbor_table_mgr : public base_mgr<neighbor_table_handler, neighbor_key_t> {
 public:
  ~neighbor_table_mgr() override;

  /// The keys of the agent's own entries, IPv4 before IPv6.
  virtual neighbor_table_iter_t neighbor_table_iter() const = 0;
  /// The keys of what the switch's table has.
  virtual neighbor_table_status_iter_t neighbor_table_status_iter() const = 0;

  /// Adds an entry to the agent's own, or replaces the one of that key. It may be for an interface
  /// that the switch does not have yet, and takes effect when that comes. Where several agents have
  /// an entry of one key, that of the agent whose name comes first counts.
  virtual void neighbor_entry_set(const neighbor_entry_t& entry) = 0;
  /// Takes it out of the agent's own. Nothing happens when it is none of them: what others set, and
  /// what was learned, stays.
  virtual void neighbor_entry_del(const neighbor_key_t& key) = 0;

  /// The agent's own entry; `neighbor_entry_t()` when there is none. Its type is
  /// NEIGHBOR_ENTRY_TYPE_STATIC.
  virtual neighbor_entry_t neighbor_entry(const neighbor_key_t& key) const = 0;
  /// The entry as the switch's table has it; `neighbor_entry_t()` when it has none.
  virtual neighbor_entry_t neighbor_entry_status(const neighbor_key_t& key) const = 0;

 protected:
  neighbor_table_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::neighbor_key_t> {
  std::size_t operator()(const ryx::neighbor_key_t& key) const { return key.hash(); }
};
template <>
struct std::hash<ryx::neighbor_entry_t> {
  std::size_t operator()(const ryx::neighbor_entry_t& entry) const { return entry.hash(); }
};

#endif  // RYX_NEIGHBOR_TABLE_H
