// What authors of agents test with: a switch told what to do, and time that passes as told.
#include "ryx/testing.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ryx/agent.h"
#include "ryx/event_loop.h"
#include "ryx/fd.h"
#include "ryx/intf.h"
#include "ryx/panic.h"
#include "ryx/timer.h"

namespace ryx {
namespace {

using testing::agent_sdk;
using testing::simulated_switch;

class Watcher : public agent_handler, public intf_handler, public timeout_handler {
 public:
  explicit Watcher(sdk& context)
      : agent_handler(context.get_agent_mgr()),
        intf_handler(context.get_intf_mgr()),
        timeout_handler(context.get_timeout_mgr()),
        agent(context.get_agent_mgr()),
        intfs(context.get_intf_mgr()) {
    watch_all_intfs(true);
  }
  void on_initialized() override { told.push_back("initialized"); }
  void on_agent_option(const std::string& name, const std::string& value) override {
    told.push_back(name + "=" + value);
  }
  void on_agent_enabled(bool enabled) override { told.push_back(enabled ? "enabled" : "disabled"); }
  void on_oper_status(intf_id_t intf, oper_status_t status) override {
    told.push_back(intf.to_string() + (status == INTF_OPER_UP ? " up" : " down"));
  }
  void on_timeout() override { fired.push_back(now()); }
  std::vector<std::string> take() { return std::exchange(told, {}); }

  agent_mgr* const agent;
  intf_mgr* const intfs;
  std::vector<std::string> told;
  std::vector<double> fired;
};
using Strings = std::vector<std::string>;

TEST(SimulatedSwitch, TellsAnAgentWhatItIsToldItself) {
  for (int round = 0; round < 2; ++round) {  // the second switch knows nothing of the first
    simulated_switch sw;
    sw.command("# a port, and a bundle\ninterface-add Ethernet1 et1\n\noper-status Ethernet1 1");
    agent_sdk context(sw, "watcher");
    Watcher agent(context);
    context.start();
    EXPECT_EQ((Strings{"initialized", "Ethernet1 up"}), agent.take());
    sw.command("oper-status Ethernet1 2");
    EXPECT_EQ(Strings{}, agent.take()) << "handlers hear of it in the loop";
    sw.run();
    EXPECT_EQ(Strings{"Ethernet1 down"}, agent.take());

    // The operator.
    sw.agent_enabled_is("watcher", true);
    sw.agent_option_set("watcher", "color", "blue");
    sw.run();
    EXPECT_EQ((Strings{"enabled", "color=blue"}), agent.take());
    sw.agent_option_del("watcher", "color");
    sw.agent_enabled_is("watcher", false);
    sw.run();
    Strings last = agent.take();
    std::sort(last.begin(), last.end());
    EXPECT_EQ((Strings{"color=", "disabled"}), last);

    // What the switch sees of the agent.
    EXPECT_EQ("", sw.agent_status("watcher", "state"));
    agent.agent->status_set("state", "fine");
    agent.intfs->description_is(intf_id_t("Ethernet1"), "by the agent");
    EXPECT_EQ("fine", sw.agent_status("watcher", "state"));
    EXPECT_EQ("", sw.agent_status("nobody", "state"));
    const std::string shown = sw.show("interface/config/eth/phy/slice/1");
    EXPECT_NE(std::string::npos, shown.find("\"description\":\"by the agent\"")) << shown;
    EXPECT_EQ("", sw.show("interface/nothing"));
  }
}

TEST(SimulatedSwitch, LetsTimePassAsTold) {
  simulated_switch sw;
  agent_sdk context(sw);
  Watcher agent(context);
  context.start();
  const double start = now();
  agent.timeout_time_is(start + 3600);
  sw.run();
  sw.run_for(3599);
  EXPECT_TRUE(agent.fired.empty());
  EXPECT_EQ(start + 3599, now());
  sw.run_for(2);
  EXPECT_EQ(std::vector<double>{start + 3600}, agent.fired) << "at its time, whatever passes";
  EXPECT_EQ(start + 3601, now());

  // Until: at the moment when it begins to hold, and not beyond the bound.
  agent.timeout_time_is(now() + 40);
  EXPECT_TRUE(sw.run_until([&] { return agent.fired.size() == 2; }));
  EXPECT_EQ(start + 3641, now());
  EXPECT_FALSE(sw.run_until([] { return false; }, 7));
  EXPECT_EQ(start + 3648, now());
  EXPECT_TRUE(sw.run_until([] { return true; }, 0));
}

// What comes of a timer is done when run_for() returns, however long the chain: the agent disables
// the port, the switch obeys, the agent hears of it, arms a timer for the present time, which
// writes to a pipe, whose reader writes to another one, and so on.
TEST(SimulatedSwitch, EndsWhenNothingIsLeftToDo) {
  simulated_switch sw;
  sw.command("interface-add Ethernet1\noper-status Ethernet1 1");
  agent_sdk context(sw);
  struct Chain : Watcher, fd_handler {
    explicit Chain(sdk& made) : Watcher(made) {
      for (int* pipe : {first, second}) {
        EXPECT_EQ(0, ::pipe(pipe));
        watch_readable(pipe[0], true);
      }
    }
    ~Chain() override {
      for (const int fd : {first[0], first[1], second[0], second[1]}) ::close(fd);
    }
    void on_timeout() override {
      if (!intfs->admin_enabled(port)) return put(first[1]);
      intfs->admin_enabled_is(port, false);
    }
    void on_oper_status(intf_id_t intf, oper_status_t status) override {
      Watcher::on_oper_status(intf, status);
      if (status == INTF_OPER_DOWN) timeout_time_is(now());
    }
    void on_readable(int fd) override {
      char byte;
      EXPECT_EQ(1, ::read(fd, &byte, 1));
      if (++bounces == 6) return told.push_back("bounced");
      put(fd == first[0] ? second[1] : first[1]);
    }
    void put(int fd) { EXPECT_EQ(1, ::write(fd, "x", 1)); }
    const intf_id_t port{"Ethernet1"};
    int first[2], second[2], bounces = 0;
  } agent(context);
  context.start();
  agent.take();
  agent.timeout_time_is(now() + 5);
  sw.run_for(5);
  EXPECT_EQ((Strings{"Ethernet1 down", "bounced"}), agent.take());
  agent.bounces = 0;
  agent.put(agent.first[1]);
  sw.run();
  EXPECT_EQ(Strings{"bounced"}, agent.take());
}

TEST(SimulatedSwitch, IsNotHeldUpByAnAgentThatIsNeverDone) {
  simulated_switch sw;
  agent_sdk context(sw);
  struct Busy : timeout_handler {
    using timeout_handler::timeout_handler;
    void on_timeout() override { timeout_time_is(now()); }
  } busy(context.get_timeout_mgr());
  context.start();
  busy.timeout_time_is(now());
  sw.run();
  const double start = now();
  EXPECT_FALSE(sw.run_until([] { return false; }, 5));
  EXPECT_EQ(start + 5, now());
}

// An operator disables an agent, which cleans up and leaves; another one goes on.
TEST(SimulatedSwitch, SeesAgentsLeave) {
  simulated_switch sw;
  sw.command("interface-add Ethernet1");
  sw.agent_enabled_is("the-leaver", true);
  agent_sdk leaving(sw, "the-leaver"), staying(sw, "stayer");
  struct Leaver : Watcher {
    using Watcher::Watcher;
    void on_agent_enabled(bool enabled) override {
      if (!enabled) agent->agent_shutdown_complete_is(true);
    }
  } leaver(leaving);
  Watcher stayer(staying);
  leaving.start();
  staying.start();
  EXPECT_TRUE(sw.agent_running("the-leaver"));
  EXPECT_FALSE(sw.agent_running("stayer")) << "it was never enabled";
  leaver.agent->status_set("a", "b");
  EXPECT_EQ("b", sw.agent_status("the-leaver", "a"));
  stayer.take();

  sw.agent_enabled_is("the-leaver", false);
  sw.command("oper-status Ethernet1 1");
  EXPECT_FALSE(sw.run_until([] { return false; }));
  EXPECT_FALSE(sw.agent_running("the-leaver"));
  sw.run();
  EXPECT_EQ(Strings{"Ethernet1 up"}, stayer.take());
}

TEST(SimulatedSwitch, IsOneAtATimeAndOutlivesItsAgents) {
  {
    simulated_switch sw;
    EXPECT_THROW(simulated_switch(), error);
    EXPECT_THROW((void)sw.run_until([] { return true; }, -1), error);
  }
  EXPECT_DEATH(
      {
        auto sw = std::make_unique<simulated_switch>();
        agent_sdk context(*sw);
        sw.reset();
      },
      "outlives");
}

TEST(SimulatedSwitch, SaysWhatIsWrongWithALine) {
  simulated_switch sw;
  try {
    sw.command("interface-add Ethernet1\ninterface-add Ethernet\ninterface-add Ethernet2\n");
    FAIL() << "a malformed line is an error";
  } catch (const configuration_error& e) {
    EXPECT_EQ(0u, std::string(e.what()).find("line 2: ")) << e.what();
    EXPECT_NE(std::string::npos, std::string(e.what()).find("expected")) << e.what();
  }
  const std::string shown = sw.show("interface/status/eth/phy/slice/1");
  EXPECT_NE(std::string::npos, shown.find("Ethernet1")) << shown;
  EXPECT_EQ(std::string::npos, shown.find("Ethernet2")) << shown;
  EXPECT_THROW(sw.run_for(-1), error);
}

TEST(SimulatedSwitch, ACommandInACallbackIsTheSwitchs) {
  simulated_switch sw;
  sw.command("interface-add Ethernet1");
  agent_sdk context(sw);
  struct Poke : intf_handler {
    Poke(intf_mgr* mgr, simulated_switch& s) : intf_handler(mgr), sw(s) { watch_all_intfs(true); }
    void on_oper_status(intf_id_t intf, oper_status_t status) override {
      if (intf == intf_id_t("Ethernet1") && status == INTF_OPER_UP)
        sw.command("interface-add Ethernet2\noper-status Ethernet2 1");
      up += status == INTF_OPER_UP;
    }
    simulated_switch& sw;
    int up = 0;
  } poke(context.get_intf_mgr(), sw);
  context.start();
  sw.command("oper-status Ethernet1 1");
  sw.run();
  EXPECT_EQ(2, poke.up);
}

}  // namespace
}  // namespace ryx
