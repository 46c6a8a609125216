// Neighbours from an agent's calls to the kernel and back, beside what the kernel takes from raw
// netlink and from `ip -batch`. In a network namespace of its own; without the privilege to make
// one it measures nothing, and says so.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/activity/activity.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/neighbor_table.h"
#include "ryx/sdk.h"
#include "switch/linux/kernel_links.h"
#include "switch/linux/kernel_neighbors.h"

using namespace ryx::bench;
using namespace ryx::kernel;
using ryx::platform::activity;
using ryx::platform::Af;
using ryx::platform::IpAddr;
using ryx::platform::MacAddr;

namespace {

constexpr uint8_t kMac[6] = {0, 0x1c, 0x73, 0, 0, 1};

void shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) fail(command.c_str());
}

// Seconds for all of them, as fast as it can be said.
double rawNetlink(int index, uint32_t count) {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  const double start = seconds();
  std::string batch;
  for (uint32_t n = 0; n < count; ++n) {
    Message message = setNeighbor({index, IpAddr::v4(0x0b000000 + n), MacAddr(kMac), true});
    // An answer for the last of a datagram alone.
    const bool isLast = batch.size() > 31'000 || n + 1 == count;
    if (!isLast) message.header()->nlmsg_flags &= static_cast<uint16_t>(~NLM_F_ACK);
    batch += message.bytes();
    if (!isLast) continue;
    char answer[8192];
    if (::send(fd, batch.data(), batch.size(), 0) < 0 || ::recv(fd, answer, sizeof answer, 0) < 0)
      fail("raw netlink");
    batch.clear();
  }
  ::close(fd);
  return seconds() - start;
}

void flush() {
  shell("ip neigh flush dev eth1 nud permanent > /dev/null");
}

void run(uint32_t count) {
  shell(
      "ip link add eth1 type veth peer name peer1 && ip link set peer1 up && "
      "ip addr add 10.255.255.1/8 dev eth1 && ip link set eth1 up");
  const int index = static_cast<int>(::if_nametoindex("eth1"));
  const auto told = [&](const char* what, double took) {
    std::printf("%u neighbours %-32s %.3f s, %8.0f a second\n", count, what, took, count / took);
  };
  told("by raw netlink", rawNetlink(index, count));
  flush();
  {
    const std::string file = "/tmp/ryx-neighbor-bench-" + std::to_string(::getpid());
    std::ofstream lines(file);
    for (uint32_t n = 0; n < count; ++n)
      lines << "neigh replace " << IpAddr::v4(0x0b000000 + n).toString()
            << " lladdr 00:1c:73:00:00:01 dev eth1 nud permanent\n";
    lines.close();
    const double start = seconds();
    shell("ip -batch " + file);
    told("by ip -batch", seconds() - start);
    ::unlink(file.c_str());
  }
  flush();

  ryx::platform::Tree tree;
  makeWellKnown(tree);
  std::string error;
  const auto links = KernelLinks::start(tree, IntfMap(), &error);
  const auto neighbors = links ? KernelNeighbors::start(tree, links->links(), &error) : nullptr;
  if (!neighbors) fail(error.c_str());
  const auto em = ryx::platform::EntityManager::embedded("bench", tree);
  ryx::sdk sdk("bench", em.get());
  ryx::neighbor_table_mgr* mgr = sdk.get_neighbor_table_mgr();
  struct Counter : ryx::neighbor_table_handler {
    explicit Counter(ryx::neighbor_table_mgr* m) : neighbor_table_handler(m) {
      watch_all_neighbor_entries(true);
    }
    void on_neighbor_entry_set(const ryx::neighbor_entry_t&) override { ++count; }
    uint32_t count = 0;
  } heard(mgr);
  sdk.initialize_context();
  activity().run(0.01);
  const auto until = [&](auto&& done) {
    for (const double limit = seconds() + 60; !done(); activity().run(0))
      if (seconds() > limit) fail("it does not end");
  };
  const auto key = [](uint32_t n) {
    const uint8_t bytes[4] = {11, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8),
                              static_cast<uint8_t>(n)};
    return ryx::neighbor_key_t(ryx::ip_addr_t(ryx::AF_IPV4, bytes), "Ethernet1");
  };
  double start = seconds();
  {
    const ryx::intf_id_t intf("Ethernet1");
    for (uint32_t n = 0; n < count; ++n) {
      ryx::neighbor_entry_t entry(key(n).ip_addr(), intf);
      entry.eth_addr_is(ryx::eth_addr_t(0, 0x1c, 0x73, 0, 0, 1));
      mgr->neighbor_entry_set(entry);
    }
  }
  told("set by an agent, until called", seconds() - start);
  const auto allAreThere = [&] {
    return neighbors->neighbors().counters().writes == count && neighbors->socket().pending() == 0;
  };
  until(allAreThere);
  told("... and in the kernel", seconds() - start);
  std::printf("  (target 400000 a second)\n");
  until([&] { return heard.count == count; });
  told("... and heard back", seconds() - start);
  start = seconds();
  for (uint32_t n = 0; n < count; ++n) mgr->neighbor_entry_del(key(n));
  until([&] { return neighbors->neighbors().size() == 0; });
  told("taken away by an agent", seconds() - start);
  heard.count = 0;
  start = seconds();
  rawNetlink(index, count);
  until([&] { return heard.count == count; });
  told("set by another, heard", seconds() - start);
}

}  // namespace

int main() {
  if (::unshare(CLONE_NEWNET) != 0) {
    std::printf("skipped: no network namespace can be made here\n");
    return 0;
  }
  const bool small = isSmall();
  if (!small) warmMemory(256);
  run(small ? 1000 : 100'000);
  std::fflush(stdout);
  ::_exit(0);  // managers live as long as the process
}
