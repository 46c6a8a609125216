#include "switch/routing/resolver.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <unordered_map>
#include <utility>

#include "platform/activity/task.h"
#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "switch/routing/loop_search.h"
#include "switch/routing/next_hops.h"
#include "switch/routing/parts.h"
#include "switch/routing/ways.h"

namespace ryx::routing {

using Routing::RouteType;

namespace {

// Labels are kept as host networks of their number, in a table of their own.
IpPrefix ofLabel(uint32_t label) {
  return {IpAddr::v4(label), 32};
}

// There is one of every route.
Slab& candidates() {
  static Slab slab(sizeof(Candidate));
  return slab;
}

void dropCandidates(Destinations& table) {
  for (auto it = table.entries->entry.iterator(); it; it.next())
    for (Candidate* c = it->candidates; c;) candidates().release(std::exchange(c, c->next));
}

// The order does not matter.
template <class T>
void swapOut(std::vector<T>& from, size_t place) {
  from[place] = from.back();
  from.pop_back();
}

}  // namespace

class Resolver::Core final : private Task, private Timer, private Outcomes {
 public:
  Core(Programmer& programmer, std::function<bool()> isHearing);
  ~Core() override;

  void vrfIs(const Name& vrf, bool exists);
  void interfaceIs(IntfId intf, bool isUp);
  void setGroup(const Name& name, GroupConfig config);
  void removeGroup(const Name& name);
  void setConnected(const Name& vrf, const IpPrefix& prefix, const Owner& owner);
  void setRoute(const Name& vrf, const Routing::Route& route, const Owner& owner);
  void removeRoute(const Name& vrf, const IpPrefix& prefix, uint32_t preference,
                   const Owner& owner);
  void setLabelRoute(const Mpls::Route& route, const Owner& owner);
  void setVrfLabel(uint32_t label, const Name& vrf, const Owner& owner);
  void removeLabelRoute(uint32_t label, uint32_t metric, const Owner& owner);
  Counters counters() const;

 private:
  bool run(Slice& slice) override;
  void onTimer() override;
  void groupOutcome(GroupId group, const std::string& refusal) override;
  void routeOutcome(const RouteKey& route, const std::string& refusal) override;
  void retry() override;

  // Routes.
  Destinations& table(const Name& vrf, Af af);
  Destinations& inDefaultVrf(Af af) { return table(defaultVrf_, af); }
  const Owner* keep(const Owner& owner);
  void release(const Owner* owner);
  void set(Destinations& table, const IpPrefix& prefix, uint32_t preference, const Owner& owner,
           Fec& fec);
  void remove(Destinations& table, const IpPrefix& prefix, uint32_t preference, const Owner& owner);
  void takeOut(Entry& entry);
  void settle(Entry& entry, const Candidate* moved);
  static void enlist(Candidate& candidate, Fec& fec);
  void delist(Candidate& candidate);
  void entryCame(Entry& entry);
  void entryWent(Entry& entry);

  // FECs and what they depend on.
  Fec& fec(const FecKey& key);
  void makeMembers(Fec& fec);
  void freeMembers(Fec& fec);
  void groupIs(Fec& group, std::unique_ptr<GroupConfig> config);
  Port& port(IntfId intf);
  Hop& hop(Destinations& table, const IpAddr& addr);
  void use(Fec& fec, Source& source);
  void unuse(Fec& fec, size_t member);

  // What is to be done.
  void mark(Hop& hop);
  void mark(Fec& fec);
  void mark(Entry& entry);
  void usersChanged(Source& source);
  void toProgram(Fec& fec);
  void toProgram(Entry& entry);
  void toWithdraw(Fec& fec);
  bool step();
  bool stepLost();
  void remove(const Name& vrf);

  // Doing it.
  Entry* covering(const Destinations& table, const IpAddr& addr) const;
  void lookUp(Hop& hop);
  static bool leadsOn(const Entry& entry);
  void forget(Hop& hop);
  void findLoops(std::vector<Hop*> from);
  void findLoops(Entry& entry, const Fec* more);
  void loopIs(Hop& hop, uint64_t loop);
  void resolve(Fec& fec);
  void choose(Entry& entry);
  void wait(Entry& entry);
  void chosenIs(Entry& entry, Fec* fec);
  bool goesOn(Entry& entry, const Candidate& candidate);
  void program(Fec& fec);
  void forgetTold(Fec& fec);
  void program(Entry& entry);
  void toldIs(Entry& entry, Fec* fec);
  void withdraw(Fec& fec);

  Programmer& programmer_;
  const std::function<bool()> isHearing_;
  NextHops nextHops_;
  std::unordered_map<Owner, size_t, Hash> owners_;  // and how many routes they have
  std::unordered_map<FecKey, Fec, Hash> fecs_;
  std::unordered_map<GroupId, Fec*> byId_;
  std::unordered_map<IntfId, Port> ports_;
  std::map<std::pair<Af, std::string>, std::unique_ptr<Destinations>> tables_;
  std::unique_ptr<Destinations> labels_;
  const Name defaultVrf_{kDefaultVrf};
  Destinations* lastTable_ = nullptr;

  // In the order in which they are worked off.
  Worklist<Hop*> dirtyHops_;
  Worklist<Fec*> dirtyFecs_;
  Worklist<Ref<Entry>> dirtyEntries_;
  Worklist<Ref<Entry>> dirtyWaiting_;  // which end their waiting when all else is settled
  std::deque<std::pair<uint64_t, Ref<Entry>>> lost_;  // after which run
  Worklist<Fec*> fecsToProgram_;
  Worklist<Ref<Entry>> entriesToProgram_;
  Worklist<Fec*> fecsToWithdraw_;
  std::vector<Name> vrfsToRemove_;

  std::deque<std::pair<double, Ref<Entry>>> waiting_;  // for groups, and since when
  std::unordered_map<uint64_t, std::vector<Hop*>> loops_;
  std::map<std::pair<Destinations*, IpPrefix>, Ref<Entry>> refused_;

  bool isSettled_ = false;
  uint64_t runs_ = 0;
  uint64_t lastGroup_ = 0;
  uint64_t lastLoop_ = 0;
  uint64_t chosen_ = 0, programmed_ = 0;
};

// --- what there is ------------------------------------------------------------------------------

Resolver::Core::Core(Programmer& programmer, std::function<bool()> isHearing)
    : Task("resolver"),
      Timer("resolver"),
      programmer_(programmer),
      isHearing_(std::move(isHearing)),
      labels_(std::make_unique<Destinations>()) {
  labels_->isThere = true;
  programmer_.outcomesAre(*this);
}

Resolver::Core::~Core() {
  for (auto& [name, table] : tables_) dropCandidates(*table);
  dropCandidates(*labels_);
}

Destinations& Resolver::Core::table(const Name& vrf, Af af) {
  if (lastTable_ && lastTable_->vrf == vrf && lastTable_->af == af) return *lastTable_;
  auto& there = tables_[{af, std::string(vrf.view())}];
  if (!there) {
    there = std::make_unique<Destinations>();
    there->vrf = vrf;
    there->af = af;
  }
  return *(lastTable_ = there.get());
}

void Resolver::Core::vrfIs(const Name& vrf, bool exists) {
  if (table(vrf, Af::ipv4).isThere == exists) return;
  if (exists && std::erase(vrfsToRemove_, vrf) == 0) programmer_.addVrf(vrf);
  if (!exists) vrfsToRemove_.push_back(vrf);
  for (const Af af : {Af::ipv4, Af::ipv6}) {
    Destinations& there = table(vrf, af);
    there.isThere = exists;
    for (auto it = there.entries->entry.iterator(); it; it.next()) mark(*it);
  }
  Fec& lookup = fec({.kind = FecKey::Kind::vrf, .name = vrf});
  lookup.vrfIsThere = exists;
  for (Candidate* c = lookup.candidates; c; c = c->behind) mark(*c->entry);
  toWithdraw(lookup);
  wake();
}

void Resolver::Core::interfaceIs(IntfId intf, bool isUp) {
  if (!isUp && !ports_.count(intf)) return;
  Port& there = port(intf);
  if (there.isUp != isUp) usersChanged(there);
  there.isUp = isUp;
  if (!isUp && there.users.empty()) ports_.erase(intf);
}

void Resolver::Core::setGroup(const Name& name, GroupConfig config) {
  groupIs(fec({.kind = FecKey::Kind::group, .name = name}),
          std::make_unique<GroupConfig>(std::move(config)));
}

void Resolver::Core::removeGroup(const Name& name) {
  groupIs(fec({.kind = FecKey::Kind::group, .name = name}), nullptr);
}

void Resolver::Core::groupIs(Fec& group, std::unique_ptr<GroupConfig> config) {
  if (config && group.config && *group.config == *config) return;
  const bool isOther = !config == !!group.config;  // it came, or goes
  freeMembers(group);
  group.config = std::move(config);
  makeMembers(group);
  for (Candidate* c = group.candidates; c; c = c->behind)
    if (c->entry->coversHops()) findLoops(*c->entry, &group);
  // One that came is waited for no more.
  for (Candidate* c = isOther ? group.candidates : nullptr; c; c = c->behind) mark(*c->entry);
  mark(group);
}

// --- routes -------------------------------------------------------------------------------------

void Resolver::Core::setConnected(const Name& vrf, const IpPrefix& prefix, const Owner& owner) {
  Destinations& there = table(vrf, prefix.af());
  FecKey key;
  if (owner.kind == Owner::Kind::receive) {
    key.kind = FecKey::Kind::receive;
  } else {
    key.table = &there;
    Routing::Via via;
    via.intf = owner.intf;
    key.vias.insert(via);
  }
  set(there, prefix, 0, owner, fec(key));
}

void Resolver::Core::setRoute(const Name& vrf, const Routing::Route& route, const Owner& owner) {
  const Routing::RouteKey& at = route.key();
  Destinations& there = table(vrf, at.prefix.af());
  FecKey key;
  if (route.routeType() == RouteType::drop) {
    key.kind = FecKey::Kind::drop;
  } else if (route.routeType() == RouteType::nexthopGroup) {
    key.kind = FecKey::Kind::group;
    key.name = route.nexthopGroup();
  } else {
    key.table = &there;
    key.vias = route.via();
  }
  set(there, at.prefix, at.preference, owner, fec(key));
}

void Resolver::Core::removeRoute(const Name& vrf, const IpPrefix& prefix, uint32_t preference,
                                 const Owner& owner) {
  remove(table(vrf, prefix.af()), prefix, preference, owner);
}

void Resolver::Core::setLabelRoute(const Mpls::Route& route, const Owner& owner) {
  FecKey key;
  key.kind = FecKey::Kind::labelVias;
  key.labelVias = route.via();
  set(*labels_, ofLabel(route.key().label.value()), route.key().metric, owner, fec(key));
}

void Resolver::Core::setVrfLabel(uint32_t label, const Name& vrf, const Owner& owner) {
  set(*labels_, ofLabel(label), 0, owner, fec({.kind = FecKey::Kind::vrf, .name = vrf}));
}

void Resolver::Core::removeLabelRoute(uint32_t label, uint32_t metric, const Owner& owner) {
  remove(*labels_, ofLabel(label), metric, owner);
}

const Owner* Resolver::Core::keep(const Owner& owner) {
  const auto at = owners_.try_emplace(owner, 0).first;
  ++at->second;
  return &at->first;
}

void Resolver::Core::release(const Owner* owner) {
  const auto at = owners_.find(*owner);
  if (--at->second == 0) owners_.erase(at);
}

void Resolver::Core::set(Destinations& table, const IpPrefix& prefix, uint32_t preference,
                         const Owner& owner, Fec& fec) {
  Entry& entry = *table.entries->entry.create(prefix);
  entry.table = &table;
  Candidate** at = &entry.candidates;
  while (*at && (*at)->isBefore(owner, preference)) at = &(*at)->next;
  Candidate* there = *at;
  if (there && *there->owner == owner && there->preference == preference) {
    there->isGone = false;
    if (there->fec == &fec) return;
    delist(*there);
    there->hasWaited = false;
  } else {
    const bool isFirst = !entry.candidates;
    there = new (candidates().allocate()) Candidate{};
    there->entry = &entry;
    there->owner = keep(owner);
    there->preference = preference;
    there->next = *at;
    *at = there;
    if (isFirst) entryCame(entry);
  }
  enlist(*there, fec);
  settle(entry, there);
  if (entry.coversHops()) findLoops(entry, &fec);
  mark(entry);
}

void Resolver::Core::remove(Destinations& table, const IpPrefix& prefix, uint32_t preference,
                            const Owner& owner) {
  Entry* entry = table.entries->entry.find(prefix);
  if (!entry) return;
  for (Candidate* c = entry->candidates; c; c = c->next) {
    if (!(*c->owner == owner) || c->preference != preference) continue;
    c->isGone = true;
    if (!std::exchange(entry->isLost, true)) lost_.emplace_back(runs_, entry);
    wake();
  }
}

// What is still gone goes.
void Resolver::Core::takeOut(Entry& entry) {
  entry.isLost = false;
  bool any = false;
  for (Candidate** at = &entry.candidates; *at;) {
    Candidate* gone = *at;
    if (!gone->isGone) {
      at = &gone->next;
      continue;
    }
    *at = gone->next;
    delist(*gone);
    release(gone->owner);
    candidates().release(gone);
    any = true;
  }
  if (!any) return;
  settle(entry, nullptr);
  if (!entry.candidates)
    entryWent(entry);
  else if (entry.coversHops())
    findLoops(entry, nullptr);
  mark(entry);
}

// What the entry has chosen is always that of one of its routes, or what it goes on with: hops
// depend on it. `moved`: the route that was set.
void Resolver::Core::settle(Entry& entry, const Candidate* moved) {
  if (!entry.chosen || entry.isWaiting()) return;
  for (const Candidate* c = entry.candidates; c; c = c->next)
    if (c->fec == entry.chosen) return;
  if (moved && goesOn(entry, *moved))
    wait(entry);
  else
    chosenIs(entry, nullptr);
}

void Resolver::Core::enlist(Candidate& candidate, Fec& fec) {
  candidate.fec = &fec;
  candidate.before = nullptr;
  candidate.behind = fec.candidates;
  if (fec.candidates) fec.candidates->before = &candidate;
  fec.candidates = &candidate;
}

void Resolver::Core::delist(Candidate& candidate) {
  Fec& fec = *candidate.fec;
  (candidate.before ? candidate.before->behind : fec.candidates) = candidate.behind;
  if (candidate.behind) candidate.behind->before = candidate.before;
  if (!fec.isReferred()) toWithdraw(fec);
}

// It covers what others covered.
void Resolver::Core::entryCame(Entry& entry) {
  const IpPrefix& prefix = entry.key();
  Destinations& table = *entry.table;
  ++table.lengths[prefix.length()];
  for (auto at = table.hopsInOrder.lower_bound(prefix.addr());
       at != table.hopsInOrder.end() && prefix.contains(at->first); ++at)
    if (Hop& hop = *at->second; !hop.by || hop.by->key().length() < prefix.length()) mark(hop);
}

void Resolver::Core::entryWent(Entry& entry) {
  --entry.table->lengths[entry.key().length()];
  if (entry.hops)
    for (Hop* hop : *entry.hops) mark(*hop);
}

// --- FECs and what they depend on ---------------------------------------------------------------

Fec& Resolver::Core::fec(const FecKey& key) {
  const auto [at, isNew] = fecs_.try_emplace(key);
  Fec& there = at->second;
  if (isNew) {
    there.key = &at->first;
    there.id = ++lastGroup_;
    byId_.emplace(there.id, &there);
    makeMembers(there);
    mark(there);
  }
  return there;
}

void Resolver::Core::makeMembers(Fec& fec) {
  const FecKey& key = *fec.key;
  fec.members.reserve(key.vias.size() + key.labelVias.size() +
                      (fec.config ? fec.config->entries.size() : 0));
  for (const Routing::Via& via : key.vias) {
    if (!via.intf.isEmpty())
      use(fec, port(via.intf));
    else if (via.vni != 0)
      use(fec, hop(inDefaultVrf(via.vtepAddr.af()), via.vtepAddr));
    else
      use(fec, hop(*key.table, via.hop));
  }
  for (const Mpls::Via& via : key.labelVias) {
    if (!via.nexthopGroup.empty())
      use(fec, this->fec({.kind = FecKey::Kind::group, .name = via.nexthopGroup}));
    else if (!via.intf.isEmpty())
      use(fec, port(via.intf));
    else
      use(fec, hop(inDefaultVrf(via.hop.af()), via.hop));
  }
  fec.numbers.clear();
  if (!fec.config) return;
  fec.numbers.reserve(fec.config->entries.size());
  for (const GroupConfig::Entry& entry : fec.config->entries) {
    fec.numbers.push_back(entry.number);
    use(fec, hop(inDefaultVrf(entry.destination.af()), entry.destination));
  }
}

void Resolver::Core::freeMembers(Fec& fec) {
  while (!fec.members.empty()) {
    unuse(fec, fec.members.size() - 1);
    fec.members.pop_back();
  }
}

Port& Resolver::Core::port(IntfId intf) {
  return ports_.try_emplace(intf, intf).first->second;
}

Hop& Resolver::Core::hop(Destinations& table, const IpAddr& addr) {
  const auto [at, isNew] = table.hops.try_emplace(addr, table, addr);
  Hop& there = at->second;
  if (isNew) {
    table.hopsInOrder.emplace(addr, &there);
    mark(there);
  }
  return there;
}

void Resolver::Core::use(Fec& fec, Source& source) {
  fec.members.push_back({&source, source.users.size()});
  source.users.push_back({&fec, fec.members.size() - 1});
}

void Resolver::Core::unuse(Fec& fec, size_t member) {
  const auto [source, place] = fec.members[member];
  swapOut(source->users, place);
  if (place < source->users.size()) {
    const Source::Use& moved = source->users[place];
    moved.fec->members[moved.member].place = place;
  }
  if (!source->users.empty()) return;
  if (source->kind == Source::Kind::hop) mark(static_cast<Hop&>(*source));
  if (source->kind == Source::Kind::group) toWithdraw(static_cast<Fec&>(*source));
  if (source->kind == Source::Kind::port && !static_cast<Port&>(*source).isUp)
    ports_.erase(static_cast<Port&>(*source).intf);
}

// --- what is to be done -------------------------------------------------------------------------

void Resolver::Core::mark(Hop& hop) {
  if (std::exchange(hop.isDirty, true)) return;
  dirtyHops_.push(&hop);
  wake();
}

void Resolver::Core::mark(Fec& fec) {
  if (std::exchange(fec.isDirty, true)) return;
  dirtyFecs_.push(&fec);
  wake();
}

void Resolver::Core::mark(Entry& entry) {
  if (std::exchange(entry.isDirty, true)) return;
  dirtyEntries_.push(Ref<Entry>(&entry));
  wake();
}

void Resolver::Core::usersChanged(Source& source) {
  for (const Source::Use& use : source.users) mark(*use.fec);
}

void Resolver::Core::toProgram(Fec& fec) {
  if (!std::exchange(fec.isToProgram, true)) fecsToProgram_.push(&fec);
}

void Resolver::Core::toProgram(Entry& entry) {
  if (!std::exchange(entry.isToProgram, true)) entriesToProgram_.push(Ref<Entry>(&entry));
}

void Resolver::Core::toWithdraw(Fec& fec) {
  if (std::exchange(fec.isToWithdraw, true)) return;
  fecsToWithdraw_.push(&fec);
  wake();
}

bool Resolver::Core::run(Slice& slice) {
  ++runs_;
  while (step())
    if (slice.spent()) return true;
  return !isSettled_;  // there is more to be told
}

void Resolver::Core::onTimer() {
  while (!waiting_.empty() && waiting_.front().first + kGroupWait <= clock().now()) {
    const auto [since, entry] = waiting_.front();
    waiting_.pop_front();
    if (entry->waitsSince != since) continue;
    for (Candidate* c = entry->candidates; c; c = c->next)
      if (c->fec->isUnknown()) c->hasWaited = true;
    mark(*entry);
  }
  if (!waiting_.empty()) armAt(waiting_.front().first + kGroupWait);
}

// False: nothing is left that can be done now.
bool Resolver::Core::step() {
  if (!dirtyHops_.empty()) return lookUp(*dirtyHops_.pop()), true;
  if (!dirtyFecs_.empty()) return resolve(*dirtyFecs_.pop()), true;
  if (!dirtyEntries_.empty()) {
    const Ref<Entry> entry = dirtyEntries_.pop();
    entry->isWaiting() ? dirtyWaiting_.push(entry) : choose(*entry);
    return true;
  }
  if (stepLost()) return true;
  if (!dirtyWaiting_.empty()) return choose(*dirtyWaiting_.pop()), true;
  if (!fecsToProgram_.empty()) return program(*fecsToProgram_.pop()), true;
  if (!entriesToProgram_.empty()) return program(*entriesToProgram_.pop()), true;
  if (!fecsToWithdraw_.empty()) return withdraw(*fecsToWithdraw_.pop()), true;
  for (const Name& vrf : std::exchange(vrfsToRemove_, {})) remove(vrf);
  isSettled_ = lost_.empty() && !isHearing_();
  if (isSettled_) programmer_.settled();
  return false;
}

void Resolver::Core::remove(const Name& vrf) {
  programmer_.removeVrf(vrf);
  lastTable_ = nullptr;
  for (const Af af : {Af::ipv4, Af::ipv6})
    if (const Destinations& gone = table(vrf, af);
        gone.entries->entry.empty() && gone.hops.empty()) {
      lastTable_ = nullptr;
      tables_.erase({af, std::string(vrf.view())});
    }
}

bool Resolver::Core::stepLost() {
  if (lost_.empty() || (isHearing_() && runs_ <= lost_.front().first + 1)) return false;
  const Ref<Entry> entry = lost_.front().second;
  lost_.pop_front();
  takeOut(*entry);
  return true;
}

// --- next hops ----------------------------------------------------------------------------------

Entry* Resolver::Core::covering(const Destinations& table, const IpAddr& addr) const {
  for (int length = addr.maxLength(); length >= 0; --length) {
    if (table.lengths[length] == 0) continue;
    Entry* entry =
        table.entries->entry.find(IpPrefix::containing(addr, static_cast<uint8_t>(length)));
    if (entry && entry->candidates) return entry;
  }
  return nullptr;
}

void Resolver::Core::lookUp(Hop& hop) {
  hop.isDirty = false;
  Entry* by = hop.users.empty() ? nullptr : covering(hop.table, hop.addr);
  if (by != hop.by) {
    std::vector<Hop*> from;
    if (by && leadsOn(*by)) from.push_back(&hop);
    if (const auto at = loops_.find(hop.loop); at != loops_.end()) from = at->second;
    if (hop.by) {
      auto& hops = *hop.by->hops;
      swapOut(hops, hop.placeAtEntry);
      if (hop.placeAtEntry < hops.size()) hops[hop.placeAtEntry]->placeAtEntry = hop.placeAtEntry;
    }
    hop.by = by;
    if (by) {
      if (!by->hops) by->hops = std::make_unique<std::vector<Hop*>>();
      hop.placeAtEntry = by->hops->size();
      by->hops->push_back(&hop);
    }
    if (!from.empty()) findLoops(std::move(from));
  }
  Fec* through = by && hop.loop == 0 ? by->chosen : nullptr;
  if (through && through->kind() != GroupKind::forward) through = nullptr;
  if (through != hop.through) {
    if (hop.through) {
      auto& hops = hop.through->hops;
      swapOut(hops, hop.placeAtFec);
      if (hop.placeAtFec < hops.size()) hops[hop.placeAtFec]->placeAtFec = hop.placeAtFec;
      if (!hop.through->isReferred()) toWithdraw(*hop.through);
    }
    hop.through = through;
    if (through) {
      hop.placeAtFec = through->hops.size();
      through->hops.push_back(&hop);
    }
    usersChanged(hop);
  }
  if (hop.users.empty() && !hop.isDirty) forget(hop);
}

// Whether there are next hops among the vias of its routes.
bool Resolver::Core::leadsOn(const Entry& entry) {
  const auto hasHops = [](const Fec& fec) {
    return std::any_of(fec.members.begin(), fec.members.end(),
                       [](const auto& m) { return m.source->kind == Source::Kind::hop; });
  };
  for (const Candidate* c = entry.candidates; c; c = c->next)
    if (hasHops(*c->fec)) return true;
  return entry.isWaiting() && hasHops(*entry.chosen);
}

void Resolver::Core::forget(Hop& hop) {
  loopIs(hop, 0);
  Destinations& table = hop.table;
  const IpAddr addr = hop.addr;
  table.hopsInOrder.erase(addr);
  table.hops.erase(addr);
}

void Resolver::Core::findLoops(std::vector<Hop*> from) {
  // What is left of a loop that was broken is looked at again.
  std::vector<uint64_t> broken;
  LoopSearch search([&](const std::vector<Hop*>& hops, bool isLoop) {
    const uint64_t before = hops.front()->loop;
    const auto was = loops_.find(before);
    const auto isOfIt = [&](const Hop* hop) { return hop->loop == before; };
    const bool isSame =
        std::all_of(hops.begin(), hops.end(), isOfIt) &&
        (isLoop ? was != loops_.end() && was->second.size() == hops.size() : before == 0);
    if (isSame) return;
    const uint64_t loop = isLoop ? ++lastLoop_ : 0;
    for (Hop* hop : hops) {
      if (hop->loop != 0) broken.push_back(hop->loop);
      loopIs(*hop, loop);
    }
  });
  for (Hop* hop : from) search.from(*hop);
  while (!broken.empty()) {
    const auto left = loops_.find(broken.back());
    broken.pop_back();
    if (left == loops_.end()) continue;
    for (Hop* hop : std::vector<Hop*>(left->second)) search.from(*hop);
  }
}

// Its routes are others. `more`: what came; null: something went.
void Resolver::Core::findLoops(Entry& entry, const Fec* more) {
  std::vector<Hop*> from;
  for (Hop* hop : *entry.hops)
    if (const auto at = loops_.find(hop->loop); at != loops_.end())
      from.insert(from.end(), at->second.begin(), at->second.end());
  if (more)
    for (const auto& member : more->members)
      if (member.source->kind == Source::Kind::hop)
        from.push_back(static_cast<Hop*>(member.source));
  if (!from.empty()) findLoops(std::move(from));
}

void Resolver::Core::loopIs(Hop& hop, uint64_t loop) {
  const uint64_t before = std::exchange(hop.loop, loop);
  if (const auto at = loops_.find(before); at != loops_.end()) {
    std::erase(at->second, &hop);
    if (at->second.empty()) loops_.erase(at);
  }
  if (loop != 0) loops_[loop].push_back(&hop);
  if ((before == 0) != (loop == 0)) mark(hop);
}

// --- FECs ---------------------------------------------------------------------------------------

void Resolver::Core::resolve(Fec& fec) {
  fec.isDirty = false;
  const bool was = fec.isUsable();
  std::vector<GroupMember> resolved = waysOf(fec, nextHops_);
  const auto byId = [](const GroupMember& a, const GroupMember& b) { return a.id < b.id; };
  std::sort(resolved.begin(), resolved.end(), byId);
  // The same way by several vias is one, with their weights.
  size_t size = 0;
  for (const GroupMember& way : resolved) {
    if (size != 0 && resolved[size - 1].id == way.id) {
      resolved[size - 1].weight += way.weight;
      nextHops_.release(way, programmer_);
    } else {
      resolved[size++] = way;
    }
  }
  resolved.resize(size);
  const auto same = [](const GroupMember& a, const GroupMember& b) {
    return a.id == b.id && a.weight == b.weight;
  };
  const bool changed =
      !std::equal(resolved.begin(), resolved.end(), fec.resolved.begin(), fec.resolved.end(), same);
  fec.resolved.swap(resolved);
  if (changed && fec.isTold && !std::exchange(fec.isStale, true))
    fec.told = std::move(resolved);
  else
    for (const GroupMember& gone : resolved) nextHops_.release(gone, programmer_);
  if (changed) {
    for (Hop* hop : fec.hops) usersChanged(*hop);
    usersChanged(fec);
    if (fec.isWanted()) toProgram(fec);
  }
  const bool isUsable = fec.isUsable();
  if (was != isUsable)
    for (Candidate* c = fec.candidates; c; c = c->behind) mark(*c->entry);
  if (was && !isUsable)  // those too that go on with it
    for (const auto& [since, entry] : waiting_)
      if (entry->chosen == &fec) mark(*entry);
  if (!isUsable || !fec.isReferred()) toWithdraw(fec);
}

// --- entries ------------------------------------------------------------------------------------

// Whether the entry goes on as it is, though this route of it has moved to a group that is not
// there.
bool Resolver::Core::goesOn(Entry& entry, const Candidate& candidate) {
  if (candidate.hasWaited || !candidate.fec->isUnknown()) return false;
  const Fec* now = entry.chosen;
  return now && now != candidate.fec && entry.chosenOwner == candidate.owner &&
         entry.choice.preference == candidate.preference;
}

void Resolver::Core::wait(Entry& entry) {
  if (entry.isWaiting()) return;
  entry.waitsSince = clock().now();
  waiting_.emplace_back(entry.waitsSince, &entry);
  if (waiting_.size() == 1) armAt(entry.waitsSince + kGroupWait);
  if (entry.coversHops()) findLoops(entry, entry.chosen);  // it leads where it led, too
}

void Resolver::Core::choose(Entry& entry) {
  ++chosen_;
  entry.isDirty = false;
  const Candidate* best = nullptr;
  if (entry.table->isThere) {
    for (best = entry.candidates; best && !best->fec->isUsable(); best = best->next) {
      if (goesOn(entry, *best) && entry.chosen->isUsable()) return wait(entry);
    }
  }
  const bool hasWaited = std::exchange(entry.waitsSince, 0) != 0;
  chosenIs(entry, best ? best->fec : nullptr);
  if (hasWaited && entry.coversHops()) findLoops(entry, nullptr);
  entry.chosenOwner = best ? best->owner : nullptr;
  if (best) {
    entry.choice = {best->preference,
                    best->owner->kind == Owner::Kind::receive     ? RouteOrigin::receive
                    : best->owner->kind == Owner::Kind::connected ? RouteOrigin::connected
                                                                  : RouteOrigin::agent,
                    best->fec->isNamed()};
    if (!best->fec->isTold) toProgram(*best->fec);
  }
  toProgram(entry);
}

void Resolver::Core::chosenIs(Entry& entry, Fec* fec) {
  if (entry.chosen == fec) return;
  if (fec) ++fec->entries;
  Fec* before = std::exchange(entry.chosen, fec);
  if (before && --before->entries == 0) toWithdraw(*before);
  if (!entry.coversHops()) return;
  for (Hop* hop : *entry.hops) mark(*hop);
}

// --- programming --------------------------------------------------------------------------------

void Resolver::Core::program(Fec& fec) {
  fec.isToProgram = false;
  if (!fec.isUsable() || !fec.isWanted()) return;
  for (const GroupMember& member : fec.resolved) nextHops_.program(member, programmer_);
  ++programmed_;
  fec.isTold = true;
  programmer_.setGroup({fec.id, fec.kind(), fec.key->name, fec.resolved, fec.numbers});
  forgetTold(fec);
}

// The programmer has what is resolved, or nothing.
void Resolver::Core::forgetTold(Fec& fec) {
  fec.isStale = false;
  for (const GroupMember& gone : std::exchange(fec.told, {})) nextHops_.release(gone, programmer_);
}

// All is noted before the programmer is called: it may answer at once.
void Resolver::Core::program(Entry& entry) {
  entry.isToProgram = false;
  const Ref<Entry> kept(&entry);
  const RouteKey key = entry.table->keyOf(entry);
  const bool isSame = entry.told == entry.chosen && entry.toldChoice == entry.choice;
  std::optional<RouteValue> before;
  if (entry.told) before = entry.toldChoice.with(*entry.told);
  entry.toldChoice = entry.choice;
  toldIs(entry, entry.chosen);
  if (!refused_.empty()) refused_.erase({entry.table, entry.key()});
  if (!entry.told && !entry.candidates && !entry.isDirty) entry.table->entries->entry.remove(entry);
  if (isSame || (!entry.chosen && !before)) return;
  ++programmed_;
  if (entry.chosen)
    programmer_.setRoute(key, entry.choice.with(*entry.chosen), before ? &*before : nullptr);
  else
    programmer_.removeRoute(key, *before);
}

void Resolver::Core::toldIs(Entry& entry, Fec* fec) {
  if (entry.told == fec) return;
  if (fec) ++fec->entries;
  Fec* before = std::exchange(entry.told, fec);
  if (before && --before->entries == 0) toWithdraw(*before);
}

// Takes away what is of no use to anybody, when the routes have left it.
void Resolver::Core::withdraw(Fec& fec) {
  fec.isToWithdraw = false;
  if (fec.isTold && (!fec.isUsable() || !fec.isWanted())) {
    ++programmed_;
    programmer_.removeGroup(fec.id);
    fec.isTold = false;
    forgetTold(fec);
  }
  if (fec.isReferred() || fec.isTold || fec.vrfIsThere) return;
  freeMembers(fec);
  for (const GroupMember& gone : std::exchange(fec.resolved, {}))
    nextHops_.release(gone, programmer_);
  byId_.erase(fec.id);
  fecs_.erase(fecs_.find(*fec.key));
}

// --- outcomes -----------------------------------------------------------------------------------

void Resolver::Core::groupOutcome(GroupId group, const std::string& refusal) {
  const auto at = byId_.find(group);
  if (at == byId_.end() || at->second->isRefused == !refusal.empty()) return;
  at->second->isRefused = !refusal.empty();
  for (Candidate* c = at->second->candidates; c; c = c->behind) mark(*c->entry);
}

void Resolver::Core::routeOutcome(const RouteKey& route, const std::string& refusal) {
  Destinations& there = route.isLabel ? *labels_ : table(route.vrf, route.prefix.af());
  Entry* entry = there.entries->entry.find(route.isLabel ? ofLabel(route.label) : route.prefix);
  if (!entry || refusal.empty()) return;
  toldIs(*entry, nullptr);
  refused_[{&there, entry->key()}] = Ref<Entry>(entry);
}

void Resolver::Core::retry() {
  for (const auto& [id, fec] : byId_) {
    if (!std::exchange(fec->isRefused, false)) continue;
    toProgram(*fec);
    for (Candidate* c = fec->candidates; c; c = c->behind) mark(*c->entry);
  }
  for (const auto& [at, entry] : refused_) toProgram(*entry);
  wake();
}

Resolver::Counters Resolver::Core::counters() const {
  return {chosen_, programmed_, fecs_.size(), nextHops_.size(), refused_.size()};
}

// --- the resolver -------------------------------------------------------------------------------

Resolver::Resolver(Programmer& programmer, std::function<bool()> isHearing)
    : core_(std::make_unique<Core>(programmer, std::move(isHearing))) {}

// What the data plane was told stays: whoever comes next finds it.
Resolver::~Resolver() = default;

void Resolver::vrfIs(const Name& vrf, bool exists) {
  core_->vrfIs(vrf, exists);
}
void Resolver::interfaceIs(IntfId intf, bool isUp) {
  core_->interfaceIs(intf, isUp);
}
void Resolver::setGroup(const Name& name, GroupConfig config) {
  core_->setGroup(name, std::move(config));
}
void Resolver::removeGroup(const Name& name) {
  core_->removeGroup(name);
}
void Resolver::setConnected(const Name& vrf, const IpPrefix& prefix, const Owner& owner) {
  core_->setConnected(vrf, prefix, owner);
}
void Resolver::setRoute(const Name& vrf, const Routing::Route& route, const Owner& owner) {
  core_->setRoute(vrf, route, owner);
}
void Resolver::removeRoute(const Name& vrf, const IpPrefix& prefix, uint32_t preference,
                           const Owner& owner) {
  core_->removeRoute(vrf, prefix, preference, owner);
}
void Resolver::setLabelRoute(const Mpls::Route& route, const Owner& owner) {
  core_->setLabelRoute(route, owner);
}
void Resolver::setVrfLabel(uint32_t label, const Name& vrf, const Owner& owner) {
  core_->setVrfLabel(label, vrf, owner);
}
void Resolver::removeLabelRoute(uint32_t label, uint32_t metric, const Owner& owner) {
  core_->removeLabelRoute(label, metric, owner);
}
Resolver::Counters Resolver::counters() const {
  return core_->counters();
}

}  // namespace ryx::routing
