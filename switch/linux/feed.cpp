// The module of the feed "linux": the network devices of this process's network namespace. It takes
// no argument; RYX_INTF_MAP says which device is which interface (intf_map.h). With a malformed map
// it does not start, since it could write to the wrong devices.
#include <cstdio>
#include <cstdlib>

#include "platform/statehub/local.h"
#include "switch/base/vrfs.h"
#include "switch/linux/bfd.h"
#include "switch/linux/intf_map.h"
#include "switch/linux/kernel_addresses.h"
#include "switch/linux/kernel_links.h"
#include "switch/linux/kernel_neighbors.h"

namespace {

using ryx::platform::Feed;
using ryx::platform::Tree;

class LinuxFeed final : public Feed {
 public:
  std::string start(Tree& tree, const std::string& argument) {
    std::string error;
    if (!argument.empty()) return "\"" + argument + "\" behind linux: expected nothing";
    ryx::kernel::IntfMap map;
    if (const char* rules = std::getenv("RYX_INTF_MAP")) {
      error = ryx::kernel::IntfMap::parse(rules, &map);
      if (!error.empty()) return "RYX_INTF_MAP: " + error;
    }
    ryx::feeds::showDefaultVrf(tree);
    links_ = ryx::kernel::KernelLinks::start(tree, map, &error);
    if (links_) addresses_ = ryx::kernel::KernelAddresses::start(tree, links_->links(), &error);
    if (addresses_) neighbors_ = ryx::kernel::KernelNeighbors::start(tree, links_->links(), &error);
    if (neighbors_) startBfd(tree);
    return error;
  }

  void takeOver() override {
    links_->takeOver();
    addresses_->takeOver();
    if (bfd_) bfd_->takeOver();
  }

 private:
  // Another program may have the ports: everything else works all the same.
  void startBfd(Tree& tree) {
    std::string error;
    bfd_ = ryx::kernel::Bfd::start(tree, links_->links(), &error);
    if (!bfd_) std::fprintf(stderr, "The linux feed does without BFD: %s\n", error.c_str());
  }

  std::unique_ptr<ryx::kernel::KernelLinks> links_;
  std::unique_ptr<ryx::kernel::KernelAddresses> addresses_;
  std::unique_ptr<ryx::kernel::KernelNeighbors> neighbors_;
  std::unique_ptr<ryx::kernel::Bfd> bfd_;
};

}  // namespace

extern "C" RYX_PRIVATE const char ryxFeedAbi[] = RYX_VERSION;

extern "C" RYX_PRIVATE const char* const ryxFeedPlaces[] = {"interface/", "lag/", "ip/",  "ip6/",
                                                            "arp/",       "bfd/", nullptr};

extern "C" RYX_PRIVATE Feed* ryxFeedStart(Tree& tree, const std::string& argument,
                                          std::string* error) {
  auto feed = std::make_unique<LinuxFeed>();
  *error = feed->start(tree, argument);
  return error->empty() ? feed.release() : nullptr;
}
