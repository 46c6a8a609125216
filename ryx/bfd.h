// BFD sessions (Bidirectional Forwarding Detection, RFC 5880): asked for by agents, run by the
// switch, and what becomes of them.
#ifndef RYX_BFD_H
#define RYX_BFD_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>
#include <ryx/iter_base.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

enum bfd_session_type_t : int {
  BFD_SESSION_TYPE_NULL = 0,
  BFD_SESSION_TYPE_NORMAL = 1,        ///< single hop (RFC 5881)
  BFD_SESSION_TYPE_MICRO = 2,         ///< on a member of a link aggregation
  BFD_SESSION_TYPE_VXLANTUNNEL = 3,   ///< through a VXLAN tunnel (RFC 8971)
  BFD_SESSION_TYPE_LAGRFC7130 = 4,    ///< of a link aggregation, from its members (RFC 7130)
  BFD_SESSION_TYPE_MICRORFC7130 = 5,  ///< on a member of a link aggregation (RFC 7130)
  BFD_SESSION_TYPE_MULTIHOP = 6,      ///< over several hops (RFC 5883)
};

enum bfd_session_status_t : int {
  BFD_SESSION_STATUS_NULL = 0,  ///< unknown, or there is no session
  BFD_SESSION_STATUS_DOWN = 1,
  BFD_SESSION_STATUS_INIT = 2,
  BFD_SESSION_STATUS_UP = 3,
  BFD_SESSION_STATUS_ADMIN_DOWN = 4,
};

/// Print the enumerators' names.
RYX_API std::ostream& operator<<(std::ostream& out, bfd_session_type_t type);
RYX_API std::ostream& operator<<(std::ostream& out, bfd_session_status_t status);

/// Which session: the peer, and where it is reached. A plain value.
class RYX_API bfd_session_key_t {
 public:
  /// No peer, the empty VRF name and interface, BFD_SESSION_TYPE_NULL.
  bfd_session_key_t();
  bfd_session_key_t(const ip_addr_t& ip_addr, const std::string& vrf, bfd_session_type_t type,
                    intf_id_t intf);

  const ip_addr_t& ip_addr() const;
  void ip_addr_is(const ip_addr_t& ip_addr);
  /// At most 100 bytes; "default" is the default VRF.
  const std::string& vrf() const;
  void vrf_is(const std::string& vrf);
  /// What is none of the values counts as BFD_SESSION_TYPE_NORMAL.
  bfd_session_type_t type() const;
  void type_is(bfd_session_type_t type);
  /// Of sessions on one link; the empty one else.
  intf_id_t intf() const;
  void intf_is(intf_id_t intf);

  bool operator==(const bfd_session_key_t& other) const;
  bool operator!=(const bfd_session_key_t& other) const;
  /// By address, VRF, type and interface.
  bool operator<(const bfd_session_key_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  ip_addr_t ip_addr_;
  std::string vrf_;
  bfd_session_type_t type_ = BFD_SESSION_TYPE_NULL;
  intf_id_t intf_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const bfd_session_key_t& key);

/// The timers of sessions. A plain value.
class RYX_API bfd_interval_t {
 public:
  /// All zero, which is no valid interval.
  bfd_interval_t();
  bfd_interval_t(uint32_t tx, uint32_t rx, uint8_t mult);

  /// The desired minimum interval between the packets that are sent, 50 to 60000 ms.
  uint32_t tx() const;
  void tx_is(uint32_t tx);
  /// The required minimum interval between those that are received, 50 to 60000 ms.
  uint32_t rx() const;
  void rx_is(uint32_t rx);
  /// So many packets in a row have to be missed, 3 to 50.
  uint8_t mult() const;
  void mult_is(uint8_t mult);

  bool operator==(const bfd_interval_t& other) const;
  bool operator!=(const bfd_interval_t& other) const;
  bool operator<(const bfd_interval_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  uint32_t tx_ = 0;
  uint32_t rx_ = 0;
  uint8_t mult_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const bfd_interval_t& interval);

/// A session. A plain value.
class RYX_API bfd_session_t {
 public:
  bfd_session_t();
  explicit bfd_session_t(const bfd_session_key_t& key);
  bfd_session_t(const ip_addr_t& ip_addr, const std::string& vrf, bfd_session_type_t type,
                intf_id_t intf);

  const bfd_session_key_t& key() const;
  void key_is(const bfd_session_key_t& key);
  bfd_session_status_t status() const;
  void status_is(bfd_session_status_t status);

  bool operator==(const bfd_session_t& other) const;
  bool operator!=(const bfd_session_t& other) const;
  bool operator<(const bfd_session_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  bfd_session_key_t key_;
  bfd_session_status_t status_ = BFD_SESSION_STATUS_NULL;
};
RYX_API std::ostream& operator<<(std::ostream& out, const bfd_session_t& session);

class bfd_session_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. The sessions that there are
/// when the SDK is initialized are reported too, soon after.
class RYX_API bfd_session_handler : public base_handler<bfd_session_mgr, bfd_session_handler> {
 public:
  explicit bfd_session_handler(bfd_session_mgr* mgr);
  ~bfd_session_handler() override;

  /// Whether the handler wants the events of every session, or of that one.
  void watch_all_bfd_sessions(bool interest);
  void watch_bfd_session(const bfd_session_key_t& key, bool interest);

  /// The switch has the session, and `exists` is true.
  virtual void on_bfd_session_set(const bfd_session_key_t& key);
  /// It has it no more.
  virtual void on_bfd_session_del(const bfd_session_key_t& key);
  /// It has another status: the first one of a session too, unless it is BFD_SESSION_STATUS_NULL.
  virtual void on_bfd_session_status(const bfd_session_key_t& key, bfd_session_status_t status);
};

class RYX_API bfd_session_iter_impl;
using bfd_session_iter_t = iter_base<bfd_session_key_t, bfd_session_iter_impl>;

/// Obtained from `sdk::get_bfd_session_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Those that take a key raise a
/// range_error, "VrfName::bytes > VrfName::maxLength not allowed", for a VRF of more than 100
/// bytes. Whatever fails has changed nothing.
class RYX_API bfd_session_mgr : public base_mgr<bfd_session_handler, bfd_session_key_t> {
 public:
  ~bfd_session_mgr() override;

  /// The sessions that the switch has, whoever asked for them.
  virtual bfd_session_iter_t session_iter() const = 0;

  /// Asks for the session. It may be at an interface that the switch does not have yet. Asking
  /// again changes nothing. One that the switch cannot speak is there, and down: a Linux machine
  /// speaks single hop (RFC 5881) and multihop (RFC 5883) sessions, in the default VRF.
  virtual void session_set(const bfd_session_key_t& key) = 0;
  /// Asks for it no more. It goes when no agent does.
  virtual void session_del(const bfd_session_key_t& key) = 0;

  /// Of what the switch has: whether there is the session; the session, `bfd_session_t()` when
  /// there is none; its status.
  virtual bool exists(const bfd_session_key_t& key) const = 0;
  virtual bfd_session_t session(const bfd_session_key_t& key) const = 0;
  virtual bfd_session_status_t session_status(const bfd_session_key_t& key) const = 0;

  /// The timers of every interface that has none of its own. Raises a range_error for an interval
  /// or multiplier out of its range.
  virtual void default_interval_is(const bfd_interval_t& interval) = 0;
  virtual bfd_interval_t default_interval() const = 0;

  /// The timers of one interface, which the switch need not have. One without timers of its own has
  /// the default ones, whatever they become.
  virtual void interval_is(intf_id_t intf, const bfd_interval_t& interval) = 0;
  virtual bfd_interval_t interval(intf_id_t intf) const = 0;
  virtual void interval_reset(intf_id_t intf) = 0;

 protected:
  bfd_session_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::bfd_session_key_t> {
  std::size_t operator()(const ryx::bfd_session_key_t& key) const { return key.hash(); }
};
template <>
struct std::hash<ryx::bfd_interval_t> {
  std::size_t operator()(const ryx::bfd_interval_t& interval) const { return interval.hash(); }
};
template <>
struct std::hash<ryx::bfd_session_t> {
  std::size_t operator()(const ryx::bfd_session_t& session) const { return session.hash(); }
};

#endif  // RYX_BFD_H
