// Interfaces of every kind: which there are, their administrative state, description and
// operational status, the names that the kernel has for them, and what changes of all that.
//
//   class watcher : public ryx::intf_handler {
//    public:
//     explicit watcher(ryx::intf_mgr* mgr) : intf_handler(mgr) { watch_all_intfs(true); }
//     void on_oper_status(ryx::intf_id_t intf, ryx::oper_status_t status) override { ... }
//   };
#ifndef RYX_INTF_H
#define RYX_INTF_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/inline/types/intf.h>
#include <ryx/intf_mgr_helper.h>
#include <ryx/iter_base.h>

#include <iosfwd>
#include <string>

namespace ryx {

class intf_mgr;

/// Whether an interface passes traffic (the ifOperStatus of RFC 2863, in less detail).
enum oper_status_t {
  INTF_OPER_NULL = 0,  ///< unknown, not present, or neither up nor down (testing, for example)
  INTF_OPER_UP = 1,
  INTF_OPER_DOWN = 2,  ///< down; also dormant, lower layer down, and not connected
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, oper_status_t status);

/// Callbacks, all called on the loop's thread with the API's lock held.
///
/// What is there when the SDK is initialized is no news: it is found by `intf_mgr::intf_iter()` and
/// the other queries. The exception is the operational status: after `on_initialized` it is
/// reported once for each interface, unless it is INTF_OPER_NULL. Changes that follow each other
/// closely may be reported as one; then the last state is told.
class RYX_API intf_handler : public base_handler<intf_mgr, intf_handler> {
 public:
  explicit intf_handler(intf_mgr* mgr);
  ~intf_handler() override;

  /// Whether the handler wants the events of every interface, or of that one.
  void watch_all_intfs(bool interest);
  void watch_intf(intf_id_t intf, bool interest);

  /// The interface was created: `exists` is true, and its first operational status, unless it is
  /// INTF_OPER_NULL, is reported afterwards. Loopbacks and all kinds of layer 2 are reported; more
  /// specific managers' handlers hear of one first.
  virtual void on_intf_create(intf_id_t intf);

  /// The interface was deleted: `exists` is false. Where another one of that name is there already,
  /// it stays hidden until on_intf_create tells of it.
  virtual void on_intf_delete(intf_id_t intf);

  /// The operational status is another one now.
  virtual void on_oper_status(intf_id_t intf, oper_status_t status);

  /// The administrative state was set; `enabled` is what it is now, which may be what it was.
  virtual void on_admin_enabled(intf_id_t intf, bool enabled);

  /// The description was changed.
  virtual void on_intf_description(intf_id_t intf, const std::string& description);
};

/// The identifiers of interfaces.
class RYX_API intf_iter_impl;
using intf_iter_t = iter_base<intf_id_t, intf_iter_impl>;

/// Obtained from `sdk::get_intf_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock.
///
/// Internal interfaces (is_internal_interface()) are not there for agents: every operation treats
/// them as interfaces that do not exist.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Where nothing else is said, an
/// operation that names an interface raises a no_such_interface_error ("No such interface: " and
/// its name) for one that does not exist.
class RYX_API intf_mgr : public base_mgr<intf_handler, intf_id_t> {
 public:
  ~intf_mgr() override;

  /// All interfaces that exist.
  virtual intf_iter_t intf_iter() const = 0;

  /// Whether the switch has the interface. Raises nothing for any identifier.
  virtual bool exists(intf_id_t intf) const = 0;

  /// The administrative state: whether the interface is meant to be used. By default it is.
  virtual bool admin_enabled(intf_id_t intf) const = 0;
  virtual void admin_enabled_is(intf_id_t intf, bool enabled) = 0;

  /// The description, any text, empty by default. A null one counts as empty.
  virtual std::string description(intf_id_t intf) const = 0;
  virtual void description_is(intf_id_t intf, const char* description) = 0;
  virtual void description_is(intf_id_t intf, const std::string& description) = 0;

  /// INTF_OPER_NULL for an interface without a status.
  virtual oper_status_t oper_status(intf_id_t intf) const = 0;

  /// The interface whose kernel network device has that name; the empty identifier when there is
  /// none. Where two interfaces claim one name, it is the one that claimed it last. Raises nothing
  /// for any name.
  virtual intf_id_t ryx_intf_name(std::string kernel_name) const = 0;

  /// The name of the interface's kernel network device; empty for an interface that has none, or
  /// that does not exist.
  virtual std::string kernel_intf_name(intf_id_t intf) const = 0;

 protected:
  intf_mgr();
};

}  // namespace ryx

#endif  // RYX_INTF_H
