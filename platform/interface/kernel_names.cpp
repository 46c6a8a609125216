#include "platform/interface/kernel_names.h"

namespace ryx::platform {

void KernelNames::nameIs(IntfId intf, std::string_view name) {
  auto known = names_.find(intf);
  if (known != names_.end()) {
    if (*known->second == name) return;
    const std::string* old = known->second;
    names_.erase(known);
    release(intf, *old);
  }
  if (!name.empty()) claim(intf, name);
}

IntfId KernelNames::find(std::string_view name) const {
  auto at = claims_.find(name);
  return at == claims_.end() ? IntfId() : at->second.holder;
}

void KernelNames::claim(IntfId intf, std::string_view name) {
  auto [at, isNew] = claims_.try_emplace(std::string(name));
  Claims& claims = at->second;
  if (!isNew) claims.earlier.push_back(claims.holder);
  claims.holder = intf;
  names_.emplace(intf, &at->first);
}

void KernelNames::release(IntfId intf, const std::string& name) {
  auto at = claims_.find(name);
  Claims& claims = at->second;
  if (claims.holder != intf) {
    std::erase(claims.earlier, intf);
  } else if (claims.earlier.empty()) {
    claims_.erase(at);
  } else {
    claims.holder = claims.earlier.back();
    claims.earlier.pop_back();
  }
}

}  // namespace ryx::platform
