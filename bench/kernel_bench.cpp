// Neighbours and addresses from an agent's calls to the kernel and back, beside what the kernel
// takes from raw netlink and from `ip -batch`. In network namespaces of its own; without the
// privilege to make one it measures nothing, and says so.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/activity/activity.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/ip_intf.h"
#include "ryx/neighbor_table.h"
#include "ryx/sdk.h"
#include "switch/linux/kernel_addresses.h"
#include "switch/linux/kernel_links.h"
#include "switch/linux/kernel_neighbors.h"

using namespace ryx::bench;
using namespace ryx::kernel;
using ryx::platform::activity;
using ryx::platform::Af;
using ryx::platform::IpAddr;
using ryx::platform::IpAddrMask;
using ryx::platform::MacAddr;

namespace {

constexpr uint8_t kMac[6] = {0, 0x1c, 0x73, 0, 0, 1};

void shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) fail(command.c_str());
}

void told(const char* what, const char* how, uint32_t count, double took) {
  std::printf("%6u %-10s %-32s %.3f s, %8.0f a second\n", count, what, how, took, count / took);
}

// Seconds for all of them, as fast as it can be said.
double rawNetlink(uint32_t count, const std::function<Message(uint32_t n)>& make) {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  const double start = seconds();
  std::string batch;
  for (uint32_t n = 0; n < count; ++n) {
    Message message = make(n);
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

double ipBatch(uint32_t count, const std::function<std::string(uint32_t n)>& line) {
  const std::string file = "/tmp/ryx-kernel-bench-" + std::to_string(::getpid());
  std::ofstream lines(file);
  for (uint32_t n = 0; n < count; ++n) lines << line(n) << "\n";
  lines.close();
  const double start = seconds();
  shell("ip -batch " + file);
  const double took = seconds() - start;
  ::unlink(file.c_str());
  return took;
}

void until(const std::function<bool()>& done) {
  for (const double limit = seconds() + 60; !done(); activity().run(0))
    if (seconds() > limit) fail("it does not end");
}

// The linux feed and an agent, in one process.
struct Both {
  Both() {
    makeWellKnown(tree);
    std::string error;
    links = KernelLinks::start(tree, IntfMap(), &error);
    if (links) addresses = KernelAddresses::start(tree, links->links(), &error);
    if (addresses) neighbors = KernelNeighbors::start(tree, links->links(), &error);
    if (!neighbors) fail(error.c_str());
    em = ryx::platform::EntityManager::embedded("bench", tree);
    sdk = std::make_unique<ryx::sdk>("bench", em.get());
  }
  void stop() {
    neighbors.reset();
    addresses.reset();
    links.reset();
  }

  ryx::platform::Tree tree;
  std::unique_ptr<KernelLinks> links;
  std::unique_ptr<KernelAddresses> addresses;
  std::unique_ptr<KernelNeighbors> neighbors;
  std::unique_ptr<ryx::platform::EntityManager> em;
  std::unique_ptr<ryx::sdk> sdk;
};

void neighbors(uint32_t count) {
  const auto say = [&](const char* how, double took) { told("neighbours", how, count, took); };
  const int index = static_cast<int>(::if_nametoindex("eth1"));
  const auto make = [&](uint32_t n) {
    return setNeighbor({index, IpAddr::v4(0x0b000000 + n), MacAddr(kMac), true});
  };
  const char* const flush = "ip neigh flush dev eth1 nud permanent > /dev/null";
  say("by raw netlink", rawNetlink(count, make));
  shell(flush);
  say("by ip -batch", ipBatch(count, [](uint32_t n) {
        return "neigh replace " + IpAddr::v4(0x0b000000 + n).toString() +
               " lladdr 00:1c:73:00:00:01 dev eth1 nud permanent";
      }));
  shell(flush);

  Both& both = *new Both;
  auto* mgr = both.sdk->get_neighbor_table_mgr();
  struct Counter : ryx::neighbor_table_handler {
    explicit Counter(ryx::neighbor_table_mgr* m) : neighbor_table_handler(m) {
      watch_all_neighbor_entries(true);
    }
    void on_neighbor_entry_set(const ryx::neighbor_entry_t&) override { ++count; }
    uint32_t count = 0;
  }& heard = *new Counter(mgr);
  both.sdk->initialize_context();
  activity().run(0.01);
  const auto all = [&] { return both.neighbors->neighbors().size(); };

  const ryx::intf_id_t intf("Ethernet1");
  const auto key = [&](uint32_t n) {
    const uint8_t bytes[4] = {11, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8),
                              static_cast<uint8_t>(n)};
    return ryx::neighbor_key_t(ryx::ip_addr_t(ryx::AF_IPV4, bytes), intf);
  };
  double start = seconds();
  for (uint32_t n = 0; n < count; ++n) {
    ryx::neighbor_entry_t entry(key(n));
    entry.eth_addr_is(ryx::eth_addr_t(0, 0x1c, 0x73, 0, 0, 1));
    mgr->neighbor_entry_set(entry);
  }
  say("set by an agent, until called", seconds() - start);
  const auto& counters = both.neighbors->neighbors().counters();
  until([&] { return counters.writes == count && both.neighbors->socket().pending() == 0; });
  say("... and in the kernel", seconds() - start);
  std::printf("  (target 400000 a second)\n");
  until([&] { return heard.count == count; });
  say("... and heard back", seconds() - start);
  start = seconds();
  for (uint32_t n = 0; n < count; ++n) mgr->neighbor_entry_del(key(n));
  until([&] { return all() == 0; });
  say("taken away by an agent", seconds() - start);
  heard.count = 0;
  start = seconds();
  rawNetlink(count, make);
  until([&] { return heard.count == count; });
  say("set by another, heard", seconds() - start);
  shell(flush);
  until([&] { return all() == 0; });
  both.stop();
}

void addresses(uint32_t count) {
  const auto say = [&](const char* how, double took) { told("addresses", how, count, took); };
  const int index = static_cast<int>(::if_nametoindex("eth2"));
  // A subnet each, as routed interfaces have them; beside each other on one, which is the worst.
  const auto addr = [](uint32_t n) { return IpAddrMask(IpAddr::v4(0x14000001 + n * 4), 30); };
  // As somebody else sets it: without this switch's mark, which is the last attribute.
  const auto foreign = [&](uint32_t n) {
    Message message = setAddress({index, addr(n), true, false});
    message.header()->nlmsg_len -= 8;
    return message;
  };
  const char* const flush = "ip addr flush dev eth2 scope global > /dev/null";
  say("by raw netlink", rawNetlink(count, foreign));
  shell(flush);
  say("by ip -batch",
      ipBatch(count, [&](uint32_t n) { return "addr add " + addr(n).toString() + " dev eth2"; }));
  shell(flush);

  Both& both = *new Both;
  auto* mgr = both.sdk->get_ip_intf_mgr();
  struct Counter : ryx::ip_intf_handler {
    explicit Counter(ryx::ip_intf_mgr* m) : ip_intf_handler(m) { watch_all_ip_intfs(true); }
    void on_ip_addr_add(ryx::intf_id_t, const ryx::ip_addr_mask_t&) override { ++come; }
    void on_ip_addr_del(ryx::intf_id_t, const ryx::ip_addr_mask_t&) override { ++gone; }
    uint32_t come = 0, gone = 0;
  }& heard = *new Counter(mgr);
  both.sdk->initialize_context();
  activity().run(0.01);

  double start = seconds();
  const ryx::intf_id_t intf("Ethernet2");
  for (uint32_t n = 0; n < count; ++n) {
    const IpAddrMask one = addr(n);
    mgr->ip_addr_add(intf, {{ryx::AF_IPV4, one.addr().bytes()}, one.length()});
  }
  say("added by an agent, until called", seconds() - start);
  until([&] {
    return both.addresses->addresses().counters().writes == count &&
           both.addresses->socket().pending() == 0;
  });
  say("... and in the kernel", seconds() - start);
  until([&] { return heard.come == count; });
  say("... and heard back", seconds() - start);
  start = seconds();
  mgr->ip_addrs_is(intf, {});
  until([&] { return heard.gone == heard.come; });
  say("taken away by an agent", seconds() - start);
  start = seconds();
  rawNetlink(count, foreign);
  until([&] { return heard.come == 2 * count; });
  say("added by another, heard", seconds() - start);
}

}  // namespace

int main() {
  if (::unshare(CLONE_NEWNET) != 0) {
    std::printf("skipped: no network namespace can be made here\n");
    return 0;
  }
  const bool small = isSmall();
  if (!small) warmMemory(256);
  shell(
      "ip link add eth1 type veth peer name eth2 && ip addr add 10.255.255.1/8 dev eth1 && "
      "ip link set eth1 up && ip link set eth2 up");
  neighbors(small ? 1000 : 100'000);
  addresses(small ? 100 : 10'000);
  std::fflush(stdout);
  ::_exit(0);  // managers live as long as the process
}
