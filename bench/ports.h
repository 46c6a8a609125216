// A switch with very many ports, for the benchmarks: what a feed does, without its parser.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/model/interface.h"
#include "platform/qel/dir.h"
#include "platform/statehub/local.h"

namespace ryx::bench {

class Ports {
 public:
  explicit Ports(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      const std::string name = "Ethernet" + std::to_string(1 + i / kPortsOfSlice) + "/" +
                               std::to_string(1 + i % kPortsOfSlice);
      ids.emplace_back();
      if (!platform::parse(name, &ids.back())) fail("a port's name");
    }
  }
  void create() {
    platform::Interface::EthPhyIntfConfigDir* configs = nullptr;
    platform::Interface::EthPhyIntfStatusDir* states = nullptr;
    for (uint32_t i = 0; i < ids.size(); ++i) {
      if (i % kPortsOfSlice == 0) {
        const std::string slice = "slice/" + std::to_string(1 + i / kPortsOfSlice);
        configs = tree.make<platform::Interface::EthPhyIntfConfigDir>("interface/config/eth/phy/" +
                                                                      slice);
        states = tree.make<platform::Interface::EthPhyIntfStatusDir>("interface/status/eth/phy/" +
                                                                     slice);
      }
      configs->intf.create(ids[i]);
      auto* status = states->intf.create(ids[i]);
      status->operStatus.set(1);
      status->deviceName.set("eth" + std::to_string(i));
      statuses.push_back(status);
    }
  }
  void flap(uint8_t code) {
    for (auto* status : statuses) status->operStatus.set(code);
  }
  void erase() {
    statuses.clear();
    for (const char* path : {"interface/config/eth/phy/slice", "interface/status/eth/phy/slice"}) {
      auto& slices = tree.find<platform::Dir>(path)->entry;
      for (platform::CollectionIterator it(slices); it; it.next()) slices.remove(*it.get());
    }
  }

  platform::Tree& tree = platform::localTree();
  std::vector<platform::IntfId> ids;
  std::vector<platform::Interface::EthPhyIntfStatus*> statuses;

 private:
  static constexpr uint32_t kPortsOfSlice = 400;  // a card's worth
};

}  // namespace ryx::bench
