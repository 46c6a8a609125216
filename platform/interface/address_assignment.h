// Which addresses interfaces may have beside each other: the check that is asked before one is
// configured. The rule, for both address families:
//
//  - The subnet of an address overlaps that of no address that is configured at another interface
//    of the same VRF.
//  - At its own interface an address stands once, under one mask. Its subnet may be that of another
//    address there, or lie inside it, but may not be wider than what is there.
//
// Management interfaces are treated like all others. Which VRF an interface is in says
// "ip/vrf/intf"; without a word there it is "default". What is active and not configured does not
// count.
//
// It keeps an index of the subnets, which it brings up to date when it is asked, from the journals
// of the configuration: so it is right about what anybody wrote a moment ago. An answer takes
// O(log n) of the addresses that there are, and O(n) of those of interfaces that changed since.
//
// Under the activity lock.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/model/ip.h"

namespace ryx::platform {

class RYX_PRIVATE AddressAssignment {
 public:
  // The three outlive it.
  AddressAssignment(Ip::Config& ip, Ip6::Config& ip6, Ip::IntfVrfConfig& vrfs);
  ~AddressAssignment();

  // Whether the interface may have those addresses that join, one after the other, when those that
  // leave are gone. Nothing: it may. Else the first one that it may not have.
  std::optional<IpAddrMask> refused(IntfId intf, const std::vector<IpAddrMask>& leaving,
                                    const std::vector<IpAddrMask>& joining);

 private:
  class Follower;
  // The addresses of one VRF: how many of each subnet, by interface.
  using Subnets = std::map<IpPrefix, std::map<IntfId, uint32_t>>;
  struct Known {
    Name vrf;
    SmallSet<IpAddrMask> addrs;
  };

  void catchUp();
  void reindex(IntfId intf);
  void put(IntfId intf, Known& known, const IpAddrMask& addr);
  void take(IntfId intf, Known& known, const IpAddrMask& addr);
  bool fits(IntfId intf, const Known& known, const IpAddrMask& addr) const;

  Ip::Config& ip_;
  Ip6::Config& ip6_;
  Ip::IntfVrfConfig& vrfs_;
  std::unordered_map<IntfId, Known> known_;
  std::map<Name, Subnets> subnets_;
  std::unordered_set<IntfId> stale_;
  std::vector<std::unique_ptr<Follower>> followers_;
};

}  // namespace ryx::platform
