// The base of every callback interface: a handler is bound to its manager for life, and leaves it
// when either of the two goes, in whichever order. See base_mgr.h for what registration means and
// in which order handlers are called.
#ifndef RYX_BASE_HANDLER_H
#define RYX_BASE_HANDLER_H

#include <ryx/api.h>

namespace ryx {

template <class Handler, class Key>
class base_mgr;

/// `Handler` is the callback interface that derives from this class: a polymorphic class whose
/// callbacks `on_...` are virtual and do nothing by default. `Mgr` derives from
/// `base_mgr<Handler, Key>`.
///
/// A handler belongs to the agent. Constructing, registering and destroying one is for the loop's
/// thread, or for a thread that holds an sdk_scoped_lock. Handlers are not copied.
///
/// A callback that a handler does not override is never called. The manager compares the handler's
/// virtual table with that of `Handler` itself, which `Handler` makes known in its constructor:
///
///   peer_handler::peer_handler(peer_mgr* mgr) : base_handler(mgr) { base_table_is(this); }
///
/// For a `Handler` that does not, the manager's first dispatch builds one `Handler` of its own to
/// look at, when it can be constructed from the manager alone; else every callback is called.
///
/// The default callbacks of a `Handler` in a shared library are defined in it, not inline, and with
/// -fsemantic-interposition and without -Bsymbolic: then the tables of all modules name one
/// function. Where they do not, the default is called, and does nothing.
template <class Mgr, class Handler>
class RYX_API base_handler {
 public:
  using mgr_type = Mgr;

  /// Binds the handler to its manager. It hears of nothing before it registers.
  explicit base_handler(Mgr* mgr) : mgr_(mgr) {
    if (mgr_ != nullptr) registry(*mgr_).bind(self());
  }

  base_handler(const base_handler&) = delete;
  base_handler& operator=(const base_handler&) = delete;

  /// Leaves the manager, if it is still there: by the manager's add_handler(), which clears what
  /// the handler wants of single keys, and then its remove_handler().
  virtual ~base_handler() {
    if (mgr_ == nullptr) return;
    auto& mgr = registry(*mgr_);
    mgr.add_handler(self());
    mgr.remove_handler(self());
    mgr.forget(self());
  }

 protected:
  /// For the constructor of `Handler`, and for it alone: the object is still a plain `Handler`
  /// there.
  void base_table_is(const Handler* handler) {
    if (mgr_ != nullptr) registry(*mgr_).base_table_is(handler);
  }

  /// The manager that the handler was constructed with; null once the manager is gone.
  Mgr* mgr_;

 private:
  template <class H, class Key>
  friend class base_mgr;

  template <class Key>
  static base_mgr<Handler, Key>& registry(base_mgr<Handler, Key>& mgr) {
    return mgr;
  }

  // The address that the manager knows the handler by. The object is no Handler yet, or no more,
  // while it is asked for in the constructor and the destructor, so there is nothing to check at
  // run time.
  __attribute__((no_sanitize("vptr"))) Handler* self() { return static_cast<Handler*>(this); }
};

}  // namespace ryx

#endif  // RYX_BASE_HANDLER_H
