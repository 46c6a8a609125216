// The simulated switch's neighbours: what it learned, as it is told, and what agents configure.
//
//   neighbor-learn IP INTF MAC    a neighbour answers at that interface, or has moved to that MAC
//   neighbor-age IP INTF          it answered for too long not
//
// The table has an entry for each that was learned and for each that agents configured, at the
// interfaces that there are. What is configured goes before what was learned.
#pragma once

#include <unordered_map>

#include "platform/mirra/table.h"
#include "platform/model/arp.h"
#include "switch/base/neighbor_inputs.h"

namespace ryx::sim {

class Neighbors {
 public:
  // `tree` outlives it.
  explicit Neighbors(platform::Tree& tree);

  void learn(const platform::Arp::NeighborKey& key, const platform::MacAddr& mac);
  // False when it was not learned.
  bool age(const platform::Arp::NeighborKey& key);
  // An interface came, or went.
  void interfaceIs(platform::IntfId intf, bool exists);

 private:
  void look(const platform::Arp::NeighborKey& key);

  platform::Tree& tree_;
  platform::mirra::Table<platform::Arp::Status> table_;
  std::unordered_map<platform::Arp::NeighborKey, platform::MacAddr, platform::Arp::NeighborKeyHash>
      learned_;
  feeds::NeighborInputs inputs_;
};

}  // namespace ryx::sim
