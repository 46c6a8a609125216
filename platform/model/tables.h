// The rows of the Mirra tables: status that is too much, or changes too often, to be replicated.
// Which table has which rows:
//
//   routing/vrf/status/VRF, routing6/...          Mirra::Fib::RouteStatus, Mirra::Fib6::...
//   forwarding/vrf/status/VRF, forwarding6/...    Mirra::Fib::ForwardingStatus, Mirra::Fib6::...
//   arp/status                                    Arp::Table::Status
//   routing/nexthopgroup/entrystatus              NexthopGroup::EntryStatus
//   tunnel/nexthop/counterkeyinfo                 Tunnel::NexthopCounterKeyInfo
//   flexCounter/counterTable/FEATURE/SLICE,
//   flexCounter/snapshotCounterTable/...          FlexCounter::Counter
//   hardware/counter/macsec/SLICE                 Macsec::CounterStatus
#pragma once

#include <cstdint>

#include "platform/mirra/row.h"
#include "platform/types/eth.h"
#include "platform/types/fixed_text.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"

namespace ryx::platform {

namespace Fib {

enum class RouteType : uint8_t {
  invalid,
  receive,
  receiveBroadcast,
  attached,
  unknown,
  staticConfig,
  kernel,
  rip,
  connected,
  redirect,
  bgpAggregate,
  ospfAggregate,
  ospfIntraArea,
  ospfInterArea,
  ospfExternalType1,
  ospfExternalType2,
  ospfNssaExternalType1,
  ospfNssaExternalType2,
  bgp,
  ibgp,
  ebgp,
  isis,
  isisLevel1,
  isisLevel2,
  nexthopGroup,
  ospf3,
};
constexpr bool isValid(RouteType t) {
  return t <= RouteType::ospf3;
}

// A route that is installed.
struct alignas(8) RouteStatus {
  static constexpr const char* kTypeName = "Mirra::Fib::RouteStatus";
  static constexpr uint32_t kMaxRows = 16u << 20;
  IpPrefix key;
  uint8_t preference = 0;  // administrative distance
  RouteType routeType = RouteType::invalid;
  uint32_t metric = 0;
  uint64_t fecId = 0;
  static constexpr auto members() {
    return described(member("prefix", &RouteStatus::key),
                     member("preference", &RouteStatus::preference),
                     member("routeType", &RouteStatus::routeType),
                     member("metric", &RouteStatus::metric), member("fecId", &RouteStatus::fecId));
  }
};
struct RouteStatus6 : RouteStatus {
  static constexpr const char* kTypeName = "Mirra::Fib6::RouteStatus";
};

// Where packets of a class go; with vni set, through a VXLAN tunnel to vtepAddr (RFC 7348).
struct alignas(8) Via {
  IntfId intf;
  uint32_t mplsLabel = 0xffffffff;  // none
  uint32_t weight = 1;
  uint32_t vni = 0;
  IpAddr hop;
  IpAddr vtepAddr;
  MacAddr routerMac;
  static constexpr auto members() {
    return described(member("hop", &Via::hop), member("intf", &Via::intf),
                     member("mplsLabel", &Via::mplsLabel), member("weight", &Via::weight),
                     member("vni", &Via::vni), member("vtepAddr", &Via::vtepAddr),
                     member("routerMac", &Via::routerMac));
  }
};
static_assert(sizeof(Via) == 64, "eight of them fill a block of their lists");

// A forwarding equivalence class, with its vias.
struct alignas(8) ForwardingStatus {
  static constexpr const char* kTypeName = "Mirra::Fib::ForwardingStatus";
  static constexpr uint32_t kMaxRows = 4u << 20;
  using Element = Via;
  static constexpr const char* kListName = "via";
  static constexpr uint64_t kMaxListBytes = uint64_t{4} << 30;
  uint64_t key = 0;  // the FEC id
  static constexpr auto members() { return described(member("fecId", &ForwardingStatus::key)); }
};
struct ForwardingStatus6 : ForwardingStatus {
  static constexpr const char* kTypeName = "Mirra::Fib6::ForwardingStatus";
};

}  // namespace Fib

namespace Arp {

struct NeighborKey {
  IpAddr addr;
  IntfId intf;
  static constexpr auto members() {
    return described(member("addr", &NeighborKey::addr), member("intf", &NeighborKey::intf));
  }
  bool operator==(const NeighborKey&) const = default;
};
struct NeighborKeyHash {
  size_t operator()(const NeighborKey& key) const { return kinds::hashValue(key); }
};

enum class EntryType : uint8_t { none = 0, dynamic = 1, fixed = 2 };  // learned; configured
constexpr bool isValid(EntryType t) {
  return t <= EntryType::fixed;
}

// A neighbour, by ARP (RFC 826) or neighbour discovery (RFC 4861).
struct alignas(8) Status {
  static constexpr const char* kTypeName = "Arp::Table::Status";
  static constexpr uint32_t kMaxRows = 1u << 20;
  NeighborKey key;
  MacAddr ethAddr;
  EntryType entryType = EntryType::none;
  static constexpr auto members() {
    return described(member("key", &Status::key), member("ethAddr", &Status::ethAddr),
                     member("entryType", &Status::entryType));
  }
};

}  // namespace Arp

namespace NexthopGroup {

// A nexthop group that is programmed, with the vias that it has.
struct alignas(8) EntryStatus {
  static constexpr const char* kTypeName = "NexthopGroup::EntryStatus";
  static constexpr uint32_t kMaxRows = 256u << 10;
  using Element = Fib::Via;
  static constexpr const char* kListName = "via";
  static constexpr uint64_t kMaxListBytes = uint64_t{1} << 30;
  uint64_t key = 0;  // the group's number
  FixedText<256> name;
  static constexpr auto members() {
    return described(member("id", &EntryStatus::key), member("name", &EntryStatus::name));
  }
};

}  // namespace NexthopGroup

namespace Tunnel {

// Which counter counts an entry of a nexthop group: the one at that place of a block of counters,
// in the tables of that feature and slice.
struct alignas(8) CounterKey {
  uint32_t entry = 0;  // its number in the group
  uint32_t feature = 0;
  uint32_t slice = 0;
  uint32_t place = 0;
  uint64_t block = 0;
  static constexpr auto members() {
    return described(member("entry", &CounterKey::entry), member("feature", &CounterKey::feature),
                     member("slice", &CounterKey::slice), member("place", &CounterKey::place),
                     member("block", &CounterKey::block));
  }
};

// The counters of a group's entries, by their numbers.
struct alignas(8) NexthopCounterKeyInfo {
  static constexpr const char* kTypeName = "Tunnel::NexthopCounterKeyInfo";
  static constexpr uint32_t kMaxRows = 256u << 10;
  using Element = CounterKey;
  static constexpr const char* kListName = "counterKey";
  static constexpr uint64_t kMaxListBytes = uint64_t{1} << 30;
  uint64_t key = 0;  // the group's number
  static constexpr auto members() { return described(member("id", &NexthopCounterKeyInfo::key)); }
};

}  // namespace Tunnel

namespace FlexCounter {

struct alignas(8) Count {
  uint64_t packets = 0;
  uint64_t octets = 0;
  static constexpr auto members() {
    return described(member("packets", &Count::packets), member("octets", &Count::octets));
  }
};

// A block of counters.
struct alignas(8) Counter {
  static constexpr const char* kTypeName = "FlexCounter::Counter";
  static constexpr uint32_t kMaxRows = 1u << 20;
  using Element = Count;
  static constexpr const char* kListName = "count";
  static constexpr uint64_t kMaxListBytes = uint64_t{1} << 30;
  uint64_t key = 0;
  static constexpr auto members() { return described(member("block", &Counter::key)); }
};

}  // namespace FlexCounter

namespace Macsec {

// Counters of one port (IEEE 802.1AE clause 10.7).
struct alignas(8) CounterStatus {
  static constexpr const char* kTypeName = "Macsec::CounterStatus";
  static constexpr uint32_t kMaxRows = 16u << 10;
  IntfId key;
  uint64_t outPktsEncrypted = 0;
  uint64_t outOctetsEncrypted = 0;
  uint64_t outPktsUntagged = 0;
  uint64_t inPktsOk = 0;
  uint64_t inOctetsDecrypted = 0;
  uint64_t inPktsUntagged = 0;
  uint64_t inPktsNoTag = 0;
  uint64_t inPktsBadTag = 0;
  uint64_t inPktsNotValid = 0;
  static constexpr auto members() {
    return described(member("intf", &CounterStatus::key),
                     member("outPktsEncrypted", &CounterStatus::outPktsEncrypted),
                     member("outOctetsEncrypted", &CounterStatus::outOctetsEncrypted),
                     member("outPktsUntagged", &CounterStatus::outPktsUntagged),
                     member("inPktsOk", &CounterStatus::inPktsOk),
                     member("inOctetsDecrypted", &CounterStatus::inOctetsDecrypted),
                     member("inPktsUntagged", &CounterStatus::inPktsUntagged),
                     member("inPktsNoTag", &CounterStatus::inPktsNoTag),
                     member("inPktsBadTag", &CounterStatus::inPktsBadTag),
                     member("inPktsNotValid", &CounterStatus::inPktsNotValid));
  }
};

}  // namespace Macsec

// Makes all of them known by their types' names.
RYX_PRIVATE void registerTables();

}  // namespace ryx::platform
