// The addresses of the network namespace on its route socket: joins the socket, the messages
// (RTM_NEWADDR, rtnetlink(7)) and the logic.
//
// With the primary address of a subnet the kernel drops the others, unless it is told to promote
// one of them: it is told so, for the devices that are interfaces ("promote_secondaries"). Where
// that is not allowed, addresses that it drops are put back.
//
// Called under the activity lock.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "switch/linux/addresses.h"
#include "switch/linux/links.h"
#include "switch/linux/netlink.h"

namespace ryx::kernel {

// The mark of addresses that this switch puts into the kernel (IFA_PROTO, since Linux 5.18). Where
// it is not known, what an earlier life left stays.
inline constexpr uint8_t kAddressProtocol = 188;

// An address of an RTM_NEWADDR or RTM_DELADDR message, and whether there is one. Nothing for a
// message that is malformed or is about something else (an IPv6 link-local address).
struct AddressEvent {
  Address address;
  bool exists;
};
std::optional<AddressEvent> parseAddress(const nlmsghdr& message);

Message dumpAddresses();
Message setAddress(const Address& address);
Message removeAddress(const Address& address);

class KernelAddresses final : private NetlinkSocket::Client, private AddressWriter {
 public:
  // How long the first dump may take, in seconds.
  static constexpr double kStartPatience = 5;

  // Of the calling thread's network namespace, whose devices are `links`, which outlive it. They
  // are in the tree when it returns. Null, with `error` set, when the kernel cannot be asked.
  static std::unique_ptr<KernelAddresses> start(platform::Tree& tree, Links& links,
                                                std::string* error);
  static std::unique_ptr<KernelAddresses> start(platform::Tree& tree, Links& links,
                                                int receiveBuffer, std::string* error);
  explicit KernelAddresses(platform::Tree& tree);
  ~KernelAddresses();

  void takeOver() { addresses_.takeOver(); }
  const Addresses& addresses() const { return addresses_; }
  const NetlinkSocket& socket() const { return *socket_; }

 private:
  void deviceIs(int index, platform::IntfId intf);
  void onNotification(const nlmsghdr& message) override;
  void onDumpBegin() override { addresses_.dumpBegins(); }
  void onDumpMessage(const nlmsghdr& message) override;
  void onDumpEnd() override { addresses_.dumpEnds(); }

  void set(const Address& address, Answer done) override {
    socket_->request(setAddress(address), std::move(done));
  }
  void remove(const Address& address, Answer done) override {
    socket_->request(removeAddress(address), std::move(done));
  }

  Addresses addresses_;
  std::unique_ptr<NetlinkSocket> socket_;
  std::shared_ptr<void> devices_;  // that it is told of
};

}  // namespace ryx::kernel
