// BFD sessions: the agent's requests, shared with those of other agents in one application's
// configuration, the timers, and the status of the peers.
#include "ryx/bfd.h"

#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "lib/watch.h"
#include "platform/model/bfd.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"

namespace ryx {

class bfd_session_iter_impl : public chained_iter_impl<bfd_session_key_t> {};
template class iter_base<bfd_session_key_t, bfd_session_iter_impl>;

class BfdSessionMgrImpl;

namespace {

using platform::Change;
using platform::Dir;
using platform::Entity;
using platform::Name;
using platform::VrfName;
using platform::Bfd::AppConfig;
using platform::Bfd::AppVrfConfig;
using platform::Bfd::ConfigIntf;
using platform::Bfd::Milliseconds;
using platform::Bfd::Multiplier;
using platform::Bfd::PeerKey;
using platform::Bfd::PeerKeyHash;
using platform::Bfd::PeerState;
using platform::Bfd::PeerStatus;
using platform::Bfd::PeerType;
using platform::Bfd::StatusPeer;
using platform::Bfd::Timers;

constexpr const char* kApplication = "ryxsdk";

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkBfd");
  return facility;
}

// --- convert ------------------------------------------------------------------------------------

// Raises the range error for a VRF name that is too long. The empty address is 0.0.0.0.
PeerKey convert(const bfd_session_key_t& key) {
  const platform::IpAddr ip = ryx::convert(key.ip_addr());
  const auto type = static_cast<PeerType>(key.type());
  const bool isType =
      key.type() >= BFD_SESSION_TYPE_NORMAL && key.type() <= BFD_SESSION_TYPE_MULTIHOP;
  return {ip.isNull() ? platform::IpAddr::v4(0) : ip, VrfName(key.vrf()), ryx::convert(key.intf()),
          isType ? type : PeerType::normal};
}

bfd_session_key_t convert(const PeerKey& key) {
  return {ryx::convert(key.ip), key.vrf.bytes(), static_cast<bfd_session_type_t>(key.type),
          ryx::convert(key.intf)};
}

bfd_session_status_t convert(PeerState state) {
  switch (state) {
    case PeerState::down:
      return BFD_SESSION_STATUS_DOWN;
    case PeerState::init:
      return BFD_SESSION_STATUS_INIT;
    case PeerState::up:
      return BFD_SESSION_STATUS_UP;
    case PeerState::adminDown:
      return BFD_SESSION_STATUS_ADMIN_DOWN;
    case PeerState::other:
      break;
  }
  return BFD_SESSION_STATUS_NULL;
}

// Raises the range error for what is out of range.
Timers convert(const bfd_interval_t& interval) {
  return {Milliseconds(interval.tx()), Milliseconds(interval.rx()), Multiplier(interval.mult())};
}

bfd_interval_t convert(const Timers& timers) {
  return {timers.tx.value(), timers.rx.value(), static_cast<uint8_t>(timers.mult.value())};
}

// --- reactors -----------------------------------------------------------------------------------

// One peer's state, as it was told last.
class QelBfdPeerStatus final : public platform::EntityReactor {
 public:
  QelBfdPeerStatus(BfdSessionMgrImpl& mgr, PeerStatus& peer)
      : EntityReactor("QelBfdPeerStatus"), mgr_(mgr), peer_(&peer) {
    follow(peer, peer.state.bit());
    tellLater(peer.state.bit());  // behind its creation
  }

 private:
  void onAttributes(uint32_t) override { handleStatus(); }
  void handleStatus();

  BfdSessionMgrImpl& mgr_;
  const platform::Ref<PeerStatus> peer_;
  bfd_session_status_t told_ = BFD_SESSION_STATUS_NULL;
};

class BfdSessionMgrSm final : public platform::JournalReactor {
 public:
  BfdSessionMgrSm(BfdSessionMgrImpl& mgr, StatusPeer& status)
      : JournalReactor("BfdSessionMgrSm", Order::second), mgr_(mgr) {
    follow(*status.childJournal());
  }

 private:
  void onEntity(Entity& entity, Change change) override {
    if (auto* peer = entity.as<PeerStatus>(); peer && change != Change::changed)
      handlePeer(*peer, change == Change::created);
  }
  void handlePeer(PeerStatus& peer, bool exists);

  BfdSessionMgrImpl& mgr_;
  std::unordered_map<PeerKey, std::unique_ptr<QelBfdPeerStatus>, PeerKeyHash> peers_;
};

}  // namespace

// --- BfdSessionMgrImpl --------------------------------------------------------------------------

class BfdSessionMgrImpl final : public bfd_session_mgr, public mount_handler {
 public:
  BfdSessionMgrImpl(mount_mgr* mounts, intf_mgr_helper*) : mount_handler(mounts) {}

  void doMounts(mount_group& group) override {
    group.add("bfd/config/app", "Qel::Dir", "w");
    group.add("bfd/config/intf", "Bfd::ConfigIntf", "w");
    group.add("bfd/status/peer", "Bfd::StatusPeer", "r");
    agent_ = group.connection().agentName();
  }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    apps_ = em->find<Dir>("bfd/config/app");
    timers_ = em->find<ConfigIntf>("bfd/config/intf");
    status_ = em->find<StatusPeer>("bfd/status/peer");
    {
      const platform::WriterScope as(*em);
      const VrfName defaultVrf("default");
      if (!app().vrf.find(defaultVrf)) {
        RYX_TRACE(trace(), 1, "creating RyxSdk Bfd app default vrf path");
        app().vrf.create(defaultVrf);
        RYX_TRACE(trace(), 1, "creating RyxSdk Bfd app config for default vrf");
      }
    }
    sm_ = std::make_unique<BfdSessionMgrSm>(*this, *status_);
  }

  bfd_session_iter_t session_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<bfd_session_iter_impl>();
    iter->add_iter(elementSource<bfd_session_key_t>(
        status_->peer.iterator(), [](const auto& it) { return convert(it.key()); }));
    iter->initialize();
    return bfd_session_iter_t(iter.release());
  }

  void session_set(const bfd_session_key_t& key) override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    const PeerKey peer = convert(key);
    app().vrf.create(peer.vrf)->peer.create({peer, agent_})->isAskedFor.set(true);
  }
  void session_del(const bfd_session_key_t& key) override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    const PeerKey peer = convert(key);
    if (AppVrfConfig* vrf = app().vrf.find(peer.vrf)) vrf->peer.erase({peer, agent_});
  }

  bool exists(const bfd_session_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    return find(key) != nullptr;
  }
  bfd_session_t session(const bfd_session_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    const PeerStatus* peer = find(key);
    if (!peer) return bfd_session_t();
    bfd_session_t session(convert(peer->key()));
    session.status_is(convert(peer->state()));
    return session;
  }
  bfd_session_status_t session_status(const bfd_session_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    const PeerStatus* peer = find(key);
    return peer ? convert(peer->state()) : BFD_SESSION_STATUS_NULL;
  }

  void default_interval_is(const bfd_interval_t& interval) override {
    RYX_TRACE_ENTRY(trace(), 7, interval);
    const ApiGuard guard(*this);
    timers_->global.set(convert(interval));
  }
  bfd_interval_t default_interval() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return convert(timers_->global());
  }
  void interval_is(intf_id_t intf, const bfd_interval_t& interval) override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf << interval);
    const ApiGuard guard(*this);
    const Timers timers = convert(interval);
    auto* own = timers_->intf.create(ryx::convert(intf));
    own->timers.set(timers);
    own->isSet.set(true);
  }
  bfd_interval_t interval(intf_id_t intf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    const auto* own = timers_->intf.find(ryx::convert(intf));
    return convert(own ? own->timers() : timers_->global());
  }
  void interval_reset(intf_id_t intf) override {
    RYX_TRACE_ENTRY(trace(), 7, " intf=" << intf);
    const ApiGuard guard(*this);
    timers_->intf.erase(ryx::convert(intf));
  }

  // Events.
  void on_peer(const PeerKey& peer, bool exists) {
    const CallbackGuard guard(*this);
    const bfd_session_key_t key = convert(peer);
    RYX_TRACE(trace(), 5,
              (exists ? "BfdSessionMgrImpl: bfd session created:"
                      : "BfdSessionMgrImpl: bfd session deleted:")
                  << key);
    dispatch_key(key,
                 exists ? &bfd_session_handler::on_bfd_session_set
                        : &bfd_session_handler::on_bfd_session_del,
                 key);
  }
  void on_status(const PeerKey& peer, bfd_session_status_t status) {
    const CallbackGuard guard(*this);
    const bfd_session_key_t key = convert(peer);
    RYX_TRACE(trace(), 5,
              "BfdSessionMgrImpl: bfd session status changed:" << key << ", new status:" << status);
    dispatch_key(key, &bfd_session_handler::on_bfd_session_status, key, status);
  }

 private:
  // The application that all agents share.
  AppConfig& app() const {
    if (auto* there = apps_->entry.find<AppConfig>(kApplication)) return *there;
    RYX_TRACE(trace(), 1, "creating RyxSdk Bfd app path");
    return *apps_->entry.create<AppConfig>(kApplication);
  }
  const PeerStatus* find(const bfd_session_key_t& key) const {
    return status_->peer.find(convert(key));
  }

  std::string agent_;
  Dir* apps_ = nullptr;
  ConfigIntf* timers_ = nullptr;
  StatusPeer* status_ = nullptr;
  std::unique_ptr<BfdSessionMgrSm> sm_;
};

namespace {

void QelBfdPeerStatus::handleStatus() {
  const bfd_session_status_t status = convert(peer_->state());
  if (peer_->dead() || status == told_) return;
  told_ = status;
  mgr_.on_status(PeerKey(peer_->key()), status);
}

// To tell is the last thing that is done.
void BfdSessionMgrSm::handlePeer(PeerStatus& peer, bool exists) {
  const PeerKey key = peer.key();
  if (exists)
    peers_[key] = std::make_unique<QelBfdPeerStatus>(mgr_, peer);
  else
    peers_.erase(key);
  mgr_.on_peer(key, exists);
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, bfd_session_type_t type) {
  switch (type) {
    case BFD_SESSION_TYPE_NULL:
      return out << "BFD_SESSION_TYPE_NULL";
    case BFD_SESSION_TYPE_NORMAL:
      return out << "BFD_SESSION_TYPE_NORMAL";
    case BFD_SESSION_TYPE_MICRO:
      return out << "BFD_SESSION_TYPE_MICRO";
    case BFD_SESSION_TYPE_VXLANTUNNEL:
      return out << "BFD_SESSION_TYPE_VXLANTUNNEL";
    case BFD_SESSION_TYPE_LAGRFC7130:
      return out << "BFD_SESSION_TYPE_LAGRFC7130";
    case BFD_SESSION_TYPE_MICRORFC7130:
      return out << "BFD_SESSION_TYPE_MICRORFC7130";
    case BFD_SESSION_TYPE_MULTIHOP:
      return out << "BFD_SESSION_TYPE_MULTIHOP";
  }
  return out << static_cast<int>(type);
}
std::ostream& operator<<(std::ostream& out, bfd_session_status_t status) {
  switch (status) {
    case BFD_SESSION_STATUS_NULL:
      return out << "BFD_SESSION_STATUS_NULL";
    case BFD_SESSION_STATUS_DOWN:
      return out << "BFD_SESSION_STATUS_DOWN";
    case BFD_SESSION_STATUS_INIT:
      return out << "BFD_SESSION_STATUS_INIT";
    case BFD_SESSION_STATUS_UP:
      return out << "BFD_SESSION_STATUS_UP";
    case BFD_SESSION_STATUS_ADMIN_DOWN:
      return out << "BFD_SESSION_STATUS_ADMIN_DOWN";
  }
  return out << static_cast<int>(status);
}

bfd_session_key_t::bfd_session_key_t() = default;
bfd_session_key_t::bfd_session_key_t(const ip_addr_t& ip_addr, const std::string& vrf,
                                     bfd_session_type_t type, intf_id_t intf)
    : ip_addr_(ip_addr), vrf_(vrf), type_(type), intf_(intf) {}
const ip_addr_t& bfd_session_key_t::ip_addr() const {
  return ip_addr_;
}
void bfd_session_key_t::ip_addr_is(const ip_addr_t& ip_addr) {
  ip_addr_ = ip_addr;
}
const std::string& bfd_session_key_t::vrf() const {
  return vrf_;
}
void bfd_session_key_t::vrf_is(const std::string& vrf) {
  vrf_ = vrf;
}
bfd_session_type_t bfd_session_key_t::type() const {
  return type_;
}
void bfd_session_key_t::type_is(bfd_session_type_t type) {
  type_ = type;
}
intf_id_t bfd_session_key_t::intf() const {
  return intf_;
}
void bfd_session_key_t::intf_is(intf_id_t intf) {
  intf_ = intf;
}
bool bfd_session_key_t::operator==(const bfd_session_key_t& other) const {
  return ip_addr_ == other.ip_addr_ && vrf_ == other.vrf_ && type_ == other.type_ &&
         intf_ == other.intf_;
}
bool bfd_session_key_t::operator!=(const bfd_session_key_t& other) const {
  return !(*this == other);
}
bool bfd_session_key_t::operator<(const bfd_session_key_t& other) const {
  return std::tie(ip_addr_, vrf_, type_, intf_) <
         std::tie(other.ip_addr_, other.vrf_, other.type_, other.intf_);
}
std::size_t bfd_session_key_t::hash() const {
  const uint64_t place = platform::hashMix(ip_addr_.hash(), intf_.hash() + type_);
  return platform::hashMix(place, platform::hashBytes(vrf_.data(), vrf_.size()));
}
std::string bfd_session_key_t::to_string() const {
  std::ostringstream text;
  text << "bfd_session_key_t(ip_addr=" << ip_addr_.to_string() << ", vrf='" << vrf_
       << "', type=" << type_ << ", intf=" << intf_.to_string() << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const bfd_session_key_t& key) {
  return out << key.to_string();
}

bfd_interval_t::bfd_interval_t() = default;
bfd_interval_t::bfd_interval_t(uint32_t tx, uint32_t rx, uint8_t mult)
    : tx_(tx), rx_(rx), mult_(mult) {}
uint32_t bfd_interval_t::tx() const {
  return tx_;
}
void bfd_interval_t::tx_is(uint32_t tx) {
  tx_ = tx;
}
uint32_t bfd_interval_t::rx() const {
  return rx_;
}
void bfd_interval_t::rx_is(uint32_t rx) {
  rx_ = rx;
}
uint8_t bfd_interval_t::mult() const {
  return mult_;
}
void bfd_interval_t::mult_is(uint8_t mult) {
  mult_ = mult;
}
bool bfd_interval_t::operator==(const bfd_interval_t& other) const {
  return tx_ == other.tx_ && rx_ == other.rx_ && mult_ == other.mult_;
}
bool bfd_interval_t::operator!=(const bfd_interval_t& other) const {
  return !(*this == other);
}
bool bfd_interval_t::operator<(const bfd_interval_t& other) const {
  return std::tie(tx_, rx_, mult_) < std::tie(other.tx_, other.rx_, other.mult_);
}
std::size_t bfd_interval_t::hash() const {
  return platform::hashMix(uint64_t{tx_} << 32 | rx_, mult_);
}
std::string bfd_interval_t::to_string() const {
  return " tx: " + std::to_string(tx_) + ", rx: " + std::to_string(rx_) +
         ", mult: " + std::to_string(mult_);
}
std::ostream& operator<<(std::ostream& out, const bfd_interval_t& interval) {
  return out << interval.to_string();
}

bfd_session_t::bfd_session_t() = default;
bfd_session_t::bfd_session_t(const bfd_session_key_t& key) : key_(key) {}
bfd_session_t::bfd_session_t(const ip_addr_t& ip_addr, const std::string& vrf,
                             bfd_session_type_t type, intf_id_t intf)
    : key_(ip_addr, vrf, type, intf) {}
const bfd_session_key_t& bfd_session_t::key() const {
  return key_;
}
void bfd_session_t::key_is(const bfd_session_key_t& key) {
  key_ = key;
}
bfd_session_status_t bfd_session_t::status() const {
  return status_;
}
void bfd_session_t::status_is(bfd_session_status_t status) {
  status_ = status;
}
bool bfd_session_t::operator==(const bfd_session_t& other) const {
  return key_ == other.key_ && status_ == other.status_;
}
bool bfd_session_t::operator!=(const bfd_session_t& other) const {
  return !(*this == other);
}
bool bfd_session_t::operator<(const bfd_session_t& other) const {
  return std::tie(key_, status_) < std::tie(other.key_, other.status_);
}
std::size_t bfd_session_t::hash() const {
  return platform::hashMix(key_.hash(), status_);
}
std::string bfd_session_t::to_string() const {
  std::ostringstream text;
  text << "bfd_session_t(key=" << key_ << ", status=" << status_ << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const bfd_session_t& session) {
  return out << session.to_string();
}

bfd_session_mgr::bfd_session_mgr() = default;
bfd_session_mgr::~bfd_session_mgr() = default;

bfd_session_handler::bfd_session_handler(bfd_session_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
bfd_session_handler::~bfd_session_handler() = default;

void bfd_session_handler::watch_all_bfd_sessions(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void bfd_session_handler::watch_bfd_session(const bfd_session_key_t& key, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as a session-specific handler");
  watchOne(mgr_, this, key, interest);
}

void bfd_session_handler::on_bfd_session_set(const bfd_session_key_t&) {}
void bfd_session_handler::on_bfd_session_del(const bfd_session_key_t&) {}
void bfd_session_handler::on_bfd_session_status(const bfd_session_key_t&, bfd_session_status_t) {}

void sdk::init_bfd_session_mgr() {
  if (bfd_session_mgr_ != nullptr) return;
  init_intf_mgr_helper();
  create<BfdSessionMgrImpl>(bfd_session_mgr_, intf_mgr_helper_);
}
bfd_session_mgr* sdk::get_bfd_session_mgr() {
  return get(bfd_session_mgr_, &sdk::init_bfd_session_mgr, {"IntfMgrHelper", "bfd"});
}

}  // namespace ryx
