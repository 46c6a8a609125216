#include "switch/linux/kernel_links.h"

#include <linux/rtnetlink.h>

#include "platform/activity/timer.h"
#include "platform/base/clock.h"

namespace ryx::kernel {

class KernelLinks::LookAgain final : public platform::Timer {
 public:
  explicit LookAgain(KernelLinks& links) : Timer("linux links"), links_(links) { arm(); }
  void onTimer() override {
    if (links_.links_.someAreDown() && !links_.socket_->dumping()) links_.socket_->resync();
    arm();
  }

 private:
  void arm() { armAt(platform::clock().now() + kLookAgain); }
  KernelLinks& links_;
};

std::unique_ptr<KernelLinks> KernelLinks::start(platform::Tree& tree, const IntfMap& map,
                                                std::string* error) {
  return start(tree, map, NetlinkSocket::Options().receiveBuffer, error);
}

std::unique_ptr<KernelLinks> KernelLinks::start(platform::Tree& tree, const IntfMap& map,
                                                int receiveBuffer, std::string* error) {
  auto made = std::make_unique<KernelLinks>(tree, map);
  NetlinkSocket::Options options{NETLINK_ROUTE, {RTNLGRP_LINK}, receiveBuffer};
  made->socket_ = NetlinkSocket::open(options, dumpLinks(), *made, error);
  if (!made->socket_) return nullptr;
  made->socket_->resync();
  if (!made->socket_->waitForDump(kStartPatience)) {
    *error = "the kernel does not answer with its network devices";
    return nullptr;
  }
  made->lookAgain_ = std::make_unique<LookAgain>(*made);
  return made;
}

KernelLinks::KernelLinks(platform::Tree& tree, const IntfMap& map)
    : map_(map), links_(tree, map_, *this) {}

KernelLinks::~KernelLinks() = default;

void KernelLinks::onNotification(const nlmsghdr& message) {
  std::optional<Link> link = parseLink(message);
  if (!link) return;
  if (message.nlmsg_type == RTM_DELLINK) {
    links_.gone(link->index);
  } else {
    links_.changed(*link);
  }
}

void KernelLinks::onDumpMessage(const nlmsghdr& message) {
  if (std::optional<Link> link = parseLink(message)) links_.dumped(*link);
}

}  // namespace ryx::kernel
