// MPLS routes: the agent's own, in an input of its own that is written directly, and the hardware's
// labels and classes.
#include "ryx/mpls_route.h"

#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/own_input_mgr.h"
#include "lib/watch.h"
#include "platform/base/check.h"
#include "platform/model/mpls.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

class mpls_route_iter_impl : public chained_iter_impl<mpls_route_t> {};
template class iter_base<mpls_route_t, mpls_route_iter_impl>;
class mpls_route_via_iter_impl : public chained_iter_impl<mpls_route_via_t> {};
template class iter_base<mpls_route_via_t, mpls_route_via_iter_impl>;
class mpls_route_status_iter_impl : public chained_iter_impl<mpls_label_t> {};
template class iter_base<mpls_label_t, mpls_route_status_iter_impl>;
class mpls_route_via_status_iter_impl : public chained_iter_impl<mpls_route_via_t> {};
template class iter_base<mpls_route_via_t, mpls_route_via_status_iter_impl>;

class MplsRouteMgrImpl;

namespace {

using platform::Change;
using platform::Entity;
using platform::SmallSet;
using platform::Mpls::Action;
using platform::Mpls::kNoLabel;
using platform::Mpls::Label;
using platform::Mpls::Route;
using platform::Mpls::RouteConfigInput;
using platform::Mpls::RouteKeyAndMetric;
using platform::Mpls::Via;
using platform::Mpls::Hardware::AdjType;
using platform::Mpls::Hardware::L2Via;
using platform::Mpls::Hardware::Status;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkMplsRoute");
  return facility;
}

// --- convert ------------------------------------------------------------------------------------

bool isLabel(mpls_label_t label) {
  return label.label() <= Label::kMax;
}

// Raises the range error for a label that there cannot be.
RouteKeyAndMetric convert(const mpls_route_key_t& key) {
  return {Label(key.label().label()), key.metric()};
}
mpls_route_key_t convert(const RouteKeyAndMetric& key) {
  return {mpls_label_t(key.label.value()), key.metric};
}

Action convert(mpls_action_t action) {
  switch (action) {
    case MPLS_ACTION_PUSH:
      return Action::push;
    case MPLS_ACTION_POP:
      return Action::pop;
    case MPLS_ACTION_SWAP:
      return Action::swap;
    case MPLS_ACTION_FORWARD:
      return Action::forward;
    case MPLS_ACTION_NULL:
      break;
  }
  panic("must use a mpls_action_t other than MPLS_ACTION_NULL");
  return Action::none;
}

// Raises the errors for a via that no route can have.
Via convert(const mpls_route_via_t& via) {
  Via result;
  result.hop = ryx::convert(via.hop());
  result.intf = ryx::convert(via.intf());
  if (!!via.out_label()) result.outLabel = Label(via.out_label().label()).value();
  result.action = convert(via.action());
  result.nexthopGroup = platform::Name(via.nexthop_group());
  return result;
}

mpls_route_via_t viaOf(const mpls_route_key_t& key, const platform::IpAddr& hop,
                       platform::IntfId intf, uint32_t outLabel, Action action) {
  mpls_route_via_t via(key);
  via.hop_is(ryx::convert(hop));
  via.intf_is(ryx::convert(intf));
  if (outLabel != kNoLabel) via.out_label_is(mpls_label_t(outLabel));
  via.action_is(static_cast<mpls_action_t>(action));
  return via;
}
mpls_route_via_t convert(const mpls_route_key_t& key, const Via& via) {
  mpls_route_via_t result = viaOf(key, via.hop, via.intf, via.outLabel, via.action);
  result.nexthop_group_is(std::string(via.nexthopGroup.view()));
  return result;
}

// Raises the error for a via that makes no sense.
void check(const mpls_route_via_t& via) {
  const auto refuse = [](const char* why) {
    panic(invalid_argument_error("mpls_route_via_t", why));
  };
  const bool hasGroup = !via.nexthop_group().empty();
  if (via.action() == MPLS_ACTION_POP && via.hop().af() == AF_NULL && !hasGroup)
    refuse("Cannot set a via with action=POP and no hop or nexthop group set");
  if (hasGroup && via.action() != MPLS_ACTION_POP && via.action() != MPLS_ACTION_FORWARD)
    refuse("Label action must be POP or FORWARD when nextho group is set");
}

template <class IterImpl>
iter_base<mpls_route_via_t, IterImpl> listed(std::vector<mpls_route_via_t> vias) {
  auto iter = std::make_unique<IterImpl>();
  iter->add_iter(listSource(std::move(vias)));
  iter->initialize();
  return iter_base<mpls_route_via_t, IterImpl>(iter.release());
}

// --- reactors -----------------------------------------------------------------------------------

// Tells of the hardware's labels and classes.
class MplsRouteMgrSm {
 public:
  MplsRouteMgrSm(MplsRouteMgrImpl& mgr, Status& status) : mgr_(mgr), hwStatus_(*this, status) {}

 private:
  class QelMplsHwStatus final : public platform::JournalReactor {
   public:
    QelMplsHwStatus(MplsRouteMgrSm& sm, Status& status)
        : JournalReactor("MplsRouteMgrSm"), sm_(sm) {
      follow(status.journal);
    }

   private:
    void onEntity(Entity& entity, Change change) override;
    MplsRouteMgrSm& sm_;
  };
  // A class that was told, by its number.
  struct Adjacency {
    uint64_t l2 = 0;
  };
  // Where packets go, by its number: the classes that say so and were told.
  struct L2Adjacency {
    std::set<uint64_t> fecs;
  };

  void handleMplsRoute(const platform::Mpls::Hardware::Route& route, bool exists);
  void handleAdjacency(const platform::Mpls::Hardware::Adjacency& adjacency, bool exists);
  void handleL2Adjacency(const platform::Mpls::Hardware::L2Adjacency& l2, bool exists);
  void handleL2ViaSet(const L2Adjacency& l2);
  void tellRoute(Label label, uint64_t fec);
  void tellRouteGone(Label label);

  MplsRouteMgrImpl& mgr_;
  std::set<uint32_t> told_;  // labels
  // Classes that labels have and that were not told yet; a label is told behind its class.
  std::map<uint64_t, std::set<uint32_t>> waiting_;
  std::unordered_map<uint64_t, Adjacency> adjacencies_;
  std::unordered_map<uint64_t, L2Adjacency> l2Adjacencies_;
  QelMplsHwStatus hwStatus_;
};

}  // namespace

// --- MplsRouteMgrImpl ---------------------------------------------------------------------------

class MplsRouteMgrImpl final : public OwnInputMgr<mpls_route_mgr, RouteConfigInput,
                                                  &RouteConfigInput::route, SmallSet<Via>> {
 public:
  explicit MplsRouteMgrImpl(mount_mgr* mounts)
      : OwnInputMgr(mounts, "MplsRouteMgrImpl", "routing/mpls/route/input/dynamic", trace()) {}

  void doMounts(mount_group& group) override {
    OwnInputMgr::doMounts(group);
    group.add("routing/hardware/mpls/status", Status::kTypeName, "r");
  }
  void onMountsComplete(entity_manager& em) override {
    OwnInputMgr::onMountsComplete(em);
    status_ = em->find<Status>("routing/hardware/mpls/status");
    sm_ = std::make_unique<MplsRouteMgrSm>(*this, *status_);
  }

  void resync_complete() override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    resync().checkOn();
    for (auto it = entries().iterator(); it; it.next()) {
      const SmallSet<Via>* declared = resync().find(it.key());
      if (!declared) {
        entries().remove(*it);
        continue;
      }
      SmallSet<Via> left;
      for (const Via& via : it->via())
        if (declared->contains(via)) left.insert(via);
      it->via.set(left);
    }
    resync().end();
  }

  // --- routes ---

  mpls_route_iter_t mpls_route_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return iterator<mpls_route_t, mpls_route_iter_impl>(
        [](const Route& route) { return mpls_route_t(convert(route.key())); });
  }
  mpls_route_via_iter_t mpls_route_via_iter(const mpls_route_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    const Route* route = find(key);
    if (!route) panic("Cannot call mpls_route_via_iter() for nonexistent route");
    std::vector<mpls_route_via_t> vias;
    for (const Via& via : route->via()) vias.push_back(convert(key, via));
    return listed<mpls_route_via_iter_impl>(std::move(vias));
  }
  bool exists(const mpls_route_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    return find(key) != nullptr;
  }
  bool exists(const mpls_route_via_t& via) const override {
    RYX_TRACE_ENTRY(trace(), 7, " via=" << via);
    const ApiGuard guard(*this);
    const Route* route = find(via.route_key());
    if (!route) return false;
    for (const Via& there : route->via())
      if (convert(via.route_key(), there) == via) return true;
    return false;
  }
  void mpls_route_set(const mpls_route_t& route) override {
    RYX_TRACE_ENTRY(trace(), 7, " route=" << route);
    const ApiGuard guard(*this);
    const RouteKeyAndMetric key = convert(route.key());
    declare(key);
    entries().create(key)->dynamic.set(true);
  }
  void mpls_route_del(const mpls_route_key_t& key) override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    if (!isLabel(key.label())) return;
    withdraw(convert(key));
    entries().erase(convert(key));
  }
  void mpls_route_via_set(const mpls_route_via_t& via) override {
    RYX_TRACE_ENTRY(trace(), 7, " via=" << via);
    const ApiGuard guard(*this);
    check(via);
    Route* route = find(via.route_key());
    if (!route)
      panic(invalid_argument_error("via.route_key()",
                                   "Cannot set a via on a nonexistent MPLS route"));
    const Via converted = convert(via);
    if (SmallSet<Via>* declared = resync().find(route->key())) declared->insert(converted);
    route->via.edit([&](SmallSet<Via>& vias) { return vias.insert(converted); });
  }
  void mpls_route_via_del(const mpls_route_via_t& via) override {
    RYX_TRACE_ENTRY(trace(), 7, " via=" << via);
    const ApiGuard guard(*this);
    Route* route = find(via.route_key());
    if (!route) return;
    SmallSet<Via>* declared = resync().find(route->key());
    for (const Via& there : SmallSet<Via>(route->via())) {
      if (convert(via.route_key(), there) != via) continue;
      route->via.edit([&](SmallSet<Via>& vias) { return vias.erase(there); });
      if (declared) declared->erase(there);
    }
  }

  // --- status ---

  mpls_route_status_iter_t mpls_route_status_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<mpls_route_status_iter_impl>();
    iter->add_iter(elementSource<mpls_label_t>(
        status_->route.iterator(), [](const auto& it) { return mpls_label_t(it.key().value()); },
        [](const auto& it) { return it->adj().type != AdjType::mplsIp; }));
    iter->initialize();
    return mpls_route_status_iter_t(iter.release());
  }
  mpls_route_via_status_iter_t mpls_route_via_status_iter(mpls_label_t label) const override {
    RYX_TRACE_ENTRY(trace(), 7, " label=" << label);
    const ApiGuard guard(*this);
    const auto* route = programmed(label);
    const mpls_route_key_t key(label, route ? route->metric() : 0);
    return listed<mpls_route_via_status_iter_impl>(viasOf(key, route ? route->adj().index : 0));
  }
  mpls_route_via_status_iter_t mpls_route_via_status_iter(mpls_fec_id_t fec_id) const override {
    RYX_TRACE_ENTRY(trace(), 7, " fec_id=" << fec_id);
    const ApiGuard guard(*this);
    if (!status_->adjacency.find(fec_id.fec_id()))
      RYX_TRACE(trace(), 3, "Could not find this FEC in status!");
    return listed<mpls_route_via_status_iter_impl>(viasOf({}, fec_id.fec_id()));
  }
  mpls_fec_id_t fec_id(mpls_label_t label) const override {
    RYX_TRACE_ENTRY(trace(), 7, " label=" << label);
    const ApiGuard guard(*this);
    if (const auto* route = programmed(label)) return mpls_fec_id_t(route->adj().index);
    RYX_TRACE(trace(), 3, "No adjacency found for this route!");
    return {};
  }
  uint32_t metric(mpls_label_t label) const override {
    RYX_TRACE_ENTRY(trace(), 7, " label=" << label);
    const ApiGuard guard(*this);
    const auto* route = programmed(label);
    return route ? route->metric() : 0;
  }

  // --- for the reactor ---

  void routeSet(mpls_label_t label, mpls_fec_id_t fec) {
    const CallbackGuard guard(*this);
    dispatch_key(label, &mpls_route_handler::on_mpls_route_set, label, fec);
  }
  void routeDel(mpls_label_t label) {
    const CallbackGuard guard(*this);
    dispatch_key(label, &mpls_route_handler::on_mpls_route_del, label);
  }
  void fecSet(mpls_fec_id_t fec) {
    const CallbackGuard guard(*this);
    dispatch(&mpls_route_handler::on_mpls_fec_set, fec);
  }
  void fecDel(mpls_fec_id_t fec) {
    const CallbackGuard guard(*this);
    dispatch(&mpls_route_handler::on_mpls_fec_del, fec);
  }

 private:
  Route* find(const mpls_route_key_t& key) const {
    return isLabel(key.label()) ? entries().find(convert(key)) : nullptr;
  }
  // The label as the hardware has it, if it leads out of the switch there; else null.
  const platform::Mpls::Hardware::Route* programmed(mpls_label_t label) const {
    const auto* route = isLabel(label) ? status_->route.find(Label(label.label())) : nullptr;
    const bool leadsOut = route && route->adj().type == AdjType::mplsIp && route->adj().index != 0;
    return leadsOut ? route : nullptr;
  }
  std::vector<mpls_route_via_t> viasOf(const mpls_route_key_t& key, uint64_t fec) const {
    std::vector<mpls_route_via_t> vias;
    const auto* adjacency = status_->adjacency.find(fec);
    const auto* l2 = adjacency ? status_->l2Adjacency.find(adjacency->l2Adjacency()) : nullptr;
    if (!l2) return vias;
    for (const L2Via& via : l2->via())
      vias.push_back(viaOf(key, via.hop, via.intf, via.outLabel, via.action));
    return vias;
  }

  Status* status_ = nullptr;
  std::unique_ptr<MplsRouteMgrSm> sm_;
};

namespace {

void MplsRouteMgrSm::QelMplsHwStatus::onEntity(Entity& entity, Change change) {
  const bool exists = change != Change::deleted;
  if (const auto* route = entity.as<platform::Mpls::Hardware::Route>())
    sm_.handleMplsRoute(*route, exists);
  else if (const auto* adjacency = entity.as<platform::Mpls::Hardware::Adjacency>())
    sm_.handleAdjacency(*adjacency, exists);
  else if (const auto* l2 = entity.as<platform::Mpls::Hardware::L2Adjacency>())
    sm_.handleL2Adjacency(*l2, exists);
}

void MplsRouteMgrSm::handleMplsRoute(const platform::Mpls::Hardware::Route& route, bool exists) {
  const Label label = route.key();
  RYX_TRACE(trace(), 5, " label: " << label.value());
  const auto adj = route.adj();
  for (auto& [fec, labels] : waiting_) labels.erase(label.value());
  std::erase_if(waiting_, [](const auto& entry) { return entry.second.empty(); });
  const bool isSupported = adj.type == AdjType::mplsIp && adj.index != 0;
  if (exists && !isSupported)
    RYX_TRACE(trace(), 5,
              " Ignoring unsupported adj with type: " << static_cast<int>(adj.type) << ", index "
                                                      << adj.index);
  if (!exists || !isSupported) return tellRouteGone(label);
  if (adjacencies_.count(adj.index)) return tellRoute(label, adj.index);
  waiting_[adj.index].insert(label.value());
}

void MplsRouteMgrSm::tellRoute(Label label, uint64_t fec) {
  platform::check(adjacencies_.count(fec) != 0, "mplsIp adjacency did not exist for label route");
  told_.insert(label.value());
  mgr_.routeSet(mpls_label_t(label.value()), mpls_fec_id_t(fec));
}

void MplsRouteMgrSm::tellRouteGone(Label label) {
  if (told_.erase(label.value()) != 0) mgr_.routeDel(mpls_label_t(label.value()));
}

void MplsRouteMgrSm::handleAdjacency(const platform::Mpls::Hardware::Adjacency& adjacency,
                                     bool exists) {
  const uint64_t fec = adjacency.key();
  const auto before = adjacencies_.find(fec);
  if (before != adjacencies_.end()) {
    const auto l2 = l2Adjacencies_.find(before->second.l2);
    l2->second.fecs.erase(fec);
    if (l2->second.fecs.empty()) l2Adjacencies_.erase(l2);
    adjacencies_.erase(before);
    if (!exists) return mgr_.fecDel(mpls_fec_id_t(fec));
  }
  if (!exists || fec == 0) return;
  adjacencies_[fec] = {adjacency.l2Adjacency()};
  l2Adjacencies_[adjacency.l2Adjacency()].fecs.insert(fec);
  std::set<uint32_t> labels;
  if (const auto at = waiting_.find(fec); at != waiting_.end()) {
    labels = std::move(at->second);
    waiting_.erase(at);
  }
  mgr_.fecSet(mpls_fec_id_t(fec));
  for (const uint32_t label : labels)
    if (adjacencies_.count(fec)) tellRoute(Label(label), fec);
}

// One that goes takes its class along, which is told as that.
void MplsRouteMgrSm::handleL2Adjacency(const platform::Mpls::Hardware::L2Adjacency& l2,
                                       bool exists) {
  const auto at = l2Adjacencies_.find(l2.key());
  if (exists && at != l2Adjacencies_.end()) handleL2ViaSet(at->second);
}

void MplsRouteMgrSm::handleL2ViaSet(const L2Adjacency& l2) {
  for (const uint64_t fec : std::set<uint64_t>(l2.fecs)) mgr_.fecSet(mpls_fec_id_t(fec));
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

mpls_fec_id_t::mpls_fec_id_t() = default;
mpls_fec_id_t::mpls_fec_id_t(uint64_t fec_id) : fec_id_(fec_id) {
  if (fec_id == 0) panic(invalid_argument_error("fec_id", "FEC ID must be greater than 0"));
}
uint64_t mpls_fec_id_t::fec_id() const {
  return fec_id_;
}
bool mpls_fec_id_t::operator!() const {
  return fec_id_ == 0;
}
bool mpls_fec_id_t::operator==(const mpls_fec_id_t& other) const {
  return fec_id_ == other.fec_id_;
}
bool mpls_fec_id_t::operator!=(const mpls_fec_id_t& other) const {
  return fec_id_ != other.fec_id_;
}
bool mpls_fec_id_t::operator<(const mpls_fec_id_t& other) const {
  return fec_id_ < other.fec_id_;
}
std::size_t mpls_fec_id_t::hash() const {
  return platform::hashInRow(fec_id_);
}
std::string mpls_fec_id_t::to_string() const {
  return "mpls_fec_id_t(" + std::to_string(fec_id_) + ")";
}
std::ostream& operator<<(std::ostream& out, const mpls_fec_id_t& fec_id) {
  return out << fec_id.to_string();
}

mpls_route_key_t::mpls_route_key_t() = default;
mpls_route_key_t::mpls_route_key_t(mpls_label_t label, uint32_t metric)
    : label_(label), metric_(metric) {}
mpls_label_t mpls_route_key_t::label() const {
  return label_;
}
void mpls_route_key_t::label_is(mpls_label_t label) {
  label_ = label;
}
uint32_t mpls_route_key_t::metric() const {
  return metric_;
}
void mpls_route_key_t::metric_is(uint32_t metric) {
  metric_ = metric;
}
bool mpls_route_key_t::operator==(const mpls_route_key_t& other) const {
  return label_ == other.label_ && metric_ == other.metric_;
}
bool mpls_route_key_t::operator!=(const mpls_route_key_t& other) const {
  return !(*this == other);
}
bool mpls_route_key_t::operator<(const mpls_route_key_t& other) const {
  return std::tie(label_, metric_) < std::tie(other.label_, other.metric_);
}
std::size_t mpls_route_key_t::hash() const {
  return platform::hashMix(label_.hash(), metric_);
}
std::string mpls_route_key_t::to_string() const {
  return "mpls_route_key_t(label=" + label_.to_string() + ", metric=" + std::to_string(metric_) +
         ")";
}
std::ostream& operator<<(std::ostream& out, const mpls_route_key_t& key) {
  return out << key.to_string();
}

mpls_route_t::mpls_route_t() = default;
mpls_route_t::mpls_route_t(const mpls_route_key_t& key) : key_(key) {}
mpls_route_t::mpls_route_t(mpls_label_t label, uint32_t metric) : key_(label, metric) {}
const mpls_route_key_t& mpls_route_t::key() const {
  return key_;
}
void mpls_route_t::key_is(const mpls_route_key_t& key) {
  key_ = key;
}
bool mpls_route_t::operator==(const mpls_route_t& other) const {
  return key_ == other.key_;
}
bool mpls_route_t::operator!=(const mpls_route_t& other) const {
  return key_ != other.key_;
}
bool mpls_route_t::operator<(const mpls_route_t& other) const {
  return key_ < other.key_;
}
std::size_t mpls_route_t::hash() const {
  return key_.hash();
}
std::string mpls_route_t::to_string() const {
  return "mpls_route_t(key=" + key_.to_string() + ")";
}
std::ostream& operator<<(std::ostream& out, const mpls_route_t& route) {
  return out << route.to_string();
}

mpls_route_via_t::mpls_route_via_t() = default;
mpls_route_via_t::mpls_route_via_t(const mpls_route_key_t& route_key) : route_key_(route_key) {}
const mpls_route_key_t& mpls_route_via_t::route_key() const {
  return route_key_;
}
void mpls_route_via_t::route_key_is(const mpls_route_key_t& route_key) {
  route_key_ = route_key;
}
const ip_addr_t& mpls_route_via_t::hop() const {
  return hop_;
}
void mpls_route_via_t::hop_is(const ip_addr_t& hop) {
  hop_ = hop;
}
intf_id_t mpls_route_via_t::intf() const {
  return intf_;
}
void mpls_route_via_t::intf_is(intf_id_t intf) {
  intf_ = intf;
}
mpls_label_t mpls_route_via_t::out_label() const {
  return out_label_;
}
void mpls_route_via_t::out_label_is(mpls_label_t out_label) {
  out_label_ = out_label;
}
mpls_action_t mpls_route_via_t::action() const {
  return action_;
}
void mpls_route_via_t::action_is(mpls_action_t action) {
  action_ = action;
}
const std::string& mpls_route_via_t::nexthop_group() const {
  return nexthop_group_;
}
void mpls_route_via_t::nexthop_group_is(const std::string& nexthop_group) {
  nexthop_group_ = nexthop_group;
}
bool mpls_route_via_t::operator==(const mpls_route_via_t& other) const {
  return !(*this < other) && !(other < *this);
}
bool mpls_route_via_t::operator!=(const mpls_route_via_t& other) const {
  return !(*this == other);
}
bool mpls_route_via_t::operator<(const mpls_route_via_t& other) const {
  return std::tie(route_key_, hop_, intf_, out_label_, action_, nexthop_group_) <
         std::tie(other.route_key_, other.hop_, other.intf_, other.out_label_, other.action_,
                  other.nexthop_group_);
}
std::size_t mpls_route_via_t::hash() const {
  uint64_t hash = platform::hashMix(route_key_.hash(), hop_.hash());
  hash = platform::hashMix(hash, intf_.hash() + action_);
  hash = platform::hashMix(hash, out_label_.hash());
  return platform::hashMix(hash, platform::hashBytes(nexthop_group_.data(), nexthop_group_.size()));
}
// What is unset is left out.
std::string mpls_route_via_t::to_string() const {
  std::ostringstream text;
  text << "mpls_route_via_t(route_key=" << route_key_;
  if (hop_.af() != AF_NULL) text << ", hop=" << hop_.to_string();
  if (intf_ != intf_id_t()) text << ", intf=" << intf_.to_string();
  if (!!out_label_) text << ", out_label=" << out_label_;
  text << ", action=" << action_;
  if (!nexthop_group_.empty()) text << ", nexthop_group='" << nexthop_group_ << "'";
  text << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const mpls_route_via_t& via) {
  return out << via.to_string();
}

mpls_route_mgr::mpls_route_mgr() = default;
mpls_route_mgr::~mpls_route_mgr() = default;

mpls_route_handler::mpls_route_handler(mpls_route_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
mpls_route_handler::~mpls_route_handler() = default;

void mpls_route_handler::watch_all_mpls_routes(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " interest is: " << (interest ? "add" : "del"));
  watchAll(mgr_, this, interest);
}
void mpls_route_handler::watch_mpls_route(const mpls_label_t& label, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, label << " interest is: " << (interest ? "add" : "del"));
  watchOne(mgr_, this, label, interest);
}

void mpls_route_handler::on_mpls_route_set(mpls_label_t, mpls_fec_id_t) {}
void mpls_route_handler::on_mpls_route_del(mpls_label_t) {}
void mpls_route_handler::on_mpls_fec_set(mpls_fec_id_t) {}
void mpls_route_handler::on_mpls_fec_del(mpls_fec_id_t) {}

void sdk::init_mpls_route_mgr() {
  if (mpls_route_mgr_ == nullptr) create<MplsRouteMgrImpl>(mpls_route_mgr_);
}
mpls_route_mgr* sdk::get_mpls_route_mgr() {
  return get(mpls_route_mgr_, &sdk::init_mpls_route_mgr, {"mpls_route"});
}

}  // namespace ryx
