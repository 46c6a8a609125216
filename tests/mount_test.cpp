// Mounts: what is declared when, further groups, failures, and who may be created until when.
#include "ryx/mount.h"

#include <algorithm>
#include <functional>

#include "lib/mounts.h"
#include "ryx/agent.h"
#include "ryx/panic.h"
#include "tests/support/statehub_fixture.h"

namespace ryx {
namespace {

using testing::settle;
using testing::TestSdk;

// The text of what a call raises.
template <class Error>
std::string raised(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& e) {
    return e.what();
  }
  return "nothing";
}

constexpr const char* kNotInitialized =
    "SDK not initialized -- did you forget to wait for your agent_handler to call on_initialized?";

using Log = std::vector<std::string>;

class Manager : public mount_handler {
 public:
  Manager(sdk& context, std::string name, Log& log)
      : mount_handler(context.get_mount_mgr()), name_(std::move(name)), log_(log) {}

  void doMounts(mount_group& group) override {
    log_.push_back(name_ + " declares");
    EXPECT_FALSE(initialized());
    group.add(path, "Qel::Dir", "ri");
    if (onDeclare) onDeclare();
  }
  void onMountsComplete(entity_manager& em) override {
    log_.push_back(name_ + " complete");
    EXPECT_NE(nullptr, em->find<platform::Dir>(path));
    EXPECT_EQ(kNotInitialized, raised<legacy_exception>([&] { ensureInitialized(); }));
    if (onComplete) onComplete();
  }

  std::string path = "daemon/agent/config";
  std::function<void()> onDeclare;
  std::function<void()> onComplete;

 private:
  const std::string name_;
  Log& log_;
};

class Agent : public agent_handler {
 public:
  Agent(sdk& context, Log& log) : agent_handler(context.get_agent_mgr()), log_(log) {}
  void on_initialized() override {
    log_.push_back("initialized");
    if (then) then();
  }
  std::function<void()> then;

 private:
  Log& log_;
};

class MountTest : public testing::StatehubTest {
 protected:
  Log log;

  ptrdiff_t count(const std::string& line) { return std::count(log.begin(), log.end(), line); }
};
RYX_OVER_BOTH(MountTest);

TEST_P(MountTest, DeclaresThenCompletesThenTellsTheAgentOnce) {
  TestSdk context(*this, "A");
  Manager one(context, "one", log);
  Manager two(context, "two", log);
  Agent agent(context, log);
  EXPECT_EQ("RyxSdk-A", one.get_mount_point_name());
  EXPECT_EQ(kNotInitialized, raised<legacy_exception>([&] { one.ensureInitialized(); }));

  context.initialize_context();
  EXPECT_EQ(2u, log.size());  // nothing completes within the call
  EXPECT_FALSE(context.get_mount_mgr()->initializationComplete());
  settle();
  ASSERT_EQ(5u, log.size());
  for (const char* name : {"one", "two"}) {
    EXPECT_EQ(1, count(name + std::string(" declares")));
    EXPECT_EQ(1, count(name + std::string(" complete")));
  }
  EXPECT_EQ("initialized", log.back());
  EXPECT_TRUE(context.get_mount_mgr()->allMountHandlersInitialized());
  EXPECT_TRUE(one.initialized());
  one.ensureInitialized();

  // Starting again changes nothing.
  context.initialize_context();
  settle();
  EXPECT_EQ(5u, log.size());
}

TEST_P(MountTest, NobodyWaitsForAnAgentThatDoesNotAsk) {
  TestSdk context(*this, "A");
  context.start();
  Log none;
  EXPECT_EQ("attempt to manage additional state after agent initialization",
            raised<legacy_exception>([&] { context.get_agent_mgr(); }));
  // The failed attempt left nothing behind.
  settle();
  EXPECT_EQ("attempt to manage additional state after agent initialization",
            raised<legacy_exception>([&] { Manager late(context, "late", none); }));
  EXPECT_TRUE(none.empty());
}

// A manager that is created between the declarations and the end of initialization is served too,
// wherever it is created.
TEST_P(MountTest, LaterManagersFormAFurtherGroup) {
  TestSdk context(*this, "A");
  std::unique_ptr<Manager> inDeclare;
  std::unique_ptr<Manager> inComplete;
  std::unique_ptr<Manager> between;
  Manager first(context, "first", log);
  Agent agent(context, log);
  first.onDeclare = [&] {
    inDeclare = std::make_unique<Manager>(context, "inDeclare", log);
    // One of the group that is being declared, or of the next.
    inDeclare->path = "daemon/agent/status";
  };
  first.onComplete = [&] { inComplete = std::make_unique<Manager>(context, "inComplete", log); };
  context.initialize_context();
  between = std::make_unique<Manager>(context, "between", log);
  settle();
  for (const char* name : {"first", "inDeclare", "between", "inComplete"}) {
    EXPECT_EQ(1, count(name + std::string(" declares"))) << name;
    EXPECT_EQ(1, count(name + std::string(" complete"))) << name;
  }
  EXPECT_EQ("initialized", log.back());
  EXPECT_EQ(1, count("initialized"));
  for (const auto* manager : {inDeclare.get(), inComplete.get(), between.get()})
    EXPECT_TRUE(manager->initialized());
}

TEST_P(MountTest, AManagerMayGoBeforeItsMountsComplete) {
  TestSdk context(*this, "A");
  auto gone = std::make_unique<Manager>(context, "gone", log);
  Manager stays(context, "stays", log);
  context.initialize_context();
  gone.reset();
  settle();
  EXPECT_TRUE(stays.initialized());
  EXPECT_EQ(0, count("gone complete"));
  EXPECT_TRUE(context.get_mount_mgr()->initializationComplete());
}

TEST_P(MountTest, CreatingAManagerInOnInitializedIsRefused) {
  TestSdk context(*this, "A");
  Agent agent(context, log);
  std::string text;
  agent.then = [&] {
    text = raised<legacy_exception>([&] { Manager late(context, "late", log); });
  };
  context.start();
  EXPECT_EQ("attempt to manage additional state after agent initialization", text);
}

TEST_P(MountTest, AFailedMountLeavesTheLoopAsAnError) {
  const struct {
    const char* path;
    const char* text;
  } cases[] = {{"no/such/place", "error code 1 mounting statehub"},
               {"lag/status", "error code 2 mounting statehub"}};
  for (const auto& c : cases) {
    TestSdk context(*this, "A");
    Manager manager(context, "m", log);
    Agent agent(context, log);
    manager.path = c.path;
    context.initialize_context();
    EXPECT_EQ(c.text, raised<legacy_exception>(settle));
    EXPECT_FALSE(context.get_mount_mgr()->initializationComplete());
    EXPECT_EQ(0, count("initialized"));
  }
}

TEST_P(MountTest, AnAgentNameThatNothingCanBeMountedUnderIsRefused) {
  {
    TestSdk context(*this, "sdk-");
    Manager manager(context, "m", log);
    EXPECT_EQ("RyxSdk-sdk-", manager.get_mount_point_name());
    EXPECT_EQ(
        "Invalid agent name 'sdk-'. The part after the last dash names the agent's configuration, "
        "so the name must not end in a dash.",
        raised<configuration_error>([&] { context.initialize_context(); }));
  }
  TestSdk nameless(*this, "");
  EXPECT_EQ("Invalid agent name. Expected 1 to 32 characters, found none.",
            raised<configuration_error>([&] { nameless.initialize_context(); }));
  EXPECT_TRUE(log.empty());
}

// What an exception in the middle of completion leaves behind is as after any dispatch: those that
// were told are complete, initialization is not.
TEST_P(MountTest, AnExceptionWhileCompletingIsNotTakenForSuccess) {
  TestSdk context(*this, "A");
  Manager manager(context, "m", log);
  Agent agent(context, log);
  manager.onComplete = [] { throw std::runtime_error("no"); };
  context.initialize_context();
  EXPECT_EQ("no", raised<std::runtime_error>(settle));
  settle();
  EXPECT_FALSE(manager.initialized());
  EXPECT_EQ(0, count("initialized"));
}

TEST_P(MountTest, AContextMayGoBeforeItsManagers) {
  auto* context = new TestSdk(*this, "A");
  mount_mgr outlived(context);
  EXPECT_EQ(context, outlived.get_sdk());
  delete context;
}

}  // namespace
}  // namespace ryx
