#include "tests/support/statehub_fixture.h"

#include <sys/socket.h>

#include "platform/activity/activity.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/local.h"
#include "ryx/mount.h"

namespace ryx::testing {

namespace {

using platform::activity;
using platform::Entity;
using platform::EntityManager;
using platform::GenericAgent::Config;
using platform::GenericAgent::Status;

// The process's one tree, as it was at the start.
void clear(platform::Tree& tree) {
  for (const platform::WellKnown& place : platform::wellKnown()) {
    Entity* entity = tree.find(place.path);
    ASSERT_NE(nullptr, entity);
    for (const platform::CollectionInfo& info : entity->type().collections) {
      platform::CollectionBase& children = entity->collection(info);
      for (platform::CollectionIterator it(children); it; it.next())
        if (it.get()->alive()) children.remove(*it.get());
    }
    platform::EntityOps::copyAttributes(*entity, *platform::EntityOps::make(entity->type()));
  }
  platform::makeWellKnown(tree);  // what always stands in one of them
}

}  // namespace

void settle() {
  const auto& counters = activity().counters();
  for (int quiet = 0; quiet < 3;) {
    const uint64_t before = counters.descriptorEvents + counters.tasks;
    activity().run(0);
    quiet = counters.descriptorEvents + counters.tasks == before ? quiet + 1 : 0;
  }
}

StatehubTest::StatehubTest() {
  if (GetParam() == Over::embedded) {
    tree_ = &platform::localTree();
    return;
  }
  own_ = std::make_unique<platform::Tree>();
  platform::makeWellKnown(*own_);
  hub_ = std::make_unique<platform::Hub>(*own_);
  tree_ = own_.get();
}

StatehubTest::~StatehubTest() {
  hub_.reset();
  settle();
  if (!own_) clear(*tree_);
  settle();
}

std::unique_ptr<EntityManager> StatehubTest::connect(const std::string& agentName) {
  if (!hub_) return EntityManager::embedded(agentName);
  int ends[2];
  platform::check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  hub_->accept(ends[0]);
  return EntityManager::overSocket(ends[1], agentName);
}

Config* StatehubTest::configOf(const std::string& key) {
  return find<platform::Dir>("daemon/agent/config")->entry.create<Config>(platform::Name(key));
}

Status* StatehubTest::statusOf(const std::string& key) {
  return find<platform::Dir>("daemon/agent/status")->entry.find<Status>(platform::Name(key));
}

TestSdk::TestSdk(StatehubTest& test, const std::string& name) : TestSdk(test.connect(name), name) {}

TestSdk::TestSdk(std::unique_ptr<EntityManager> connection, const std::string& name)
    : sdk(name, connection.get()), connection_(std::move(connection)) {}

TestSdk::~TestSdk() {
  destroy_managers();
}

void TestSdk::start() {
  initialize_context();
  settle();
  ASSERT_TRUE(get_mount_mgr()->initializationComplete());
}

std::string nameOf(const ::testing::TestParamInfo<Over>& info) {
  return info.param == Over::embedded ? "embedded" : "hub";
}

}  // namespace ryx::testing
