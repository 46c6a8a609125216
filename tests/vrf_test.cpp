// VRFs: what agents hear of them, and sockets in them.
#include "ryx/vrf.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "platform/base/socket_in.h"
#include "platform/model/vrf.h"
#include "ryx/panic.h"
#include "switch/sim/sim.h"
#include "tests/support/netns.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::testing {
namespace {

class VrfTest : public StatehubTest {
 protected:
  void does(const std::string& line) {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command(line)) << line;
    settle();
  }
  bool hasDirectories(const std::string& vrf) {
    return find<platform::Dir>("routing/vrf/input/" + vrf) &&
           find<platform::Dir>("routing6/vrf/input/" + vrf);
  }

  sim::Sim sim{tree()};
};
RYX_OVER_BOTH(VrfTest);

class Watch : public vrf_handler {
 public:
  explicit Watch(vrf_mgr* mgr) : vrf_handler(mgr), mgr_(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  void on_vrf_state(std::string vrf, vrf_state_t state) override {
    std::ostringstream line;
    line << vrf << " " << state << "\n";
    lines_ += line.str();
    // Of one that went its successor may be there already.
    EXPECT_TRUE(state == VRF_NULL || state == mgr_->state(vrf)) << "inside the callback";
  }

 private:
  vrf_mgr* mgr_;
  std::string lines_;
};

TEST_P(VrfTest, ComeChangeAndGo) {
  does("vrf-add red");
  TestSdk sdk(*this, "tester");
  vrf_mgr* mgr = sdk.get_vrf_mgr();
  Watch all(mgr), one(mgr);
  all.watch_all_vrfs(true);
  one.watch_vrf("blue/1", true);
  EXPECT_THROW(mgr->vrf_iter(), legacy_exception);
  sdk.start();
  settle();
  const std::string first = all.told();
  EXPECT_TRUE(first == "default VRF_ACTIVE\nred VRF_ACTIVE\n" ||
              first == "red VRF_ACTIVE\ndefault VRF_ACTIVE\n")
      << first;
  std::set<std::string> names;
  for (auto it = mgr->vrf_iter(); it; ++it) names.insert(*it);
  EXPECT_EQ((std::set<std::string>{"default", "red"}), names);
  EXPECT_TRUE(mgr->exists("red") && mgr->exists("default") && !mgr->exists("blue/1"));
  EXPECT_EQ(VRF_NULL, mgr->state("blue/1"));
  EXPECT_EQ("ns-red", mgr->vrf_namespace("red"));
  EXPECT_EQ("default", mgr->vrf_namespace("default"));
  EXPECT_EQ("", mgr->vrf_namespace("blue/1"));

  does("vrf-add blue/1");
  for (const char* state : {"initializing", "initializing", "deleting", "active"})
    does(std::string("vrf-state blue/1 ") + state);
  EXPECT_EQ("blue/1 VRF_ACTIVE\nblue/1 VRF_INITIALIZING\nblue/1 VRF_DELETING\nblue/1 VRF_ACTIVE\n",
            one.told());
  EXPECT_TRUE(hasDirectories("red"));
  does("vrf-del red");
  EXPECT_FALSE(mgr->exists("red") || hasDirectories("red"));
  all.told();
  // It goes and comes back before anyone looked.
  {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command("vrf-del blue/1"));
    EXPECT_EQ("", sim.command("vrf-add blue/1"));
  }
  settle();
  EXPECT_EQ("blue/1 VRF_NULL\nblue/1 VRF_ACTIVE\n", all.told());
  EXPECT_EQ(VRF_ACTIVE, mgr->state("blue/1"));

  EXPECT_EQ("there is a VRF \"default\" already", sim.command("vrf-add default"));
  EXPECT_EQ("there is no VRF \"default\" to change; expected one that vrf-add made",
            sim.command("vrf-del default"));
  EXPECT_EQ("the state \"up\"; expected initializing, active or deleting",
            sim.command("vrf-state blue/1 up"));
}

TEST_P(VrfTest, ANameHasABound) {
  TestSdk sdk(*this, "tester");
  vrf_mgr* mgr = sdk.get_vrf_mgr();
  sdk.start();
  EXPECT_FALSE(mgr->exists(std::string(100, 'x')));
  const std::string longer(101, 'x');
  for (const auto& call : std::initializer_list<std::function<void()>>{
           [&] { mgr->exists(longer); }, [&] { mgr->state(longer); },
           [&] { mgr->vrf_namespace(longer); },
           [&] { (void)mgr->socket_at(AF_INET, SOCK_DGRAM, 0, longer); }}) {
    try {
      call();
      ADD_FAILURE() << "it is taken";
    } catch (const range_error& e) {
      EXPECT_STREQ("VrfName::bytes > VrfName::maxLength not allowed", e.what());
    }
  }
}

// Where a thread is, and a socket.
ino_t namespaceOf(int fd) {
  struct stat there {};
  EXPECT_EQ(0, ::fstat(fd, &there));
  return there.st_ino;
}
ino_t ownNamespace() {
  const int fd = platform::ownNetworkNamespace();
  const ino_t number = namespaceOf(fd);
  ::close(fd);
  return number;
}

TEST_P(VrfTest, SocketsAreInTheirVrf) {
  does("vrf-add red");
  TestSdk sdk(*this, "tester");
  vrf_mgr* mgr = sdk.get_vrf_mgr();
  sdk.start();
  const int plain = mgr->socket_at(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0, "default");
  EXPECT_GE(plain, 0);
  ::close(plain);
  EXPECT_EQ(-1, mgr->socket_at(AF_INET, 77, 0, "default"));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, mgr->socket_at(AF_INET, SOCK_DGRAM, 0, "green"));
  EXPECT_EQ(ENOENT, errno) << "no such VRF";
  EXPECT_EQ(-1, mgr->socket_at(AF_INET, SOCK_DGRAM, 0, "red"));
  EXPECT_EQ(ENOENT, errno) << "no such namespace";

  if (std::string why = test::NetNs::unavailable(); !why.empty()) GTEST_SKIP() << why;
  const ino_t home = ownNamespace();
  const test::NetNs ns;
  const int there = ::open(ns.path().c_str(), O_RDONLY | O_CLOEXEC);
  const int fd = platform::socketIn(there, AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_GE(fd, 0);
  // What listens there is not heard here.
  sockaddr_in address{};
  address.sin_family = AF_INET;
  EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  EXPECT_EQ(0, ::listen(fd, 1));
  EXPECT_NE(std::string::npos, ns.run("ss -Htln").find("0.0.0.0:"));
  EXPECT_EQ(home, ownNamespace());
  EXPECT_EQ(-1, platform::socketIn(there, AF_INET, 77, 0));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(home, ownNamespace()) << "also when it fails";
  EXPECT_EQ(-1, platform::socketIn(fd, AF_INET, SOCK_STREAM, 0)) << "no namespace at all";
  EXPECT_EQ(home, ownNamespace());
  EXPECT_EQ(-1, platform::socketIn("../netns", AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(ENOENT, errno);
  ::close(fd);
  ::close(there);
}

}  // namespace
}  // namespace ryx::testing
