#include "platform/model/ip.h"

#include <algorithm>

namespace ryx::platform::Ip {

std::vector<IpAddrMask> allOf(const IpAddrMask& primary, const SmallSet<IpAddrMask>& secondaries) {
  std::vector<IpAddrMask> all(secondaries.begin(), secondaries.end());
  if (isAssigned(primary) && !secondaries.contains(primary))
    all.insert(std::lower_bound(all.begin(), all.end(), primary), primary);
  return all;
}

std::vector<IpAddrMask> configuredAddrs(const Config& ip, const Ip6::Config& ip6, IntfId intf) {
  std::vector<IpAddrMask> all;
  if (const auto* config = ip.ipIntfConfig.find(intf))
    all = allOf(config->addrWithMask(), config->secondaryWithMask());
  if (const auto* config = ip6.intf.find(intf))  // which orders behind
    all.insert(all.end(), config->addr().begin(), config->addr().end());
  return all;
}

}  // namespace ryx::platform::Ip
