// What a handler's `watch_all_...` and `watch_...` do. They are written where their function's name
// is traced:
//
//   void intf_handler::watch_intf(intf_id_t intf, bool interest) {
//     RYX_TRACE_ENTRY(trace(), 7, " registering myself as an interface-specific handler");
//     watchOne(mgr_, this, intf, interest);
//   }
#pragma once

namespace ryx {

// Nothing, when the manager is gone.
template <class Mgr, class Handler>
void watchAll(Mgr* mgr, Handler* handler, bool interest) {
  if (mgr == nullptr) return;
  interest ? mgr->add_handler(handler) : mgr->remove_handler(handler);
}

template <class Mgr, class Handler, class Key>
void watchOne(Mgr* mgr, Handler* handler, const Key& key, bool interest) {
  if (mgr == nullptr) return;
  interest ? mgr->add_handler(key, handler) : mgr->remove_handler(key, handler);
}

}  // namespace ryx
