// A hub and a participant of neighbouring models: one knows an attribute, a type or a collection
// that the other does not. Each is a process of its own, since a process has one model.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>

#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "tests/support/process.h"

namespace ryx {
namespace {

using namespace platform;
using test::Process;
using test::until;

// The same types in three versions: as they were, with more, and with less.
template <int kVersion>
struct Model;

template <>
struct Model<1> {
  struct Item : EntityType<Item> {
    static constexpr const char* kTypeName = "ModelVersions::Item";
    Key<Name> key;
    Attr<"first", std::string> first;
    Attr<"second", uint32_t> second;
  };
  struct Thing : JournalRootType<Thing> {
    static constexpr const char* kTypeName = "ModelVersions::Thing";
    Key<Name> key;
    Attr<"label", std::string> label;
    Collection<"item", Item> item;
  };
  static void registerMore() {}
  static void fillMore(Dir&, Thing&) {}
  static std::string more(Thing&) { return ""; }
};

template <>
struct Model<2> {
  struct Note : EntityType<Note> {
    static constexpr const char* kTypeName = "ModelVersions::Note";
    Key<Name> key;
    Attr<"text", std::string> text;
  };
  struct Item : EntityType<Item> {
    static constexpr const char* kTypeName = "ModelVersions::Item";
    Key<Name> key;
    Attr<"added", std::string> added;  // in front, so that every index is another one
    Attr<"first", std::string> first;
    Attr<"second", uint32_t> second;
  };
  struct Thing : JournalRootType<Thing> {
    static constexpr const char* kTypeName = "ModelVersions::Thing";
    Key<Name> key;
    Attr<"size", uint64_t> size;
    Attr<"label", std::string> label;
    Collection<"note", Note> note;
    Collection<"item", Item> item;
  };
  struct Whole : JournalRootType<Whole> {
    static constexpr const char* kTypeName = "ModelVersions::Whole";
    Key<Name> key;
    Collection<"note", Note> note;
  };
  static void registerMore() { typeOf<Whole>(); }
  static void fillMore(Dir& dir, Thing& thing) {
    thing.size.set(9);
    thing.note.create("n")->text.set("noted");
    for (auto it = thing.item.iterator(); it; it.next()) it->added.set("new");
    dir.entry.create<Whole>("extra")->note.create("m")->text.set("too");
  }
  static std::string more(Thing& thing) {
    auto* note = thing.note.find("n");
    return std::to_string(thing.size()) + (note ? note->text() : "");
  }
};

template <>
struct Model<3> {  // "second" is gone, and "label" is of another kind
  struct Item : EntityType<Item> {
    static constexpr const char* kTypeName = "ModelVersions::Item";
    Key<Name> key;
    Attr<"first", std::string> first;
  };
  struct Thing : JournalRootType<Thing> {
    static constexpr const char* kTypeName = "ModelVersions::Thing";
    Key<Name> key;
    Attr<"label", uint32_t> label;
    Collection<"item", Item> item;
  };
  static void registerMore() {}
  static void fillMore(Dir&, Thing&) {}
  static std::string more(Thing&) { return ""; }
};

constexpr const char* kDir = "interface/config/eth/phy/slice";  // shared, of any type

template <int kVersion>
std::string show(Tree& tree, const char* name) {
  using M = Model<kVersion>;
  auto* dir = tree.find<Dir>(kDir);
  auto* thing = dir ? dir->entry.find<typename M::Thing>(name) : nullptr;
  if (!thing) return "nothing";
  std::ostringstream text;
  text << thing->label() << M::more(*thing);
  for (auto it = thing->item.iterator(); it; it.next()) text << " " << it->first();
  return text.str();
}

template <int kVersion>
void make(Tree& tree, const char* name, int items) {
  using M = Model<kVersion>;
  auto* dir = tree.find<Dir>(kDir);
  auto* thing = dir->entry.create<typename M::Thing>(name);
  for (int i = 0; i < items; ++i)
    thing->item.create("i" + std::to_string(i))->first.set(std::string(name) + std::to_string(i));
  M::fillMore(*dir, *thing);
}

template <int kVersion>
void registerTypes() {
  registerModel();
  typeOf<typename Model<kVersion>::Thing>();
  typeOf<typename Model<kVersion>::Item>();
  Model<kVersion>::registerMore();
  TypeInfo::registerChildren();
}

// "make NAME ITEMS", "show NAME", "take": a new connection waits.
template <int kVersion>
Process hubOf(int fd, int second, const int (&others)[2]) {
  return Process([=, a = others[0], b = others[1]] {
    close(a);
    close(b);
    registerTypes<kVersion>();
    auto* tree = new Tree;
    makeWellKnown(*tree);
    auto* hub = new Hub(*tree);
    make<kVersion>(*tree, "fromhub", 3);
    hub->accept(fd);
    return [=](std::istringstream& question) -> std::string {
      std::string verb, name;
      question >> verb >> name;
      if (verb == "drop") hub->dropAll(), hub->accept(second);
      if (verb == "broken") return std::to_string(hub->counters().broken);
      return show<kVersion>(*tree, name.c_str());
    };
  });
}

template <int kVersion>
Process participantOf(int fd, int second, const int (&others)[2]) {
  return Process([=, a = others[0], b = others[1]] {
    close(a);
    close(b);
    registerTypes<kVersion>();
    auto* em = EntityManager::overSocket(fd, Participant(Role::service, "s")).release();
    auto* status = new MountStatus(MountStatus::pending);
    auto* group = em->mountGroup().release();
    group->add(kDir, "Qel::Dir", "w");
    group->close([status](MountStatus s) { *status = s; });
    if (!until([&] { return *status == MountStatus::success; })) _exit(1);
    return [=](std::istringstream& question) -> std::string {
      std::string verb, name;
      question >> verb >> name;
      if (verb == "make") make<kVersion>(em->tree(), name.c_str(), 2);
      if (verb == "return") {
        if (!until([&] { return !em->connected(); })) return "never lost";
        make<kVersion>(em->tree(), name.c_str(), 4);
        em->reconnected(second);
      }
      if (!until([&] { return em->drained() && em->acknowledged() == em->batches(); }))
        return "stuck";
      return show<kVersion>(em->tree(), name.c_str());
    };
  });
}

template <int kHub, int kParticipant>
void runTogether() {
  int first[2], second[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, first));
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, second));
  Process hub = hubOf<kHub>(first[0], second[0], {first[1], second[1]});
  Process participant = participantOf<kParticipant>(first[1], second[1], {first[0], second[0]});
  for (int fd : {first[0], first[1], second[0], second[1]}) close(fd);
  const auto endsWith = [](const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
  };
  const auto expectBoth = [&](const std::string& name, const std::string& items) {
    const std::string there = hub.ask("show " + name), here = participant.ask("show " + name);
    EXPECT_TRUE(endsWith(there, items)) << "the hub has " << there;
    EXPECT_TRUE(endsWith(here, items)) << "the participant has " << here;
  };
  expectBoth("fromhub", " fromhub0 fromhub1 fromhub2");
  participant.ask("make fromclient");
  expectBoth("fromclient", " fromclient0 fromclient1");
  hub.ask("drop");
  participant.ask("return again");
  expectBoth("again", " again0 again1 again2 again3");
  expectBoth("fromhub", " fromhub0 fromhub1 fromhub2");
  EXPECT_EQ("0", hub.ask("broken"));
}

TEST(ModelVersionsTest, TheParticipantKnowsMore) {
  runTogether<1, 2>();
}
TEST(ModelVersionsTest, TheHubKnowsMore) {
  runTogether<2, 1>();
}
TEST(ModelVersionsTest, TheParticipantKnowsLess) {
  runTogether<1, 3>();
}
TEST(ModelVersionsTest, TheHubKnowsLess) {
  runTogether<3, 1>();
}
TEST(ModelVersionsTest, OneAddsWhatTheOtherLost) {
  runTogether<2, 3>();
  runTogether<3, 2>();
}

}  // namespace
}  // namespace ryx
