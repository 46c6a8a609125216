#include "platform/agent/container.h"

#include <unistd.h>

#include <map>

#include "platform/activity/activity.h"
#include "platform/agent/process_title.h"
#include "platform/base/check.h"
#include "platform/trace/trace.h"

namespace ryx::platform {

namespace {

std::map<std::string, Agent::Factory, std::less<>>& factories() {
  static auto* known = new std::map<std::string, Agent::Factory, std::less<>>;
  return *known;
}

// The loop is the process's loop while it lasts, and its execution time is not to be found at 0.
struct PlatformLoop {
  PlatformLoop() {
    activity().executionTimeIs(Timer::kNever);
    activity().useEpollIs(true);
  }
  ~PlatformLoop() { activity().useEpollIs(false); }
};

}  // namespace

void Agent::registerType(std::string_view typeName, Factory factory) {
  factories()[std::string(typeName)] = factory;
}

AgentContainer::AgentContainer(std::string name, const std::vector<std::string>& arguments)
    : name_(std::move(name)) {
  std::string title;
  ConnectionSettings asked;
  for (const std::string& argument : arguments) {
    const auto value = [&](std::string_view option, std::string* to) {
      if (argument.starts_with(option)) *to = argument.substr(option.size());
    };
    value("--sysname=", &asked.systemName);
    value("--statehubsockname=", &asked.socketName);
    value("--statehubport=", &asked.port);
    value("--agenttitle=", &title);
    if (argument == "--daemonize") daemonize_ = true;
    if (argument == "--pyserver") pyserver_ = true;
  }
  settings_.descriptor = passiveMountDescriptor(arguments);
  if (!asked.systemName.empty()) settings_.systemName = asked.systemName;
  if (!asked.socketName.empty() || !asked.port.empty()) {
    settings_.socketName = asked.socketName;
    settings_.port = asked.port;
  }
  if (!title.empty()) agentTitleIs(title);
}

AgentContainer::~AgentContainer() = default;

Agent* AgentContainer::addAgent(const std::string& name, std::string_view typeName) {
  const auto factory = factories().find(typeName);
  if (factory == factories().end()) return nullptr;
  agents_.push_back(factory->second(name));
  return agents_.back().get();
}

void AgentContainer::daemonize() {
  if (!daemonize_) return;
  constexpr int kKeepDirectory = 1;
  constexpr int kNullInputAndOutput = 0;
  check(::daemon(kKeepDirectory, kNullInputAndOutput) == 0, "Unable to go into the background");
}

std::unique_ptr<EntityManager> AgentContainer::connect(std::string_view agentName) const {
  return connectToStatehub(settings_, agentName);
}

void AgentContainer::startAgents(EntityManager& em) {
  for (const std::unique_ptr<Agent>& agent : agents_) agent->doInit(em);
}

void AgentContainer::runAgents() {
  const PlatformLoop loop;
  activity().run();
}

}  // namespace ryx::platform
