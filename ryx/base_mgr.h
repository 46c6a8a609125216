// The base of every manager that calls handlers: who wants which events, and the one rule by which
// events are dispatched.
//
// A handler registers for every event of the manager, or for the events of single keys (one
// interface, one session). The handlers of an event are called in the order of their addresses,
// those of every event before those of the key, and no handler twice. Callbacks may register,
// unregister, construct and destroy handlers and cause further events:
//
// - a handler that was removed, or destroyed, is not called any more, not even by a dispatch that
//   runs;
// - a handler that was added is called by a running dispatch only if its address comes later;
// - a removed handler's entry stays until an outermost dispatch passes it, and until then adding
//   the handler again has no effect;
// - a handler that is constructed where a destroyed one was starts with no entry;
// - an exception leaves the dispatch: the later handlers miss this one event, and all else is as
//   after any dispatch.
//
// None of this is for several threads at once: see base_handler.h.
#ifndef RYX_BASE_MGR_H
#define RYX_BASE_MGR_H

#include <ryx/api.h>
#include <ryx/base_handler.h>

#include <cstddef>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <type_traits>
#include <vector>

namespace ryx {

namespace detail {

// The handlers that want some event, in the order of their addresses. The entries are chained in
// that order too, because a dispatch passes all of them, and stepping through a tree costs more
// than that may.
template <class Handler>
class handler_list {
 public:
  // `destroyed` marks what a handler left behind that died during a dispatch. Such an entry counts
  // as none, and is gone when the outermost dispatch ends.
  enum class interest : unsigned char { active, removed, destroyed };

  struct entry {
    Handler* handler;
    interest state;
    entry* next;
  };

  handler_list() = default;
  handler_list(const handler_list&) = delete;
  handler_list& operator=(const handler_list&) = delete;

  entry* first() const { return first_; }
  bool empty() const { return entries_.empty(); }

  bool has_active(Handler* handler) const {
    auto found = entries_.find(handler);
    return found != entries_.end() && found->second.state == interest::active;
  }

  // An entry that stands is left as it is.
  void add(Handler* handler) {
    auto place = entries_.emplace(handler, entry{handler, interest::active, nullptr});
    entry& added = place.first->second;
    if (place.second) {
      entry*& link = link_to(place.first);
      added.next = link;
      link = &added;
    } else if (added.state == interest::destroyed) {
      added.state = interest::active;
    }
  }

  void remove(Handler* handler) {
    auto found = entries_.find(handler);
    if (found != entries_.end() && found->second.state == interest::active)
      found->second.state = interest::removed;
  }

  void mark_destroyed(Handler* handler) {
    auto found = entries_.find(handler);
    if (found != entries_.end()) found->second.state = interest::destroyed;
  }

  // Whether there was an entry so marked.
  bool erase_destroyed(Handler* handler) {
    auto found = entries_.find(handler);
    if (found == entries_.end() || found->second.state != interest::destroyed) return false;
    erase(found);
    return true;
  }

  void erase(entry* gone) { erase(entries_.find(gone->handler)); }

 private:
  using map = std::map<Handler*, entry>;

  // The pointer that points, or is to point, to the entry.
  entry*& link_to(typename map::iterator place) {
    return place == entries_.begin() ? first_ : std::prev(place)->second.next;
  }

  void erase(typename map::iterator place) {
    link_to(place) = place->second.next;
    entries_.erase(place);
  }

  map entries_;
  entry* first_ = nullptr;
};

}  // namespace detail

/// The registrations of handlers, by handler and by `Key`, which has a `<`. A manager without
/// events of single keys leaves `Key` as it is.
template <class Handler, class Key = int>
class RYX_API base_mgr {
 public:
  base_mgr() = default;
  base_mgr(const base_mgr&) = delete;
  base_mgr& operator=(const base_mgr&) = delete;

  /// Handlers that outlive the manager are unbound from it.
  virtual ~base_mgr();

  /// The handler wants every event. What it wanted of single keys is cleared.
  virtual void add_handler(Handler* handler);
  /// The handler wants the key's events. Nothing happens while it wants every event.
  virtual void add_handler(const Key& key, Handler* handler);
  /// The handler no longer wants every event.
  virtual void remove_handler(Handler* handler);
  /// The handler no longer wants the key's events.
  virtual void remove_handler(const Key& key, Handler* handler);

 protected:
  /// Calls `callback` with `args` on the handlers that want every event.
  template <class... P, class... A>
  __attribute__((visibility("hidden"))) void dispatch(void (Handler::*callback)(P...),
                                                      const A&... args);

  /// Calls `callback` with `args` on the handlers that want every event, then on those that want
  /// the key's. What the callback is to hear of the key is among `args`.
  template <class... P, class... A>
  __attribute__((visibility("hidden"))) void dispatch_key(const Key& key,
                                                          void (Handler::*callback)(P...),
                                                          const A&... args);

 private:
  template <class Mgr, class H>
  friend class base_handler;

  using handler_list = detail::handler_list<Handler>;
  using virtual_table = const void* const*;

  class dispatch_scope;
  class override_test;

  // What base_handler needs.
  void bind(Handler* handler) { bound_.insert(handler); }
  void forget(Handler* handler);
  void base_table_is(const Handler* handler) { base_table_ = table_of(handler); }

  static virtual_table table_of(const Handler* handler);
  virtual_table base_table();
  void probe();

  void purge_destroyed();
  void key_purged(const Key& key, Handler* handler);

  template <class Call, class Purged>
  __attribute__((visibility("hidden"))) static void walk(handler_list& handlers, bool outermost,
                                                         const Call& call, const Purged& purged);

  bool dispatching_ = false;
  handler_list handlers_;
  std::map<Key, handler_list> handlers_by_key_;

  std::map<Handler*, std::set<Key>> keys_;  // for each handler, where handlers_by_key_ has it
  std::set<Handler*> bound_;                // the handlers whose manager this is
  std::vector<Handler*> destroyed_;         // the handlers that died during the running dispatch
  virtual_table base_table_ = nullptr;
  bool probed_ = false;
};

// The state of a running dispatch, restored on every way out.
template <class Handler, class Key>
class base_mgr<Handler, Key>::dispatch_scope {
 public:
  explicit dispatch_scope(base_mgr& mgr) : mgr_(mgr), saved_(mgr.dispatching_) {
    mgr_.dispatching_ = true;
  }
  dispatch_scope(const dispatch_scope&) = delete;
  dispatch_scope& operator=(const dispatch_scope&) = delete;
  ~dispatch_scope() {
    mgr_.dispatching_ = saved_;
    if (!saved_ && !mgr_.destroyed_.empty()) mgr_.purge_destroyed();
  }

  bool outermost() const { return !saved_; }

 private:
  base_mgr& mgr_;
  const bool saved_;
};

// Tells whether a handler overrides a callback, by the slot of its virtual table that the member
// pointer names (Itanium C++ ABI, sections 2.3 and 2.5). The handler's table is compared with that
// of its base, slot with slot, and not with the address of a function, which need not be the same
// in every module of the process. Whatever is in doubt counts as overridden.
template <class Handler, class Key>
class base_mgr<Handler, Key>::override_test {
 public:
  template <class Callback>
  override_test(virtual_table base_table, Callback callback) {
    const ptrdiff_t offset = slot_offset(callback);
    if (base_table == nullptr || offset < 0) return;
    slot_ = static_cast<size_t>(offset) / sizeof(void*);
    base_function_ = base_table[slot_];
  }

  bool overrides(const Handler* handler) const {
    return base_function_ == nullptr || table_of(handler)[slot_] != base_function_;
  }

 private:
  // The offset in the virtual table of Handler, or -1 when the callback has no place in it.
  template <class Callback>
  static ptrdiff_t slot_offset(Callback callback) {
    ptrdiff_t words[2];
    static_assert(sizeof callback == sizeof words, "a member pointer has another form here");
    std::memcpy(words, &callback, sizeof words);
#if defined(__aarch64__) || defined(__arm__) || defined(__mips__)
    return words[1] == 1 ? words[0] : -1;
#else
    return words[1] == 0 && (words[0] & 1) != 0 ? words[0] - 1 : -1;
#endif
  }

  size_t slot_ = 0;
  const void* base_function_ = nullptr;
};

template <class Handler, class Key>
base_mgr<Handler, Key>::~base_mgr() {
  for (Handler* handler : bound_) handler->mgr_ = nullptr;
}

template <class Handler, class Key>
void base_mgr<Handler, Key>::add_handler(Handler* handler) {
  handlers_.add(handler);
  auto keys = keys_.find(handler);
  if (keys == keys_.end()) return;
  for (const Key& key : keys->second) handlers_by_key_[key].remove(handler);
}

template <class Handler, class Key>
void base_mgr<Handler, Key>::add_handler(const Key& key, Handler* handler) {
  if (handlers_.has_active(handler)) return;
  handlers_by_key_[key].add(handler);
  keys_[handler].insert(key);
}

template <class Handler, class Key>
void base_mgr<Handler, Key>::remove_handler(Handler* handler) {
  handlers_.remove(handler);
}

template <class Handler, class Key>
void base_mgr<Handler, Key>::remove_handler(const Key& key, Handler* handler) {
  auto handlers = handlers_by_key_.find(key);
  if (handlers != handlers_by_key_.end()) handlers->second.remove(handler);
}

// Nothing of a destroyed handler may stay, for the next one at its address is another. The
// positions of running walks must stay, so that the entries go when the outermost dispatch ends.
template <class Handler, class Key>
void base_mgr<Handler, Key>::forget(Handler* handler) {
  bound_.erase(handler);
  handlers_.mark_destroyed(handler);
  auto keys = keys_.find(handler);
  if (keys != keys_.end())
    for (const Key& key : keys->second) handlers_by_key_[key].mark_destroyed(handler);
  destroyed_.push_back(handler);
  if (!dispatching_) purge_destroyed();
}

template <class Handler, class Key>
void base_mgr<Handler, Key>::purge_destroyed() {
  for (Handler* handler : destroyed_) {
    handlers_.erase_destroyed(handler);
    auto keys = keys_.find(handler);
    if (keys == keys_.end()) continue;
    for (auto next = keys->second.begin(); next != keys->second.end();) {
      auto key = next++;
      auto handlers = handlers_by_key_.find(*key);
      if (!handlers->second.erase_destroyed(handler)) continue;
      if (handlers->second.empty()) handlers_by_key_.erase(handlers);
      keys->second.erase(key);
    }
    if (keys->second.empty()) keys_.erase(keys);
  }
  destroyed_.clear();
}

template <class Handler, class Key>
void base_mgr<Handler, Key>::key_purged(const Key& key, Handler* handler) {
  auto keys = keys_.find(handler);
  keys->second.erase(key);
  if (keys->second.empty()) keys_.erase(keys);
}

template <class Handler, class Key>
typename base_mgr<Handler, Key>::virtual_table base_mgr<Handler, Key>::table_of(
    const Handler* handler) {
  static_assert(std::is_polymorphic<Handler>::value, "a handler has virtual callbacks");
  virtual_table table;
  std::memcpy(&table, static_cast<const void*>(handler), sizeof table);
  return table;
}

template <class Handler, class Key>
typename base_mgr<Handler, Key>::virtual_table base_mgr<Handler, Key>::base_table() {
  if (base_table_ == nullptr && !probed_) {
    probed_ = true;
    probe();
  }
  return base_table_;
}

// A Handler that cannot be built, or throws, leaves no table: then every callback is called.
template <class Handler, class Key>
void base_mgr<Handler, Key>::probe() {
  using mgr_type = typename Handler::mgr_type;
  if constexpr (!std::is_abstract<Handler>::value &&
                std::is_constructible<Handler, mgr_type*>::value) {
    auto* mgr = dynamic_cast<mgr_type*>(this);
    if (mgr == nullptr) return;
    try {
      const Handler handler(mgr);
      base_table_is(&handler);
    } catch (...) {
    }
  }
}

template <class Handler, class Key>
template <class Call, class Purged>
void base_mgr<Handler, Key>::walk(handler_list& handlers, bool outermost, const Call& call,
                                  const Purged& purged) {
  for (auto* next = handlers.first(); next != nullptr;) {
    auto* entry = next;
    next = entry->next;
    if (entry->state == handler_list::interest::active) {
      call(entry->handler);
    } else if (outermost) {
      purged(entry->handler);
      handlers.erase(entry);
    }
  }
}

template <class Handler, class Key>
template <class... P, class... A>
void base_mgr<Handler, Key>::dispatch(void (Handler::*callback)(P...), const A&... args) {
  const override_test test(base_table(), callback);
  dispatch_scope scope(*this);
  const auto call = [&](Handler* handler) {
    if (test.overrides(handler)) (handler->*callback)(args...);
  };
  walk(handlers_, scope.outermost(), call, [](Handler*) {});
}

template <class Handler, class Key>
template <class... P, class... A>
void base_mgr<Handler, Key>::dispatch_key(const Key& key, void (Handler::*callback)(P...),
                                          const A&... args) {
  const override_test test(base_table(), callback);
  dispatch_scope scope(*this);
  const auto call = [&](Handler* handler) {
    if (test.overrides(handler)) (handler->*callback)(args...);
  };
  walk(handlers_, scope.outermost(), call, [](Handler*) {});
  auto handlers = handlers_by_key_.find(key);
  if (handlers == handlers_by_key_.end()) return;
  const auto purged = [&](Handler* handler) { key_purged(key, handler); };
  walk(handlers->second, scope.outermost(), call, purged);
  if (scope.outermost() && handlers->second.empty()) handlers_by_key_.erase(handlers);
}

}  // namespace ryx

#endif  // RYX_BASE_MGR_H
