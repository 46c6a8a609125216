// What authors of agents test with: a switch told what to do, and time that passes as told.
#include "ryx/testing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "ryx/agent.h"
#include "ryx/event_loop.h"
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
