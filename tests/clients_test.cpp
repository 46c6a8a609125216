// What the server tells of its connections, and when one of them is silent.
#include "switch/hub/clients.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/statehub.h"
#include "platform/model/wellknown.h"
#include "platform/qel/codec.h"
#include "platform/statehub/wire.h"

namespace ryx::hub {
namespace {

using namespace platform;

// An agent that does nothing by itself.
class Puppet {
 public:
  Puppet(Hub& hub, const char* name, uint64_t heartbeatMilliseconds) {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    hub.accept(ends[0]);
    fd_ = ends[1];
    Encoder e;
    e.u8(static_cast<uint8_t>(Op::hello));
    e.varint(kWireMagic);
    e.varint(kWireVersion);
    e.varint(static_cast<uint64_t>(Role::agent));
    e.text(name);
    e.varint(heartbeatMilliseconds);
    e.varint(0);
    send(e);
  }
  ~Puppet() { close(fd_); }
  void beat() {
    Encoder e;
    e.u8(static_cast<uint8_t>(Op::heartbeat));
    send(e);
  }

 private:
  void send(const Encoder& e) {
    const char length[4] = {static_cast<char>(e.size())};
    EXPECT_EQ(4, write(fd_, length, 4));
    EXPECT_EQ(static_cast<ssize_t>(e.size()), write(fd_, e.view().data(), e.size()));
  }
  int fd_;
};

TEST(ClientsTest, TellsWhoIsThereAndWhoIsSilent) {
  VirtualClock time;
  Tree tree;
  makeWellKnown(tree);
  Hub hub(tree);
  std::vector<std::string> silent;
  Clients clients(hub, [&](const std::string& agent) { silent.push_back(agent); });
  const auto pass = [&](double seconds) {
    for (int i = 0; i < 3; ++i) activity().run(0);
    time.advance(seconds);
    for (int i = 0; i < 3; ++i) activity().run(0);
  };
  DirEntries& all = tree.find<Dir>("statehub/client")->entry;
  const auto find = [&](const char* name) -> Statehub::Client* {
    for (CollectionIterator it(all); it; it.next())
      if (auto* c = it.get()->as<Statehub::Client>(); c->name() == name) return c;
    return nullptr;
  };
  Puppet quiet(hub, "quiet", 0);
  {
    Puppet dead(hub, "dead", 2000), lively(hub, "lively", 2000);
    pass(Clients::kSoonSeconds);
    ASSERT_TRUE(find("dead") && find("lively") && find("quiet"));
    EXPECT_EQ(static_cast<uint32_t>(getpid()), find("dead")->pid());
    EXPECT_EQ("agent", find("dead")->role());
    EXPECT_LT(0u, find("dead")->bytesReceived());
    for (int second = 0; second < 5; ++second) {
      lively.beat();
      pass(1);
    }
    EXPECT_TRUE(silent.empty()) << "three periods are not over";
    pass(1);
    EXPECT_EQ(std::vector<std::string>{"dead"}, silent);
    EXPECT_TRUE(find("dead")->silent());
    EXPECT_FALSE(find("lively")->silent());
    pass(1);
    EXPECT_EQ(1u, silent.size()) << "once";
    dead.beat();
    pass(1);
    EXPECT_FALSE(find("dead")->silent());
    // A server that was stopped itself blames nobody for what it has not heard.
    silent.clear();
    pass(1000);
    EXPECT_TRUE(silent.empty());
    for (int second = 0; second < 7; ++second) pass(1);
    EXPECT_EQ(2u, silent.size());
  }
  pass(1);
  EXPECT_FALSE(find("dead"));
  EXPECT_TRUE(find("quiet"));
  EXPECT_EQ(1u, all.size());
}

}  // namespace
}  // namespace ryx::hub
