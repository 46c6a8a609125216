// MPLS label routes (RFC 3031): what is done with packets that come in with a label, of the agent's
// own, and what the hardware has of it.
//
//   ryx::mpls_route_key_t key(ryx::mpls_label_t(16), 1);
//   routes->mpls_route_set(ryx::mpls_route_t(key));
//   ryx::mpls_route_via_t via(key);
//   via.hop_is(neighbor);
//   via.action_is(ryx::MPLS_ACTION_SWAP);
//   via.out_label_is(ryx::mpls_label_t(17));
//   routes->mpls_route_via_set(via);
//
// Routes outlive the agent's process, as IP routes do: see ip_route.h on restarts.
#ifndef RYX_MPLS_ROUTE_H
#define RYX_MPLS_ROUTE_H

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
#include <string>

namespace ryx {

/// The number of a forwarding equivalence class in the hardware, or none. A plain value.
class RYX_API mpls_fec_id_t {
 public:
  /// No class.
  mpls_fec_id_t();
  /// Raises an invalid_argument_error for "fec_id", "FEC ID must be greater than 0", for 0.
  explicit mpls_fec_id_t(uint64_t fec_id);

  /// 0 when there is none.
  uint64_t fec_id() const;
  /// True when there is none.
  bool operator!() const;

  bool operator==(const mpls_fec_id_t& other) const;
  bool operator!=(const mpls_fec_id_t& other) const;
  bool operator<(const mpls_fec_id_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  uint64_t fec_id_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const mpls_fec_id_t& fec_id);

/// What a route is: an incoming label, and how much it counts. Of several routes of one label the
/// switch uses the one with the lowest metric. A plain value.
class RYX_API mpls_route_key_t {
 public:
  mpls_route_key_t();
  mpls_route_key_t(mpls_label_t label, uint32_t metric);

  mpls_label_t label() const;
  void label_is(mpls_label_t label);
  uint32_t metric() const;
  void metric_is(uint32_t metric);

  bool operator==(const mpls_route_key_t& other) const;
  bool operator!=(const mpls_route_key_t& other) const;
  /// By label, then metric.
  bool operator<(const mpls_route_key_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  mpls_label_t label_;
  uint32_t metric_ = 0;
};
RYX_API std::ostream& operator<<(std::ostream& out, const mpls_route_key_t& key);

/// A route. Where it leads to say its vias. A plain value.
class RYX_API mpls_route_t {
 public:
  mpls_route_t();
  explicit mpls_route_t(const mpls_route_key_t& key);
  mpls_route_t(mpls_label_t label, uint32_t metric);

  const mpls_route_key_t& key() const;
  void key_is(const mpls_route_key_t& key);

  bool operator==(const mpls_route_t& other) const;
  bool operator!=(const mpls_route_t& other) const;
  bool operator<(const mpls_route_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  mpls_route_key_t key_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const mpls_route_t& route);

/// One way that a route leads: by a next hop, an interface or both, or by a nexthop group. A plain
/// value.
class RYX_API mpls_route_via_t {
 public:
  mpls_route_via_t();
  explicit mpls_route_via_t(const mpls_route_key_t& route_key);

  /// The route that it belongs to.
  const mpls_route_key_t& route_key() const;
  void route_key_is(const mpls_route_key_t& route_key);
  /// The next hop's address, of either family.
  const ip_addr_t& hop() const;
  void hop_is(const ip_addr_t& hop);
  /// The interface that packets leave by.
  intf_id_t intf() const;
  void intf_is(intf_id_t intf);
  /// The label that is pushed or swapped in.
  mpls_label_t out_label() const;
  void out_label_is(mpls_label_t out_label);
  /// What is done with the incoming label.
  mpls_action_t action() const;
  void action_is(mpls_action_t action);
  /// The name of a nexthop group.
  const std::string& nexthop_group() const;
  void nexthop_group_is(const std::string& nexthop_group);

  bool operator==(const mpls_route_via_t& other) const;
  bool operator!=(const mpls_route_via_t& other) const;
  bool operator<(const mpls_route_via_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  mpls_route_key_t route_key_;
  ip_addr_t hop_;
  intf_id_t intf_;
  mpls_label_t out_label_;
  mpls_action_t action_ = MPLS_ACTION_NULL;
  std::string nexthop_group_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const mpls_route_via_t& via);

class mpls_route_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held. What the hardware has when
/// the SDK is initialized is reported too, soon after, that of all agents. Several changes of one
/// label or class before the loop got to it are one callback, with what it is then.
class RYX_API mpls_route_handler : public base_handler<mpls_route_mgr, mpls_route_handler> {
 public:
  explicit mpls_route_handler(mpls_route_mgr* mgr);
  ~mpls_route_handler() override;

  /// Whether the handler wants the events of every label and class, or those of that label.
  void watch_all_mpls_routes(bool interest);
  void watch_mpls_route(const mpls_label_t& label, bool interest);

  /// The label is programmed, under that class, which is new or has changed.
  virtual void on_mpls_route_set(mpls_label_t label, mpls_fec_id_t fec_id);
  virtual void on_mpls_route_del(mpls_label_t label);
  /// The class is new, or its vias have changed. Told to those that watch all.
  virtual void on_mpls_fec_set(mpls_fec_id_t fec_id);
  virtual void on_mpls_fec_del(mpls_fec_id_t fec_id);
};

class RYX_API mpls_route_iter_impl;
using mpls_route_iter_t = iter_base<mpls_route_t, mpls_route_iter_impl>;
class RYX_API mpls_route_via_iter_impl;
using mpls_route_via_iter_t = iter_base<mpls_route_via_t, mpls_route_via_iter_impl>;
class RYX_API mpls_route_status_iter_impl;
using mpls_route_status_iter_t = iter_base<mpls_label_t, mpls_route_status_iter_impl>;
class RYX_API mpls_route_via_status_iter_impl;
using mpls_route_via_status_iter_t = iter_base<mpls_route_via_t, mpls_route_via_status_iter_impl>;

/// Obtained from `sdk::get_mpls_route_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock. Routes are an agent's own; status is the hardware's, of all agents.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Those that set raise a range_error
/// for a label that is too large: "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not
/// allowed". An operation that raises an error has changed nothing.
class RYX_API mpls_route_mgr : public base_mgr<mpls_route_handler, mpls_label_t> {
 public:
  ~mpls_route_mgr() override;

  /// From now on, what is set is declared; what was declared before is forgotten.
  virtual void resync_init() = 0;
  /// Deletes every route, and every via of a declared route, that was not declared since. Raises a
  /// legacy_exception without resync_init(): "Resync mode was not initialized; cannot complete
  /// resync".
  virtual void resync_complete() = 0;

  // --- routes ---

  virtual mpls_route_iter_t mpls_route_iter() const = 0;
  /// The vias of a route. Raises a legacy_exception for one that is not there: "Cannot call
  /// mpls_route_via_iter() for nonexistent route".
  virtual mpls_route_via_iter_t mpls_route_via_iter(const mpls_route_key_t& key) const = 0;
  virtual bool exists(const mpls_route_key_t& key) const = 0;
  virtual bool exists(const mpls_route_via_t& via) const = 0;

  /// Makes a route; one that is there keeps its vias.
  virtual void mpls_route_set(const mpls_route_t& route) = 0;
  /// Deletes a route and its vias; one that is not there is no error. Withdraws its declaration.
  virtual void mpls_route_del(const mpls_route_key_t& key) = 0;
  /// Adds a via. Raises, in this order, invalid_argument_errors, for "mpls_route_via_t": "Cannot
  /// set a via with action=POP and no hop or nexthop group set", "Label action must be POP or
  /// FORWARD when nextho group is set"; for "via.route_key()": "Cannot set a via on a nonexistent
  /// MPLS route"; then the range_error of its out_label; and a legacy_exception, "must use a
  /// mpls_action_t other than MPLS_ACTION_NULL".
  virtual void mpls_route_via_set(const mpls_route_via_t& via) = 0;
  /// Takes a via away; one that is not there is no error.
  virtual void mpls_route_via_del(const mpls_route_via_t& via) = 0;

  // --- status ---

  /// The labels that are programmed.
  virtual mpls_route_status_iter_t mpls_route_status_iter() const = 0;
  /// Where packets of a label, or of a class, go; nowhere, when it is not programmed. The vias of a
  /// class have no route_key.
  virtual mpls_route_via_status_iter_t mpls_route_via_status_iter(mpls_label_t label) const = 0;
  virtual mpls_route_via_status_iter_t mpls_route_via_status_iter(mpls_fec_id_t fec_id) const = 0;
  /// The class of a label; none, when it is not programmed.
  virtual mpls_fec_id_t fec_id(mpls_label_t label) const = 0;
  /// The metric of the route that is programmed for a label; 0, when none is.
  virtual uint32_t metric(mpls_label_t label) const = 0;

 protected:
  mpls_route_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::mpls_fec_id_t> {
  std::size_t operator()(const ryx::mpls_fec_id_t& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::mpls_route_key_t> {
  std::size_t operator()(const ryx::mpls_route_key_t& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::mpls_route_t> {
  std::size_t operator()(const ryx::mpls_route_t& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::mpls_route_via_t> {
  std::size_t operator()(const ryx::mpls_route_via_t& v) const { return v.hash(); }
};

#endif  // RYX_MPLS_ROUTE_H
