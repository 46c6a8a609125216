// VRFs in the state, as the feeds make them. Under the activity lock.
#pragma once

#include <functional>
#include <string>

#include "platform/model/vrf.h"

namespace ryx::feeds {

// The VRF is there, in that state; on this machine a network namespace of that name stands for it.
// Agents find directories for their routes in it, of both families.
void showVrf(platform::Tree& tree, const platform::VrfName& vrf, platform::Ip::VrfState state,
             const std::string& networkNamespace);

// The machine's own: the namespace that its services run in, which is called like it. Its
// directories are always there.
void showDefaultVrf(platform::Tree& tree);

// It is there no more, nor what agents had in it.
void eraseVrf(platform::Tree& tree, const platform::VrfName& vrf);

// The same for all of which `keep` is false.
void eraseVrfsBut(platform::Tree& tree,
                  const std::function<bool(const platform::VrfName& vrf)>& keep);

}  // namespace ryx::feeds
