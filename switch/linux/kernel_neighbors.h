// The neighbour tables of the network namespace on its route socket: joins the socket, the messages
// (RTM_NEWNEIGH, rtnetlink(7)) and the logic.
//
// Called under the activity lock.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "switch/linux/links.h"
#include "switch/linux/neighbors.h"
#include "switch/linux/netlink.h"

namespace ryx::kernel {

// A neighbour of an RTM_NEWNEIGH or RTM_DELNEIGH message, and whether there is one: that it has a
// link-layer address by which it is reached. Nothing for a message that is malformed or is about
// something else (a proxy, a bridge's table).
struct NeighborEvent {
  Neighbor neighbor;
  bool exists;
};
std::optional<NeighborEvent> parseNeighbor(const nlmsghdr& message);

Message dumpNeighbors();
Message setNeighbor(const Neighbor& neighbor);
Message removeNeighbor(const Neighbor& neighbor);

class KernelNeighbors final : private NetlinkSocket::Client, private NeighborWriter {
 public:
  // How long the first dump may take, in seconds.
  static constexpr double kStartPatience = 5;

  // Of the calling thread's network namespace, whose devices are `links`, which outlive it. They
  // are in the table when it returns. Null, with `error` set, when the kernel cannot be asked.
  static std::unique_ptr<KernelNeighbors> start(platform::Tree& tree, Links& links,
                                                std::string* error);
  static std::unique_ptr<KernelNeighbors> start(platform::Tree& tree, Links& links,
                                                int receiveBuffer, std::string* error);
  explicit KernelNeighbors(platform::Tree& tree);
  ~KernelNeighbors();

  const Neighbors& neighbors() const { return neighbors_; }
  const NetlinkSocket& socket() const { return *socket_; }

 private:
  void onNotification(const nlmsghdr& message) override;
  void onDumpBegin() override { neighbors_.dumpBegins(); }
  void onDumpMessage(const nlmsghdr& message) override;
  void onDumpEnd() override { neighbors_.dumpEnds(); }

  void set(const Neighbor& neighbor, Answer done) override {
    socket_->request(setNeighbor(neighbor), std::move(done));
  }
  void remove(const Neighbor& neighbor, Answer done) override {
    socket_->request(removeNeighbor(neighbor), std::move(done));
  }

  Neighbors neighbors_;
  std::shared_ptr<void> devices_;  // that it is told of
  std::unique_ptr<NetlinkSocket> socket_;
};

}  // namespace ryx::kernel
