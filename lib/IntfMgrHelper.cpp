// What the managers of interfaces share: mounts, the collections of all interfaces, and who is told
// that one came or went.
#include "lib/IntfMgrHelper.h"

#include <algorithm>

#include "lib/context.h"
#include "lib/guard.h"
#include "lib/mounts.h"
#include "platform/base/check.h"
#include "platform/trace/trace.h"

namespace ryx {

namespace {

using namespace platform::Interface;
using platform::Change;
using platform::Dir;
using platform::Entity;
using platform::EntityManager;
using platform::IntfId;
using platform::TypeInfo;
using platform::typeOf;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkIntf");
  return facility;
}

// In the agent's own tree rather than mounted.
constexpr const char* kCreate = "create";

struct Place {
  const char* path;
  const TypeInfo& (*type)();
  const char* mode;
};

const Place kPlaces[] = {
    {"interface/config/eth/phy/slice", &typeOf<Dir>, "wi"},
    {"interface/status/eth/phy/slice", &typeOf<Dir>, "ri"},
    {"interface/config/eth/phy/all", &typeOf<AllEthPhyIntfConfigDir>, kCreate},
    {"interface/status/eth/phy/all", &typeOf<AllEthPhyIntfStatusDir>, kCreate},
    {"interface/config/eth/lag", &typeOf<EthLagIntfConfigDir>, "w"},
    {"interface/status/eth/lag", &typeOf<EthLagIntfStatusDir>, kCreate},
    {"lag/status", &typeOf<platform::Lag::Status>, kCreate},
    {"interface/config/loopback/intf", &typeOf<LoopbackIntfConfigDir>, "w"},
    {"interface/status/loopback/intf", &typeOf<LoopbackIntfStatusDir>, "r"},
    {"interface/config/subintf", &typeOf<SubIntfConfigDir>, "w"},
    {"interface/status/subintf", &typeOf<SubIntfStatusDir>, "r"},
    {"interface/config/eth/managementactive", &typeOf<MgmtActiveIntfConfigDir>, "w"},
    {"interface/status/eth/managementactive", &typeOf<MgmtActiveIntfStatusDir>, "r"},
    {"interface/config/eth/vlan", &typeOf<VlanIntfConfigDir>, "w"},
    {"interface/status/eth/vlan", &typeOf<VlanIntfStatusDir>, "r"},
    {"interface/config/eth/vxlan", &typeOf<platform::Vxlan::VtiConfigDir>, "w"},
    {"interface/status/eth/vxlan", &typeOf<platform::Vxlan::VtiStatusDir>, "r"},
    {"interface/status/local", &typeOf<AllIntfStatusLocalDir>, kCreate},
    // What the agent's own collections of port-channels are copied from.
    {"interface/status/eth/lag", &typeOf<EthLagIntfStatusDir>, "r"},
    {"lag/status", &typeOf<platform::Lag::Status>, "r"},
};

}  // namespace

bool is_internal_interface(intf_id_t intf) {
  const IntfId id = convert(intf);
  return id.isInternal() || id.isPeerEth() || id.isPeerLag();
}

IntfKinds kindsOf(intf_id_t intf) {
  switch (intf.intf_type()) {
    case INTF_TYPE_ETH:
    case INTF_TYPE_MANAGEMENT:
      return {.eth_phy = true, .eth = true, .intf = true};
    case INTF_TYPE_LAG:
      return {.eth_lag = true, .eth = true, .intf = true};
    case INTF_TYPE_VLAN:
    case INTF_TYPE_VXLAN:
      return {.eth = true, .intf = true};
    case INTF_TYPE_LOOPBACK:
      return {.intf = true};
    default:
      return {.eth = intf.is_subintf(), .intf = intf.is_subintf()};
  }
}

// --- existence ----------------------------------------------------------------------------------

IntfExistenceReactor::IntfExistenceReactor(const char* name, IntfMgrHelper& helper)
    : JournalReactor(name, Order::second), helper_(helper) {
  // What stands at the start is no news, but it is known from here on, so that its end will be.
  follow(helper.allIntfConfigDir().journal);
  hearAll();
  starting_ = false;
}

void IntfExistenceReactor::onEntity(Entity& entity, Change change) {
  if (starting_ || change == Change::changed) return;
  auto& entry = static_cast<decltype(AllIntfConfigDir::intf)::Entry&>(entity);
  const intf_id_t intf = convert(entry.key());
  if (is_internal_interface(intf)) return;
  wake();  // a loop that a handler runs gets on with what is left
  const CallbackGuard guard(helper_);
  std::vector<intf_id_t>& hidden = helper_.hidden_;
  if (change == Change::created) {
    std::erase(hidden, intf);
    onExistence(intf, true);
    return;
  }
  struct Hide {
    std::vector<intf_id_t>& hidden;
    const intf_id_t intf;
    ~Hide() {
      auto at = std::find(hidden.begin(), hidden.end(), intf);
      if (at != hidden.end()) hidden.erase(at);
    }
  } hide{hidden, intf};
  hidden.push_back(intf);
  onExistence(intf, false);
}

class IntfMgrHelper::Existence final : public IntfExistenceReactor {
 public:
  explicit Existence(IntfMgrHelper& helper)
      : IntfExistenceReactor("IntfExistence", helper), helper_(helper) {}

 private:
  void onExistence(intf_id_t intf, bool created) override {
    RYX_TRACE(trace(), 5, intf << (created ? " created" : " deleted"));
    if (!created) {
      if (helper_.follower_) helper_.follower_->configWent(intf);
      if (helper_.reporting()) helper_.dispatch_intf_existence_handlers(intf, false);
      return;
    }
    // Told, also when a handler throws.
    struct Told {
      Follower* follower;
      const intf_id_t intf;
      ~Told() {
        if (follower) follower->creationTold(intf);
      }
    } told{helper_.follower_, intf};
    if (helper_.follower_) helper_.follower_->configCame(intf);
    if (helper_.reporting()) helper_.dispatch_intf_existence_handlers(intf, true);
  }

  IntfMgrHelper& helper_;
};

// --- IntfMgrHelper ------------------------------------------------------------------------------

IntfMgrHelper::IntfMgrHelper(mount_mgr* mounts) : intf_mgr_helper(mounts) {}
IntfMgrHelper::~IntfMgrHelper() = default;

void IntfMgrHelper::doMounts(mount_group& group) {
  RYX_TRACE_ENTRY(trace(), 7, "");
  for (const Place& place : kPlaces) {
    const TypeInfo& type = place.type();
    if (place.mode != kCreate)
      group.add(place.path, type.name, place.mode);
    else
      platform::check(platform::makeLocal(group.connection(), place.path, type),
                      "the agent's own collections are its own");
  }
}

void IntfMgrHelper::onMountsComplete(entity_manager& em) {
  RYX_TRACE_ENTRY(trace(), 7, "");
  assemble(*em);
}

void IntfMgrHelper::assemble(EntityManager& em) {
  if (collections_) return;
  collections_ = std::make_unique<platform::IntfCollections>(em);
  lagConfig_ = em.find<EthLagIntfConfigDir>("interface/config/eth/lag");
  subConfig_ = em.find<SubIntfConfigDir>("interface/config/subintf");
  subStatus_ = em.find<SubIntfStatusDir>("interface/status/subintf");
  platform::check(lagConfig_ && subConfig_ && subStatus_, "what was mounted is there");
  existence_ = std::make_unique<Existence>(*this);
}

bool IntfMgrHelper::shows(intf_id_t intf) const {
  return !is_internal_interface(intf) &&
         std::find(hidden_.begin(), hidden_.end(), intf) == hidden_.end();
}

IntfConfig* IntfMgrHelper::config(intf_id_t intf) const {
  if (!shows(intf)) return nullptr;
  auto* entry = allIntfConfigDir().intf.find(convert(intf));
  return entry ? entry->value().get() : nullptr;
}

IntfStatus* IntfMgrHelper::status(intf_id_t intf) const {
  if (is_internal_interface(intf)) return nullptr;
  auto* entry = allIntfStatusDir().intf.find(convert(intf));
  return entry ? entry->value().get() : nullptr;
}

AllIntfConfigDir& IntfMgrHelper::allIntfConfigDir() const {
  return collections_->allIntfConfigDir();
}
AllIntfStatusDir& IntfMgrHelper::allIntfStatusDir() const {
  return collections_->allIntfStatusDir();
}
AllIntfStatusLocalDir& IntfMgrHelper::allIntfStatusLocalDir() const {
  return collections_->allIntfStatusLocalDir();
}
AllEthPhyIntfConfigDir& IntfMgrHelper::allEthPhyIntfConfigDir() const {
  return collections_->allEthPhyIntfConfigDir();
}
AllEthPhyIntfStatusDir& IntfMgrHelper::allEthPhyIntfStatusDir() const {
  return collections_->allEthPhyIntfStatusDir();
}
EthLagIntfStatusDir& IntfMgrHelper::ethLagIntfStatusDir() const {
  return collections_->ethLagIntfStatusDir();
}
platform::Lag::Status& IntfMgrHelper::lagStatus() const {
  return collections_->lagStatus();
}

// --- the public classes -------------------------------------------------------------------------

intf_existence_listener::~intf_existence_listener() = default;

intf_mgr_helper::intf_mgr_helper(mount_mgr* mgr) : mount_handler(mgr) {}
intf_mgr_helper::~intf_mgr_helper() = default;

void intf_mgr_helper::dispatch_intf_existence_handlers(intf_id_t intf, bool created) {
  const auto tell = [&](intf_existence_listener* mgr) {
    if (mgr) mgr->on_intf_existence(intf, created);
  };
  const IntfKinds kinds = kindsOf(intf);
  if (kinds.eth_phy) tell(eth_phy_intf_mgr_);
  if (kinds.eth_lag) tell(eth_lag_intf_mgr_);
  if (kinds.eth) tell(eth_intf_mgr_);
  if (kinds.intf) tell(intf_mgr_);
}

void sdk::init_intf_mgr_helper() {
  create<IntfMgrHelper>(intf_mgr_helper_);
}

}  // namespace ryx
