// The link between processes: a hub and its participants, each a process of its own, as they are on
// a switch; some die, the others go on.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/model/interface.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace ryx::platform {
namespace {

using Interface::EthLagIntfConfigDir;

using test::Process;
using test::until;

struct Place {
  sockaddr_un address() const {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    return a;
  }
  test::TempDir directory;
  const std::string path = directory / "hub";
};

// "sessions N": waits until so many are connected. "own NAME KEY": what that agent's status has.
Process hubAt(const Place& place) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a = place.address();
  unlink(place.path.c_str());
  EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
  EXPECT_EQ(0, listen(fd, 8));
  Process made([fd] {
    struct Listener : Descriptor {
      Listener(int fd, Hub& h) : Descriptor(fd, "Listener"), hub(h) { readableInterestIs(true); }
      void onReadable() override { hub.accept(accept4(fd(), nullptr, nullptr, SOCK_CLOEXEC)); }
      Hub& hub;
    };
    auto* tree = new Tree;  // as long as the process
    makeWellKnown(*tree);
    auto* hub = new Hub(*tree);
    new Listener(fd, *hub);
    return [tree, hub](std::istringstream& question) -> std::string {
      std::string verb, name, key;
      question >> verb >> name >> key;
      if (verb == "sessions")
        return until([&] { return hub->sessions() == std::stoul(name); }) ? "yes" : "no";
      auto* status =
          tree->find<Dir>("daemon/agent/status")->entry.find<GenericAgent::Status>(Name(name));
      const auto* value = status ? status->data.get(key) : nullptr;
      return value ? std::string(value->bytes()) : "nothing";
    };
  });
  close(fd);
  return made;
}

// "set N TEXT" and "see N TEXT": a shared attribute. "own KEY VALUE" and "mine KEY": in its own
// status. "lost": waits until the connection is lost; "return": connects again.
Process participantAt(const Place& place, const std::string& name) {
  return Process([&place, name] {
    auto connected = [&place] {
      int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un a = place.address();
      if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) _exit(1);
      return fd;
    };
    auto* em = EntityManager::overSocket(connected(), name).release();
    auto* group = em->mountGroup().release();
    auto* status = new MountStatus(MountStatus::pending);
    group->add("interface/config/eth/lag", "Interface::EthLagIntfConfigDir", "w");
    group->add("daemon/agent/status", "Qel::Dir", "w");
    group->close([status](MountStatus s) { *status = s; });
    if (!until([&] { return *status == MountStatus::success; })) _exit(1);
    return [em, name, connected](std::istringstream& question) -> std::string {
      std::string verb, first, second;
      question >> verb >> first >> second;
      auto* lags = em->find<EthLagIntfConfigDir>("interface/config/eth/lag");
      auto* all = em->find<Dir>("daemon/agent/status");
      IntfId lag;
      if (verb == "set" || verb == "see")
        if (!parse("Port-Channel" + first, &lag)) return "no name";
      WriterScope as(*em);
      if (verb == "set") {
        lags->intf.create(lag)->description.set(second);
      } else if (verb == "see") {
        bool seen = until([&] {
          auto* e = lags->intf.find(lag);
          return e && e->description() == second;
        });
        return seen ? "yes" : "no";
      } else if (verb == "own") {
        all->entry.create<GenericAgent::Status>(Name(name))->data.set(first, second);
      } else if (verb == "mine") {
        auto* own = all->entry.find<GenericAgent::Status>(Name(name));
        const auto* value = own ? own->data.get(first) : nullptr;
        return value ? std::string(value->bytes()) : "nothing";
      } else if (verb == "lost") {
        return until([&] { return !em->connected(); }) ? "yes" : "no";
      } else if (verb == "return") {
        em->reconnected(connected());
      }
      if (verb == "lost") return "no";
      return until([&] { return em->drained() && em->acknowledged() == em->batches(); }) ? "done"
                                                                                         : "stuck";
    };
  });
}

TEST(LinkProcessTest, WhoeverDiesTheOthersGoOn) {
  Place place;
  Process hub = hubAt(place);
  Process victim = participantAt(place, "victim"), other = participantAt(place, "other");
  EXPECT_EQ("yes", hub.ask("sessions 2"));
  EXPECT_EQ("done", victim.ask("set 1 from-victim"));
  EXPECT_EQ("done", victim.ask("own key value"));
  EXPECT_EQ("yes", other.ask("see 1 from-victim"));
  EXPECT_EQ("done", other.ask("set 2 from-other"));
  EXPECT_EQ("yes", victim.ask("see 2 from-other"));

  victim.kill9();
  EXPECT_EQ("yes", hub.ask("sessions 1"));
  EXPECT_EQ("done", other.ask("set 1 after"));
  EXPECT_EQ("yes", other.ask("see 2 from-other"));
  EXPECT_EQ("value", hub.ask("own victim key"));

  // Its name is free at once, and what it wrote is there.
  Process next = participantAt(place, "victim");
  EXPECT_EQ("value", next.ask("mine key"));
  EXPECT_EQ("yes", next.ask("see 1 after"));
  EXPECT_EQ("done", next.ask("set 1 again"));
  EXPECT_EQ("yes", other.ask("see 1 again"));
}

TEST(LinkProcessTest, TheHubDiesAndGetsBackWhatItsParticipantsOwn) {
  Place place;
  Process hub = hubAt(place);
  Process a = participantAt(place, "a"), b = participantAt(place, "b");
  EXPECT_EQ("done", a.ask("own key before"));
  EXPECT_EQ("done", b.ask("own key b"));
  hub.kill9();
  EXPECT_EQ("yes", a.ask("lost"));
  EXPECT_EQ("yes", b.ask("lost"));

  Process second = hubAt(place);
  EXPECT_EQ("done", a.ask("return"));
  EXPECT_EQ("before", second.ask("own a key"));
  EXPECT_EQ("nothing", second.ask("own b key"));
  EXPECT_EQ("done", b.ask("return"));
  EXPECT_EQ("b", second.ask("own b key"));
  EXPECT_EQ("before", a.ask("mine key"));
  EXPECT_EQ("done", a.ask("set 1 new"));
  EXPECT_EQ("yes", b.ask("see 1 new"));
}

}  // namespace
}  // namespace ryx::platform
