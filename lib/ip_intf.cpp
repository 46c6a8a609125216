// IP addresses of interfaces: configuration that all agents share, and what of it, or beside it, is
// active.
//
// What is told is a difference: of the addresses that handlers know at an interface and those that
// are active. A status that changes in several steps may show an address neither as primary nor as
// secondary in between, where it only changes from one to the other. So an address that the
// configuration promotes or demotes is moving: until the status shows it as it is configured, it is
// not told to go. One that is configured no more is not moving, whoever deleted it; and after
// kPatience what the status shows then holds.
//
// (One expectation for each address, and not queues of them: what was overtaken then blocks nothing
// that comes later.)
#include "ryx/ip_intf.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/guard.h"
#include "lib/mounts.h"
#include "lib/watch.h"
#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/interface/address_assignment.h"
#include "platform/model/ip.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

class IpIntfMgrImpl;

namespace {

using platform::AddressAssignment;
using platform::Af;
using platform::Change;
using platform::Entity;
using platform::IntfId;
using platform::IpAddrMask;
using platform::Ref;
using platform::SmallSet;
using platform::Ip::IpIntfConfig;
using platform::Ip::IpIntfStatus;
using VlanTable = platform::IntfVlanId::Table;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkIpIntf");
  return facility;
}

// --- convert ------------------------------------------------------------------------------------

[[noreturn]] void refuse(const char* why) {
  panic(invalid_argument_error("addr", why));
}

// Raises the error for an address that no interface can have.
IpAddrMask convertOwn(const ip_addr_mask_t& addr) {
  if (addr.af() == AF_IPV4) {
    if (addr.mask_length() > 32) refuse("An IPv4 mask has at most 32 bits");
    if (!platform::Ip::isAssigned(convert(addr))) refuse("0.0.0.0/0 is no address");
  } else if (addr.af() != AF_IPV6) {
    refuse("Unsupported AF type");
  } else if (convert(addr).addr().isLinkLocal()) {
    refuse("Link-local addresses unsupported");
  }
  return convert(addr);
}

// What an address is in a configuration or status: bits, so that it can be both for a moment.
constexpr unsigned kPrimary = 1, kSecondary = 2;
unsigned roleOf(const IpAddrMask& addr, const IpAddrMask& primary,
                const SmallSet<IpAddrMask>& secondaries) {
  return (addr == primary ? kPrimary : 0) | (secondaries.contains(addr) ? kSecondary : 0);
}

// --- reactors -----------------------------------------------------------------------------------

class IpIntfMgrSm;

// One interface's active addresses of one family, and what handlers know of them. It ends when the
// interface has no such status any more and all of it was told.
class AddrStatusSm : public platform::EntityReactor {
 public:
  AddrStatusSm(const char* name, IpIntfMgrImpl& mgr, intf_id_t intf)
      : EntityReactor(name), mgr_(mgr), intf_(intf) {}

  // `isKnown`: its addresses are no news.
  void statusIs(Entity& status, bool isKnown);
  // What is left of it is told before another status is.
  void statusEnded();

 protected:
  // Ascending.
  virtual std::vector<IpAddrMask> active() const = 0;
  virtual void followStatus(Entity& status) = 0;
  // Addresses that are not to be told to go yet.
  virtual bool isMoving(const IpAddrMask&) const { return false; }
  // Before differences are looked for.
  virtual void statusChanged() {}
  virtual void ended() {}
  // Differences are looked for, though the status is as it was.
  void lookAgain() { tellLater(kLook); }

  IpIntfMgrImpl& mgr_;
  const intf_id_t intf_;

 private:
  // Beyond the bits of attributes: to look for differences; to tell the next one.
  static constexpr uint32_t kLook = 1u << 30, kTellNext = 1u << 31;

  void onAttributes(uint32_t attributes) override;
  void compare();
  void finish();

  SmallSet<IpAddrMask> known_;
  std::vector<std::pair<IpAddrMask, bool>> due_;  // to be told: what comes (true) and goes
  size_t told_ = 0;                               // of them
  bool ended_ = false;
  Ref<Entity> next_;
};

class IpIntfStatusSm final : public AddrStatusSm {
 public:
  // Named bound: how long an address may be on its way between primary and secondary, in seconds.
  static constexpr double kPatience = 5;

  IpIntfStatusSm(IpIntfMgrImpl& mgr, intf_id_t intf) : AddrStatusSm("IpIntfStatusSm", mgr, intf) {}

  // It is configured to be primary (kPrimary) where it was secondary, or the other way round. Told
  // by who does it, at once, and by who follows what is configured.
  void moves(const IpAddrMask& addr, unsigned role) {
    const auto [at, isFirst] = moving_.try_emplace(addr, Road{role});
    if (at->second.role == role && !isFirst) return;
    at->second = {role, !isFirst};
    patience_.armAt(platform::clock().now() + kPatience);
  }
  // One that moves may be configured no more.
  void configChanged() {
    if (!moving_.empty()) lookAgain();
  }

 private:
  class Patience final : public platform::Timer {
   public:
    explicit Patience(IpIntfStatusSm& sm) : Timer("IpIntfStatusSm"), sm_(sm) {}
    void onTimer() override {
      sm_.moving_.clear();
      sm_.lookAgain();
    }

   private:
    IpIntfStatusSm& sm_;
  };

  // One that turned round on its way may look as if it had arrived when it has not started: what
  // the status then shows of it is believed when kPatience is over.
  struct Road {
    unsigned role;  // that it goes to
    bool isThereAndBack = false;
  };

  void followStatus(Entity& status) override {
    status_ = status.as<IpIntfStatus>();
    follow(status, status_->activeAddrWithMask.bit() | status_->activeSecondaryWithMask.bit());
  }
  std::vector<IpAddrMask> active() const override {
    return platform::Ip::allOf(status_->activeAddrWithMask(), status_->activeSecondaryWithMask());
  }
  bool isMoving(const IpAddrMask& addr) const override { return moving_.count(addr) != 0; }
  void statusChanged() override;
  void ended() override { moving_.clear(); }

  IpIntfStatus* status_ = nullptr;  // kept by what follows it
  std::map<IpAddrMask, Road> moving_;
  Patience patience_{*this};
};

class Ip6IntfStatusSm final : public AddrStatusSm {
 public:
  Ip6IntfStatusSm(IpIntfMgrImpl& mgr, intf_id_t intf)
      : AddrStatusSm("Ip6IntfStatusSm", mgr, intf) {}

 private:
  void followStatus(Entity& status) override {
    status_ = status.as<platform::Ip6::IntfStatus>();
    follow(status, status_->activeAddr.bit());
  }
  std::vector<IpAddrMask> active() const override {
    return {status_->activeAddr().begin(), status_->activeAddr().end()};
  }

  platform::Ip6::IntfStatus* status_ = nullptr;  // kept by what follows it
};

// Follows what is configured, whoever configures it, ahead of what follows the status: it says
// which addresses move.
class IpIntfConfigSm final : public platform::JournalReactor {
 public:
  IpIntfConfigSm(IpIntfMgrSm& sm, platform::Ip::Config& config);

 private:
  struct Roles {
    IpAddrMask primary;
    SmallSet<IpAddrMask> secondaries;
  };

  void onEntity(Entity& entity, Change change) override;

  IpIntfMgrSm& sm_;
  std::unordered_map<IntfId, Roles> roles_;  // as they were
};

// Keeps the interfaces' reactors.
class IpIntfMgrSm final : public platform::JournalReactor {
 public:
  IpIntfMgrSm(IpIntfMgrImpl& mgr, platform::Ip::Config& config, platform::Ip::Status& ip,
              platform::Ip6::Status& ip6, VlanTable& vlans);

  IpIntfStatusSm* find(intf_id_t intf) {
    const auto at = ip_.find(intf);
    return at == ip_.end() ? nullptr : at->second.get();
  }
  // There is nothing left to tell.
  void forget(AddrStatusSm& sm, intf_id_t intf) {
    if (const auto at = ip_.find(intf); at != ip_.end() && at->second.get() == &sm)
      ip_.erase(at);
    else
      ip6_.erase(intf);
  }

 private:
  template <class Sm>
  using ByIntf = std::unordered_map<intf_id_t, std::unique_ptr<Sm>>;

  void onEntity(Entity& entity, Change change) override;
  template <class Sm>
  void statusChanged(ByIntf<Sm>& sms, IntfId id, Entity& status, Change change);

  IpIntfMgrImpl& mgr_;
  bool starting_ = true;
  ByIntf<IpIntfStatusSm> ip_;
  ByIntf<Ip6IntfStatusSm> ip6_;
  IpIntfConfigSm config_;
};

}  // namespace

// --- IpIntfMgrImpl ------------------------------------------------------------------------------

class IpIntfMgrImpl final : public ip_intf_mgr, public mount_handler {
 public:
  explicit IpIntfMgrImpl(mount_mgr* mounts) : mount_handler(mounts), mounts_(mounts) {}

  void doMounts(mount_group& group) override {
    group.add("ip/config", "Ip::Config", "w");
    group.add("ip/status", "Ip::Status", "r");
    group.add("ip/vrf/intf", "Ip::IntfVrfConfig", "r");
    group.add("ip6/config", "Ip6::Config", "w");
    group.add("ip6/status", "Ip6::Status", "r");
    group.add("vlan/internal", "IntfVlanId::Table", "r");
  }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    ip_ = em->find<platform::Ip::Config>("ip/config");
    ip6_ = em->find<platform::Ip6::Config>("ip6/config");
    ipStatus_ = em->find<platform::Ip::Status>("ip/status");
    ip6Status_ = em->find<platform::Ip6::Status>("ip6/status");
    vlans_ = em->find<VlanTable>("vlan/internal");
    vrfs_ = em->find<platform::Ip::IntfVrfConfig>("ip/vrf/intf");
    sm_ = std::make_unique<IpIntfMgrSm>(*this, *ip_, *ipStatus_, *ip6Status_, *vlans_);
  }

  bool exists(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    const IntfId id = convert(intf);
    return ip_->ipIntfConfig.find(id) || ip6_->intf.find(id) || ipStatus_->ipIntfStatus.find(id) ||
           ip6Status_->intf.find(id);
  }
  std::set<ip_addr_mask_t> ip_addrs(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    std::set<ip_addr_mask_t> all;
    for (const IpAddrMask& addr : configured(convert(intf))) all.insert(all.end(), convert(addr));
    return all;
  }

  void ip_addr_add(intf_id_t intf, const ip_addr_mask_t& addr) override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf << " addr=" << addr);
    const ApiGuard guard(*this);
    const IpAddrMask own = convertOwn(addr);
    const IntfId id = convert(intf);
    if (isConfigured(id, own)) return;
    checkAssignment(id, {}, {own});
    if (own.af() == Af::ipv6) {
      insert(ip6_->intf.create(id)->addr, own);
      return;
    }
    IpIntfConfig& config = *ip_->ipIntfConfig.create(id);
    if (platform::Ip::isAssigned(config.addrWithMask()))
      insert(config.secondaryWithMask, own);
    else
      config.addrWithMask.set(own);
  }

  void ip_addr_del(intf_id_t intf, const ip_addr_mask_t& addr) override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf << " addr=" << addr);
    const ApiGuard guard(*this);
    if (addr.af() != AF_IPV4 && addr.af() != AF_IPV6) refuse("Unsupported AF type");
    const IpAddrMask own = convert(addr);
    const IntfId id = convert(intf);
    if (own.af() == Af::ipv6) {
      erase(ip6_->intf.create(id)->addr, own);
      return;
    }
    IpIntfConfig* config = ip_->ipIntfConfig.find(id);
    if (config == nullptr) return;
    const auto& secondaries = config->secondaryWithMask();
    if (own != config->addrWithMask())
      erase(config->secondaryWithMask, own);
    else if (secondaries.empty())
      config->addrWithMask.set(IpAddrMask());
    else
      promoteAddr(intf, IpAddrMask(*secondaries.begin()), *config);
  }

  void ip_addrs_is(intf_id_t intf, const std::set<ip_addr_mask_t>& addrs) override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf << " addrs=" << addrs.size());
    const ApiGuard guard(*this);
    std::vector<IpAddrMask> wanted;
    for (const ip_addr_mask_t& addr : addrs) wanted.push_back(convertOwn(addr));
    const IntfId id = convert(intf);
    const std::vector<IpAddrMask> before = configured(id);
    std::vector<IpAddrMask> leaving, joining;
    std::set_difference(before.begin(), before.end(), wanted.begin(), wanted.end(),
                        std::back_inserter(leaving));
    std::set_difference(wanted.begin(), wanted.end(), before.begin(), before.end(),
                        std::back_inserter(joining));
    checkAssignment(id, leaving, joining);
    for (const IpAddrMask& addr : leaving)
      RYX_TRACE(trace(), 1, "Removing " << addr << " from " << intf);
    const auto ip6 = std::find_if(wanted.begin(), wanted.end(),
                                  [](const IpAddrMask& addr) { return addr.af() == Af::ipv6; });
    ip4AddrsAre(intf, {wanted.begin(), ip6});
    ip6AddrsAre(id, {ip6, wanted.end()});
  }

  vlan_id_t internal_vlan_id(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    const auto* vlan = vlans_->intfVlanIdTable.get(convert(intf));
    return vlan == nullptr ? 0 : vlan->value();
  }

  // Events.
  void handleAddr(intf_id_t intf, const IpAddrMask& addr, bool comes) {
    const CallbackGuard guard(*this);
    RYX_TRACE(trace(), 5, intf << (comes ? " has " : " has no longer ") << addr);
    dispatch_key(intf, comes ? &ip_intf_handler::on_ip_addr_add : &ip_intf_handler::on_ip_addr_del,
                 intf, convert(addr));
  }
  void handleVlan(intf_id_t intf, vlan_id_t vlan) {
    const CallbackGuard guard(*this);
    RYX_TRACE(trace(), 5, intf << " has the internal VLAN " << vlan);
    dispatch_key(intf, &ip_intf_handler::on_internal_vlan_id, intf, vlan);
  }
  void handleEnd(AddrStatusSm& sm, intf_id_t intf) { sm_->forget(sm, intf); }

  // Handlers may be told: `on_initialized` comes first.
  bool reporting() const { return mounts_->initializationComplete(); }
  const IpIntfConfig* config(intf_id_t intf) const { return ip_->ipIntfConfig.find(convert(intf)); }

 private:
  using Addrs = SmallSet<IpAddrMask>;

  template <class Attribute>
  static void insert(Attribute& attribute, const IpAddrMask& addr) {
    attribute.edit([&](Addrs& addrs) { return addrs.insert(addr); });
  }
  template <class Attribute>
  static void erase(Attribute& attribute, const IpAddrMask& addr) {
    attribute.edit([&](Addrs& addrs) { return addrs.erase(addr); });
  }
  std::vector<IpAddrMask> configured(IntfId intf) const {
    return platform::Ip::configuredAddrs(*ip_, *ip6_, intf);
  }
  bool isConfigured(IntfId intf, const IpAddrMask& addr) const {
    const auto* ip6 = ip6_->intf.find(intf);
    if (addr.af() == Af::ipv6) return ip6 && ip6->addr().contains(addr);
    const IpIntfConfig* ip = ip_->ipIntfConfig.find(intf);
    return ip && roleOf(addr, ip->addrWithMask(), ip->secondaryWithMask()) != 0;
  }
  // Raises the error for the first of those that join that overlaps.
  void checkAssignment(IntfId intf, const std::vector<IpAddrMask>& leaving,
                       const std::vector<IpAddrMask>& joining) {
    if (!assignment_) assignment_.emplace(*ip_, *ip6_, *vrfs_);
    if (const auto refused = assignment_->refused(intf, leaving, joining))
      panic(address_overlap_error(convert(*refused)));
  }

  void promoteAddr(intf_id_t intf, const IpAddrMask& secondary, IpIntfConfig& config) {
    RYX_TRACE(trace(), 1,
              "Suppressing notifications for promotion of " << secondary << " on " << intf);
    if (IpIntfStatusSm* sm = sm_->find(intf)) sm->moves(secondary, kPrimary);
    config.addrWithMask.set(secondary);
    erase(config.secondaryWithMask, secondary);
  }
  void demoteAddr(intf_id_t intf, const IpAddrMask& primary, IpIntfConfig& config) {
    RYX_TRACE(trace(), 1,
              "Suppressing notifications for demotion of " << primary << " on " << intf);
    if (IpIntfStatusSm* sm = sm_->find(intf)) sm->moves(primary, kSecondary);
    insert(config.secondaryWithMask, primary);
  }

  // The smallest is the primary one. One attribute is written before the other, with all addresses
  // that stay in one of them at least.
  void ip4AddrsAre(intf_id_t intf, std::vector<IpAddrMask> addrs) {
    IpIntfConfig* config = ip_->ipIntfConfig.find(convert(intf));
    if (!config && addrs.empty()) return;
    if (!config) config = ip_->ipIntfConfig.create(convert(intf));
    const IpAddrMask before = config->addrWithMask();
    const IpAddrMask primary = addrs.empty() ? IpAddrMask() : addrs.front();
    if (primary != before) {
      if (std::binary_search(addrs.begin(), addrs.end(), before)) demoteAddr(intf, before, *config);
      if (config->secondaryWithMask().contains(primary))
        promoteAddr(intf, primary, *config);
      else
        config->addrWithMask.set(primary);
    }
    if (!addrs.empty()) addrs.erase(addrs.begin());
    config->secondaryWithMask.set(Addrs(std::move(addrs)));
  }
  void ip6AddrsAre(IntfId intf, std::vector<IpAddrMask> addrs) {
    auto* config = ip6_->intf.find(intf);
    if (!config && addrs.empty()) return;
    if (!config) config = ip6_->intf.create(intf);
    config->addr.set(Addrs(std::move(addrs)));
  }

  mount_mgr* const mounts_;
  platform::Ip::Config* ip_ = nullptr;
  platform::Ip6::Config* ip6_ = nullptr;
  platform::Ip::Status* ipStatus_ = nullptr;
  platform::Ip6::Status* ip6Status_ = nullptr;
  platform::Ip::IntfVrfConfig* vrfs_ = nullptr;
  VlanTable* vlans_ = nullptr;
  std::optional<AddressAssignment> assignment_;  // of an agent that configures
  std::unique_ptr<IpIntfMgrSm> sm_;
};

namespace {

void AddrStatusSm::statusIs(Entity& status, bool isKnown) {
  if (ended_) {
    next_ = Ref<Entity>(&status);
    return;
  }
  followStatus(status);
  if (isKnown)
    known_.insertAll(active());
  else
    lookAgain();
}

void AddrStatusSm::statusEnded() {
  if (ended_) {
    next_ = {};  // it ended as well, before anything of it was told
    return;
  }
  ended_ = true;
  ended();
  lookAgain();
}

// One address a run: a handler that throws, or runs the loop, takes no other along.
void AddrStatusSm::onAttributes(uint32_t attributes) {
  if (attributes != kTellNext) compare();
  if (!mgr_.reporting()) {
    for (const auto& [addr, comes] : std::exchange(due_, {}))
      comes ? known_.insert(addr) : known_.erase(addr);
  }
  if (told_ == due_.size()) return finish();
  const auto [addr, comes] = due_[told_++];
  comes ? known_.insert(addr) : known_.erase(addr);
  tellLater(kTellNext);
  mgr_.handleAddr(intf_, addr, comes);
}

void AddrStatusSm::compare() {
  if (!ended_) statusChanged();
  const std::vector<IpAddrMask> now = ended_ ? std::vector<IpAddrMask>() : active();
  std::vector<IpAddrMask> goes, comes;
  std::set_difference(known_.begin(), known_.end(), now.begin(), now.end(),
                      std::back_inserter(goes));
  std::set_difference(now.begin(), now.end(), known_.begin(), known_.end(),
                      std::back_inserter(comes));
  due_.clear();
  told_ = 0;
  for (const IpAddrMask& addr : goes)
    if (!isMoving(addr)) due_.emplace_back(addr, false);
  for (const IpAddrMask& addr : comes) due_.emplace_back(addr, true);
}

// All that is due was told.
void AddrStatusSm::finish() {
  due_ = {};
  told_ = 0;
  if (!ended_) return;
  ended_ = false;
  if (const Ref<Entity> next = std::exchange(next_, {}))
    statusIs(*next, false);
  else
    mgr_.handleEnd(*this, intf_);
}

// Those that it shows as they are configured have arrived.
void IpIntfStatusSm::statusChanged() {
  if (moving_.empty()) return;
  const IpIntfConfig* config = mgr_.config(intf_);
  std::erase_if(moving_, [&](const auto& entry) {
    const auto& [addr, road] = entry;
    const unsigned wanted =
        config ? roleOf(addr, config->addrWithMask(), config->secondaryWithMask()) : 0;
    const unsigned shown =
        roleOf(addr, status_->activeAddrWithMask(), status_->activeSecondaryWithMask());
    return wanted == 0 || (!road.isThereAndBack && wanted == shown);
  });
}

IpIntfConfigSm::IpIntfConfigSm(IpIntfMgrSm& sm, platform::Ip::Config& config)
    : JournalReactor("IpIntfConfigSm", Order::second), sm_(sm) {
  follow(config.journal);
  hearAll();
}

void IpIntfConfigSm::onEntity(Entity& entity, Change change) {
  const auto* config = entity.as<IpIntfConfig>();
  if (!config) return;
  const Roles now = change == Change::deleted
                        ? Roles()
                        : Roles{config->addrWithMask(), config->secondaryWithMask()};
  Roles& before = roles_[config->key()];
  if (IpIntfStatusSm* sm = sm_.find(convert(config->key()))) {
    if (now.secondaries.contains(before.primary)) sm->moves(before.primary, kSecondary);
    if (before.secondaries.contains(now.primary)) sm->moves(now.primary, kPrimary);
    sm->configChanged();
  }
  before = now;
  if (change == Change::deleted) roles_.erase(config->key());
}

IpIntfMgrSm::IpIntfMgrSm(IpIntfMgrImpl& mgr, platform::Ip::Config& config, platform::Ip::Status& ip,
                         platform::Ip6::Status& ip6, VlanTable& vlans)
    : JournalReactor("IpIntfMgrSm"), mgr_(mgr), config_(*this, config) {
  // What stands at the start is no news, but it is known from here on, so that its end will be.
  for (platform::Journal* journal : {&ip.journal, &ip6.journal, &vlans.journal}) follow(*journal);
  hearAll();
  starting_ = false;
}

void IpIntfMgrSm::onEntity(Entity& entity, Change change) {
  if (const auto* status = entity.as<IpIntfStatus>())
    return statusChanged(ip_, status->key(), entity, change);
  if (const auto* status = entity.as<platform::Ip6::IntfStatus>())
    return statusChanged(ip6_, status->key(), entity, change);
  if (starting_ || !mgr_.reporting()) return;
  const auto& entry = static_cast<const decltype(VlanTable::intfVlanIdTable)::Entry&>(entity);
  wake();  // a loop that a handler runs gets on with what is left
  mgr_.handleVlan(convert(entry.key()), change == Change::deleted ? 0 : entry.value().value());
}

template <class Sm>
void IpIntfMgrSm::statusChanged(ByIntf<Sm>& sms, IntfId id, Entity& status, Change change) {
  if (change == Change::changed) return;
  const intf_id_t intf = convert(id);
  std::unique_ptr<Sm>& sm = sms[intf];
  if (!sm) sm = std::make_unique<Sm>(mgr_, intf);
  if (change == Change::created)
    sm->statusIs(status, starting_);
  else
    sm->statusEnded();
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

ip_intf_mgr::ip_intf_mgr() = default;
ip_intf_mgr::~ip_intf_mgr() = default;

ip_intf_handler::ip_intf_handler(ip_intf_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
ip_intf_handler::~ip_intf_handler() = default;

void ip_intf_handler::watch_all_ip_intfs(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void ip_intf_handler::watch_ip_intf(intf_id_t intf, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as an interface-specific handler");
  watchOne(mgr_, this, intf, interest);
}

void ip_intf_handler::on_ip_addr_add(intf_id_t, const ip_addr_mask_t&) {}
void ip_intf_handler::on_ip_addr_del(intf_id_t, const ip_addr_mask_t&) {}
void ip_intf_handler::on_internal_vlan_id(intf_id_t, vlan_id_t) {}

void sdk::init_ip_intf_mgr() {
  if (ip_intf_mgr_ == nullptr) create<IpIntfMgrImpl>(ip_intf_mgr_);
}
ip_intf_mgr* sdk::get_ip_intf_mgr() {
  return get(ip_intf_mgr_, &sdk::init_ip_intf_mgr, {"ip_intf"});
}

}  // namespace ryx
