// The container in which a process's agents run: it has the arguments that the platform knows, the
// connection to Statehub, and the loop. For the main thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/agent/connection.h"
#include "platform/base/api.h"
#include "platform/statehub/entity_manager.h"

namespace ryx::platform {

// Something that runs in a container.
class RYX_PRIVATE Agent {
 public:
  virtual ~Agent() = default;

  // The connection is there: the agent mounts what it needs.
  virtual void doInit(EntityManager& em) = 0;

  // What makes the agents of one type. Registering another one for a type replaces the first.
  using Factory = std::unique_ptr<Agent> (*)(const std::string& name);
  static void registerType(std::string_view typeName, Factory factory);
};

class RYX_PRIVATE AgentContainer {
 public:
  // The program's name, then the platform's arguments:
  //
  //   --daemonize                goes on in the background when the agents start, without a
  //   terminal
  //   --sysname=NAME             instead of SYSNAME of the environment
  //   --statehubsockname=PATH    instead of STATEHUBSOCKNAME and STATEHUBPORT
  //   --statehubport=PORT        the same
  //   --statehubfd=N             the connection that a server handed over
  //   --agenttitle=TITLE         what the server calls this process
  //   --demuxerOpts=...          for the server's own use
  //   --pyserver                 does nothing yet
  //
  // Of two of a kind the later one counts.
  AgentContainer(std::string name, const std::vector<std::string>& arguments);
  ~AgentContainer();
  AgentContainer(const AgentContainer&) = delete;
  AgentContainer& operator=(const AgentContainer&) = delete;

  const std::string& name() const { return name_; }
  const ConnectionSettings& settings() const { return settings_; }
  bool daemonizes() const { return daemonize_; }
  bool pyserver() const { return pyserver_; }

  // Adds an agent of a registered type. Null for an unknown one.
  Agent* addAgent(const std::string& name, std::string_view typeName);

  // Goes into the background, if that is asked for. Before anything connects.
  void daemonize();

  // The connection for the agent of that name: see connectToStatehub().
  std::unique_ptr<EntityManager> connect(std::string_view agentName) const;

  // Starts every agent on the connection.
  void startAgents(EntityManager& em);

  // Runs the loop until its execution time is set to 0.
  void runAgents();

 private:
  const std::string name_;
  ConnectionSettings settings_ = ConnectionSettings::fromEnvironment();
  bool daemonize_ = false;
  bool pyserver_ = false;
  std::vector<std::unique_ptr<Agent>> agents_;
};

}  // namespace ryx::platform
