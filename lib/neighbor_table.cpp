// Neighbours: the agent's own entries, in its input of the default VRF, and the switch's table,
// which is a Mirra table.
#include "ryx/neighbor_table.h"

#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "lib/watch.h"
#include "platform/mirra/table.h"
#include "platform/model/arp.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

class neighbor_table_iter_impl : public chained_iter_impl<neighbor_key_t> {};
template class iter_base<neighbor_key_t, neighbor_table_iter_impl>;
class neighbor_table_status_iter_impl : public chained_iter_impl<neighbor_key_t> {};
template class iter_base<neighbor_key_t, neighbor_table_status_iter_impl>;

namespace {

using platform::Name;
using platform::Arp::ArpInputConfig;
using platform::Arp::EntryInput;
using platform::Arp::EntryType;
using platform::Arp::NeighborKey;
using platform::Arp::Status;
using platform::Arp::VrfInput;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkNeighborTable");
  return facility;
}

// --- convert ------------------------------------------------------------------------------------

neighbor_key_t convert(const NeighborKey& key) {
  return {ryx::convert(key.addr), ryx::convert(key.intf)};
}

// Raises the error for a key that has no address.
NeighborKey convert(const neighbor_key_t& key) {
  const platform::IpAddr addr = ryx::convert(key.ip_addr());
  if (addr.isNull()) panic("unknown address family.");
  return {addr, ryx::convert(key.intf_id())};
}

neighbor_entry_type_t convert(EntryType type) {
  switch (type) {
    case EntryType::none:
      return NEIGHBOR_ENTRY_TYPE_NULL;
    case EntryType::dynamic:
      return NEIGHBOR_ENTRY_TYPE_DYNAMIC;
    case EntryType::fixed:
      return NEIGHBOR_ENTRY_TYPE_STATIC;
  }
  return NEIGHBOR_ENTRY_TYPE_NULL;
}

neighbor_entry_t convert(const NeighborKey& key, const platform::MacAddr& mac, EntryType type) {
  neighbor_entry_t entry(convert(key));
  entry.eth_addr_is(ryx::convert(mac));
  entry.entry_type_is(convert(type));
  return entry;
}

}  // namespace

class NeighborTableMgrImpl;

namespace {

// Tells of the switch's table.
class NeighborTableMgrSm final : public platform::mirra::RowReactor<Status> {
 public:
  NeighborTableMgrSm(NeighborTableMgrImpl& mgr, platform::mirra::Table<Status>& table)
      : RowReactor("NeighborTableMgrSm", table), mgr_(mgr) {}

 private:
  void onRow(const Status& row, std::span<const Element>) override;
  void onRowGone(const NeighborKey& key) override;

  NeighborTableMgrImpl& mgr_;
};

}  // namespace

// --- NeighborTableMgrImpl -----------------------------------------------------------------------

class NeighborTableMgrImpl final : public neighbor_table_mgr, public mount_handler {
 public:
  explicit NeighborTableMgrImpl(mount_mgr* mounts) : mount_handler(mounts) {}

  // The table is mounted beside the rest, so that it can be read as soon as the agent is told that
  // everything can.
  void doMounts(mount_group& group) override {
    group.add(inputPath(), "Arp::ArpInputConfig", "wSc");
    status_.emplace(group.connection().tree().tables(), platform::Arp::kStatusTable,
                    platform::mirra::Mode::notify);
  }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    RYX_TRACE(trace(), 1, "NeighborTableMgrImpl: all mounts completed, mirra-mounting");
    input_ = em->find<ArpInputConfig>(inputPath());
    sm_ = std::make_unique<NeighborTableMgrSm>(*this, *status_);
  }

  neighbor_table_iter_t neighbor_table_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<neighbor_table_iter_impl>();
    const auto key = [](const auto& it) { return convert(it.key()); };
    if (const VrfInput* vrf = input_->vrf.find(defaultVrf())) {
      iter->add_iter(elementSource<neighbor_key_t>(vrf->ipv4.iterator(), key));
      iter->add_iter(elementSource<neighbor_key_t>(vrf->ipv6.iterator(), key));
    }
    iter->initialize();
    return neighbor_table_iter_t(iter.release());
  }
  neighbor_table_status_iter_t neighbor_table_status_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<neighbor_table_status_iter_impl>();
    iter->add_iter(elementSource<neighbor_key_t>(status_->iterator(),
                                                 [](const auto& it) { return convert(it.key()); }));
    iter->initialize();
    return neighbor_table_status_iter_t(iter.release());
  }

  void neighbor_entry_set(const neighbor_entry_t& entry) override {
    RYX_TRACE_ENTRY(trace(), 7, " entry=" << entry);
    const ApiGuard guard(*this);
    const NeighborKey key = convert(entry.neighbor_key());
    VrfInput& vrf = *input_->vrf.create(defaultVrf());
    EntryInput* own =
        key.addr.af() == platform::Af::ipv4 ? vrf.ipv4.create(key) : vrf.ipv6.create(key);
    own->ethAddr.set(ryx::convert(entry.eth_addr()));
  }
  void neighbor_entry_del(const neighbor_key_t& key) override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    if (const EntryInput* own = find(convert(key)))
      platform::EntityOps::remove(const_cast<EntryInput&>(*own));
  }
  neighbor_entry_t neighbor_entry(const neighbor_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    const EntryInput* own = find(convert(key));
    return own ? convert(own->key(), own->ethAddr(), EntryType::fixed) : neighbor_entry_t();
  }
  neighbor_entry_t neighbor_entry_status(const neighbor_key_t& key) const override {
    RYX_TRACE_ENTRY(trace(), 7, " key=" << key);
    const ApiGuard guard(*this);
    Status row;
    return status_->find(convert(key), &row) ? convert(row.key, row.ethAddr, row.entryType)
                                             : neighbor_entry_t();
  }

  // Events, of either family.
  void handleArpEntry(const NeighborKey& key, const Status* row) { handle(key, row); }
  void handleNeighEntry(const NeighborKey& key, const Status* row) { handle(key, row); }

 private:
  static const Name& defaultVrf() {
    static const Name name("default");
    return name;
  }
  std::string inputPath() const { return "arp/input/config/" + get_mount_point_name(); }

  // The agent's own entry, or null.
  const EntryInput* find(const NeighborKey& key) const {
    const VrfInput* vrf = input_->vrf.find(defaultVrf());
    if (!vrf) return nullptr;
    return key.addr.af() == platform::Af::ipv4 ? vrf->ipv4.find(key) : vrf->ipv6.find(key);
  }

  // `row`: null, the table has it no more. By copies: whoever is told may run the loop.
  void handle(const NeighborKey& platformKey, const Status* row) {
    const CallbackGuard guard(*this);
    const neighbor_key_t key = convert(platformKey);
    if (!row) {
      RYX_TRACE(trace(), 5, " del NeighborTableMgrImpl: neighbor table entry deleted:" << key);
      return dispatch_key(key, &neighbor_table_handler::on_neighbor_entry_del, key);
    }
    const neighbor_entry_t entry = convert(row->key, row->ethAddr, row->entryType);
    RYX_TRACE(trace(), 5, " add NeighborTableMgrImpl: neighbor table entry added:" << entry);
    dispatch_key(key, &neighbor_table_handler::on_neighbor_entry_set, entry);
  }

  ArpInputConfig* input_ = nullptr;
  std::optional<platform::mirra::Table<Status>> status_;
  std::unique_ptr<NeighborTableMgrSm> sm_;
};

namespace {

void NeighborTableMgrSm::onRow(const Status& row, std::span<const Element>) {
  row.key.addr.af() == platform::Af::ipv4 ? mgr_.handleArpEntry(row.key, &row)
                                          : mgr_.handleNeighEntry(row.key, &row);
}

void NeighborTableMgrSm::onRowGone(const NeighborKey& key) {
  key.addr.af() == platform::Af::ipv4 ? mgr_.handleArpEntry(key, nullptr)
                                      : mgr_.handleNeighEntry(key, nullptr);
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, neighbor_entry_type_t type) {
  switch (type) {
    case NEIGHBOR_ENTRY_TYPE_NULL:
      return out << "NEIGHBOR_ENTRY_TYPE_NULL";
    case NEIGHBOR_ENTRY_TYPE_DYNAMIC:
      return out << "NEIGHBOR_ENTRY_TYPE_DYNAMIC";
    case NEIGHBOR_ENTRY_TYPE_STATIC:
      return out << "NEIGHBOR_ENTRY_TYPE_STATIC";
  }
  return out << static_cast<int>(type);
}

neighbor_key_t::neighbor_key_t() = default;
neighbor_key_t::neighbor_key_t(const ip_addr_t& ip_addr, intf_id_t intf_id)
    : ip_addr_(ip_addr), intf_id_(intf_id) {}
const ip_addr_t& neighbor_key_t::ip_addr() const {
  return ip_addr_;
}
void neighbor_key_t::ip_addr_is(const ip_addr_t& ip_addr) {
  ip_addr_ = ip_addr;
}
intf_id_t neighbor_key_t::intf_id() const {
  return intf_id_;
}
void neighbor_key_t::intf_id_is(intf_id_t intf_id) {
  intf_id_ = intf_id;
}
bool neighbor_key_t::operator==(const neighbor_key_t& other) const {
  return ip_addr_ == other.ip_addr_ && intf_id_ == other.intf_id_;
}
bool neighbor_key_t::operator!=(const neighbor_key_t& other) const {
  return !(*this == other);
}
bool neighbor_key_t::operator<(const neighbor_key_t& other) const {
  return std::tie(ip_addr_, intf_id_) < std::tie(other.ip_addr_, other.intf_id_);
}
std::size_t neighbor_key_t::hash() const {
  return platform::hashMix(ip_addr_.hash(), intf_id_.hash());
}
std::string neighbor_key_t::to_string() const {
  return "neighbor_key_t(" + ip_addr_.to_string() + ", intf_id=" + intf_id_.to_string() + ")";
}
std::ostream& operator<<(std::ostream& out, const neighbor_key_t& key) {
  return out << key.to_string();
}

neighbor_entry_t::neighbor_entry_t() = default;
neighbor_entry_t::neighbor_entry_t(const neighbor_key_t& neighbor_key)
    : neighbor_key_(neighbor_key) {}
neighbor_entry_t::neighbor_entry_t(const ip_addr_t& ip_addr, intf_id_t intf_id)
    : neighbor_key_(ip_addr, intf_id) {}
const neighbor_key_t& neighbor_entry_t::neighbor_key() const {
  return neighbor_key_;
}
void neighbor_entry_t::neighbor_key_is(const neighbor_key_t& neighbor_key) {
  neighbor_key_ = neighbor_key;
}
eth_addr_t neighbor_entry_t::eth_addr() const {
  return eth_addr_;
}
void neighbor_entry_t::eth_addr_is(eth_addr_t eth_addr) {
  eth_addr_ = eth_addr;
}
neighbor_entry_type_t neighbor_entry_t::entry_type() const {
  return entry_type_;
}
void neighbor_entry_t::entry_type_is(neighbor_entry_type_t entry_type) {
  entry_type_ = entry_type;
}
bool neighbor_entry_t::operator==(const neighbor_entry_t& other) const {
  return neighbor_key_ == other.neighbor_key_ && eth_addr_ == other.eth_addr_ &&
         entry_type_ == other.entry_type_;
}
bool neighbor_entry_t::operator!=(const neighbor_entry_t& other) const {
  return !(*this == other);
}
bool neighbor_entry_t::operator<(const neighbor_entry_t& other) const {
  return std::tie(neighbor_key_, eth_addr_, entry_type_) <
         std::tie(other.neighbor_key_, other.eth_addr_, other.entry_type_);
}
std::size_t neighbor_entry_t::hash() const {
  return platform::hashMix(neighbor_key_.hash(), eth_addr_.hash() + entry_type_);
}
std::string neighbor_entry_t::to_string() const {
  std::ostringstream text;
  text << "neighbor_entry_t(neighbor_key=" << neighbor_key_ << ", eth_addr=" << eth_addr_
       << ", entry_type=" << entry_type_ << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const neighbor_entry_t& entry) {
  return out << entry.to_string();
}

neighbor_table_mgr::neighbor_table_mgr() = default;
neighbor_table_mgr::~neighbor_table_mgr() = default;

neighbor_table_handler::neighbor_table_handler(neighbor_table_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
neighbor_table_handler::~neighbor_table_handler() = default;

void neighbor_table_handler::watch_all_neighbor_entries(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " interest is: " << (interest ? "add" : "del"));
  watchAll(mgr_, this, interest);
}
void neighbor_table_handler::watch_neighbor_entry(const neighbor_key_t& key, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, key << " interest is: " << (interest ? "add" : "del"));
  watchOne(mgr_, this, key, interest);
}

void neighbor_table_handler::on_neighbor_entry_set(const neighbor_entry_t&) {}
void neighbor_table_handler::on_neighbor_entry_del(const neighbor_key_t&) {}

void sdk::init_neighbor_table_mgr() {
  create<NeighborTableMgrImpl>(neighbor_table_mgr_);
}
neighbor_table_mgr* sdk::get_neighbor_table_mgr() {
  return get(neighbor_table_mgr_, &sdk::init_neighbor_table_mgr, {"neighbor_table"});
}

}  // namespace ryx
