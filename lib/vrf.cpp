// VRFs: the switch's own, as this machine has them.
#include "ryx/vrf.h"

#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_map>
#include <utility>

#include "lib/context.h"
#include "lib/guard.h"
#include "lib/iter_impl.h"
#include "lib/mounts.h"
#include "lib/watch.h"
#include "platform/base/socket_in.h"
#include "platform/model/vrf.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"

namespace ryx {

class vrf_iter_impl : public chained_iter_impl<std::string> {};
template class iter_base<std::string, vrf_iter_impl>;

class VrfMgrImpl;

namespace {

using platform::Change;
using platform::Entity;
using platform::VrfName;
using platform::Ip::AllVrfStatusLocal;
using platform::Ip::VrfState;
using platform::Ip::VrfStatusLocal;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkVrf");
  return facility;
}

vrf_state_t convert(VrfState state) {
  switch (state) {
    case VrfState::none:
      break;
    case VrfState::initializing:
      return VRF_INITIALIZING;
    case VrfState::active:
      return VRF_ACTIVE;
    case VrfState::deleting:
      return VRF_DELETING;
  }
  return VRF_NULL;
}

class VrfMgrSm final : public platform::JournalReactor {
 public:
  VrfMgrSm(VrfMgrImpl& mgr, AllVrfStatusLocal& status) : JournalReactor("VrfMgrSm"), mgr_(mgr) {
    follow(status.journal);
  }

 private:
  void onEntity(Entity& entity, Change change) override {
    if (const auto* status = entity.as<VrfStatusLocal>())
      handleVrfStatusLocal(*status, change != Change::deleted);
  }
  void handleVrfStatusLocal(const VrfStatusLocal& status, bool exists);

  VrfMgrImpl& mgr_;
  std::unordered_map<std::string, vrf_state_t> told_;
};

}  // namespace

// --- VrfMgrImpl ---------------------------------------------------------------------------------

class VrfMgrImpl final : public vrf_mgr, public mount_handler {
 public:
  explicit VrfMgrImpl(mount_mgr* mounts) : mount_handler(mounts) {}

  void doMounts(mount_group& group) override {
    group.add("ip/vrf/config", "Ip::AllVrfConfig", "r");
    group.add("ip/vrf/status/global", "Ip::AllVrfStatusGlobal", "r");
    group.add("ip/vrf/status/local", "Ip::AllVrfStatusLocal", "r");
  }
  void onMountsComplete(entity_manager& em) override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    status_ = em->find<AllVrfStatusLocal>("ip/vrf/status/local");
    sm_ = std::make_unique<VrfMgrSm>(*this, *status_);
  }

  vrf_iter_t vrf_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    auto iter = std::make_unique<vrf_iter_impl>();
    iter->add_iter(elementSource<std::string>(status_->vrf.iterator(),
                                              [](const auto& it) { return it.key().bytes(); }));
    iter->initialize();
    return vrf_iter_t(iter.release());
  }
  bool exists(const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " vrf_name=" << vrf);
    const ApiGuard guard(*this);
    return find(vrf) != nullptr;
  }
  vrf_state_t state(const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " vrf_name=" << vrf);
    const ApiGuard guard(*this);
    const VrfStatusLocal* status = find(vrf);
    return status ? convert(status->state()) : VRF_NULL;
  }
  std::string vrf_namespace(const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7, " vrf_name=" << vrf);
    const ApiGuard guard(*this);
    const VrfStatusLocal* status = find(vrf);
    return status ? status->networkNamespace() : std::string();
  }
  int socket_at(int domain, int type, int protocol, const std::string& vrf) const override {
    RYX_TRACE_ENTRY(trace(), 7,
                    " domain=" << domain << " type=" << type << " protocol=" << protocol
                               << " vrf_name=" << vrf);
    const ApiGuard guard(*this);
    const VrfStatusLocal* status = find(vrf);
    if (vrf == platform::kDefaultVrf) return ::socket(domain, type, protocol);
    return platform::socketIn(status ? status->networkNamespace() : std::string(), domain, type,
                              protocol);
  }

  // Events.
  void on_vrf_state(const std::string& name, vrf_state_t state) {
    const CallbackGuard guard(*this);
    RYX_TRACE(trace(), 5, " vrf_name=" << name << " state=" << state);
    dispatch_key(name, &vrf_handler::on_vrf_state, name, state);
  }

 private:
  // Raises the range error for a name that is too long.
  const VrfStatusLocal* find(const std::string& vrf) const {
    return status_->vrf.find(VrfName(vrf));
  }

  AllVrfStatusLocal* status_ = nullptr;
  std::unique_ptr<VrfMgrSm> sm_;
};

namespace {

void VrfMgrSm::handleVrfStatusLocal(const VrfStatusLocal& status, bool exists) {
  const std::string name(status.key().bytes());
  const vrf_state_t state = exists ? convert(status.state()) : VRF_NULL;
  const auto told = told_.try_emplace(name, VRF_NULL).first;
  const bool isNews = std::exchange(told->second, state) != state;
  if (state == VRF_NULL) told_.erase(told);
  if (!isNews) return;
  wake();  // a loop that a handler runs gets on with what is left
  mgr_.on_vrf_state(name, state);
}

}  // namespace

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, vrf_state_t state) {
  switch (state) {
    case VRF_NULL:
      return out << "VRF_NULL";
    case VRF_INITIALIZING:
      return out << "VRF_INITIALIZING";
    case VRF_ACTIVE:
      return out << "VRF_ACTIVE";
    case VRF_DELETING:
      return out << "VRF_DELETING";
  }
  return out << static_cast<int>(state);
}

vrf_mgr::vrf_mgr() = default;
vrf_mgr::~vrf_mgr() = default;

vrf_handler::vrf_handler(vrf_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}
vrf_handler::~vrf_handler() = default;

void vrf_handler::watch_all_vrfs(bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as new handler");
  watchAll(mgr_, this, interest);
}
void vrf_handler::watch_vrf(const std::string& vrf, bool interest) {
  RYX_TRACE_ENTRY(trace(), 7, " registering myself as a VRF-specific handler");
  watchOne(mgr_, this, vrf, interest);
}

void vrf_handler::on_vrf_state(std::string, vrf_state_t) {}

void sdk::init_vrf_mgr() {
  if (vrf_mgr_ == nullptr) create<VrfMgrImpl>(vrf_mgr_);
}
vrf_mgr* sdk::get_vrf_mgr() {
  return get(vrf_mgr_, &sdk::init_vrf_mgr, {"vrf"});
}

}  // namespace ryx
