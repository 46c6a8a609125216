// Runs what the configuration of agents and the server's own configuration name: each enabled agent
// with a program, and each service, is a process of its own, with a connection that it inherits.
//
// One that ends although it is wanted comes back after a delay that grows; an agent that leaves by
// itself with status 0 does not. An agent that is disabled has some time to clean up and leave,
// then it is sent SIGTERM, then SIGKILL; so is one whose configuration goes, and then all goes that
// it left in the state. An agent's process outlives a server that is killed: the next one knows it
// again, waits for its connection, and watches over it.
//
// What is going on is told under "daemon/agent/process" and "daemon/service/process".
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/model/agent.h"
#include "platform/qel/reactor.h"
#include "platform/statehub/hub.h"
#include "switch/hub/config.h"
#include "switch/hub/process.h"

namespace ryx::hub {

class Supervisor final : private platform::JournalReactor {
 public:
  static constexpr double kFirstDelay = 0.1;
  static constexpr double kLongestDelay = 30;
  // Whoever ran for so many seconds and ends is started again as soon as the first time.
  static constexpr double kLasts = 10;

  // `saved` is called when something changed that has to be on the disk soon.
  Supervisor(platform::Hub& hub, const Config& config, std::string systemName,
             std::function<void()> saved);
  ~Supervisor() override;

  // Runs the services; `ready` is called once all of them serve, or the patience is over.
  void startServices(std::function<void()> ready);
  // Runs the enabled agents, and follows their configuration from now on.
  void startAgents();
  // Ends all of them: agents, then services. `done` is called when none is left.
  void stop(std::function<void()> done);

  bool runs(std::string_view agent, int64_t pid) const;
  // The agent's heartbeat stays out.
  void silent(const std::string& agent);

 private:
  class Supervised;
  class Agent;
  class Service;
  class Readiness;
  class Purges;
  friend class Supervised;

  void onEntity(platform::Entity& entity, platform::Change change) override;
  void consider(const platform::Name& name);
  void ended(Supervised& one);
  void lookWhetherStopped();
  // The process that is connected as that agent, 0 for none, -1 for one that is not known.
  int64_t connected(std::string_view agent) const;

  platform::Hub& hub_;
  const Config& config_;
  const std::string systemName_;
  const std::function<void()> saved_;
  std::map<std::string, std::unique_ptr<Service>> services_;
  std::map<std::string, std::unique_ptr<Agent>> agents_;
  std::unique_ptr<Readiness> readiness_;
  std::unique_ptr<Purges> purges_;
  std::function<void()> stopped_;  // set while all is being stopped
  bool servicesStop_ = false;
};

// Takes away all that the agent of that name left in the state, in every place of agents, and the
// BFD sessions that it asked for. What it configured of what agents share, of interfaces, stays.
void purgeAgent(platform::Tree& tree, const std::string& name);

}  // namespace ryx::hub
