// What outlives the server: which state is kept, that its file is whole at any time, and what a
// file does that is not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/model/interface.h"
#include "platform/model/routing.h"
#include "platform/model/wellknown.h"
#include "switch/hub/keeper.h"
#include "tests/support/temp_dir.h"

namespace ryx::hub {
namespace {

using namespace platform;

std::string bytesOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

IntfId intf(const char* name) {
  IntfId id;
  EXPECT_TRUE(parse(name, &id));
  return id;
}

void fill(Tree& tree) {
  auto* agents = tree.find<Dir>("daemon/agent/config");
  auto* a = agents->entry.create<GenericAgent::Config>("a");
  a->enabled.set(true);
  a->exec.set("/bin/true");
  a->argument.set({"-v", ""});
  a->option.set(std::string("color"), std::string("blue"));
  a->option.set(std::string("empty"), std::string());
  agents->entry.create<GenericAgent::Config>("bare");  // nothing but its being there
  auto* process = tree.make<GenericAgent::Process>("daemon/agent/process/a");
  process->pid.set(4711);
  process->state.set("running");
  auto* slice = tree.make<Interface::EthPhyIntfConfigDir>("interface/config/eth/phy/slice/1");
  slice->intf.create(intf("Ethernet1"))->description.set("uplink");
  slice->intf.create(intf("Ethernet2"));  // as it comes
  tree.make<Routing::RouteInput>("routing/vrf/input/default/RyxSdk-a")
      ->route.create({IpPrefix(IpAddr::v4(0x0a000000), 8), 1});
  tree.make<GenericAgent::Status>("daemon/agent/status/a")
      ->data.set(std::string("k"), std::string("v"));
}

void expectFilled(Tree& tree) {
  auto* a = tree.find<GenericAgent::Config>("daemon/agent/config/a");
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->enabled());
  EXPECT_EQ("/bin/true", a->exec());
  EXPECT_EQ((std::vector<std::string>{"-v", ""}), a->argument());
  ASSERT_EQ(2u, a->option.size());
  EXPECT_EQ("blue", a->option.get(std::string("color"))->bytes());
  EXPECT_TRUE(tree.find<GenericAgent::Config>("daemon/agent/config/bare"));
  EXPECT_EQ(4711u, tree.find<GenericAgent::Process>("daemon/agent/process/a")->pid());
  EXPECT_EQ("", tree.find<GenericAgent::Process>("daemon/agent/process/a")->state());
  auto* slice = tree.find<Interface::EthPhyIntfConfigDir>("interface/config/eth/phy/slice/1");
  ASSERT_TRUE(slice);
  EXPECT_EQ("uplink", slice->intf.find(intf("Ethernet1"))->description());
  EXPECT_FALSE(slice->intf.find(intf("Ethernet2"))) << "it comes with its interface";
  EXPECT_FALSE(tree.find("routing/vrf/input/default/RyxSdk-a"))
      << "routes return from their agents";
  EXPECT_FALSE(tree.find("daemon/agent/status/a"));
}

class KeeperTest : public testing::Test {
 protected:
  KeeperTest() { makeWellKnown(tree); }
  std::unique_ptr<Keeper> start(Tree& of) {
    told.clear();
    error.clear();
    return Keeper::start(of, folder, &error, &told);
  }
  // A next life of the server.
  void expectKept() {
    Tree next;
    makeWellKnown(next);
    auto keeper = start(next);
    ASSERT_TRUE(keeper) << error;
    EXPECT_TRUE(told.empty()) << told[0];
    expectFilled(next);
  }

  test::TempDir directory;
  const std::string folder = directory / "a/b";
  const std::string file = folder + "/state";
  Tree tree;
  std::string error;
  std::vector<std::string> told;
};

TEST_F(KeeperTest, KeepsWhatTheModelMarks) {
  {
    VirtualClock time;
    auto keeper = start(tree);
    ASSERT_TRUE(keeper) << error;
    EXPECT_TRUE(told.empty());
    time.advance(1);
    tree.find<Dir>("daemon/agent/config")->entry.create<GenericAgent::Config>("bare");
    activity().run(0);
    activity().run(0);
    while (keeper->writes() == 0) std::this_thread::yield();  // the first change goes at once
    fill(tree);
    activity().run(0);
    EXPECT_EQ(1u, keeper->writes());
    time.advance(Keeper::kGatherSeconds);
    activity().run(0);
    while (keeper->writes() == 1) std::this_thread::yield();  // those right behind it together
    // What does not persist is no reason to write.
    tree.find<GenericAgent::Process>("daemon/agent/process/a")->state.set("stopped");
    time.advance(1);
    activity().run(0);
    keeper.reset();
  }
  struct stat there {};
  ASSERT_EQ(0, stat(file.c_str(), &there));
  EXPECT_EQ(0600u, there.st_mode & 07777);
  ASSERT_EQ(0, stat(folder.c_str(), &there));
  EXPECT_EQ(0700u, there.st_mode & 07777);
  expectKept();
  // A file that a write in the middle of a crash left is in nobody's way.
  std::ofstream(file + ".new") << "half";
  expectKept();
}

TEST_F(KeeperTest, AFolderHasOneServer) {
  auto keeper = start(tree);
  Tree other;
  makeWellKnown(other);
  EXPECT_FALSE(start(other));
  EXPECT_EQ("cannot keep state in " + folder + ": another server keeps its state there", error);
  keeper.reset();
  EXPECT_TRUE(start(other));
  std::ofstream(directory / "file") << "x";
  const std::string below = directory / "file/below";
  EXPECT_FALSE(Keeper::start(tree, below, &error, &told));
  EXPECT_EQ("cannot keep state in " + below + ": Not a directory", error);
}

TEST_F(KeeperTest, ADamagedFileIsToldAndSetAside) {
  fill(tree);
  const std::string good = stateBytes(tree);
  std::mt19937 random(5);
  std::vector<std::string> bad = {"",
                                  "x",
                                  good + "x",
                                  good.substr(0, good.size() - 1),
                                  "ryx state 1 0 0\n",
                                  "ryx state 2 " + good.substr(12)};
  for (int i = 0; i < 50; ++i) {
    bad.push_back(good);
    bad.back()[random() % good.size()] ^= static_cast<char>(1 + random() % 255);
    if (bad.back() == good) bad.pop_back();
  }
  std::filesystem::create_directories(folder);
  for (const std::string& bytes : bad) {
    Tree next;
    makeWellKnown(next);
    std::ofstream(file, std::ios::binary) << bytes;
    ::chmod(file.c_str(), 0600);
    auto keeper = start(next);
    ASSERT_TRUE(keeper) << error;
    ASSERT_EQ(1u, told.size()) << "of " << bytes.substr(0, 40);
    EXPECT_TRUE(next.find<Dir>("daemon/agent/config")->entry.empty()) << "nothing by halves";
    keeper.reset();
    const size_t at = told[0].find(file + ".damaged-");
    ASSERT_NE(std::string::npos, at);
    const std::string aside = told[0].substr(at, told[0].find(',', at) - at);
    EXPECT_EQ(bytes, bytesOf(aside));
    struct stat there {};
    ASSERT_EQ(0, stat(aside.c_str(), &there));
    EXPECT_EQ(0600u, there.st_mode & 07777);
    unlink(aside.c_str());
  }
}

struct OldRoot : JournalRootType<OldRoot> {
  static constexpr const char* kTypeName = "KeeperTest::Root";
  Key<Name> key;
  Attr<"number", uint32_t, kPersistent> number;
};

// A newer server wrote a type, and attributes, that this one does not know.
TEST_F(KeeperTest, AnotherModelsFileIsReadAsFarAsItIsKnown) {
  fill(tree);
  tree.make<OldRoot>("daemon/agent/config/newer")->number.set(7);
  std::string bytes = stateBytes(tree);
  const size_t title = bytes.find('\n') + 1;
  std::string payload = bytes.substr(title);
  const auto rename = [&](const std::string& from, const std::string& to) {
    const size_t at = payload.find(from);
    ASSERT_NE(std::string::npos, at);
    payload.replace(at, from.size(), to);
  };
  rename("KeeperTest::Root", "KeeperTest::Ruin");
  rename("restartSilent", "restartSilenz");
  rename("exec", "exex");
  Tree next;
  makeWellKnown(next);
  EXPECT_EQ("", takeStateBytes(next, stateFile(payload)));
  auto* a = next.find<GenericAgent::Config>("daemon/agent/config/a");
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->enabled());
  EXPECT_EQ("", a->exec());
  EXPECT_EQ(2u, a->option.size());
  EXPECT_FALSE(next.find("daemon/agent/config/newer"));
}

TEST_F(KeeperTest, ADiskThatIsFullIsTriedAgain) {
  ::testing::internal::CaptureStderr();
  {
    auto keeper = start(tree);
    ASSERT_TRUE(keeper);
    std::filesystem::create_directories(file + "/in-the-way");
    fill(tree);
    keeper->saveNow();
    const double end = clock().now() + 20;
    while (keeper->writes() == 0 && clock().now() < end) {
      if (std::filesystem::is_directory(file)) std::filesystem::remove_all(file);
      tree.find<GenericAgent::Config>("daemon/agent/config/a")->exec.set("/bin/true");
      keeper->saveNow();
      activity().run(0.02);
    }
    EXPECT_LT(0u, keeper->writes());
  }
  ::testing::internal::GetCapturedStderr();
  expectKept();
}

}  // namespace
}  // namespace ryx::hub
