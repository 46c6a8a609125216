#include "platform/interface/collections.h"

#include <algorithm>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/base/check.h"
#include "platform/qel/reactor.h"

namespace ryx::platform {

using namespace Interface;

namespace {

constexpr const char* kConfigPaths[] = {
    "interface/config/eth/phy/slice",
    "interface/config/eth/lag",
    "interface/config/loopback/intf",
    "interface/config/subintf",
    "interface/config/eth/managementactive",
    "interface/config/eth/vlan",
    "interface/config/eth/vxlan",
};
constexpr const char* kStatusPaths[] = {
    "interface/status/eth/phy/slice",
    "interface/status/eth/lag",
    "interface/status/loopback/intf",
    "interface/status/subintf",
    "interface/status/eth/managementactive",
    "interface/status/eth/vlan",
    "interface/status/eth/vxlan",
};
constexpr const char* kLagStatusPath = "interface/status/eth/lag";
constexpr const char* kLagPath = "lag/status";

// A reactor on whatever stands at its paths.
class Follower : public JournalReactor {
 public:
  void followPath(EntityManager& em, std::string_view path) {
    if (Entity* root = em.find(path)) follow(*root->childJournal(), true);
  }

 protected:
  explicit Follower(const char* name) : JournalReactor(name, Order::first) {}
};

// Entries of one of the tables that refer to `entity`, or do not any more.
template <class Dir, class Entry>
void show(Dir& dir, IntfId key, Entry* entity) {
  if (auto* there = dir.intf.find(key)) {
    if (there->value().get() == entity) return;
    dir.intf.remove(*there);
  }
  if (entity) dir.intf.set(key, Ref<Entry>(entity));
}

}  // namespace

Entity* makeLocal(EntityManager& em, std::string_view path, const TypeInfo& type) {
  Dir* dir = &em.localRoot();
  for (size_t slash; (slash = path.find('/')) != std::string_view::npos;) {
    dir = dir->entry.create<Dir>(Name(path.substr(0, slash)));
    if (!dir) return nullptr;
    path.remove_prefix(slash + 1);
  }
  return dir->entry.create(type, Name(path));
}

// Chooses, for each identifier, which entity is shown. What is not shown although it is there waits
// in a table that is empty but for the rare identifiers that several entities have.
template <class Entry>
class IntfCollections::Assembly : public Follower {
 public:
  size_t conflicts() const { return waiting_.size(); }

 protected:
  using Follower::Follower;

  // The entity that is shown for the identifier, or null.
  virtual Entry* shown(IntfId key) const = 0;
  virtual void showNow(IntfId key, Entry* entity) = 0;
  // An attribute of the one that is shown was written.
  virtual void shownChanged(Entry&) {}

  void onEntity(Entity& e, Change change) override {
    auto* entity = e.as<Entry>();
    if (!entity) return;
    if (change == Change::created)
      come(*entity);
    else if (change == Change::deleted)
      go(*entity);
    else if (shown(entity->key()) == entity)
      shownChanged(*entity);
  }

 private:
  void come(Entry& entity) {
    Entry* other = shown(entity.key());
    if (other == &entity) return;
    if (other && other->alive() && other->generation() > entity.generation()) {
      waiting_[entity.key()].push_back(Ref<Entry>(&entity));
      return;
    }
    if (other && other->alive()) waiting_[entity.key()].push_back(Ref<Entry>(other));
    showNow(entity.key(), &entity);
  }

  void go(Entry& entity) {
    const IntfId key = entity.key();
    Entry* successor = nullptr;
    if (auto at = waiting_.find(key); at != waiting_.end()) {
      auto& others = at->second;
      std::erase_if(others, [&](const Ref<Entry>& e) { return e.get() == &entity || !e->alive(); });
      if (shown(key) == &entity && !others.empty()) {
        auto last = std::max_element(others.begin(), others.end(), [](auto& a, auto& b) {
          return a->generation() < b->generation();
        });
        successor = last->get();
        // Its place is the table's from now on; the reference there keeps it.
        showNow(key, successor);
        others.erase(last);
      }
      if (others.empty()) waiting_.erase(at);
    }
    if (!successor && shown(key) == &entity) showNow(key, nullptr);
  }

  std::unordered_map<IntfId, std::vector<Ref<Entry>>> waiting_;
};

class IntfCollections::ConfigAssembly final : public Assembly<IntfConfig> {
 public:
  ConfigAssembly(IntfCollections& view, EntityManager& em)
      : Assembly("IntfConfigAssembly"), view_(view) {
    for (const char* path : kConfigPaths) followPath(em, path);
    hearAll();
  }

 private:
  IntfConfig* shown(IntfId key) const override {
    auto* entry = view_.allConfig_->intf.find(key);
    return entry ? entry->value().get() : nullptr;
  }
  void showNow(IntfId key, IntfConfig* entity) override {
    show(*view_.allConfig_, key, entity);
    show(*view_.phyConfig_, key, entity ? entity->as<EthPhyIntfConfig>() : nullptr);
  }

  IntfCollections& view_;
};

class IntfCollections::StatusAssembly final : public Assembly<IntfStatus> {
 public:
  StatusAssembly(IntfCollections& view, EntityManager& em)
      : Assembly("IntfStatusAssembly"), view_(view) {
    for (const char* path : kStatusPaths) followPath(em, path);
    hearAll();
  }

 private:
  IntfStatus* shown(IntfId key) const override {
    auto* entry = view_.allStatus_->intf.find(key);
    return entry ? entry->value().get() : nullptr;
  }
  void showNow(IntfId key, IntfStatus* entity) override {
    show(*view_.allStatus_, key, entity);
    show(*view_.phyStatus_, key, entity ? entity->as<EthPhyIntfStatus>() : nullptr);
    showDevice(key, entity);
  }
  void shownChanged(IntfStatus& entity) override { showDevice(entity.key(), &entity); }

  void showDevice(IntfId key, IntfStatus* entity) {
    std::string_view name = entity ? std::string_view(entity->deviceName()) : std::string_view();
    show(*view_.allLocal_, key, name.empty() ? nullptr : entity);
    view_.kernelNames_.nameIs(key, name);
  }

  IntfCollections& view_;
};

// Keeps a collection the same as one of the switch's.
class IntfCollections::Copy final : public Follower {
 public:
  Copy(EntityManager& em, const char* path, CollectionBase& to) : Follower("IntfCopy"), to_(to) {
    followPath(em, path);
    hearAll();
  }

 private:
  void onEntity(Entity& e, Change change) override {
    const Kind& kind = *e.type().keyKind;
    Entity* mine = to_.findErased(e.keyData(), kind);
    if (change == Change::deleted) {
      if (mine) to_.remove(*mine);
      return;
    }
    if (!mine) {
      Ref<Entity> made = EntityOps::make(e.type());
      kind.assign(made->at(e.type().keyOffset), e.keyData());
      mine = to_.add(made);
    }
    EntityOps::copyAttributes(*mine, e);
  }

  CollectionBase& to_;
};

IntfCollections::IntfCollections(EntityManager& em)
    : allConfig_(makeLocal<AllIntfConfigDir>(em, "interface/config/all")),
      allStatus_(makeLocal<AllIntfStatusDir>(em, "interface/status/all")),
      allLocal_(makeLocal<AllIntfStatusLocalDir>(em, "interface/status/local")),
      phyConfig_(makeLocal<AllEthPhyIntfConfigDir>(em, "interface/config/eth/phy/all")),
      phyStatus_(makeLocal<AllEthPhyIntfStatusDir>(em, "interface/status/eth/phy/all")),
      lagStatusDir_(makeLocal<EthLagIntfStatusDir>(em, kLagStatusPath)),
      lagStatus_(makeLocal<Lag::Status>(em, kLagPath)) {
  check(allConfig_ && allStatus_ && allLocal_ && phyConfig_ && phyStatus_ && lagStatusDir_ &&
            lagStatus_ && makeLocal<AgentPlugin>(em, "IntfCollections"),
        "the places of the interface collections are theirs");
  config_ = std::make_unique<ConfigAssembly>(*this, em);
  status_ = std::make_unique<StatusAssembly>(*this, em);
  lagStatusCopy_ = std::make_unique<Copy>(em, kLagStatusPath, lagStatusDir_->intf);
  lagCopy_ = std::make_unique<Copy>(em, kLagPath, lagStatus_->phyIntf);
}

IntfCollections::~IntfCollections() = default;

size_t IntfCollections::conflicts() const {
  return config_->conflicts() + status_->conflicts();
}

}  // namespace ryx::platform
