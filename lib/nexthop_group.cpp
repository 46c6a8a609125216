// Nexthop groups: the agent's own, in an input of its own, and what the hardware has of all groups.
//
// A group is written within the call. While the connection takes no more, it waits as a working
// copy (lib/dirty_table.h), and so do deletions, in a table behind that of the routes.
#include "ryx/nexthop_group.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/dirty_table.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "lib/resync.h"
#include "lib/watch.h"
#include "platform/base/check.h"
#include "platform/mirra/table.h"
#include "platform/model/nexthop_group.h"
#include "platform/model/tables.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

class nexthop_group_iter_impl : public chained_iter_impl<std::string> {};
template class iter_base<std::string, nexthop_group_iter_impl>;

class NexthopGroupMgrImpl;

namespace {

using platform::EntityOps;
using platform::Name;
using platform::Ref;
using platform::Slice;
using platform::FlexCounter::Count;
using platform::FlexCounter::Counter;
using platform::Mpls::Action;
using platform::Mpls::Label;
using platform::NexthopGroup::EntryStatus;
using platform::Routing::Hardware::NexthopGroupCapability;
using platform::Routing::Hardware::NexthopGroupStatus;
using platform::Routing::NexthopGroup::ConfigInput;
using platform::Routing::NexthopGroup::Destination;
using platform::Routing::NexthopGroup::MplsAction;
using platform::Routing::NexthopGroup::NexthopGroupConfigEntry;
using platform::Routing::NexthopGroup::Type;
using platform::Tunnel::CounterKey;
using platform::Tunnel::NexthopCounterKeyInfo;

constexpr uint32_t kMaxName = 256;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkNexthopGroup");
  return facility;
}

struct StackEntryBound {
  static constexpr uint32_t kMin = 0, kMax = 31;
  static constexpr const char* kOutOfRange =
      "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not "
      "allowed";
};
using StackEntryIndex = platform::BoundedNumber<StackEntryBound>;

// --- convert ------------------------------------------------------------------------------------

Type convert(nexthop_group_encap_t type) {
  switch (type) {
    case NEXTHOP_GROUP_IP_IN_IP:
      return Type::ipInIp;
    case NEXTHOP_GROUP_GRE:
      return Type::gre;
    case NEXTHOP_GROUP_MPLS:
      return Type::mpls;
    case NEXTHOP_GROUP_MPLS_OVER_GRE:
      return Type::mplsOverGre;
    case NEXTHOP_GROUP_IP:
      return Type::ip;
    case NEXTHOP_GROUP_TYPE_NULL:
      break;
  }
  panic("Must pass in MPLS, IP_IN_IP, IP, MPLS_OVER_GRE or GRE nexthop_group_type");
  return Type::none;
}

// Both enumerations have the same values.
nexthop_group_encap_t convert(Type type) {
  return static_cast<nexthop_group_encap_t>(type);
}
Action convert(mpls_action_t action) {
  return static_cast<Action>(action);
}

// Raises the range errors for what is no label stack.
MplsAction convert(const nexthop_group_mpls_action_t& action) {
  MplsAction result{convert(action.action()), {}};
  for (const mpls_label_t& label : action.label_stack()) {
    StackEntryIndex(result.labels.size());
    result.labels.emplace_back(label.label());
  }
  return result;
}

nexthop_group_mpls_action_t convert(const MplsAction& action) {
  std::list<mpls_label_t> stack;
  for (const Label label : action.labels) stack.emplace_back(label.value());
  return {static_cast<mpls_action_t>(action.action), stack};
}

// A working copy of what the group is to be.
Ref<NexthopGroupConfigEntry> convert(const nexthop_group_t& group) {
  auto entry = platform::make<NexthopGroupConfigEntry>(Name(group.name()));
  entry->greKeyType.init(group.gre_key_type() == GRE_KEY_TYPE_HARDWARE);
  entry->dynamic.init(true);
  entry->ttl.init(group.ttl());
  entry->intfId.init(ryx::convert(group.source_intf()));
  entry->sourceIp.init(ryx::convert(group.source_ip()));
  entry->type.init(convert(group.type()));
  std::vector<Destination> destinations;
  destinations.reserve(group.destination_ips().size());
  for (const auto& [index, ip] : group.destination_ips())
    destinations.push_back({index, ryx::convert(ip)});
  std::map<uint16_t, MplsAction> stacks;
  for (const auto& [index, action] : group.mpls_actions())
    stacks.emplace_hint(stacks.end(), index, convert(action));
  entry->destinationIp.init(std::move(destinations));
  entry->mplsLabelStack.init(std::move(stacks));
  entry->size.init(group.size());
  return entry;
}

nexthop_group_t convert(const NexthopGroupConfigEntry& entry) {
  nexthop_group_t group(std::string(entry.key().view()), convert(entry.type()));
  group.ttl_is(entry.ttl());
  group.source_ip_is(ryx::convert(entry.sourceIp()));
  group.source_intf_is(ryx::convert(entry.intfId()));
  group.gre_key_type_is(entry.greKeyType() ? GRE_KEY_TYPE_HARDWARE : GRE_KEY_TYPE_NULL);
  group.size_is(entry.size());
  for (const Destination& one : entry.destinationIp())
    group.destination_ip_set(one.entry, ryx::convert(one.addr));
  for (const auto& [index, action] : entry.mplsLabelStack())
    group.mpls_action_set(index, convert(action));
  return group;
}

// --- what there can be --------------------------------------------------------------------------

void checkName(const std::string& name) {
  if (name.empty())
    panic(invalid_argument_error("nexthop_group.name", "group name must be non-empty"));
  if (name.size() > kMaxName) panic(invalid_range_error("nexthop_group.name.length", 1, kMaxName));
  const auto isAllowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
  };
  if (!std::all_of(name.begin(), name.end(), isAllowed))
    panic(invalid_argument_error("nexthop_group.name",
                                 "nexthop group name may contain only chars 'a-zA-Z0-9_-'"));
}

void checkFamilies(const nexthop_group_t& group) {
  bool has4 = false, has6 = false;
  for (const auto& [index, ip] : group.destination_ips()) {
    has4 = has4 || ip.af() == AF_IPV4;
    has6 = has6 || ip.af() == AF_IPV6;
  }
  if (has4 && has6)
    panic(invalid_argument_error("destination_ip", "Cannot mix Ipv4 and Ipv6 destination entries"));
}

void checkLabels(const nexthop_group_t& group, const NexthopGroupCapability& hardware) {
  const auto unsupported = [&](auto... what) {
    std::ostringstream text;
    text << "No hardware support for ";
    (text << ... << what);
    panic(unsupported_error(text.str()));
  };
  const uint32_t max = hardware.maxLabelStackSize();
  for (const auto& [index, action] : group.mpls_actions())
    if (action.label_stack().size() > max)
      unsupported(action.label_stack().size(), " MPLS labels on ", group.type(),
                  " nexthop groups (max: ", max, " labels)");
  for (const auto& [index, action] : group.mpls_actions()) {
    if (action.action() == MPLS_ACTION_NULL || !action.label_stack().empty()) continue;
    std::ostringstream text;
    text << action.action() << " label action with no labels";
    panic(invalid_argument_error("mpls_action", text.str()));
  }
  for (const auto& [index, action] : group.mpls_actions())
    if (action.action() != MPLS_ACTION_NULL &&
        !hardware.mplsAction().contains(convert(action.action())))
      unsupported(action.action(), " action on ", group.type(), " nexthop groups");
}

void checkAddresses(const nexthop_group_t& group) {
  for (const auto& [index, ip] : group.destination_ips()) {
    if (ip.af() == AF_IPV4 || ip.af() == AF_IPV6) continue;
    const std::string family = ip.af() == AF_NULL ? "AF_NULL" : "Unknown value";
    panic(invalid_argument_error("destination_ip", "Invalid address family: " + family));
  }
  if (group.source_ip().af() == AF_NULL) return;
  if (group.source_ip().af() != AF_IPV4)
    panic(invalid_argument_error("nexthop_group.source_ip", "source IP must be an IPv4 address"));
  if (group.type() == NEXTHOP_GROUP_MPLS)
    panic(invalid_argument_error("nexthop_group.source_ip",
                                 "MPLS nexthop groups cannot specify source_ip"));
}

// Raises the error for a group that there cannot be on that hardware.
void check(const nexthop_group_t& group, const NexthopGroupStatus& hardware) {
  checkName(group.name());
  if (group.type() == NEXTHOP_GROUP_TYPE_NULL)
    panic(invalid_argument_error("nexthop_group.type", "type cannot be NEXTHOP_GROUP_TYPE_NULL"));
  const NexthopGroupCapability* capability = hardware.capability.find(convert(group.type()));
  if (!capability)
    panic(invalid_argument_error("nexthop_group.type", "type is not supported on hardware"));
  checkFamilies(group);
  checkLabels(group, *capability);
  checkAddresses(group);
  if (group.type() == NEXTHOP_GROUP_MPLS_OVER_GRE && group.gre_key_type() != GRE_KEY_TYPE_NULL)
    panic(invalid_argument_error("nexthop_group.gre_key_type",
                                 "MPLS-over-GRE nexthop groups cannot specify gre_key_type"));
}

// --- reactors -----------------------------------------------------------------------------------

// Groups that wait to be written, or to be deleted.
class NexthopGroupBacklog final : public DirtyTable<Name, NexthopGroupConfigEntry> {
 public:
  NexthopGroupBacklog(NexthopGroupMgrImpl& mgr, Backlog& backlog, BacklogRank rank)
      : DirtyTable("NexthopGroupMgrSm", backlog, rank), mgr_(mgr) {}

 private:
  bool run(Slice& slice) override { return reviewNexthopGroups(slice); }
  bool reviewNexthopGroups(Slice& slice);
  bool clogged() const override;
  void deferred() override { RYX_TRACE(trace(), 3, "AttrLogOut clogged"); }
  void commit(const Name& name, NexthopGroupConfigEntry* copy) override;

  NexthopGroupMgrImpl& mgr_;
};

// A group that the hardware has.
struct NexthopGroupAdjacencySm {
  Name name;
  bool isActive = false;  // it has a way for packets
};

// Tells of the hardware's groups, by their numbers.
class NexthopGroupMgrSm final : public platform::mirra::RowReactor<EntryStatus> {
 public:
  NexthopGroupMgrSm(NexthopGroupMgrImpl& mgr, platform::mirra::Table<EntryStatus>& table)
      : RowReactor("NexthopGroupMgrSm", table), mgr_(mgr) {}

  // The number of an active group of that name; 0: there is none.
  uint64_t numberOf(const std::string& name) const {
    const auto at = active_.find(Name(name));
    return at == active_.end() ? 0 : at->second.back();
  }

 private:
  void onRow(const EntryStatus& row, std::span<const Element> vias) override;
  void onRowGone(const uint64_t& id) override;
  void handleNexthopGroupStatus(uint64_t id, NexthopGroupAdjacencySm& adjacency, bool isActive);

  NexthopGroupMgrImpl& mgr_;
  std::unordered_map<uint64_t, NexthopGroupAdjacencySm> adjacencies_;
  // The numbers of the active groups of each name, mostly one: one may come before another goes.
  std::unordered_map<Name, std::vector<uint64_t>> active_;
};

}  // namespace

// --- NexthopGroupMgrImpl ------------------------------------------------------------------------

class NexthopGroupMgrImpl final : public nexthop_group_mgr, public mount_handler {
 public:
  explicit NexthopGroupMgrImpl(mount_mgr* mounts)
      : mount_handler(mounts),
        backlog_(sdk_context::of(*mounts->get_sdk()).backlog()),
        sets_(*this, backlog_, BacklogRank::groups),
        deletions_(*this, backlog_, BacklogRank::groupDeletions) {}

  // The tables are mounted beside the rest, so that they can be read as soon as the agent is told
  // that everything can.
  void doMounts(mount_group& group) override {
    group.add(inputPath(), ConfigInput::kTypeName, "wcS");
    group.add("routing/hardware/nexthopgroup/status", NexthopGroupStatus::kTypeName, "r");
    group.add("routing/hardware/status", platform::Routing::Hardware::Status::kTypeName, "r");
    connection_ = &group.connection();
    groups_.emplace(tables(), "routing/nexthopgroup/entrystatus", platform::mirra::Mode::notify);
    counterKeys_.emplace(tables(), "tunnel/nexthop/counterkeyinfo", platform::mirra::Mode::read);
  }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    RYX_TRACE(trace(), 1, "NexthopGroupMgrImpl: all mounts completed");
    input_ = em->find<ConfigInput>(inputPath());
    hardware_ = em->find<NexthopGroupStatus>("routing/hardware/nexthopgroup/status");
    const auto* status = em->find<platform::Routing::Hardware::Status>("routing/hardware/status");
    platform::check(status->vrfStatus.find(platform::VrfName(platform::kDefaultVrf)) != nullptr,
                    "Default VrfStatus not created in StatehubPlugin?!?");
    sm_ = std::make_unique<NexthopGroupMgrSm>(*this, *groups_);
  }

  // --- resync ---

  void resync_init() override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    resync_.init();
  }
  void resync_complete() override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    resync_.checkOn();
    for (auto it = sets_.iterator(); it; it.next())
      if (!resync_.find(it.key())) sets_.clean(it.key());
    for (auto it = input_->nexthopGroup.iterator(); it; it.next())
      if (!resync_.find(it.key())) remove(it.key());
    resync_.end();
  }

  // --- reading ---

  nexthop_group_iter_t nexthop_group_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<nexthop_group_iter_impl>();
    const auto name = [](const auto& it) { return std::string(it.key().view()); };
    iter->add_iter(elementSource<std::string>(sets_.iterator(), name));
    iter->add_iter(
        elementSource<std::string>(input_->nexthopGroup.iterator(), name, [this](const auto& it) {
          return sets_.isDirty(it.key()) || deletions_.isDirty(it.key());
        }));
    iter->initialize();
    return nexthop_group_iter_t(iter.release());
  }
  bool exists(const std::string& name) const override {
    RYX_TRACE_ENTRY(trace(), 7, " name=" << name);
    const ApiGuard guard(*this);
    return current(Name(name)) != nullptr;
  }
  nexthop_group_t nexthop_group(const std::string& name) const override {
    RYX_TRACE_ENTRY(trace(), 7, " name=" << name);
    const ApiGuard guard(*this);
    const NexthopGroupConfigEntry* there = current(Name(name));
    return there ? convert(*there) : nexthop_group_t();
  }

  nexthop_group_counter_t counter(const std::string& name, uint16_t entry) const override {
    RYX_TRACE_ENTRY(trace(), 7, " name=" << name << " entry=" << entry);
    const ApiGuard guard(*this);
    const uint64_t number = sm_->numberOf(name);
    const std::vector<CounterKey> keys = counterKeysOf(number);
    const auto key = std::find_if(keys.begin(), keys.end(),
                                  [entry](const CounterKey& k) { return k.entry == entry; });
    if (key == keys.end()) panic("Invalid entry (%u) in nexthop %s", entry, name.c_str());
    const CounterTables& slice = counterTables(*key);
    Count now, before;
    if (!find(slice.counters, *key, &now))
      panic("Counter for entry(%u) in nexthop group %s not found", entry, name.c_str());
    // Without a snapshot all that was counted counts, and so it does when the counter began anew.
    find(slice.snapshots, *key, &before);
    const auto since = [](uint64_t n, uint64_t then) { return n < then ? n : n - then; };
    return {since(now.packets, before.packets), since(now.octets, before.octets)};
  }

  // --- writing ---

  void nexthop_group_set(const nexthop_group_t& group) override {
    RYX_TRACE_ENTRY(trace(), 7, " group=" << group);
    const ApiGuard guard(*this);
    check(group, *hardware_);
    localConfigIs(convert(group));
  }
  void nexthop_group_del(const std::string& nexthop_group_name) override {
    RYX_TRACE_ENTRY(trace(), 7, " name=" << nexthop_group_name);
    const ApiGuard guard(*this);
    const Name name(nexthop_group_name);
    resync_.withdraw(name);
    sets_.clean(name);
    remove(name);
  }

  // --- for the reactors ---

  bool isClogged() const { return connection_->clogged(); }
  // `copy`: null, it is deleted.
  void write(const Name& name, NexthopGroupConfigEntry* copy) {
    if (!copy) {
      input_->nexthopGroup.erase(name);
      return;
    }
    if (NexthopGroupConfigEntry* there = input_->nexthopGroup.find(name))
      EntityOps::copyAttributes(*there, *copy);
    else
      input_->nexthopGroup.add(Ref<platform::Entity>(copy));  // nobody needs the copy any more
  }
  void activeIs(const std::string& name, bool isActive) {
    const CallbackGuard guard(*this);
    dispatch_key(name, &nexthop_group_handler::on_nexthop_group_active, name, isActive);
  }
  // A group is programmed, so that its entries have counters: their tables have to be mounted
  // before somebody asks.
  void discoverCounters(uint64_t number) {
    for (const CounterKey& key : counterKeysOf(number)) counterTables(key);
  }

 private:
  struct CounterTables {
    platform::mirra::Table<Counter> counters, snapshots;
    CounterTables(platform::mirra::Exchange& tables, const std::string& slice)
        : counters(tables, "flexCounter/counterTable/" + slice, platform::mirra::Mode::read),
          snapshots(tables, "flexCounter/snapshotCounterTable/" + slice,
                    platform::mirra::Mode::read) {}
  };

  static bool find(const platform::mirra::Table<Counter>& table, const CounterKey& key,
                   Count* count) {
    Counter row;
    std::vector<Count> block;
    if (!table.find(key.block, &row, &block) || key.place >= block.size()) return false;
    *count = block[key.place];
    return true;
  }
  std::string inputPath() const {
    return "routing/nexthopgroup/input/config/" + get_mount_point_name();
  }
  platform::mirra::Exchange& tables() const { return connection_->tree().tables(); }
  std::vector<CounterKey> counterKeysOf(uint64_t number) const {
    NexthopCounterKeyInfo row;
    std::vector<CounterKey> keys;
    counterKeys_->find(number, &row, &keys);
    return keys;
  }
  CounterTables& counterTables(const CounterKey& key) const {
    auto& slice = counterTables_[{key.feature, key.slice}];
    if (!slice)
      slice = std::make_unique<CounterTables>(
          tables(), std::to_string(key.feature) + "/" + std::to_string(key.slice));
    return *slice;
  }

  // The group as the agent sees it; null: there is none.
  const NexthopGroupConfigEntry* current(const Name& name) const {
    if (const NexthopGroupConfigEntry* copy = sets_.copy(name)) return copy;
    return deletions_.isDirty(name) ? nullptr : input_->nexthopGroup.find(name);
  }

  // What the group is to be.
  void localConfigIs(const Ref<NexthopGroupConfigEntry>& copy) {
    const Name name = copy->key();
    if (resync_.isOn()) resync_.declare(name);
    deletions_.clean(name);
    if (sets_.isDirty(name) || isClogged())
      addNexthopGroupForReview(name, copy);
    else
      write(name, copy.get());
  }
  // `copy`: null, it is to be deleted.
  void addNexthopGroupForReview(const Name& name, const Ref<NexthopGroupConfigEntry>& copy) {
    if (isClogged()) RYX_TRACE(trace(), 3, "AttrLogOut clogged");
    (copy ? sets_ : deletions_).set(name, copy);
  }
  // At once, unless something waits that goes before deletions.
  void remove(const Name& name) {
    if (!input_->nexthopGroup.find(name)) return;
    if (isClogged() || !backlog_.isTurnOf(BacklogRank::groupDeletions))
      addNexthopGroupForReview(name, nullptr);
    else
      write(name, nullptr);
  }

  Backlog& backlog_;
  platform::EntityManager* connection_ = nullptr;
  ConfigInput* input_ = nullptr;
  const NexthopGroupStatus* hardware_ = nullptr;
  NexthopGroupBacklog sets_, deletions_;
  Resync<Name, bool> resync_;
  std::optional<platform::mirra::Table<EntryStatus>> groups_;
  std::optional<platform::mirra::Table<NexthopCounterKeyInfo>> counterKeys_;
  mutable std::map<std::pair<uint32_t, uint32_t>, std::unique_ptr<CounterTables>> counterTables_;
  std::unique_ptr<NexthopGroupMgrSm> sm_;
};

namespace {

bool NexthopGroupBacklog::reviewNexthopGroups(Slice& slice) {
  const CallbackGuard guard(mgr_);
  return commitSome(slice);
}

bool NexthopGroupBacklog::clogged() const {
  return mgr_.isClogged();
}

void NexthopGroupBacklog::commit(const Name& name, NexthopGroupConfigEntry* copy) {
  mgr_.write(name, copy);
}

void NexthopGroupMgrSm::onRow(const EntryStatus& row, std::span<const Element> vias) {
  const auto [at, isNew] = adjacencies_.try_emplace(row.key);
  if (isNew) {
    at->second.name = Name(row.name.view());
    RYX_TRACE(trace(), 5, "handleNexthopGroup: add nhgName=" << row.name.view());
    mgr_.discoverCounters(row.key);
  }
  handleNexthopGroupStatus(row.key, at->second, !vias.empty());
}

void NexthopGroupMgrSm::onRowGone(const uint64_t& id) {
  const auto at = adjacencies_.find(id);
  if (at == adjacencies_.end()) return;
  NexthopGroupAdjacencySm gone = std::move(at->second);
  adjacencies_.erase(at);
  RYX_TRACE(trace(), 5, "handleNexthopGroup: del nhgName=" << gone.name.view());
  handleNexthopGroupStatus(id, gone, false);
}

// Tells, last of all, what is different now for the name.
void NexthopGroupMgrSm::handleNexthopGroupStatus(uint64_t id, NexthopGroupAdjacencySm& adjacency,
                                                 bool isActive) {
  if (std::exchange(adjacency.isActive, isActive) == isActive) return;
  const Name name = adjacency.name;
  std::vector<uint64_t>& numbers = active_[name];
  const bool was = !numbers.empty();
  if (isActive)
    numbers.push_back(id);
  else
    std::erase(numbers, id);
  const bool is = !numbers.empty();
  if (!is) active_.erase(name);
  if (was != is) mgr_.activeIs(std::string(name.view()), is);
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, nexthop_group_encap_t type) {
  switch (type) {
    case NEXTHOP_GROUP_TYPE_NULL:
      return out << "NEXTHOP_GROUP_TYPE_NULL";
    case NEXTHOP_GROUP_IP_IN_IP:
      return out << "NEXTHOP_GROUP_IP_IN_IP";
    case NEXTHOP_GROUP_GRE:
      return out << "NEXTHOP_GROUP_GRE";
    case NEXTHOP_GROUP_MPLS:
      return out << "NEXTHOP_GROUP_MPLS";
    case NEXTHOP_GROUP_MPLS_OVER_GRE:
      return out << "NEXTHOP_GROUP_MPLS_OVER_GRE";
    case NEXTHOP_GROUP_IP:
      return out << "NEXTHOP_GROUP_IP";
  }
  return out << static_cast<int>(type);
}

std::ostream& operator<<(std::ostream& out, gre_key_type_t type) {
  switch (type) {
    case GRE_KEY_TYPE_NULL:
      return out << "GRE_KEY_TYPE_NULL";
    case GRE_KEY_TYPE_HARDWARE:
      return out << "GRE_KEY_TYPE_HARDWARE";
  }
  return out << static_cast<int>(type);
}

nexthop_group_mpls_action_t::nexthop_group_mpls_action_t() = default;
nexthop_group_mpls_action_t::nexthop_group_mpls_action_t(mpls_action_t action,
                                                         const std::list<mpls_label_t>& label_stack)
    : action_(action), label_stack_(label_stack) {}
mpls_action_t nexthop_group_mpls_action_t::action() const {
  return action_;
}
void nexthop_group_mpls_action_t::action_is(mpls_action_t action) {
  action_ = action;
}
const std::list<mpls_label_t>& nexthop_group_mpls_action_t::label_stack() const {
  return label_stack_;
}
void nexthop_group_mpls_action_t::label_stack_is(const std::list<mpls_label_t>& label_stack) {
  label_stack_ = label_stack;
}
bool nexthop_group_mpls_action_t::operator==(const nexthop_group_mpls_action_t& other) const {
  return action_ == other.action_ && label_stack_ == other.label_stack_;
}
bool nexthop_group_mpls_action_t::operator!=(const nexthop_group_mpls_action_t& other) const {
  return !(*this == other);
}
bool nexthop_group_mpls_action_t::operator<(const nexthop_group_mpls_action_t& other) const {
  return std::tie(action_, label_stack_) < std::tie(other.action_, other.label_stack_);
}
std::size_t nexthop_group_mpls_action_t::hash() const {
  uint64_t hash = platform::hashNumber(action_);
  for (const mpls_label_t& label : label_stack_) hash = platform::hashMix(hash, label.hash());
  return hash;
}
std::string nexthop_group_mpls_action_t::to_string() const {
  std::ostringstream text;
  text << "nexthop_group_mpls_action_t(action=" << action_ << ", label_stack=[";
  const char* before = "";
  for (const mpls_label_t& label : label_stack_) text << std::exchange(before, ", ") << label;
  text << "])";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const nexthop_group_mpls_action_t& action) {
  return out << action.to_string();
}

nexthop_group_entry_t::nexthop_group_entry_t() = default;
nexthop_group_entry_t::nexthop_group_entry_t(const ip_addr_t& destination_ip,
                                             const nexthop_group_mpls_action_t& mpls_action)
    : destination_ip_(destination_ip), mpls_action_(mpls_action) {}
const ip_addr_t& nexthop_group_entry_t::destination_ip() const {
  return destination_ip_;
}
void nexthop_group_entry_t::destination_ip_is(const ip_addr_t& destination_ip) {
  destination_ip_ = destination_ip;
}
const nexthop_group_mpls_action_t& nexthop_group_entry_t::mpls_action() const {
  return mpls_action_;
}
void nexthop_group_entry_t::mpls_action_is(const nexthop_group_mpls_action_t& mpls_action) {
  mpls_action_ = mpls_action;
}
bool nexthop_group_entry_t::operator==(const nexthop_group_entry_t& other) const {
  return destination_ip_ == other.destination_ip_ && mpls_action_ == other.mpls_action_;
}
bool nexthop_group_entry_t::operator!=(const nexthop_group_entry_t& other) const {
  return !(*this == other);
}
bool nexthop_group_entry_t::operator<(const nexthop_group_entry_t& other) const {
  return std::tie(destination_ip_, mpls_action_) <
         std::tie(other.destination_ip_, other.mpls_action_);
}
std::size_t nexthop_group_entry_t::hash() const {
  return platform::hashMix(destination_ip_.hash(), mpls_action_.hash());
}
std::string nexthop_group_entry_t::to_string() const {
  std::ostringstream text;
  text << "nexthop_group_entry_t(destination_ip="
       << (destination_ip_.af() == AF_NULL ? "" : destination_ip_.to_string())
       << ", mpls_action=" << mpls_action_ << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const nexthop_group_entry_t& entry) {
  return out << entry.to_string();
}

namespace {

auto fieldsOf(const nexthop_group_t& g) {
  return std::make_tuple(std::cref(g.name()), g.type(), g.ttl(), std::cref(g.source_ip()),
                         g.source_intf(), g.gre_key_type(), g.size(),
                         std::cref(g.destination_ips()), std::cref(g.mpls_actions()));
}

}  // namespace

nexthop_group_t::nexthop_group_t() = default;
nexthop_group_t::nexthop_group_t(const std::string& name, nexthop_group_encap_t type)
    : name_(name), type_(type) {}
const std::string& nexthop_group_t::name() const {
  return name_;
}
void nexthop_group_t::name_is(const std::string& name) {
  name_ = name;
}
nexthop_group_encap_t nexthop_group_t::type() const {
  return type_;
}
void nexthop_group_t::type_is(nexthop_group_encap_t type) {
  type_ = type;
}
uint8_t nexthop_group_t::ttl() const {
  return ttl_;
}
void nexthop_group_t::ttl_is(uint8_t ttl) {
  ttl_ = ttl;
}
const ip_addr_t& nexthop_group_t::source_ip() const {
  return source_ip_;
}
void nexthop_group_t::source_ip_is(const ip_addr_t& source_ip) {
  source_ip_ = source_ip;
}
intf_id_t nexthop_group_t::source_intf() const {
  return source_intf_;
}
void nexthop_group_t::source_intf_is(intf_id_t source_intf) {
  source_intf_ = source_intf;
}
gre_key_type_t nexthop_group_t::gre_key_type() const {
  return gre_key_type_;
}
void nexthop_group_t::gre_key_type_is(gre_key_type_t gre_key_type) {
  gre_key_type_ = gre_key_type;
}
uint16_t nexthop_group_t::size() const {
  uint32_t needed = 0;
  if (!destination_ips_.empty()) needed = destination_ips_.rbegin()->first + 1u;
  if (!mpls_actions_.empty()) needed = std::max(needed, mpls_actions_.rbegin()->first + 1u);
  return std::max(size_, static_cast<uint16_t>(std::min<uint32_t>(needed, UINT16_MAX)));
}
void nexthop_group_t::size_is(uint16_t size) {
  size_ = size;
}
const std::map<uint16_t, ip_addr_t>& nexthop_group_t::destination_ips() const {
  return destination_ips_;
}
void nexthop_group_t::destination_ip_set(uint16_t index, const ip_addr_t& destination_ip) {
  destination_ips_[index] = destination_ip;
}
void nexthop_group_t::destination_ip_del(uint16_t index) {
  destination_ips_.erase(index);
}
const std::map<uint16_t, nexthop_group_mpls_action_t>& nexthop_group_t::mpls_actions() const {
  return mpls_actions_;
}
void nexthop_group_t::mpls_action_set(uint16_t index,
                                      const nexthop_group_mpls_action_t& mpls_action) {
  mpls_actions_[index] = mpls_action;
}
void nexthop_group_t::mpls_action_del(uint16_t index) {
  mpls_actions_.erase(index);
}
std::map<uint16_t, nexthop_group_entry_t> nexthop_group_t::entries() const {
  std::map<uint16_t, nexthop_group_entry_t> entries;
  for (const auto& [index, ip] : destination_ips_) entries[index].destination_ip_is(ip);
  for (const auto& [index, action] : mpls_actions_) entries[index].mpls_action_is(action);
  return entries;
}
bool nexthop_group_t::operator==(const nexthop_group_t& other) const {
  return fieldsOf(*this) == fieldsOf(other);
}
bool nexthop_group_t::operator!=(const nexthop_group_t& other) const {
  return !(*this == other);
}
bool nexthop_group_t::operator<(const nexthop_group_t& other) const {
  return fieldsOf(*this) < fieldsOf(other);
}
std::size_t nexthop_group_t::hash() const {
  uint64_t hash = platform::hashBytes(name_.data(), name_.size());
  hash = platform::hashMix(hash, source_ip_.hash() + type_ + (uint64_t{ttl_} << 8));
  hash = platform::hashMix(hash, source_intf_.hash() + gre_key_type_ + (uint64_t{size()} << 8));
  for (const auto& [index, ip] : destination_ips_)
    hash = platform::hashMix(hash + index, ip.hash());
  for (const auto& [index, action] : mpls_actions_)
    hash = platform::hashMix(hash + index, action.hash());
  return hash;
}
// What is unset is left out.
std::string nexthop_group_t::to_string() const {
  std::ostringstream text;
  text << "nexthop_group_t(name='" << name_ << "', type=" << type_ << ", ttl=" << int{ttl_};
  if (source_ip_.af() != AF_NULL) text << ", source_ip=" << source_ip_.to_string();
  if (source_intf_ != intf_id_t()) text << ", source_intf=" << source_intf_.to_string();
  if (gre_key_type_ != GRE_KEY_TYPE_NULL) text << ", gre_key_type=" << gre_key_type_;
  text << ", size=" << size() << ", destination_ips=[";
  const char* before = "";
  for (const auto& [index, ip] : destination_ips_)
    text << std::exchange(before, ", ") << index << ": "
         << (ip.af() == AF_NULL ? "" : ip.to_string());
  text << "], mpls_actions=[";
  before = "";
  for (const auto& [index, action] : mpls_actions_)
    text << std::exchange(before, ", ") << index << ": " << action;
  text << "])";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const nexthop_group_t& group) {
  return out << group.to_string();
}

nexthop_group_counter_t::nexthop_group_counter_t() = default;
nexthop_group_counter_t::nexthop_group_counter_t(uint64_t packets, uint64_t bytes)
    : packets_(packets), bytes_(bytes) {}
uint64_t nexthop_group_counter_t::packets() const {
  return packets_;
}
void nexthop_group_counter_t::packets_is(uint64_t packets) {
  packets_ = packets;
}
uint64_t nexthop_group_counter_t::bytes() const {
  return bytes_;
}
void nexthop_group_counter_t::bytes_is(uint64_t bytes) {
  bytes_ = bytes;
}
bool nexthop_group_counter_t::operator==(const nexthop_group_counter_t& other) const {
  return packets_ == other.packets_ && bytes_ == other.bytes_;
}
bool nexthop_group_counter_t::operator!=(const nexthop_group_counter_t& other) const {
  return !(*this == other);
}
bool nexthop_group_counter_t::operator<(const nexthop_group_counter_t& other) const {
  return std::tie(packets_, bytes_) < std::tie(other.packets_, other.bytes_);
}
std::size_t nexthop_group_counter_t::hash() const {
  return platform::hashMix(platform::hashNumber(packets_), bytes_);
}
std::string nexthop_group_counter_t::to_string() const {
  return "nexthop_group_counter_t(packets=" + std::to_string(packets_) +
         ", bytes=" + std::to_string(bytes_) + ")";
}
std::ostream& operator<<(std::ostream& out, const nexthop_group_counter_t& counter) {
  return out << counter.to_string();
}

nexthop_group_mgr::nexthop_group_mgr() = default;
nexthop_group_mgr::~nexthop_group_mgr() = default;

nexthop_group_handler::nexthop_group_handler(nexthop_group_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
nexthop_group_handler::~nexthop_group_handler() = default;

void nexthop_group_handler::watch_all_nexthop_groups(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " interest is: " << (interest ? "add" : "del"));
  watchAll(mgr_, this, interest);
}
void nexthop_group_handler::watch_nexthop_group(const std::string& nexthop_group_name,
                                                bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as a nexthop group-specific handler");
  watchOne(mgr_, this, nexthop_group_name, interest);
}

void nexthop_group_handler::on_nexthop_group_active(const std::string&, bool) {}

void sdk::init_nexthop_group_mgr() {
  if (nexthop_group_mgr_ == nullptr) create<NexthopGroupMgrImpl>(nexthop_group_mgr_);
}
nexthop_group_mgr* sdk::get_nexthop_group_mgr() {
  return get(nexthop_group_mgr_, &sdk::init_nexthop_group_mgr, {"nexthop_group"});
}

}  // namespace ryx
