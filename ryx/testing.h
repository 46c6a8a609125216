// For tests of agents: a switch that does what the test tells it, in the test's own process, and a
// clock that only moves when the test lets it. No daemon, no sleep, no privileges.
//
//   TEST(Watcher, TellsOfPortsThatGoDown) {
//     ryx::testing::simulated_switch sw;
//     sw.command("interface-add Ethernet1 eth1");
//     sw.command("oper-status Ethernet1 1");
//
//     ryx::testing::agent_sdk sdk(sw, "watcher");
//     watcher agent(sdk);
//     sdk.start();
//
//     sw.command("oper-status Ethernet1 2");
//     sw.run();
//     EXPECT_EQ(1, agent.alarms());
//   }
//
// It is bound to no test framework: what a test does wrong raises an error. Each simulated_switch
// is a switch of its own, as it is when it starts; several may follow each other in one process.
#ifndef RYX_TESTING_H
#define RYX_TESTING_H

#include <ryx/api.h>
#include <ryx/sdk.h>

#include <functional>
#include <memory>
#include <string>

namespace ryx {
namespace testing {

/// The switch, the clock and the loop of one test. For one thread, which is the loop's. It has to
/// outlive the contexts of its agents: a process that breaks this is aborted.
///
/// While it exists, `ryx::now()` and all timers are those of its clock, which stands still but in
/// run_for() and run_until(), where it moves as far as they say, without waiting.
class RYX_API simulated_switch {
 public:
  /// Raises a configuration_error when the module of the simulated switch is not found beside the
  /// library (RYX_FEED_DIR names another folder), and a legacy_exception while there is another
  /// one: a process has one at a time.
  simulated_switch();
  simulated_switch(const simulated_switch&) = delete;
  simulated_switch& operator=(const simulated_switch&) = delete;
  ~simulated_switch();

  /// Does one or more lines of the simulated switch's language, such as
  ///
  ///     interface-add INTF [kernel-name]       interface-del INTF
  ///     oper-status INTF CODE                  (1 up, 2 down)
  ///     vrf-add NAME                           vrf-del NAME
  ///     vrf-state NAME STATE                   (initializing, active, deleting)
  ///     internal-vlan INTF VLAN                (0: none any more)
  ///     neighbor-learn IP INTF MAC             neighbor-age IP INTF
  ///     bfd-peer IP VRF INTF|- STATE           (down, init, up, admin-down, other; auto)
  ///     nexthop-group-capability TYPE MAXLABELS ACTION,...
  ///                                            (ip-in-ip, gre, mpls, mpls-over-gre, ip; none: not
  ///                                            supported; push, pop, swap, forward, or - for none)
  ///     nexthop-group-count GROUP ENTRY PACKETS OCTETS
  ///     nexthop-group-clear GROUP ENTRY        (its counters count from zero)
  ///     clogged on|off                         (whether connections take no more)
  ///
  /// Empty lines and what stands behind '#' are nothing. The state changes at once; handlers hear
  /// of it in the loop. Raises a configuration_error that names the first line that is wrong and
  /// says what was expected: the lines before it are done, none behind it.
  void command(const std::string& lines);

  // The three of them end early when an agent leaves by `agent_mgr::exit()`. An agent that always
  // has something to do, such as a timer that it arms for the present time when it fires, does not
  // keep them from ending. SIGTERM and SIGINT end the process, as anywhere under the SDK. They
  // raise a legacy_exception for a duration that is negative or not finite, and let through what a
  // callback throws.

  /// Runs the loop until nothing is left to do. No time passes.
  void run();

  /// Lets so many seconds pass; every timer that is due in them fires at its time. Ends when
  /// nothing is left to do.
  void run_for(double seconds);

  /// Lets time pass, from one timer to the next, until `condition` holds: true at once when it
  /// does, false when it does not after so many seconds.
  [[nodiscard]] bool run_until(const std::function<bool()>& condition, double seconds = 60);

  // --- the operator ---
  // An agent is named as its context is: all of the name, also where it has a dash.

  /// Enables or disables an agent in the switch's configuration. An agent that is not configured
  /// counts as disabled.
  void agent_enabled_is(const std::string& agent, bool enabled);

  /// Sets or removes an option in the agent's configuration.
  void agent_option_set(const std::string& agent, const std::string& option,
                        const std::string& value);
  void agent_option_del(const std::string& agent, const std::string& option);

  // --- what the switch sees ---

  /// What the agent published with `agent_mgr::status_set`; empty when there is no such key.
  std::string agent_status(const std::string& agent, const std::string& key) const;

  /// Whether the agent says that it runs: from the moment when it is initialized, if it is enabled
  /// then, until it leaves (`agent_mgr::exit()`, `agent_mgr::agent_shutdown_complete_is(true)`).
  bool agent_running(const std::string& agent) const;

  /// The state at a path of Statehub, with all below it, as JSON: {"@type": ..., "@key": ..., and
  /// the attributes and collections by name}. Empty when nothing stands there.
  std::string show(const std::string& path) const;

 private:
  friend class agent_sdk;
  struct impl;
  std::unique_ptr<impl> impl_;
};

/// The context of an agent under test: it is connected to the simulated switch from the start, and
/// its managers go when it goes. Handlers may go before or after it.
class RYX_API agent_sdk : public sdk {
 public:
  /// The name has the rules of sdk's own constructor.
  explicit agent_sdk(simulated_switch& connected_to, const std::string& name = "agent");
  ~agent_sdk() override;

  /// Mounts, and runs the loop until `on_initialized` was called and nothing is left to do. To be
  /// called once, with the handlers in place.
  void start();

 private:
  struct connection;
  agent_sdk(simulated_switch& connected_to, const std::string& name,
            std::unique_ptr<connection> made);
  simulated_switch& switch_;
  std::unique_ptr<connection> connection_;
};

}  // namespace testing
}  // namespace ryx

#endif  // RYX_TESTING_H
