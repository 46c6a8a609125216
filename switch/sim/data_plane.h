// The simulated switch's data plane: what it is told is installed, at once. Shown as hardware shows
// it: the routes and FECs of each VRF in their Mirra tables, nexthop groups with their counters,
// labels and their adjacencies.
//
//   nexthop-group-capability TYPE MAXLABELS ACTION,...   what it can do with nexthop groups of a
//                            type: ip-in-ip, gre, mpls, mpls-over-gre, ip; labels on an entry at
//                            most, or "none": the type is not supported; actions: push, pop, swap,
//                            forward, "-" for none. At first it can do everything, with 6 labels.
//   nexthop-group-count NAME ENTRY PACKETS OCTETS        an entry of a group has counted more
//   nexthop-group-clear NAME ENTRY                       its counters count from zero now
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/mirra/table.h"
#include "platform/model/mpls.h"
#include "platform/model/tables.h"
#include "switch/routing/group_tables.h"
#include "switch/routing/programmer.h"
#include "switch/sim/command_line.h"

namespace ryx::sim {

class DataPlane final : public routing::Programmer {
 public:
  // `tree` outlives it.
  explicit DataPlane(platform::Tree& tree);
  ~DataPlane() override;

  // Calls `then` when it was told all that there was to be told when it began: at once, or from the
  // loop.
  void whenSettled(std::function<void()> then);

  // Commands. Empty, or what is wrong.
  [[nodiscard]] std::string capability(const Arguments& arguments);
  [[nodiscard]] std::string count(const Arguments& arguments);
  [[nodiscard]] std::string clear(const Arguments& arguments);

  void outcomesAre(routing::Outcomes& outcomes) override { outcomes_ = &outcomes; }
  void addVrf(const platform::Name& vrf) override;
  void removeVrf(const platform::Name& vrf) override;
  void addNextHop(routing::NextHopId id, const routing::NextHop& nextHop) override;
  void removeNextHop(routing::NextHopId id) override;
  void setGroup(const routing::Group& group) override;
  void removeGroup(routing::GroupId id) override;
  void setRoute(const routing::RouteKey& key, const routing::RouteValue& value,
                const routing::RouteValue* before) override;
  void removeRoute(const routing::RouteKey& key, const routing::RouteValue& before) override;
  void settled() override;

 private:
  struct Group {
    routing::GroupKind kind = routing::GroupKind::forward;
    struct Way {
      routing::NextHopId nextHop;
      uint32_t weight;
    };
    std::vector<Way> ways;
    size_t labels = 0;  // that use it
  };
  class Family;
  template <class RouteRow, class FecRow>
  class FamilyOf;
  struct Vrf {
    std::unique_ptr<Family> ip, ip6;
    bool isOffered = false;
  };

  void showCapabilities() const;
  void eraseStrangers();
  Family& family(const routing::RouteKey& key);
  std::vector<platform::Fib::Via> viasOf(const Group& group) const;
  platform::SmallSet<platform::Mpls::Hardware::L2Via> labelViasOf(const Group& group) const;
  void setLabel(uint32_t label, const routing::RouteValue& value);
  void leaveLabel(routing::GroupId group);

  platform::Tree& tree_;
  routing::Outcomes* outcomes_ = nullptr;
  platform::Mpls::Hardware::Status& mpls_;
  std::map<platform::Routing::NexthopGroup::Type, routing::Capability> capabilities_;
  routing::GroupTables groupTables_;
  std::map<platform::Name, Vrf> vrfs_;
  std::vector<routing::NextHop> nextHops_;  // by their numbers
  std::unordered_map<routing::GroupId, Group> groups_;
  bool hasRefused_ = false;  // a route that had no room
  bool hasSettled_ = false;
  std::function<void()> whenSettled_;
};

}  // namespace ryx::sim
