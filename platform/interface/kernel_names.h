// Which interface has a kernel network device, by the device's name. Devices are renamed, and for a
// while two interfaces may claim one name: the claim made last counts, and when it goes, the last
// of those that still stand. Under the activity lock alone, like all state.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/base/api.h"
#include "platform/types/intf.h"

namespace ryx::platform {

class RYX_PRIVATE KernelNames {
 public:
  // The interface has the device of that name from now on, instead of any other; empty: none.
  void nameIs(IntfId intf, std::string_view name);

  // The interface that has the device, or the empty identifier.
  IntfId find(std::string_view name) const;

  // Interfaces with a device.
  size_t size() const { return names_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  struct Claims {
    IntfId holder;
    std::vector<IntfId> earlier;  // the oldest first
  };
  using Names = std::unordered_map<std::string, Claims, Hash, std::equal_to<>>;

  void claim(IntfId intf, std::string_view name);
  void release(IntfId intf, const std::string& name);

  Names claims_;
  // Each refers to a key of claims_, which stays in its place while anybody claims it.
  std::unordered_map<IntfId, const std::string*> names_;
};

}  // namespace ryx::platform
