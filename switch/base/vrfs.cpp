#include "switch/base/vrfs.h"

#include <vector>

namespace ryx::feeds {

using namespace platform;
using Ip::AllVrfStatusGlobal;
using Ip::AllVrfStatusLocal;
using Ip::VrfState;

namespace {

constexpr const char* kInputs[] = {"routing/vrf/input", "routing6/vrf/input"};

AllVrfStatusLocal& local(Tree& tree) {
  return *tree.make<AllVrfStatusLocal>("ip/vrf/status/local");
}
AllVrfStatusGlobal& global(Tree& tree) {
  return *tree.make<AllVrfStatusGlobal>("ip/vrf/status/global");
}
void showStatus(Tree& tree, const VrfName& vrf, VrfState state,
                const std::string& networkNamespace) {
  global(tree).vrf.create(vrf)->state.set(state);
  auto* status = local(tree).vrf.create(vrf);
  status->networkNamespace.set(networkNamespace);
  status->state.set(state);
}

}  // namespace

// The directories first: who hears of it finds them.
void showVrf(Tree& tree, const VrfName& vrf, VrfState state, const std::string& networkNamespace) {
  for (const char* inputs : kInputs) tree.make<Dir>(inputs)->entry.create<Dir>(Name(vrf.bytes()));
  showStatus(tree, vrf, state, networkNamespace);
}

void showDefaultVrf(Tree& tree) {
  showStatus(tree, VrfName(kDefaultVrf), VrfState::active, kDefaultVrf);
}

void eraseVrf(Tree& tree, const VrfName& vrf) {
  local(tree).vrf.erase(vrf);
  global(tree).vrf.erase(vrf);
  for (const char* inputs : kInputs) {
    auto& entries = tree.make<Dir>(inputs)->entry;
    if (auto* dir = entries.find<Dir>(Name(vrf.bytes()))) EntityOps::remove(*dir);
  }
}

void eraseVrfsBut(Tree& tree, const std::function<bool(const VrfName& vrf)>& keep) {
  std::vector<VrfName> left;
  for (auto it = local(tree).vrf.iterator(); it; it.next())
    if (!keep(it.key())) left.push_back(it.key());
  for (const VrfName& vrf : left) eraseVrf(tree, vrf);
}

}  // namespace ryx::feeds
