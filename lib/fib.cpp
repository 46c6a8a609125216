// The forwarding table: the routes and classes that the switch has installed, in Mirra tables, four
// for each VRF.
#include "ryx/fib.h"

#include <iterator>
#include <map>
#include <memory>
#include <ostream>
#include <span>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "platform/mirra/table.h"
#include "platform/model/tables.h"
#include "platform/trace/trace.h"
#include "platform/types/bounded_number.h"
#include "platform/types/vrf_name.h"
#include "ryx/panic.h"

namespace ryx {

class fib_route_iter_impl : public chained_iter_impl<fib_route_t> {};
template class iter_base<fib_route_t, fib_route_iter_impl>;
class fib_fec_iter_impl : public chained_iter_impl<fib_fec_t> {};
template class iter_base<fib_fec_t, fib_fec_iter_impl>;

class FibMgrImpl;

namespace {

using platform::Af;
using platform::IpPrefix;
using platform::Fib::ForwardingStatus;
using platform::Fib::ForwardingStatus6;
using platform::Fib::RouteStatus;
using platform::Fib::RouteStatus6;
using platform::Fib::Via;
using platform::mirra::Mode;
using platform::mirra::RowReactor;
using platform::mirra::Table;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkFib");
  return facility;
}

struct ViaIndexBound {
  static constexpr uint32_t kMin = 0, kMax = platform::mirra::kMaxElements - 1;
  static constexpr const char* kOutOfRange =
      "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed";
};
using ViaIndex = platform::BoundedNumber<ViaIndexBound>;

// --- convert ------------------------------------------------------------------------------------

// Both enumerations have the same values.
fib_route_type_t convert(platform::Fib::RouteType type) {
  return isValid(type) ? static_cast<fib_route_type_t>(type) : ROUTE_TYPE_UNKNOWN;
}

fib_route_key_t keyOf(const IpPrefix& prefix) {
  return fib_route_key_t(ryx::convert(prefix));
}

fib_route_t convert(const RouteStatus& row) {
  fib_route_t route(keyOf(row.key));
  route.preference_is(row.preference);
  route.metric_is(row.metric);
  route.route_type_is(convert(row.routeType));
  route.fec_id_is(row.fecId);
  return route;
}

template <class Vias>
fib_fec_t convert(uint64_t fecId, const Vias& vias) {
  fib_fec_t fec(fecId);
  uint32_t index = 0;
  for (const Via& via : vias) {
    fib_via_t converted(
        ryx::convert(via.hop), ryx::convert(via.intf),
        via.mplsLabel == Via().mplsLabel ? mpls_label_t() : mpls_label_t(via.mplsLabel));
    converted.vtep_addr_is(ryx::convert(via.vtepAddr));
    converted.vni_is(via.vni);
    converted.router_mac_is(ryx::convert(via.routerMac));
    fec.via_set(index++, converted);
  }
  return fec;
}

// --- reactors -----------------------------------------------------------------------------------

// Calls `set` with each row and `gone` with the key of each that is no more.
template <class Row, class Set, class Gone>
class Following final : public RowReactor<Row> {
 public:
  Following(Table<Row>& table, Set set, Gone gone)
      : RowReactor<Row>("FibMgrSm", table), set_(std::move(set)), gone_(std::move(gone)) {}

 private:
  using Element = typename RowReactor<Row>::Element;
  void onRow(const Row& row, std::span<const Element> list) override { set_(row, list); }
  void onRowGone(const typename RowReactor<Row>::Key& key) override { gone_(key); }
  const Set set_;
  const Gone gone_;
};

template <class Row, class Set, class Gone>
std::unique_ptr<platform::Task> follow(Table<Row>& table, Set set, Gone gone) {
  return std::make_unique<Following<Row, Set, Gone>>(table, std::move(set), std::move(gone));
}

// The tables of a VRF.
struct FibVrf {
  FibVrf(platform::mirra::Exchange& tables, const std::string& vrf, Mode mode)
      : routes(tables, "routing/vrf/status/" + vrf, mode),
        fecs(tables, "forwarding/vrf/status/" + vrf, mode),
        routes6(tables, "routing6/vrf/status/" + vrf, mode),
        fecs6(tables, "forwarding6/vrf/status/" + vrf, mode) {}

  void registeredIs(bool registers) {
    isRegistered = registers;
    routes.attachedIs(registers);
    fecs.attachedIs(registers);
    routes6.attachedIs(registers);
    fecs6.attachedIs(registers);
  }

  Table<RouteStatus> routes;
  Table<ForwardingStatus> fecs;
  Table<RouteStatus6> routes6;
  Table<ForwardingStatus6> fecs6;
  bool isRegistered = true;
};

// Tells of a VRF's tables. `row`, `vias`: null, it is gone.
class FibMgrSm {
 public:
  FibMgrSm(FibMgrImpl& mgr, FibVrf& vrf);

 private:
  using Vias = std::span<const Via>;

  void handleRoute(const IpPrefix& prefix, const RouteStatus* row);
  void handleRoute6(const IpPrefix& prefix, const RouteStatus* row);
  void handleFec(uint64_t fecId, const Vias* vias) { handleFec(fecId, vias, &fecs_); }
  void handleFec6(uint64_t fecId, const Vias* vias) { handleFec(fecId, vias, &fecs6_); }
  void handleFec(uint64_t fecId, const Vias* vias, std::unordered_set<uint64_t>* told);

  FibMgrImpl& mgr_;
  std::unordered_set<uint64_t> fecs_, fecs6_;  // that were told
  std::unique_ptr<platform::Task> reactors_[4];
};

// By name, the default one first.
struct DefaultFirst {
  bool operator()(const std::string& a, const std::string& b) const {
    const bool isDefault = a == platform::kDefaultVrf, isOtherDefault = b == platform::kDefaultVrf;
    return isDefault != isOtherDefault ? isDefault : a < b;
  }
};

}  // namespace

// --- FibMgrImpl ---------------------------------------------------------------------------------

class FibMgrImpl final : public fib_mgr, public mount_handler {
 public:
  FibMgrImpl(mount_mgr* mounts, mgr_mode_type_t mode) : mount_handler(mounts), mode_(mode) {
    vrfs_[platform::kDefaultVrf];
  }

  // The tables are mounted beside the rest, so that they can be read as soon as the agent is told
  // that everything can.
  void doMounts(mount_group& group) override {
    if (mode_ == MGR_MODE_READ_ONLY)
      RYX_TRACE(trace(), 1, "Mounting Fib as read only");
    else if (mode_ == MGR_MODE_READ_NOTIFYING)
      RYX_TRACE(trace(), 1, "Mounting Fib as read notifying");
    else
      RYX_TRACE(trace(), 1, "Mounting Fib as writer");
    tables_ = &group.connection().tree().tables();
    for (auto& [name, vrf] : vrfs_) mount(name, &vrf);
  }
  void onMountsComplete(entity_manager&) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    RYX_TRACE(trace(), 1, "FibMgrImpl: all mounts completed");
    createFibMgrSm();
  }

  mgr_mode_type_t mode_type() const override { return mode_; }

  bool register_vrf(const std::string& vrf, bool registers) override {
    const sdk_scoped_lock lock;
    if (tables_)
      RYX_TRACE(trace(), 3, "registering " << vrf << " : " << registers);
    else
      RYX_TRACE(trace(), 3, "Pre-registering/unregistering vrf " << vrf << " : " << registers);
    const platform::VrfName checked(vrf);
    if (vrf == platform::kDefaultVrf) return false;
    const auto at = vrfs_.find(vrf);
    if (!tables_) {
      if (registers == (at != vrfs_.end())) return false;
      registers ? void(vrfs_[vrf]) : void(vrfs_.erase(at));
      return true;
    }
    const bool isRegistered = at != vrfs_.end() && at->second->isRegistered;
    if (registers == isRegistered) return false;
    if (at != vrfs_.end()) {
      at->second->registeredIs(registers);
      return true;
    }
    mount(vrf, &vrfs_[vrf]);
    if (isFollowing_) sms_.push_back(std::make_unique<FibMgrSm>(*this, *vrfs_[vrf]));
    return true;
  }

  // --- reading ---

  fib_route_iter_t fib_route_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<fib_route_iter_impl>();
    const auto route = [](const auto& it) { return convert(it.row()); };
    for (const auto& [name, vrf] : vrfs_) {
      iter->add_iter(elementSource<fib_route_t>(vrf->routes.iterator(), route));
      iter->add_iter(elementSource<fib_route_t>(vrf->routes6.iterator(), route));
    }
    iter->initialize();
    return fib_route_iter_t(iter.release());
  }
  bool fib_route_exists(const fib_route_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    RouteStatus row;
    return find(key, &row);
  }
  fib_route_t fib_route(const fib_route_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    RouteStatus row;
    return find(key, &row) ? convert(row) : fib_route_t();
  }
  fib_fec_iter_t fib_fec_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<fib_fec_iter_impl>();
    const auto fec = [](const auto& it) { return convert(it.key(), it.list()); };
    for (const auto& [name, vrf] : vrfs_) {
      iter->add_iter(elementSource<fib_fec_t>(vrf->fecs.iterator(), fec));
      iter->add_iter(elementSource<fib_fec_t>(vrf->fecs6.iterator(), fec));
    }
    iter->initialize();
    return fib_fec_iter_t(iter.release());
  }
  bool fib_fec_exists(const fib_fec_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    std::vector<Via> vias;
    return find(key, &vias);
  }
  fib_fec_t fib_fec(const fib_fec_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    std::vector<Via> vias;
    return find(key, &vias) ? convert(key.fec_id(), vias) : fib_fec_t();
  }

  // --- writing ---

  void fib_route_set(const fib_route_t&) override { refuseToWrite(); }
  void fib_route_del(const fib_route_key_t&) override { refuseToWrite(); }
  void fib_fec_set(const fib_fec_t&) override { refuseToWrite(); }
  void fib_fec_del(const fib_fec_key_t&) override { refuseToWrite(); }

  // --- for the reactors ---

  void routeSet(const fib_route_t& route) {
    const CallbackGuard guard(*this);
    RYX_TRACE(trace(), 5, "set " << route);
    dispatch(&fib_handler::on_route_set, route);
  }
  void routeDel(const fib_route_key_t& key) {
    const CallbackGuard guard(*this);
    RYX_TRACE(trace(), 5, "del " << key);
    dispatch(&fib_handler::on_route_del, key);
  }
  // `isNew`: to one more table.
  void fecSet(const fib_fec_t& fec, bool isNew) {
    const CallbackGuard guard(*this);
    if (isNew) ++fecTables_[fec.fec_key().fec_id()];
    RYX_TRACE(trace(), 5, "set " << fec);
    dispatch(&fib_handler::on_fec_set, fec);
  }
  void fecDel(const fib_fec_key_t& key) {
    const CallbackGuard guard(*this);
    if (--fecTables_[key.fec_id()] != 0) return;  // another table has it
    fecTables_.erase(key.fec_id());
    RYX_TRACE(trace(), 5, "del " << key);
    dispatch(&fib_handler::on_fec_del, key);
  }

 private:
  using Vrfs = std::map<std::string, std::unique_ptr<FibVrf>, DefaultFirst>;

  void refuseToWrite() const {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    panic("Write mode not supported !!!");
  }
  // Of a table that a reader may not change there is but one kind.
  void mount(const std::string& name, std::unique_ptr<FibVrf>* vrf) {
    const Mode mode = mode_ == MGR_MODE_READ_NOTIFYING ? Mode::notify : Mode::read;
    *vrf = std::make_unique<FibVrf>(*tables_, name, mode);
  }
  void createFibMgrSm() {
    if (mode_ != MGR_MODE_READ_NOTIFYING) return;
    isFollowing_ = true;
    for (auto& [name, vrf] : vrfs_) sms_.push_back(std::make_unique<FibMgrSm>(*this, *vrf));
  }

  bool find(const fib_route_key_t& key, RouteStatus* row) const {
    const IpPrefix prefix = ryx::convert(key.prefix());
    RouteStatus6 row6;
    for (const auto& [name, vrf] : vrfs_) {
      if (vrf->routes.find(prefix, row)) {
        RYX_TRACE(trace(), 7, "Found in Ipv4 route table");
        return true;
      }
      if (vrf->routes6.find(prefix, &row6)) {
        RYX_TRACE(trace(), 7, "Found in Ipv6 route table");
        *row = row6;
        return true;
      }
    }
    return false;
  }
  bool find(const fib_fec_key_t& key, std::vector<Via>* vias) const {
    ForwardingStatus row;
    ForwardingStatus6 row6;
    for (const auto& [name, vrf] : vrfs_) {
      if (vrf->fecs.find(key.fec_id(), &row, vias)) {
        RYX_TRACE(trace(), 7, "Found in Ipv4 fec table");
        return true;
      }
      if (vrf->fecs6.find(key.fec_id(), &row6, vias)) {
        RYX_TRACE(trace(), 7, "Found in Ipv6 fec table");
        return true;
      }
    }
    return false;
  }

  const mgr_mode_type_t mode_;
  platform::mirra::Exchange* tables_ = nullptr;  // null: not mounted yet
  bool isFollowing_ = false;
  Vrfs vrfs_;  // those that were ever registered; null while not mounted
  std::vector<std::unique_ptr<FibMgrSm>> sms_;
  std::unordered_map<uint64_t, uint32_t> fecTables_;  // how many tables have a class
};

namespace {

// A row is converted, which copies it, before anyone is told: whoever is may run the loop.
FibMgrSm::FibMgrSm(FibMgrImpl& mgr, FibVrf& vrf) : mgr_(mgr) {
  const auto set = [this](const auto& row, auto) { handleRoute(row.key, &row); };
  const auto set6 = [this](const auto& row, auto) { handleRoute6(row.key, &row); };
  reactors_[0] = follow(
      vrf.fecs, [this](const auto& row, Vias vias) { handleFec(row.key, &vias); },
      [this](uint64_t fecId) { handleFec(fecId, nullptr); });
  reactors_[1] = follow(
      vrf.fecs6, [this](const auto& row, Vias vias) { handleFec6(row.key, &vias); },
      [this](uint64_t fecId) { handleFec6(fecId, nullptr); });
  reactors_[2] =
      follow(vrf.routes, set, [this](const IpPrefix& key) { handleRoute(key, nullptr); });
  reactors_[3] =
      follow(vrf.routes6, set6, [this](const IpPrefix& key) { handleRoute6(key, nullptr); });
}

void FibMgrSm::handleRoute(const IpPrefix& prefix, const RouteStatus* row) {
  platform::check(prefix.af() == Af::ipv4, "prefix.af() == AF_IPV4");
  row ? mgr_.routeSet(convert(*row)) : mgr_.routeDel(keyOf(prefix));
}

void FibMgrSm::handleRoute6(const IpPrefix& prefix, const RouteStatus* row) {
  platform::check(prefix.af() == Af::ipv6, "prefix.af() == AF_IPV6");
  row ? mgr_.routeSet(convert(*row)) : mgr_.routeDel(keyOf(prefix));
}

void FibMgrSm::handleFec(uint64_t fecId, const Vias* vias, std::unordered_set<uint64_t>* told) {
  if (vias) return mgr_.fecSet(convert(fecId, *vias), told->insert(fecId).second);
  told->erase(fecId);
  mgr_.fecDel(fib_fec_key_t(fecId));
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, fib_route_type_t type) {
  static constexpr const char* kNames[] = {"ROUTE_TYPE_INVALID",
                                           "ROUTE_TYPE_RECEIVE",
                                           "ROUTE_TYPE_RECEIVE_BCAST",
                                           "ROUTE_TYPE_ATTACHED",
                                           "ROUTE_TYPE_UNKNOWN",
                                           "ROUTE_TYPE_STATIC_CONFIG",
                                           "ROUTE_TYPE_KERNEL",
                                           "ROUTE_TYPE_RIP",
                                           "ROUTE_TYPE_CONNECTED",
                                           "ROUTE_TYPE_REDIRECT",
                                           "ROUTE_TYPE_BGP_AGGREGATE",
                                           "ROUTE_TYPE_OSPF_AGGREGATE",
                                           "ROUTE_TYPE_OSPF_INTRA_AREA",
                                           "ROUTE_TYPE_OSPF_INTER_AREA",
                                           "ROUTE_TYPE_OSPF_EXTERNAL_TYPE1",
                                           "ROUTE_TYPE_OSPF_EXTERNAL_TYPE2",
                                           "ROUTE_TYPE_OSPF_NSSA_EXTERNAL_TYPE1",
                                           "ROUTE_TYPE_OSPF_NSSA_EXTERNAL_TYPE2",
                                           "ROUTE_TYPE_BGP",
                                           "ROUTE_TYPE_IBGP",
                                           "ROUTE_TYPE_EBGP",
                                           "ROUTE_TYPE_ISIS",
                                           "ROUTE_TYPE_ISIS_LEVEL1",
                                           "ROUTE_TYPE_ISIS_LEVEL2",
                                           "ROUTE_TYPE_NEXTHOP_GROUP",
                                           "ROUTE_TYPE_OSPF3"};
  static_assert(std::size(kNames) == ROUTE_TYPE_OSPF3 + 1);
  const auto number = static_cast<size_t>(type);
  return number < std::size(kNames) ? out << kNames[number] : out << static_cast<int>(type);
}

fib_route_key_t::fib_route_key_t() = default;
fib_route_key_t::fib_route_key_t(const ip_prefix_t& prefix) : prefix_(prefix) {}
const ip_prefix_t& fib_route_key_t::prefix() const {
  return prefix_;
}
void fib_route_key_t::prefix_is(const ip_prefix_t& prefix) {
  prefix_ = prefix;
}
bool fib_route_key_t::operator==(const fib_route_key_t& other) const {
  return prefix_ == other.prefix_;
}
bool fib_route_key_t::operator!=(const fib_route_key_t& other) const {
  return prefix_ != other.prefix_;
}
bool fib_route_key_t::operator<(const fib_route_key_t& other) const {
  return prefix_ < other.prefix_;
}
std::size_t fib_route_key_t::hash() const {
  return prefix_.hash();
}
std::string fib_route_key_t::to_string() const {
  return "fib_route_key_t(" + (prefix_.af() == AF_NULL ? "" : prefix_.to_string()) + ")";
}
std::ostream& operator<<(std::ostream& out, const fib_route_key_t& key) {
  return out << key.to_string();
}

fib_route_t::fib_route_t() = default;
fib_route_t::fib_route_t(const fib_route_key_t& route_key) : route_key_(route_key) {}
fib_route_t::fib_route_t(const ip_prefix_t& prefix) : route_key_(prefix) {}
const fib_route_key_t& fib_route_t::route_key() const {
  return route_key_;
}
void fib_route_t::route_key_is(const fib_route_key_t& route_key) {
  route_key_ = route_key;
}
uint8_t fib_route_t::preference() const {
  return preference_;
}
void fib_route_t::preference_is(uint8_t preference) {
  preference_ = preference;
}
uint32_t fib_route_t::metric() const {
  return metric_;
}
void fib_route_t::metric_is(uint32_t metric) {
  metric_ = metric;
}
fib_route_type_t fib_route_t::route_type() const {
  return route_type_;
}
void fib_route_t::route_type_is(fib_route_type_t route_type) {
  route_type_ = route_type;
}
uint64_t fib_route_t::fec_id() const {
  return fec_id_;
}
void fib_route_t::fec_id_is(uint64_t fec_id) {
  fec_id_ = fec_id;
}
bool fib_route_t::operator==(const fib_route_t& other) const {
  return route_key_ == other.route_key_ && preference_ == other.preference_ &&
         metric_ == other.metric_ && route_type_ == other.route_type_ && fec_id_ == other.fec_id_;
}
bool fib_route_t::operator!=(const fib_route_t& other) const {
  return !(*this == other);
}
bool fib_route_t::operator<(const fib_route_t& other) const {
  return std::tie(route_key_, preference_, metric_, route_type_, fec_id_) <
         std::tie(other.route_key_, other.preference_, other.metric_, other.route_type_,
                  other.fec_id_);
}
std::size_t fib_route_t::hash() const {
  const uint64_t rest = uint64_t{preference_} << 40 | static_cast<uint64_t>(route_type_) << 32;
  return platform::hashMix(platform::hashMix(route_key_.hash(), fec_id_), rest | metric_);
}
std::string fib_route_t::to_string() const {
  std::ostringstream text;
  text << "fib_route_t(route_key=" << route_key_ << ", preference=" << int{preference_}
       << ", metric=" << metric_ << ", route_type=" << route_type_ << ", fec_id=" << fec_id_ << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const fib_route_t& route) {
  return out << route.to_string();
}

fib_fec_key_t::fib_fec_key_t() = default;
fib_fec_key_t::fib_fec_key_t(uint64_t fec_id) : fec_id_(fec_id) {}
uint64_t fib_fec_key_t::fec_id() const {
  return fec_id_;
}
void fib_fec_key_t::fec_id_is(uint64_t fec_id) {
  fec_id_ = fec_id;
}
bool fib_fec_key_t::operator==(const fib_fec_key_t& other) const {
  return fec_id_ == other.fec_id_;
}
bool fib_fec_key_t::operator!=(const fib_fec_key_t& other) const {
  return fec_id_ != other.fec_id_;
}
bool fib_fec_key_t::operator<(const fib_fec_key_t& other) const {
  return fec_id_ < other.fec_id_;
}
std::size_t fib_fec_key_t::hash() const {
  return platform::hashInRow(fec_id_);
}
std::string fib_fec_key_t::to_string() const {
  return "fib_fec_key_t(" + std::to_string(fec_id_) + ")";
}
std::ostream& operator<<(std::ostream& out, const fib_fec_key_t& key) {
  return out << key.to_string();
}

fib_via_t::fib_via_t() = default;
fib_via_t::fib_via_t(const ip_addr_t& hop, intf_id_t intf, mpls_label_t mpls_label)
    : hop_(hop), intf_(intf), mpls_label_(mpls_label) {}
const ip_addr_t& fib_via_t::hop() const {
  return hop_;
}
void fib_via_t::hop_is(const ip_addr_t& hop) {
  hop_ = hop;
}
intf_id_t fib_via_t::intf() const {
  return intf_;
}
void fib_via_t::intf_is(intf_id_t intf) {
  intf_ = intf;
}
mpls_label_t fib_via_t::mpls_label() const {
  return mpls_label_;
}
void fib_via_t::mpls_label_is(mpls_label_t mpls_label) {
  mpls_label_ = mpls_label;
}
const ip_addr_t& fib_via_t::vtep_addr() const {
  return vtep_addr_;
}
void fib_via_t::vtep_addr_is(const ip_addr_t& vtep_addr) {
  vtep_addr_ = vtep_addr;
}
uint32_t fib_via_t::vni() const {
  return vni_;
}
void fib_via_t::vni_is(uint32_t vni) {
  vni_ = vni;
}
eth_addr_t fib_via_t::router_mac() const {
  return router_mac_;
}
void fib_via_t::router_mac_is(const eth_addr_t& router_mac) {
  router_mac_ = router_mac;
}
bool fib_via_t::operator==(const fib_via_t& other) const {
  return hop_ == other.hop_ && intf_ == other.intf_ && mpls_label_ == other.mpls_label_ &&
         vtep_addr_ == other.vtep_addr_ && vni_ == other.vni_ && router_mac_ == other.router_mac_;
}
bool fib_via_t::operator!=(const fib_via_t& other) const {
  return !(*this == other);
}
bool fib_via_t::operator<(const fib_via_t& other) const {
  return std::tie(hop_, intf_, mpls_label_, vtep_addr_, vni_, router_mac_) <
         std::tie(other.hop_, other.intf_, other.mpls_label_, other.vtep_addr_, other.vni_,
                  other.router_mac_);
}
std::size_t fib_via_t::hash() const {
  const uint64_t hash = platform::hashMix(hop_.hash(), intf_.hash());
  const uint64_t tunnel = vtep_addr_.hash() + vni_ + router_mac_.hash();
  return platform::hashMix(platform::hashMix(hash, mpls_label_.hash()), tunnel);
}
// What is unset is left out.
std::string fib_via_t::to_string() const {
  std::ostringstream text;
  const char* before = "";
  const auto field = [&](const char* name, bool isSet, const auto& value) {
    if (!isSet) return;
    text << before << name << "=" << value;
    before = ", ";
  };
  text << "fib_via_t(";
  field("hop", hop_.af() != AF_NULL, hop_);
  field("intf", intf_ != intf_id_t(), intf_);
  field("mpls_label", !!mpls_label_, mpls_label_);
  field("vtep_addr", vtep_addr_.af() != AF_NULL, vtep_addr_);
  field("vni", vni_ != 0, vni_);
  field("router_mac", router_mac_ != eth_addr_t(), router_mac_);
  text << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const fib_via_t& via) {
  return out << via.to_string();
}

fib_fec_t::fib_fec_t() = default;
fib_fec_t::fib_fec_t(const fib_fec_key_t& fec_key) : fec_key_(fec_key) {}
fib_fec_t::fib_fec_t(uint64_t fec_id) : fec_key_(fec_id) {}
const fib_fec_key_t& fib_fec_t::fec_key() const {
  return fec_key_;
}
void fib_fec_t::fec_key_is(const fib_fec_key_t& fec_key) {
  fec_key_ = fec_key;
}
const std::list<fib_via_t>& fib_fec_t::vias() const {
  return vias_;
}
void fib_fec_t::via_set(uint32_t index, const fib_via_t& via) {
  const uint32_t at = ViaIndex(index).value();
  if (vias_.size() <= at) vias_.resize(at + 1);
  if (at + 1 == vias_.size())
    vias_.back() = via;
  else
    *std::next(vias_.begin(), at) = via;
}
void fib_fec_t::via_del(uint32_t index) {
  const uint32_t at = ViaIndex(index).value();
  if (at < vias_.size()) vias_.erase(std::next(vias_.begin(), at));
}
bool fib_fec_t::operator==(const fib_fec_t& other) const {
  return fec_key_ == other.fec_key_ && vias_ == other.vias_;
}
bool fib_fec_t::operator!=(const fib_fec_t& other) const {
  return !(*this == other);
}
bool fib_fec_t::operator<(const fib_fec_t& other) const {
  return std::tie(fec_key_, vias_) < std::tie(other.fec_key_, other.vias_);
}
std::size_t fib_fec_t::hash() const {
  uint64_t hash = fec_key_.hash();
  for (const fib_via_t& via : vias_) hash = platform::hashMix(hash, via.hash());
  return hash;
}
std::string fib_fec_t::to_string() const {
  std::ostringstream text;
  text << "fib_fec_t(fec_key=" << fec_key_ << ", vias=[";
  const char* before = "";
  for (const fib_via_t& via : vias_) text << std::exchange(before, ", ") << via;
  text << "])";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const fib_fec_t& fec) {
  return out << fec.to_string();
}

fib_mgr::fib_mgr() = default;
fib_mgr::~fib_mgr() = default;

fib_handler::fib_handler(fib_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
  if (mgr_ != nullptr) mgr_->add_handler(this);
}
fib_handler::~fib_handler() = default;

void fib_handler::on_route_set(const fib_route_t&) {}
void fib_handler::on_route_del(const fib_route_key_t&) {}
void fib_handler::on_fec_set(const fib_fec_t&) {}
void fib_handler::on_fec_del(const fib_fec_key_t&) {}

void sdk::init_fib_mgr(mgr_mode_type_t mode) {
  if (fib_mgr_ == nullptr) create<FibMgrImpl>(fib_mgr_, mode);
}
fib_mgr* sdk::get_fib_mgr(mgr_mode_type_t mode) {
  return get(fib_mgr_, &sdk::init_fib_mgr, {"fib"}, mode);
}

}  // namespace ryx
