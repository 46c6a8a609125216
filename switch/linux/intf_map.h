// The rule that maps the kernel's device names to interfaces and back. It is a list of rules,
// separated by commas, of the form KERNEL=INTERFACE, each side with at most one *:
//
//   eth*=Ethernet*,mgmt0=Management0,swp*=Ethernet1/*
//
// The * of the interface stands for what the * of the kernel's name stands for, one byte or more,
// with each _ turned into a / (kernel names have no slash): eth7 is Ethernet7, eth3_1 is
// Ethernet3/1, eth7.100 is Ethernet7.100. The first rule whose left side fits and whose right side
// then is the name of an interface that the switch has a directory for decides. A name that no rule
// maps is left alone: no interface stands for it, and nothing is ever written to it.
//
// The environment's RYX_INTF_MAP replaces the default map. The default leaves the kernel's "lo"
// alone, on which the machine itself depends.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types/intf.h"

namespace ryx::kernel {

class IntfMap {
 public:
  static constexpr std::string_view kDefault =
      "eth*=Ethernet*,mgmt*=Management*,bond*=Port-Channel*,vlan*=Vlan*,loopback*=Loopback*,"
      "vxlan*=Vxlan*";
  // The longest name that the kernel takes for a device, in bytes.
  static constexpr size_t kMaxDevice = 15;

  // The default map.
  IntfMap();

  // Replaces `map`. Returns an empty text, or what is wrong with the rules and what was expected,
  // and the map stays what it was.
  [[nodiscard]] static std::string parse(std::string_view text, IntfMap* map);

  // The interface of a device; the empty identifier when no rule maps its name.
  platform::IntfId interfaceOf(std::string_view device) const;

  // The name of the device that is this interface: the first that the rules give and map back to
  // it. Empty when there is none.
  std::string deviceOf(platform::IntfId intf) const;

 private:
  // One side of a rule, at its star.
  struct Pattern {
    std::string before;
    std::string after;
    bool star = false;

    // What the star stands for; without a star, empty.
    std::optional<std::string_view> match(std::string_view name) const;
    std::string fill(std::string_view star) const;
  };
  struct Rule {
    Pattern device;
    Pattern interface;
  };

  static std::string parseRule(std::string_view text, Rule* rule);
  static std::string parsePattern(std::string_view text, Pattern* pattern);

  std::vector<Rule> rules_;
};

}  // namespace ryx::kernel
