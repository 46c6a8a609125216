// The agent manager, from both ends: the agent through the API, the operator through the state.
#include "ryx/agent.h"

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "platform/activity/activity.h"
#include "platform/model/agent.h"
#include "ryx/event_loop.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "tests/slots.h"
#include "tests/support/statehub_fixture.h"

namespace ryx {
namespace {

using platform::activity;
using testing::settle;
using testing::TestSdk;

using Strings = std::vector<std::string>;

class Agent : public agent_handler {
 public:
  explicit Agent(sdk& context) : agent_handler(context.get_agent_mgr()) {}
  void on_initialized() override { hear("initialized"); }
  void on_agent_enabled(bool enabled) override { hear(enabled ? "enabled" : "disabled"); }
  void on_agent_option(const std::string& name, const std::string& value) override {
    hear(name + "=" + value);
  }
  Strings taken() { return std::exchange(log, {}); }

  Strings log;
  std::function<void()> then;  // it may replace itself, and destroy the agent

 private:
  void hear(const std::string& event) {
    log.push_back(event);
    if (const std::function<void()> callback = then) callback();
  }
};

template <class Iterator>
std::set<std::string> all(Iterator it) {
  std::set<std::string> found;
  for (; it; ++it) EXPECT_TRUE(found.insert(*it).second) << *it;
  return found;
}

class AgentTest : public testing::StatehubTest {
 protected:
  TestSdk context{*this, "unit-tester"};
  agent_mgr* mgr = context.get_agent_mgr();

  platform::GenericAgent::Config* config() { return configOf("tester"); }
  platform::GenericAgent::Status* status() { return statusOf("tester"); }
  void removeConfig() {
    const testing::AsSwitch as(*this);
    find<platform::Dir>("daemon/agent/config")->entry.erase("tester");
  }
};
RYX_OVER_BOTH(AgentTest);

TEST(Agent, SlotsAreInTheirOrder) {
  EXPECT_EQ(6, slot(&agent_mgr::enabled));
  EXPECT_EQ(7, slot(&agent_mgr::agent_option));
  EXPECT_EQ(8, slot(&agent_mgr::agent_option_iter));
  EXPECT_EQ(9, slot(&agent_mgr::status));
  EXPECT_EQ(10, slot(&agent_mgr::status_iter));
  EXPECT_EQ(11, slot(&agent_mgr::status_set));
  EXPECT_EQ(12, slot(&agent_mgr::status_del));
  EXPECT_EQ(13, slot(&agent_mgr::agent_shutdown_complete_is));
  EXPECT_EQ(14, slot(&agent_mgr::exit));
  EXPECT_EQ(2, slot(&agent_handler::on_initialized));
  EXPECT_EQ(3, slot(&agent_handler::on_agent_enabled));
  EXPECT_EQ(4, slot(&agent_handler::on_agent_option));
}

TEST(Agent, TheNameIsWhatFollowsTheLastDash) {
  EXPECT_EQ("MyAgent", agentTitle2agentName("Sdk-MyAgent"));
  EXPECT_EQ("c", agentTitle2agentName("a-b-c"));
  EXPECT_EQ("MyAgent", agentTitle2agentName("MyAgent"));
  EXPECT_EQ("", agentTitle2agentName(""));
  EXPECT_EQ("x", agentTitle2agentName("-x"));
  EXPECT_DEATH(agentTitle2agentName("Sdk-"), "must not end in a dash");
}

TEST_P(AgentTest, EverythingButTheIdWaitsForInitialization) {
  const std::function<void()> operations[] = {
      [&] { mgr->enabled(); },
      [&] { mgr->agent_option("o"); },
      [&] { mgr->agent_option_iter(); },
      [&] { mgr->status("k"); },
      [&] { mgr->status_iter(); },
      [&] { mgr->status_set("k", "v"); },
      [&] { mgr->status_del("k"); },
      [&] { mgr->agent_shutdown_complete_is(true); },
      [&] { mgr->exit(); },
  };
  for (const auto& operation : operations) {
    try {
      operation();
      ADD_FAILURE() << "nothing was raised";
    } catch (const legacy_exception& e) {
      EXPECT_STREQ(
          "SDK not initialized -- did you forget to wait for your agent_handler to call "
          "on_initialized?",
          e.what());
    }
  }
  mgr->id("whatever");
  mgr->id(nullptr);
  EXPECT_FALSE(activity().lock().held());
  context.start();
  EXPECT_TRUE(all(mgr->status_iter()).empty());
}

TEST_P(AgentTest, ReadsItsConfiguration) {
  Agent agent(context);
  config()->enabled.set(true);
  config()->option.set("color", "blue");
  config()->option.set("empty", "");
  configOf("other")->option.set("foreign", "1");
  context.start();
  EXPECT_EQ(Strings{"initialized"}, agent.taken());  // what stands at the start is not reported
  EXPECT_TRUE(mgr->enabled());
  EXPECT_EQ("blue", mgr->agent_option("color"));
  EXPECT_EQ("", mgr->agent_option("never set"));
  EXPECT_EQ("", mgr->agent_option(std::string(5000, 'x')));
  EXPECT_EQ((std::set<std::string>{"color", "empty"}), all(mgr->agent_option_iter()));
  settle();
  ASSERT_NE(nullptr, status());
  EXPECT_TRUE(status()->running());
}

TEST_P(AgentTest, AnAgentThatIsNotConfiguredHasAStatusAndDoesNotRun) {
  Agent agent(context);
  context.start();
  EXPECT_FALSE(mgr->enabled());
  EXPECT_FALSE(mgr->agent_option_iter());
  settle();
  ASSERT_NE(nullptr, status());
  EXPECT_FALSE(status()->running());
}

TEST_P(AgentTest, PublishesItsStatus) {
  context.start();
  mgr->status_set("a", "1");
  mgr->status_set("b", "2");
  mgr->status_set("b", "3");
  EXPECT_EQ("3", mgr->status("b"));
  EXPECT_EQ("", mgr->status("c"));
  EXPECT_EQ((std::set<std::string>{"a", "b"}), all(mgr->status_iter()));
  settle();
  ASSERT_NE(nullptr, status()->data.get("b"));
  EXPECT_EQ("3", status()->data.get("b")->bytes());

  mgr->status_del("a");
  mgr->status_del("never set");
  mgr->status_del(std::string(5000, 'x'));
  EXPECT_EQ(std::set<std::string>{"b"}, all(mgr->status_iter()));
  settle();
  EXPECT_EQ(nullptr, status()->data.get("a"));
}

TEST_P(AgentTest, RefusesLongKeysAndValuesAndChangesNothing) {
  const std::string longestKey(1024, 'k');
  const std::string longestValue(10240, 'v');
  const auto expectRange = [](const std::function<void()>& call, const std::string& name,
                              uint32_t longest) {
    try {
      call();
      ADD_FAILURE() << "nothing was raised";
    } catch (const invalid_range_error& e) {
      EXPECT_EQ(name, e.argument_name());
      EXPECT_EQ(1u, e.min_valid());
      EXPECT_EQ(longest, e.max_valid());
    }
  };
  // The sizes are looked at first, even before initialization.
  expectRange([&] { mgr->status_set(longestKey + "k", "v"); }, longestKey + "k", 1024);
  context.start();
  mgr->status_set(longestKey, longestValue);
  EXPECT_EQ(longestValue, mgr->status(longestKey));
  expectRange([&] { mgr->status_set(longestKey + "k", "v"); }, longestKey + "k", 1024);
  expectRange([&] { mgr->status_set("k", longestValue + "v"); }, longestValue + "v", 10240);
  EXPECT_EQ(std::set<std::string>{longestKey}, all(mgr->status_iter()));

  // The same bounds hold for who configures the agent.
  const auto option = [&](const std::string& key, const std::string& value) {
    config()->option.set(key, value);
  };
  option(longestKey, longestValue);
  try {
    option(longestKey + "k", "v");
    ADD_FAILURE() << "nothing was raised";
  } catch (const range_error& e) {
    EXPECT_STREQ("AgentKey::bytes > AgentKey::maxLength not allowed", e.what());
  }
  try {
    option("k", longestValue + "v");
    ADD_FAILURE() << "nothing was raised";
  } catch (const range_error& e) {
    EXPECT_STREQ("AgentVal::bytes > AgentVal::maxLength not allowed", e.what());
  }
}

TEST_P(AgentTest, HearsItsConfigurationAndNobodyElses) {
  Agent agent(context);
  context.start();
  EXPECT_EQ(Strings{"initialized"}, agent.taken());

  configOf("other")->enabled.set(true);
  settle();
  EXPECT_EQ(Strings{}, agent.taken());

  config();  // created, and not enabled
  settle();
  EXPECT_EQ(Strings{"disabled"}, agent.taken());
  config()->enabled.set(true);
  settle();
  EXPECT_EQ(Strings{"enabled"}, agent.taken());
  config()->enabled.set(true);
  settle();
  EXPECT_EQ(Strings{}, agent.taken());

  config()->option.set("color", "red");
  settle();
  EXPECT_EQ(Strings{"color=red"}, agent.taken());
  config()->option.set("color", "green");
  config()->option.set("color", "blue");
  settle();
  EXPECT_EQ(Strings{"color=blue"}, agent.taken());
  config()->option.erase("color");
  settle();
  EXPECT_EQ(Strings{"color="}, agent.taken());

  config()->option.set("size", "9");
  settle();
  agent.taken();
  removeConfig();
  settle();
  Strings heard = agent.taken();
  std::sort(heard.begin(), heard.end());
  EXPECT_EQ((Strings{"disabled", "size="}), heard);
  EXPECT_FALSE(mgr->enabled());

  config()->enabled.set(true);
  settle();
  EXPECT_EQ(Strings{"enabled"}, agent.taken());
}

TEST_P(AgentTest, ConfigurationThatGoesBeforeTheLoopRunsIsReported) {
  config()->enabled.set(true);
  config()->option.set("color", "red");
  Agent agent(context);
  bool enabledAtStart = false;
  agent.then = [&] {
    agent.then = nullptr;
    enabledAtStart = mgr->enabled();
    removeConfig();
  };
  context.start();
  settle();
  EXPECT_TRUE(enabledAtStart);
  EXPECT_FALSE(mgr->enabled());
  Strings heard = agent.taken();
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ("initialized", heard.front());
  std::sort(heard.begin(), heard.end());
  EXPECT_EQ((Strings{"color=", "disabled", "initialized"}), heard);
}

TEST_P(AgentTest, AnOptionDeletedAndSetAgainIsTwoEvents) {
  Agent agent(context);
  config()->option.set("color", "red");
  context.start();
  agent.taken();
  config()->option.erase("color");
  config()->option.set("color", "red");
  settle();
  EXPECT_EQ((Strings{"color=", "color=red"}), agent.taken());
}

// Random writes of the operator: what the agent was told, applied in order, is what is there.
TEST_P(AgentTest, WhatIsHeardAddsUpToWhatIsThere) {
  struct Mirror : Agent {
    using Agent::Agent;
    void on_agent_enabled(bool e) override { enabled = e; }
    void on_agent_option(const std::string& name, const std::string& value) override {
      if (value.empty())
        options.erase(name);
      else
        options[name] = value;
    }
    bool enabled = false;
    std::map<std::string, std::string> options;
  };
  Mirror agent(context);
  context.start();
  for (unsigned seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int step = 0; step < 60; ++step) {
      const std::string name = std::string(1, static_cast<char>('a' + random() % 5));
      switch (random() % 8) {
        case 0:
          removeConfig();
          break;
        case 1:
          config()->enabled.set(random() % 2 != 0);
          break;
        case 2:
        case 3:
          config()->option.erase(name);
          break;
        default:
          config()->option.set(name, std::to_string(random() % 3 + 1));
      }
      if (random() % 3 != 0) continue;
      settle();
      EXPECT_EQ(mgr->enabled(), agent.enabled);
      std::map<std::string, std::string> there;
      for (auto it = mgr->agent_option_iter(); it; ++it) there[*it] = mgr->agent_option(*it);
      EXPECT_EQ(there, agent.options);
    }
    settle();
  }
}

TEST_P(AgentTest, IteratorsStandChanges) {
  context.start();
  const std::set<std::string> keys = {"a", "b", "c", "d"};
  for (const std::string& key : keys) mgr->status_set(key, "1");
  std::set<std::string> seen;
  for (auto it = mgr->status_iter(); it; ++it) {
    EXPECT_TRUE(seen.insert(*it).second);
    mgr->status_del(*it);
  }
  EXPECT_EQ(keys, seen);
  EXPECT_FALSE(mgr->status_iter());

  mgr->status_set("x", "1");
  mgr->status_set("y", "1");
  auto one = mgr->status_iter();
  auto other = one;
  ++one;
  EXPECT_NE(*one, *other);
  EXPECT_FALSE(one == other);
  EXPECT_EQ(*++other, *one);
  EXPECT_TRUE(one == other);
}

TEST_P(AgentTest, ExitEndsTheLoopAndSaysSo) {
  config()->enabled.set(true);
  Agent agent(context);
  context.start();
  settle();
  EXPECT_TRUE(status()->running());
  config()->option.set("go", "now");
  agent.then = [&] { mgr->exit(); };
  const double before = clock.now();
  activity().run(1000);
  EXPECT_LT(clock.now(), before + 1000);
  EXPECT_EQ(0, activity().executionTime());
  settle();
  EXPECT_FALSE(status()->running());
}

TEST_P(AgentTest, ShutdownIsCompleteWhenTheAgentSaysSo) {
  config()->enabled.set(true);
  context.start();
  mgr->status_set("k", "v");
  mgr->agent_shutdown_complete_is(false);
  settle();
  EXPECT_TRUE(status()->running());

  // Disabled, and still configured: the status stays.
  activity().executionTimeIs(platform::Timer::kNever);
  config()->enabled.set(false);
  settle();
  mgr->agent_shutdown_complete_is(true);
  settle();
  EXPECT_FALSE(status()->running());
  EXPECT_EQ(0, activity().executionTime());

  // Without a configuration it goes.
  removeConfig();
  settle();
  mgr->agent_shutdown_complete_is(true);
  settle();
  EXPECT_EQ(nullptr, status());
  EXPECT_EQ("", mgr->status("k"));

  // And comes back with the next entry.
  mgr->status_set("k", "w");
  settle();
  ASSERT_NE(nullptr, status());
  EXPECT_EQ("w", status()->data.get("k")->bytes());
}

TEST_P(AgentTest, AnAgentThatIsEnabledMayLeaveToo) {
  config()->enabled.set(true);
  context.start();
  mgr->agent_shutdown_complete_is(true);
  settle();
  EXPECT_FALSE(status()->running());
  EXPECT_EQ(0, activity().executionTime());
}

TEST_P(AgentTest, TwoAgentsInOneProcess) {
  TestSdk second(*this, "second");
  Agent one(context);
  Agent two(second);
  context.start();
  second.start();
  mgr->status_set("k", "first");
  second.get_agent_mgr()->status_set("k", "second");
  configOf("second")->enabled.set(true);
  settle();
  EXPECT_EQ(Strings{"initialized"}, one.taken());
  EXPECT_EQ((Strings{"initialized", "enabled"}), two.taken());
  EXPECT_EQ("first", mgr->status("k"));
  EXPECT_EQ("second", second.get_agent_mgr()->status("k"));
  EXPECT_EQ("first", statusOf("tester")->data.get("k")->bytes());
  EXPECT_EQ("second", statusOf("second")->data.get("k")->bytes());
}

TEST_P(AgentTest, AnAgentCannotWriteAnothersStatus) {
  context.start();
  {
    platform::WriterScope as(context.connection());
    auto* dir = context.connection().find<platform::Dir>("daemon/agent/status");
    EXPECT_EQ(nullptr, dir->entry.create<platform::GenericAgent::Status>("victim"));
    EXPECT_EQ(nullptr, dir->entry.create<platform::GenericAgent::Status>("unit-tester"));
  }
  settle();
  EXPECT_EQ(nullptr, statusOf("victim"));
}

// --- what callbacks may do
// ------------------------------------------------------------------------

TEST_P(AgentTest, AHandlerMayDestroyItselfAndOthersInACallback) {
  config();
  std::vector<std::unique_ptr<Agent>> agents;
  for (int i = 0; i < 8; ++i) agents.push_back(std::make_unique<Agent>(context));
  context.start();
  bool done = false;
  for (size_t i = 0; i < agents.size(); ++i)
    agents[i]->then = [&, i] {
      if (done) return;
      done = true;
      for (size_t k = 0; k < agents.size(); ++k)
        if (k != i && k % 2 == 0) agents[k].reset();
      agents[i].reset();
    };
  config()->option.set("x", "1");
  settle();
  ASSERT_TRUE(done);
  for (auto& agent : agents)
    if (agent) agent->taken();
  config()->option.set("x", "2");
  settle();
  size_t left = 0;
  for (auto& agent : agents) {
    if (!agent) continue;
    ++left;
    EXPECT_EQ(Strings{"x=2"}, agent->taken());
  }
  EXPECT_GE(left, 3u);
  EXPECT_LT(left, 8u);
}

TEST_P(AgentTest, AnExceptionLeavesTheLoopAndLosesNothingElse) {
  config();
  Agent agent(context);
  context.start();
  agent.taken();
  agent.then = [&] {
    agent.then = nullptr;
    throw std::runtime_error("mine");
  };
  config()->option.set("x", "1");
  config()->option.set("y", "2");
  EXPECT_THROW(settle(), std::runtime_error);
  EXPECT_FALSE(activity().lock().held());
  EXPECT_FALSE(activity().lock().heldFlag());
  settle();
  Strings heard = agent.taken();
  std::sort(heard.begin(), heard.end());
  EXPECT_EQ((Strings{"x=1", "y=2"}), heard);
  mgr->status_set("still", "there");
}

TEST_P(AgentTest, TheLoopMayBeRunInsideACallback) {
  TestSdk other(*this, "other");
  Agent agent(context);
  Agent bystander(other);
  event_loop* loop = context.get_event_loop();
  config();
  configOf("other");
  context.start();
  other.start();
  agent.taken();
  bystander.taken();
  agent.then = [&] {
    agent.then = nullptr;
    {
      const testing::AsSwitch as(*this);
      config()->option.set("inner", "1");
      configOf("other")->option.set("inner", "2");
    }
    loop->run(0.5);
    loop->flush();
    EXPECT_EQ(Strings{"inner=2"}, bystander.taken());
    mgr->status_set("done", "yes");
  };
  config()->option.set("outer", "1");
  settle();
  EXPECT_EQ((Strings{"outer=1", "inner=1"}), agent.taken());
  EXPECT_EQ("yes", mgr->status("done"));
  EXPECT_FALSE(activity().lock().held());
}

// A service's reactor that runs in a loop that a callback runs writes as a service.
TEST_P(AgentTest, ANestedLoopDoesNotWriteInTheAgentsName) {
  config();
  Agent agent(context);
  event_loop* loop = context.get_event_loop();
  context.start();
  struct Service : platform::Task {
    explicit Service(AgentTest& t) : Task("service"), test(t) {}
    bool run(platform::Slice&) override {
      written =
          test.configOf("other") != nullptr && test.configOf("other")->option.set("by", "service");
      return false;
    }
    AgentTest& test;
    bool written = false;
  } service(*this);
  agent.then = [&] {
    agent.then = nullptr;
    service.wake();
    loop->run(0);
    EXPECT_TRUE(service.written);
  };
  config()->option.set("x", "1");
  settle();
  EXPECT_TRUE(service.written);
}

}  // namespace
}  // namespace ryx
