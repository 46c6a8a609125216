// The kernel's devices on the network namespace's route socket: joins the socket, the messages and
// the logic.
//
// The kernel notifies of all that this follows, except of an alias that changes while its device is
// administratively down. So while such devices are interfaces, it is asked again every kLookAgain
// seconds.
//
// Called under the activity lock.
#pragma once

#include <memory>
#include <string>

#include "switch/linux/links.h"
#include "switch/linux/netlink.h"

namespace ryx::kernel {

class KernelLinks final : private NetlinkSocket::Client, private LinkWriter {
 public:
  // How long the first dump may take, in seconds.
  static constexpr double kStartPatience = 5;
  static constexpr double kLookAgain = 1;

  // The devices of the calling thread's network namespace. They are in the tree when it returns.
  // Null, with `error` set, when the kernel cannot be asked.
  static std::unique_ptr<KernelLinks> start(platform::Tree& tree, const IntfMap& map,
                                            std::string* error);
  // The same, with a receive buffer of that many bytes.
  static std::unique_ptr<KernelLinks> start(platform::Tree& tree, const IntfMap& map,
                                            int receiveBuffer, std::string* error);
  KernelLinks(platform::Tree& tree, const IntfMap& map);
  ~KernelLinks();

  Links& links() { return links_; }
  void takeOver() { links_.takeOver(); }
  const NetlinkSocket& socket() const { return *socket_; }

 private:
  class LookAgain;

  void onNotification(const nlmsghdr& message) override;
  void onDumpBegin() override { links_.dumpBegins(); }
  void onDumpMessage(const nlmsghdr& message) override;
  void onDumpEnd() override { links_.dumpEnds(); }

  void upIs(const std::string& device, bool up, LinkWriter::Done done) override {
    socket_->request(setLinkUp(device, up), std::move(done));
  }
  void aliasIs(const std::string& device, const std::string& alias,
               LinkWriter::Done done) override {
    socket_->request(setLinkAlias(device, alias), std::move(done));
  }

  IntfMap map_;
  Links links_;
  std::unique_ptr<NetlinkSocket> socket_;
  std::unique_ptr<LookAgain> lookAgain_;
};

}  // namespace ryx::kernel
