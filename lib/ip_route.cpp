// IP routes: the agent's own, in an input of its own for each VRF and family.
//
// Changes are made on working copies and committed when the loop runs (lib/dirty_table.h). What an
// agent sees of a route is its working copy; else, unless a deletion waits, what is committed.
#include "ryx/ip_route.h"

#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/dirty_table.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "lib/resync.h"
#include "platform/model/mpls.h"
#include "platform/model/routing.h"
#include "platform/qel/dir.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"
#include "platform/types/vrf_name.h"
#include "ryx/panic.h"

namespace ryx {

class ip_route_iter_impl : public chained_iter_impl<ip_route_t> {};
template class iter_base<ip_route_t, ip_route_iter_impl>;
class ip_route_via_iter_impl : public chained_iter_impl<ip_route_via_t> {};
template class iter_base<ip_route_via_t, ip_route_via_iter_impl>;

class IpRouteMgrImpl;

namespace {

using platform::Af;
using platform::Change;
using platform::Dir;
using platform::Entity;
using platform::EntityOps;
using platform::IntfId;
using platform::Name;
using platform::Ref;
using platform::Slice;
using platform::SmallSet;
using platform::Routing::Route;
using platform::Routing::RouteInput;
using platform::Routing::RouteKey;
using platform::Routing::RouteType;
using platform::Routing::Via;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkIpRoute");
  return facility;
}

struct DirtyRouteKey {
  RouteKey routeKey;
  Name vrfName;
  static constexpr auto members() {
    return platform::described(platform::member("routeKey", &DirtyRouteKey::routeKey),
                               platform::member("vrfName", &DirtyRouteKey::vrfName));
  }
  bool operator==(const DirtyRouteKey&) const = default;
};

std::ostream& operator<<(std::ostream& out, const RouteKey& key) {
  return out << key.prefix << " preference " << key.preference;
}
std::ostream& operator<<(std::ostream& out, const DirtyRouteKey& key) {
  return out << "Value('ryx::DirtyRouteKey', ** {'routeKey': " << key.routeKey
             << ", 'vrfName': " << key.vrfName.view() << "})";
}
std::ostream& operator<<(std::ostream& out, RouteType type) {
  switch (type) {
    case RouteType::forward:
      return out << "forward";
    case RouteType::drop:
      return out << "drop";
    case RouteType::nexthopGroup:
      return out << "nexthopGroup";
  }
  return out << static_cast<int>(type);
}

const Name& defaultVrf() {
  static const Name name(platform::kDefaultVrf);
  return name;
}

// --- convert ------------------------------------------------------------------------------------

RouteKey convert(const ip_route_key_t& key) {
  return {ryx::convert(key.prefix()), key.preference()};
}

// Raises the range error for a VRF's name that is too long.
DirtyRouteKey convert(const ip_route_key_t& key, const std::string& vrf) {
  if (vrf == platform::kDefaultVrf) return {convert(key), defaultVrf()};
  return {convert(key), Name(platform::VrfName(vrf).bytes())};
}

ip_route_key_t convert(const RouteKey& key) {
  return {ryx::convert(key.prefix), static_cast<uint8_t>(key.preference)};
}

ip_route_t convert(const Route& route) {
  ip_route_t result(convert(route.key()));
  result.tag_is(route.tag());
  return result;
}

RouteType convert(ip_route_action_t action) {
  if (action == IP_ROUTE_ACTION_DROP) return RouteType::drop;
  if (action == IP_ROUTE_ACTION_NEXTHOP_GROUP) return RouteType::nexthopGroup;
  return RouteType::forward;
}

// Raises the error for a via that no route can have.
Via convert(const ip_route_via_t& via) {
  if (via.hop().af() != AF_NULL && via.hop().af() != via.route_key().prefix().af())
    panic("Mixing IPv4/6 nexthops on IPv6/4 routes not yet supported");
  Via result;
  result.hop = ryx::convert(via.hop());
  result.intf = ryx::convert(via.intf());
  if (via.mpls_label() != mpls_label_t())
    result.mplsLabel = platform::Mpls::Label(via.mpls_label().label()).value();
  const bool hasVtep = via.vtep_addr().af() != AF_NULL, hasVni = via.vni() != 0,
             hasMac = via.router_mac() != eth_addr_t();
  if (hasVtep != hasVni || hasVni != hasMac) {
    if (hasVtep && hasMac)
      panic("Invalid vni, vni must be set if vtep_addr and router_mac are set");
    if (!hasMac) panic("Invalid router_mac, router_mac must be set if vtep_addr and vni are set");
    panic("Invalid vtep_addr, vtep_addr must be set if vni and router_mac are set");
  }
  result.vtepAddr = ryx::convert(via.vtep_addr());
  result.vni = via.vni();
  result.routerMac = ryx::convert(via.router_mac());
  return result;
}

ip_route_via_t convert(const ip_route_key_t& key, const Via& via) {
  ip_route_via_t result(key);
  result.hop_is(ryx::convert(via.hop));
  result.intf_is(ryx::convert(via.intf));
  if (via.mplsLabel != Via().mplsLabel) result.mpls_label_is(mpls_label_t(via.mplsLabel));
  result.vtep_addr_is(ryx::convert(via.vtepAddr));
  result.vni_is(via.vni);
  result.router_mac_is(ryx::convert(via.routerMac));
  return result;
}

// What a via makes of its route. Raises the error for one that says nothing, or too much.
RouteType typeOf(const ip_route_via_t& via) {
  const bool hasIntf = via.intf() != intf_id_t(), hasHop = via.hop().af() != AF_NULL;
  if (!hasHop && !hasIntf && via.nexthop_group().empty())
    panic(invalid_argument_error("route_via", "Supplied via must have nexthop information"));
  if (!via.nexthop_group().empty() && (hasHop || hasIntf))
    panic(invalid_argument_error("route_via",
                                 "Can't specify both a nexthop group and either a hop or intf"));
  if (via.intf().is_null0()) return RouteType::drop;
  return via.nexthop_group().empty() ? RouteType::forward : RouteType::nexthopGroup;
}

// The vias as agents see them: of a route that drops, and of one to a group, one is made up.
std::vector<ip_route_via_t> viasOf(const Route& route) {
  const ip_route_key_t key = convert(route.key());
  std::vector<ip_route_via_t> vias;
  if (route.routeType() == RouteType::drop) {
    vias.emplace_back(key);
    vias.back().intf_is(intf_id_t("Null0"));
  } else if (route.routeType() == RouteType::nexthopGroup) {
    vias.emplace_back(key);
    vias.back().nexthop_group_is(std::string(route.nexthopGroup().view()));
  } else {
    for (const Via& via : route.via()) vias.push_back(convert(key, via));
  }
  return vias;
}

// --- reactors -----------------------------------------------------------------------------------

// The agent's inputs of one family, by VRF. A VRF that comes gets one.
class RouteInputsSm final : public platform::JournalReactor {
 public:
  RouteInputsSm(IpRouteMgrImpl& mgr, Dir& vrfs);

  // Null where there is none.
  RouteInput* find(const Name& vrf) const {
    if (vrf == defaultVrf() && default_ && default_->alive()) return default_.get();
    const auto* entry = inputs_.find(vrf);
    return entry && entry->value->alive() ? entry->value.get() : nullptr;
  }
  const KeyTable<Name, Ref<RouteInput>>& all() const { return inputs_; }

 private:
  void onEntity(Entity& entity, Change change) override;
  void vrfCame(Dir& vrf);

  IpRouteMgrImpl& mgr_;
  KeyTable<Name, Ref<RouteInput>> inputs_;
  Ref<RouteInput> default_;  // one of them
};

class IpRouteMgrSm final : public DirtyTable<DirtyRouteKey, Route> {
 public:
  IpRouteMgrSm(IpRouteMgrImpl& mgr, Backlog& backlog)
      : DirtyTable("IpRouteMgrSm", backlog, BacklogRank::routes), mgr_(mgr) {}

 private:
  bool run(Slice& slice) override;
  bool clogged() const override;
  void deferred() override { RYX_TRACE(trace(), 3, "Attrlog buffer clogged! Deferring."); }
  void commit(const DirtyRouteKey& key, Route* copy) override;

  IpRouteMgrImpl& mgr_;
};

// What was declared of a route.
struct Declared {
  SmallSet<Via> vias;
  Name nexthopGroup;
};

}  // namespace

// --- IpRouteMgrImpl -----------------------------------------------------------------------------

class IpRouteMgrImpl final : public ip_route_mgr, public mount_handler {
 public:
  explicit IpRouteMgrImpl(mount_mgr* mounts)
      : mount_handler(mounts), backlog_(sdk_context::of(*mounts->get_sdk()).backlog()) {}

  void doMounts(mount_group& group) override {
    group.add("routing/vrf/input", "Qel::Dir", "wi");
    group.add("routing6/vrf/input", "Qel::Dir", "wi");
    connection_ = &group.connection();
  }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const platform::WriterScope as(*em);
    ip_ = std::make_unique<RouteInputsSm>(*this, *em->find<Dir>("routing/vrf/input"));
    ip6_ = std::make_unique<RouteInputsSm>(*this, *em->find<Dir>("routing6/vrf/input"));
    sm_ = std::make_unique<IpRouteMgrSm>(*this, backlog_);
  }

  // --- resync, tag ---

  void resync_init() override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    resync_.init();
  }
  void resync_complete() override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    resync_.checkOn();
    resyncCopies();
    for (const RouteInputsSm* inputs : {ip_.get(), ip6_.get()}) resyncCommitted(*inputs);
    resync_.end();
  }
  void tag_is(uint32_t tag) override {
    RYX_TRACE_ENTRY(trace(), 7, " tag=" << tag);
    const ApiGuard guard(*this);
    if (resync_.isOn()) panic("Cannot change tag while resyncing");
    tag_ = tag;
  }
  uint32_t tag() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return tag_;
  }

  // --- reading ---

  ip_route_iter_t ip_route_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<ip_route_iter_impl>();
    iter->add_iter(elementSource<ip_route_t>(
        sm_->iterator(), [](const auto& it) { return convert(*it->value); },
        [](const auto& it) { return !it->value; }));
    for (const RouteInputsSm* inputs : {ip_.get(), ip6_.get()}) {
      for (auto it = inputs->all().iterator(); it; it.next()) {
        const auto isDirty = [sm = sm_.get(), vrf = it.key()](const auto& route) {
          return sm->isDirty({route.key(), vrf});
        };
        iter->add_iter(elementSource<ip_route_t>(
            it->value->route.iterator(), [](const auto& route) { return convert(*route); },
            isDirty));
      }
    }
    iter->initialize();
    return ip_route_iter_t(iter.release());
  }

  size_t uncommitted() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return sm_->size();
  }

  ip_route_via_iter_t ip_route_via_iter(const ip_route_key_t& key) const override {
    return ip_route_via_iter(key, platform::kDefaultVrf);
  }
  ip_route_via_iter_t ip_route_via_iter(const ip_route_key_t& key,
                                        const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key << " vrf=" << vrf);
    const ApiGuard guard(*this);
    checkFamily(key, "Cannot call ip_route_via_iter() for an unknown address family");
    const Route* route = current(convert(key, vrf)).route;
    if (!route) panic("Cannot call ip_route_via_iter() for nonexistent route");
    auto iter = std::make_unique<ip_route_via_iter_impl>();
    iter->add_iter(listSource(viasOf(*route)));
    iter->initialize();
    return ip_route_via_iter_t(iter.release());
  }

  bool exists(const ip_route_key_t& key) const override {
    return exists(key, platform::kDefaultVrf);
  }
  bool exists(const ip_route_key_t& key, const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key << " vrf=" << vrf);
    const ApiGuard guard(*this);
    checkFamily(key, "Cannot call exists() for an unknown address family");
    return current(convert(key, vrf)).route != nullptr;
  }
  bool exists(const ip_route_via_t& via) const override {
    return exists(via, platform::kDefaultVrf);
  }
  bool exists(const ip_route_via_t& via, const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " via=" << via << " vrf=" << vrf);
    const ApiGuard guard(*this);
    checkFamily(via.route_key(), "Cannot call exists() for an unknown address family");
    const Route* route = current(convert(via.route_key(), vrf)).route;
    if (!route) return false;
    for (const ip_route_via_t& there : viasOf(*route))
      if (there == via) return true;
    return false;
  }
  ip_route_t ip_route(const ip_route_key_t& key) const override {
    return ip_route(key, platform::kDefaultVrf);
  }
  ip_route_t ip_route(const ip_route_key_t& key, const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key << " vrf=" << vrf);
    const ApiGuard guard(*this);
    checkFamily(key, "Cannot get a route with an unknown address family");
    const Route* route = current(convert(key, vrf)).route;
    return route ? convert(*route) : ip_route_t();
  }

  // --- routes ---

  void ip_route_set(const ip_route_t& route) override {
    ip_route_set(route, IP_ROUTE_ACTION_FORWARD, platform::kDefaultVrf);
  }
  void ip_route_set(const ip_route_t& route, const std::string& vrf) override {
    ip_route_set(route, IP_ROUTE_ACTION_FORWARD, vrf);
  }
  void ip_route_set(const ip_route_t& route, ip_route_action_t action) override {
    ip_route_set(route, action, platform::kDefaultVrf);
  }
  void ip_route_set(const ip_route_t& route, ip_route_action_t action,
                    const std::string& vrf) override {
    RYX_TRACE_ENTRY(trace(), 7, " route=" << route << " action=" << action << " vrf=" << vrf);
    const ApiGuard guard(*this);
    if (tag_ != 0 && route.tag() != tag_)
      panic("Tried to insert a route with tag %d while restricted to tag set %d",
            static_cast<int>(route.tag()), static_cast<int>(tag_));
    checkFamily(route.key(), "Cannot call ip_route_set() for an unknown address family");
    const DirtyRouteKey key = convert(route.key(), vrf);
    if (resync_.isOn()) resync_.declare(key) = {};
    const RouteType type = convert(action);
    const Current before = current(key);
    Ref<Route> copy;
    if (before.route && tag_ != 0 && before.route->tag() != tag_) {
      RYX_TRACE(trace(), 1,
                "Overwriting existing route with different tag; clearing nexthop information.");
      copy = newCopy(key, type, nullptr);
    } else {
      if (!before.isCopy())
        RYX_TRACE(trace(), 7, "Scheduling route " << key << " with of type " << type);
      copy = workingCopy(key, type, before);
    }
    copy->tag.set(route.tag());
    copy->dynamic.set(true);
    put(key, before, copy);
  }

  void ip_route_del(const ip_route_key_t& key) override {
    ip_route_del(key, platform::kDefaultVrf);
  }
  void ip_route_del(const ip_route_key_t& key, const std::string& vrf) override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key << " vrf=" << vrf);
    const ApiGuard guard(*this);
    checkFamily(key, "Cannot call ip_route_del() for an unknown address family");
    const DirtyRouteKey dirty = convert(key, vrf);
    resync_.withdraw(dirty);
    sm_->set(dirty, nullptr);
  }

  void ip_route_via_set(const ip_route_via_t& via) override {
    ip_route_via_set(via, platform::kDefaultVrf);
  }
  void ip_route_via_set(const ip_route_via_t& via, const std::string& vrf) override {
    RYX_TRACE_ENTRY(trace(), 7, " via=" << via << " vrf=" << vrf);
    const ApiGuard guard(*this);
    const RouteType type = typeOf(via);
    const DirtyRouteKey key = convert(via.route_key(), vrf);
    const Current before = current(key);
    if (!before.route) panic("Cannot set a via on a nonexistent route");
    if (tag_ != 0 && before.route->tag() != tag_)
      panic("Tried to insert a via on route tagged with %d while restricted to tag set %d",
            static_cast<int>(before.route->tag()), static_cast<int>(tag_));
    const Via converted = type == RouteType::forward ? convert(via) : Via();
    const Name group(via.nexthop_group());
    if (Declared* declared = resync_.find(key)) {
      if (type == RouteType::forward) declared->vias.insert(converted);
      if (type == RouteType::nexthopGroup) declared->nexthopGroup = group;
    }
    const Ref<Route> copy = workingCopy(key, type, before);
    if (type == RouteType::nexthopGroup) copy->nexthopGroup.set(group);
    if (type == RouteType::forward)
      copy->via.edit([&](SmallSet<Via>& vias) { return vias.insert(converted); });
    put(key, before, copy);
  }

  void ip_route_via_del(const ip_route_via_t& via) override {
    ip_route_via_del(via, platform::kDefaultVrf);
  }
  void ip_route_via_del(const ip_route_via_t& via, const std::string& vrf) override {
    RYX_TRACE_ENTRY(trace(), 7, " via=" << via << " vrf=" << vrf);
    const ApiGuard guard(*this);
    checkFamily(via.route_key(), "Cannot call ip_route_del() for an unknown address family");
    const DirtyRouteKey key = convert(via.route_key(), vrf);
    const Current before = current(key);
    if (!before.route) return;
    Declared* declared = resync_.find(key);
    const Ref<Route> copy = workingCopy(key, before.route->routeType(), before);
    if (!via.nexthop_group().empty()) {
      const Name group(via.nexthop_group());
      if (copy->nexthopGroup() == group) copy->nexthopGroup.set(Name());
      if (declared && declared->nexthopGroup == group) declared->nexthopGroup = Name();
    } else if (!via.intf().is_null0()) {
      const Via converted = convert(via);
      copy->via.edit([&](SmallSet<Via>& vias) { return vias.erase(converted); });
      if (declared) declared->vias.erase(converted);
    }
    put(key, before, copy);
  }

  // --- for the reactors ---

  bool clogged() const { return connection_->clogged(); }
  Name ownName() const { return Name(get_mount_point_name()); }
  RouteInput* input(const DirtyRouteKey& key) const {
    return inputsOf(key.routeKey.prefix.af()).find(key.vrfName);
  }

 private:
  static void checkFamily(const ip_route_key_t& key, const char* text) {
    const af_t af = key.prefix().af();
    if (af != AF_IPV4 && af != AF_IPV6) panic("%s", text);
  }
  const RouteInputsSm& inputsOf(Af af) const { return af == Af::ipv4 ? *ip_ : *ip6_; }

  // What agents see of a route: the working copy, or what is committed and not to be deleted. And
  // its dirty entry, if it has one.
  struct Current {
    IpRouteMgrSm::Entry* dirty = nullptr;
    Route* route = nullptr;  // null: there is no such route
    bool isCopy() const { return dirty && route; }
  };
  Current current(const DirtyRouteKey& key) const {
    if (auto* dirty = sm_->find(key)) return {dirty, dirty->value.get()};
    const RouteInput* there = input(key);
    return {nullptr, there ? there->route.find(key.routeKey) : nullptr};
  }
  void put(const DirtyRouteKey& key, const Current& before, const Ref<Route>& copy) {
    before.dirty ? sm_->set(*before.dirty, copy) : sm_->set(key, copy);
  }

  // A working copy of that type: the one there is, or a new one.
  static Ref<Route> workingCopy(const DirtyRouteKey& key, RouteType type, const Current& before) {
    if (before.isCopy() && before.route->routeType() == type) return Ref<Route>(before.route);
    return newCopy(key, type, before.route);
  }
  // With all that the route has; null: with nothing.
  static Ref<Route> newCopy(const DirtyRouteKey& key, RouteType type, const Route* before) {
    Ref<Route> copy = platform::make<Route>(key.routeKey);
    copy->routeType.init(type);
    if (before) EntityOps::copyAttributes(*copy, *before);
    return copy;
  }

  // Takes away what was not declared. Null: everything was.
  static Ref<Route> pruned(const Route& route, const Declared& declared) {
    const bool isOfGroup = route.routeType() == RouteType::nexthopGroup;
    const bool groupGoes = isOfGroup && !(route.nexthopGroup() == declared.nexthopGroup);
    SmallSet<Via> left;
    for (const Via& via : route.via())
      if (declared.vias.contains(via)) left.insert(via);
    if (!groupGoes && left.size() == route.via().size()) return {};
    Ref<Route> copy = newCopy({route.key(), {}}, route.routeType(), &route);
    copy->via.set(left);
    if (groupGoes) copy->nexthopGroup.set(Name());
    return copy;
  }

  // Of the routes that have changed and are not committed.
  void resyncCopies() {
    for (auto it = sm_->iterator(); it; it.next()) {
      const Ref<Route> copy = it->value;
      if (!copy) continue;
      const DirtyRouteKey key = it.key();
      if (const Declared* declared = resync_.find(key)) {
        if (Ref<Route> less = pruned(*copy, *declared)) sm_->set(key, less);
      } else {
        RYX_TRACE(trace(), 5, "In doResync: deleting route from dirtyRoute " << key);
        sm_->set(key, nullptr);
      }
    }
  }
  // And of those that are committed. A route of another tag stays.
  void resyncCommitted(const RouteInputsSm& inputs) {
    for (auto vrf = inputs.all().iterator(); vrf; vrf.next()) {
      for (auto it = vrf->value->route.iterator(); it; it.next()) {
        if (tag_ != 0 && it->tag() != tag_) continue;
        const DirtyRouteKey key = {it.key(), vrf.key()};
        if (sm_->isDirty(key)) continue;  // looked at already, or to be deleted
        const Declared* declared = resync_.find(key);
        if (!declared)
          sm_->set(key, nullptr);
        else if (Ref<Route> less = pruned(*it, *declared))
          sm_->set(key, less);
      }
    }
  }

  Backlog& backlog_;
  platform::EntityManager* connection_ = nullptr;
  uint32_t tag_ = 0;
  Resync<DirtyRouteKey, Declared> resync_;
  std::unique_ptr<RouteInputsSm> ip_, ip6_;
  std::unique_ptr<IpRouteMgrSm> sm_;
};

namespace {

RouteInputsSm::RouteInputsSm(IpRouteMgrImpl& mgr, Dir& vrfs)
    : JournalReactor("RouteInputsSm"), mgr_(mgr) {
  for (platform::CollectionIterator it(vrfs.entry); it; it.next())
    if (auto* vrf = it.get()->as<Dir>()) vrfCame(*vrf);
  follow(vrfs.journal);
}

void RouteInputsSm::onEntity(Entity& entity, Change change) {
  auto* vrf = entity.as<Dir>();
  if (!vrf || change == Change::changed) return;
  const CallbackGuard guard(mgr_);
  if (change == Change::created)
    vrfCame(*vrf);
  else if (!find(vrf->key()))
    inputs_.erase(vrf->key());
}

void RouteInputsSm::vrfCame(Dir& vrf) {
  auto* input = vrf.entry.create<RouteInput>(mgr_.ownName());
  if (!input) return;  // refused, which is traced
  constexpr uint8_t kStatic = 4;
  input->routingProtocol.set(kStatic);
  input->showRouteKey.set("S");
  input->redistributionName.set("Static");
  input->defaultPreference.set(1);
  inputs_[vrf.key()] = Ref<RouteInput>(input);
  if (vrf.key() == defaultVrf()) default_ = Ref<RouteInput>(input);
}

bool IpRouteMgrSm::run(Slice& slice) {
  const CallbackGuard guard(mgr_);
  return commitSome(slice);
}

bool IpRouteMgrSm::clogged() const {
  return mgr_.clogged();
}

void IpRouteMgrSm::commit(const DirtyRouteKey& key, Route* copy) {
  RouteInput* input = mgr_.input(key);
  if (!input) {
    RYX_TRACE(trace(), 1, "Unable to find routing config for vrf " << key.vrfName.view());
    return;
  }
  RYX_TRACE(trace(), 7, "Updating Statehub with route key " << key.routeKey);
  if (!copy) {
    RYX_TRACE(trace(), 7, "route with key " << key.routeKey << " removed from local collection");
    input->route.erase(key.routeKey);
    return;
  }
  Route* route = input->route.find(key.routeKey);
  if (route && route->routeType() != copy->routeType()) {
    RYX_TRACE(trace(), 5, "Recreating " << key.routeKey);
    input->route.erase(key.routeKey);
    route = nullptr;
  }
  if (route)
    EntityOps::copyAttributes(*route, *copy);
  else
    input->route.add(Ref<Entity>(copy));  // nobody needs the copy any more
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

ip_route_key_t::ip_route_key_t() = default;
ip_route_key_t::ip_route_key_t(const ip_prefix_t& prefix, uint8_t preference)
    : prefix_(prefix), preference_(preference) {}
const ip_prefix_t& ip_route_key_t::prefix() const {
  return prefix_;
}
void ip_route_key_t::prefix_is(const ip_prefix_t& prefix) {
  prefix_ = prefix;
}
uint8_t ip_route_key_t::preference() const {
  return preference_;
}
void ip_route_key_t::preference_is(uint8_t preference) {
  preference_ = preference;
}
bool ip_route_key_t::operator==(const ip_route_key_t& other) const {
  return prefix_ == other.prefix_ && preference_ == other.preference_;
}
bool ip_route_key_t::operator!=(const ip_route_key_t& other) const {
  return !(*this == other);
}
bool ip_route_key_t::operator<(const ip_route_key_t& other) const {
  return std::tie(prefix_, preference_) < std::tie(other.prefix_, other.preference_);
}
std::size_t ip_route_key_t::hash() const {
  return platform::hashMix(prefix_.hash(), preference_);
}
std::string ip_route_key_t::to_string() const {
  std::ostringstream text;
  text << "ip_route_key_t(prefix=" << (prefix_.af() == AF_NULL ? "" : prefix_.to_string())
       << ", preference=" << int{preference_} << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const ip_route_key_t& key) {
  return out << key.to_string();
}

ip_route_t::ip_route_t() = default;
ip_route_t::ip_route_t(const ip_route_key_t& key) : key_(key) {}
ip_route_t::ip_route_t(const ip_prefix_t& prefix, uint8_t preference) : key_(prefix, preference) {}
const ip_route_key_t& ip_route_t::key() const {
  return key_;
}
void ip_route_t::key_is(const ip_route_key_t& key) {
  key_ = key;
}
uint32_t ip_route_t::tag() const {
  return tag_;
}
void ip_route_t::tag_is(uint32_t tag) {
  tag_ = tag;
}
bool ip_route_t::operator==(const ip_route_t& other) const {
  return key_ == other.key_ && tag_ == other.tag_;
}
bool ip_route_t::operator!=(const ip_route_t& other) const {
  return !(*this == other);
}
bool ip_route_t::operator<(const ip_route_t& other) const {
  return std::tie(key_, tag_) < std::tie(other.key_, other.tag_);
}
std::size_t ip_route_t::hash() const {
  return platform::hashMix(key_.hash(), tag_);
}
std::string ip_route_t::to_string() const {
  return "ip_route_t(key=" + key_.to_string() + ", tag=" + std::to_string(tag_) + ")";
}
std::ostream& operator<<(std::ostream& out, const ip_route_t& route) {
  return out << route.to_string();
}

ip_route_via_t::ip_route_via_t() = default;
ip_route_via_t::ip_route_via_t(const ip_route_key_t& route_key) : route_key_(route_key) {}
const ip_route_key_t& ip_route_via_t::route_key() const {
  return route_key_;
}
void ip_route_via_t::route_key_is(const ip_route_key_t& route_key) {
  route_key_ = route_key;
}
const ip_addr_t& ip_route_via_t::hop() const {
  return hop_;
}
void ip_route_via_t::hop_is(const ip_addr_t& hop) {
  hop_ = hop;
}
intf_id_t ip_route_via_t::intf() const {
  return intf_;
}
void ip_route_via_t::intf_is(intf_id_t intf) {
  intf_ = intf;
}
const std::string& ip_route_via_t::nexthop_group() const {
  return nexthop_group_;
}
void ip_route_via_t::nexthop_group_is(const std::string& nexthop_group) {
  nexthop_group_ = nexthop_group;
}
mpls_label_t ip_route_via_t::mpls_label() const {
  return mpls_label_;
}
void ip_route_via_t::mpls_label_is(mpls_label_t mpls_label) {
  mpls_label_ = mpls_label;
}
const ip_addr_t& ip_route_via_t::vtep_addr() const {
  return vtep_addr_;
}
void ip_route_via_t::vtep_addr_is(const ip_addr_t& vtep_addr) {
  vtep_addr_ = vtep_addr;
}
uint32_t ip_route_via_t::vni() const {
  return vni_;
}
void ip_route_via_t::vni_is(uint32_t vni) {
  vni_ = vni;
}
eth_addr_t ip_route_via_t::router_mac() const {
  return router_mac_;
}
void ip_route_via_t::router_mac_is(const eth_addr_t& router_mac) {
  router_mac_ = router_mac;
}
bool ip_route_via_t::operator==(const ip_route_via_t& other) const {
  return !(*this < other) && !(other < *this);
}
bool ip_route_via_t::operator!=(const ip_route_via_t& other) const {
  return !(*this == other);
}
bool ip_route_via_t::operator<(const ip_route_via_t& other) const {
  return std::tie(route_key_, hop_, intf_, nexthop_group_, mpls_label_, vtep_addr_, vni_,
                  router_mac_) < std::tie(other.route_key_, other.hop_, other.intf_,
                                          other.nexthop_group_, other.mpls_label_, other.vtep_addr_,
                                          other.vni_, other.router_mac_);
}
std::size_t ip_route_via_t::hash() const {
  uint64_t hash = platform::hashMix(route_key_.hash(), hop_.hash());
  hash = platform::hashMix(hash, intf_.hash());
  hash = platform::hashMix(hash, platform::hashBytes(nexthop_group_.data(), nexthop_group_.size()));
  hash = platform::hashMix(hash, mpls_label_.hash());
  return platform::hashMix(hash, vtep_addr_.hash() + vni_ + router_mac_.hash());
}
// What is unset is left out.
std::string ip_route_via_t::to_string() const {
  std::ostringstream text;
  text << "ip_route_via_t(route_key=" << route_key_;
  if (hop_.af() != AF_NULL) text << ", hop=" << hop_.to_string();
  if (intf_ != intf_id_t()) text << ", intf=" << intf_.to_string();
  if (!nexthop_group_.empty()) text << ", nexthop_group='" << nexthop_group_ << "'";
  if (mpls_label_ != mpls_label_t()) text << ", mpls_label=" << mpls_label_;
  if (vtep_addr_.af() != AF_NULL) text << ", vtep_addr=" << vtep_addr_.to_string();
  if (vni_ != 0) text << ", vni=" << vni_;
  if (router_mac_ != eth_addr_t()) text << ", router_mac=" << router_mac_.to_string();
  text << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const ip_route_via_t& via) {
  return out << via.to_string();
}

std::ostream& operator<<(std::ostream& out, ip_route_action_t action) {
  switch (action) {
    case IP_ROUTE_ACTION_NULL:
      return out << "IP_ROUTE_ACTION_NULL";
    case IP_ROUTE_ACTION_FORWARD:
      return out << "IP_ROUTE_ACTION_FORWARD";
    case IP_ROUTE_ACTION_DROP:
      return out << "IP_ROUTE_ACTION_DROP";
    case IP_ROUTE_ACTION_NEXTHOP_GROUP:
      return out << "IP_ROUTE_ACTION_NEXTHOP_GROUP";
  }
  return out << static_cast<int>(action);
}

ip_route_mgr::ip_route_mgr() = default;
ip_route_mgr::~ip_route_mgr() = default;

void sdk::init_ip_route_mgr() {
  if (ip_route_mgr_ == nullptr) create<IpRouteMgrImpl>(ip_route_mgr_);
}
ip_route_mgr* sdk::get_ip_route_mgr() {
  return get(ip_route_mgr_, &sdk::init_ip_route_mgr, {"ip_route"});
}

}  // namespace ryx
