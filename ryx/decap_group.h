// Tunnels that end at the switch: packets of a tunnel protocol to an address are taken out of their
// tunnel.
#ifndef RYX_DECAP_GROUP_H
#define RYX_DECAP_GROUP_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/ip.h>
#include <ryx/iter_base.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

enum decap_protocol_type_t : int {
  PROTOCOL_TYPE_NULL = 0,  ///< none, which no group may have
  PROTOCOL_TYPE_UDP = 1,   ///< MPLS in UDP, RFC 7510
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, decap_protocol_type_t type);

/// A group: a name, and what is taken out of which tunnels. A plain value.
class RYX_API decap_group_t {
 public:
  decap_group_t();
  explicit decap_group_t(const std::string& group_name);
  decap_group_t(const std::string& group_name, const ip_addr_t& destination_addr,
                decap_protocol_type_t protocol_type);

  const std::string& group_name() const;
  void group_name_is(const std::string& group_name);
  /// The address that tunnels end at: IPv4.
  const ip_addr_t& destination_addr() const;
  void destination_addr_is(const ip_addr_t& destination_addr);
  decap_protocol_type_t protocol_type() const;
  void protocol_type_is(decap_protocol_type_t protocol_type);

  bool operator==(const decap_group_t& other) const;
  bool operator!=(const decap_group_t& other) const;
  bool operator<(const decap_group_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  std::string group_name_;
  ip_addr_t destination_addr_;
  decap_protocol_type_t protocol_type_ = PROTOCOL_TYPE_NULL;
};
RYX_API std::ostream& operator<<(std::ostream& out, const decap_group_t& group);

class RYX_API decap_group_iter_impl;
using decap_group_iter_t = iter_base<decap_group_t, decap_group_iter_impl>;

/// Obtained from `sdk::get_decap_group_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock. An agent sees its own groups alone. It has no handlers.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Whatever fails has changed nothing.
class RYX_API decap_group_mgr {
 public:
  virtual ~decap_group_mgr();

  /// What is set from now on is declared; resync_complete() removes all groups that were not.
  /// Without resync_init() it raises an error: "Resync mode was not initialized; cannot complete
  /// resync".
  virtual void resync_init() = 0;
  virtual void resync_complete() = 0;

  virtual decap_group_iter_t decap_group_iter() const = 0;
  /// Adds a group, in the place of one of that name. Raises, in this order, an
  /// invalid_argument_error for "group.group_name()" ("Empty decap group name"), for
  /// "group.destination_addr()" ("only IPv4 destination addresses are supported"), for
  /// "group.protocol_type()" ("must pass a tunnel protocol other than PROTOCOL_TYPE_NULL"), and an
  /// unsupported_error ("Unsupported protocol type for decap group " and the type).
  virtual void decap_group_set(const decap_group_t& group) = 0;
  /// One that is not there is no error.
  virtual void decap_group_del(const std::string& group_name) = 0;
  /// `decap_group_t()` when there is none.
  virtual decap_group_t decap_group(const std::string& group_name) const = 0;

 protected:
  decap_group_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::decap_group_t> {
  std::size_t operator()(const ryx::decap_group_t& group) const { return group.hash(); }
};

#endif  // RYX_DECAP_GROUP_H
