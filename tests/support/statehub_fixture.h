// A Statehub with an agent's side and the switch's side, on the virtual clock: the shared tree of
// one process, or a hub with the agent at the other end of a socketpair. A suite runs over both:
//
//   class AgentTest : public StatehubTest {};
//   RYX_OVER_BOTH(AgentTest);
//
//   TEST_P(AgentTest, HearsOptions) {
//     TestSdk sdk(*this, "tester");
//     ...
//     sdk.start();
//     configOf("tester")->option.set("a", "b");   // as the switch
//     settle();
//   }
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "ryx/sdk.h"

namespace ryx::testing {

enum class Over { embedded, hub };

// Runs the loop until nothing moves any more, on either side of any socket.
void settle();

class StatehubTest : public ::testing::TestWithParam<Over> {
 public:
  StatehubTest();
  ~StatehubTest() override;

  // An agent's connection.
  std::unique_ptr<platform::EntityManager> connect(const std::string& agentName);

  // The switch's side: where services write.
  platform::Tree& tree() { return *tree_; }
  template <class T>
  T* find(std::string_view path) {
    return tree_->find<T>(path);
  }

  // The hub and the agents' sides; null and none when embedded.
  platform::Hub* hub() { return hub_.get(); }

  // The agent's configuration, created if needed, and its status, null if there is none.
  platform::GenericAgent::Config* configOf(const std::string& key);
  platform::GenericAgent::Status* statusOf(const std::string& key);

  platform::VirtualClock clock;

 private:
  platform::Tree* tree_;
  std::unique_ptr<platform::Tree> own_;
  std::unique_ptr<platform::Hub> hub_;
};

// A context of its own, which goes with all its managers.
class TestSdk : public ryx::sdk {
 public:
  TestSdk(StatehubTest& test, const std::string& name);
  ~TestSdk() override;

  // Mounts, and runs until the SDK is initialized.
  void start();

  platform::EntityManager& connection() { return *connection_; }

 private:
  TestSdk(std::unique_ptr<platform::EntityManager> connection, const std::string& name);

  std::unique_ptr<platform::EntityManager> connection_;
};

// What is written in a scope is the switch's writing, also inside an agent's callback.
class AsSwitch {
 public:
  explicit AsSwitch(StatehubTest& test)
      : clock_(test.tree().clock()), outer_(std::exchange(clock_.writer, nullptr)) {}
  ~AsSwitch() { clock_.writer = outer_; }
  AsSwitch(const AsSwitch&) = delete;
  AsSwitch& operator=(const AsSwitch&) = delete;

 private:
  platform::StoreClock& clock_;
  platform::Writer* const outer_;
};

std::string nameOf(const ::testing::TestParamInfo<Over>& info);

}  // namespace ryx::testing

#define RYX_OVER_BOTH(suite)                                                        \
  INSTANTIATE_TEST_SUITE_P(                                                         \
      Statehub, suite,                                                              \
      ::testing::Values(::ryx::testing::Over::embedded, ::ryx::testing::Over::hub), \
      ::ryx::testing::nameOf)
