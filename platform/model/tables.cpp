#include "platform/model/tables.h"

namespace ryx::platform {

template <class... Row>
static void registerRows() {
  (mirra::rowTypeOf<Row>(), ...);
}

void registerTables() {
  registerRows<Fib::RouteStatus, Fib::RouteStatus6, Fib::ForwardingStatus, Fib::ForwardingStatus6,
               Arp::Status, NexthopGroup::EntryStatus, Tunnel::NexthopCounterKeyInfo,
               FlexCounter::Counter, Macsec::CounterStatus>();
}

}  // namespace ryx::platform
