// Commands that steer: set, trace, sim, and those of agents.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>

#include "platform/model/agent.h"
#include "platform/model/sim.h"
#include "platform/model/statehub.h"
#include "platform/trace/trace.h"
#include "switch/base/names.h"
#include "switch/operator/commands.h"
#include "switch/operator/state.h"
#include "switch/operator/table.h"

namespace ryx::operators {

using namespace platform;
using nlohmann::json;

namespace {

constexpr const char* kConfigs = "daemon/agent/config";
constexpr double kPurgePatience = 10;

[[noreturn]] void fail(const std::string& what) {
  throw Failure(kFailed, what);
}
[[noreturn]] void failUsage(const std::string& what) {
  throw Failure(kWrongUsage, what);
}

std::pair<std::string, std::string> assignment(const std::string& text, const char* expected) {
  const size_t sign = text.find('=');
  if (sign == std::string::npos || sign == 0) failUsage("\"" + text + "\"; expected " + expected);
  return {text.substr(0, sign), text.substr(sign + 1)};
}

// Its full path, as the server will run it from anywhere.
std::string absolute(const std::string& program) {
  char path[PATH_MAX];
  if (!::realpath(program.c_str(), path)) fail("there is no program " + program);
  if (::access(path, X_OK) != 0) fail(std::string(path) + " cannot be executed");
  return path;
}

GenericAgent::Config& configOf(Session& session, const std::string& name) {
  auto* config = session.directoryToWrite(kConfigs).find<GenericAgent::Config>(name);
  if (!config)
    fail("there is no agent \"" + name + "\"; ryx agent show lists those that there are");
  return *config;
}

void addOptions(GenericAgent::Config& config, const std::vector<std::string>& options) {
  using GenericAgent::AgentKey, GenericAgent::AgentVal;
  for (const std::string& option : options) {
    const auto [key, value] = assignment(option, "an option as KEY=VALUE");
    if (key.size() > AgentKey::kMaxBytes || value.size() > AgentVal::kMaxBytes)
      failUsage("the option " + key.substr(0, 40) + "; expected a key of at most " +
                std::to_string(AgentKey::kMaxBytes) + " and a value of at most " +
                std::to_string(AgentVal::kMaxBytes) + " bytes");
    if (!config.option.set(key, value)) fail("the option " + key + " is refused");
  }
}

}  // namespace

void set(Session& session, const std::string& path, const std::vector<std::string>& assignments) {
  session.mountToWrite(path);
  Entity* deepest = nullptr;
  Entity* e = findPath(session.tree(), path, &deepest);
  if (!e) fail("nothing stands at " + path + "; there is " + deepest->path());
  // All values are read before the first is written.
  Ref<Entity> wanted = EntityOps::make(e->type());
  std::vector<const FieldInfo*> fields;
  for (const FieldInfo& f : e->type().fields)
    if (!(f.marks & kLocal)) f.kind->assign(wanted->at(f.offset), e->at(f.offset));
  for (const std::string& text : assignments) {
    const auto [name, value] = assignment(text, "ATTRIBUTE=VALUE");
    if (const std::string what = setFromText(*wanted, name, value); !what.empty()) failUsage(what);
    fields.push_back(e->type().field(name));
  }
  const Ref<Entity> hold(e);
  if (!EntityOps::copyAttributes(*e, *wanted)) fail("writing " + path + " is refused");
  session.commit();
  for (const FieldInfo* f : fields)
    if (e->dead() || !f->kind->equal(e->at(f->offset), wanted->at(f->offset)))
      fail("the server refused to set " + std::string(f->name) + " of " + path +
           ": it is not an operator's to write");
}

void traces(Session& session, const std::string& name, const std::string& setting,
            const Output& to) {
  DirEntries& all = session.directoryToWrite("daemon/trace");
  auto* there = all.find<GenericAgent::Trace>(name);
  if (setting.empty()) {
    to.out << (there ? there->setting() : "off") << "\n";
    return;
  }
  if (setting == "off") {
    all.erase(name);
  } else {
    if (const std::string what = setTraceFromText(setting); !what.empty()) failUsage(what);
    static_cast<void>(setTraceFromText(""));
    if (!there) there = all.create<GenericAgent::Trace>(name);
    if (!there || !there->setting.set(setting)) fail("the trace setting is refused");
  }
  session.commit();
  there = all.find<GenericAgent::Trace>(name);
  if ((setting == "off") != (there == nullptr)) fail("the server refused the trace setting");
}

void simulate(Session& session, const std::string& line) {
  const auto* service =
      session.directory("daemon/service/status").find<GenericAgent::Service>("sim");
  if (!service) fail("the server runs no simulated switch; start it with ryxd --service=sim");
  DirEntries& all = session.directoryToWrite("switch/sim/command");
  const Ref<platform::Sim::Command> command(
      all.create<platform::Sim::Command>("ryx" + std::to_string(::getpid())));
  command->line.set(line);
  const bool isDone = session.wait([&] { return command->done(); });
  const std::string error = command->error();
  EntityOps::remove(*command);
  session.commit();
  if (!isDone) fail("the simulated switch does not answer");
  if (!error.empty()) fail(error);
}

// --- agents -------------------------------------------------------------------------------------

void addAgent(Session& session, const NewAgent& agent) {
  if (const std::string fault = faultOfAgentName(agent.name); !fault.empty())
    failUsage("\"" + agent.name + "\"; " + fault);
  const std::string exec = agent.exec.empty() ? "" : absolute(agent.exec);
  if (agent.enable && exec.empty())
    failUsage(
        "--enable needs a program to run: --exec=PROGRAM; an agent that is started by hand "
        "needs neither");
  DirEntries& all = session.directoryToWrite(kConfigs);
  if (all.find(Name(agent.name)))
    fail("there is an agent \"" + agent.name + "\" already; ryx agent remove takes it away");
  // What can be wrong with it is wrong before it is made.
  addOptions(*make<GenericAgent::Config>(Name(agent.name)), agent.options);
  auto* config = all.create<GenericAgent::Config>(agent.name);
  if (!config) fail("making an agent is refused");
  config->exec.set(exec);
  config->argument.set(agent.arguments);
  config->user.set(agent.user);
  config->restartSilent.set(agent.restartSilent);
  addOptions(*config, agent.options);
  config->enabled.set(agent.enable);
  session.commit();
  if (!all.find(Name(agent.name))) fail("the server refused to make the agent");
}

void removeAgent(Session& session, const std::string& name) {
  configOf(session, name);
  session.directoryToWrite(kConfigs).erase(name);
  session.commit();
}

void enableAgent(Session& session, const std::string& name, bool enabled) {
  configOf(session, name).enabled.set(enabled);
  session.commit();
}

void setOptions(Session& session, const std::string& name, const std::vector<std::string>& options,
                bool erases) {
  GenericAgent::Config& config = configOf(session, name);
  if (!erases) {
    addOptions(*make<GenericAgent::Config>(Name(name)), options);
    addOptions(config, options);
  }
  for (const std::string& key : options)
    if (erases && !config.option.erase(key)) fail("the agent has no option \"" + key + "\"");
  session.commit();
}

void showAgents(Session& session, const std::string& only, const Output& to) {
  DirEntries& configs = session.directory(kConfigs);
  DirEntries& processes = session.directory("daemon/agent/process");
  DirEntries& statuses = session.directory("daemon/agent/status");
  std::map<std::string, const Statehub::Client*> connected;
  for (CollectionIterator it(session.directory("statehub/client")); it; it.next())
    if (auto* c = it.get()->as<Statehub::Client>(); c && c->role() == "agent")
      connected[c->name()] = c;
  std::map<std::string, int> names;
  for (CollectionIterator it(configs); it; it.next()) names[keyText(*it.get())];
  for (auto& [name, client] : connected) names[name];
  if (!only.empty()) {
    if (!names.count(only) && !statuses.find(Name(only)))
      fail("there is no agent \"" + only + "\"; ryx agent show lists those that there are");
    names = {{only, 0}};
  }

  json array = json::array();
  Table table({"name", "enabled", "state", "connected", "pid", "restarts", "program", "note"});
  for (auto& [name, unused] : names) {
    const auto* config = configs.find<GenericAgent::Config>(name);
    const auto* process = processes.find<GenericAgent::Process>(name);
    const auto* client = connected.count(name) ? connected[name] : nullptr;
    const auto* status = statuses.find<GenericAgent::Status>(name);
    const uint32_t pid = process && process->pid() ? process->pid() : client ? client->pid() : 0;
    json one = {{"name", name},
                {"enabled", config && config->enabled()},
                {"connected", client != nullptr},
                {"state", process ? process->state() : ""},
                {"pid", pid},
                {"restarts", process ? process->restarts() : 0},
                {"exec", config ? config->exec() : ""},
                {"arguments", config ? config->argument() : std::vector<std::string>()},
                {"user", config ? config->user() : ""},
                {"note", process ? process->note() : ""},
                {"running", status && status->running()},
                {"options", json::object()},
                {"status", json::object()}};
    if (config)
      for (auto it = config->option.iterator(); it; it.next())
        one["options"][it.key().bytes()] = it->value().bytes();
    if (status)
      for (auto it = status->data.iterator(); it; it.next())
        one["status"][it.key().bytes()] = it->value().bytes();
    table.add({name,
               !config             ? "-"
               : config->enabled() ? "yes"
                                   : "no",
               process  ? process->state()
               : client ? "by hand"
                        : "-",
               client ? "yes" : "no", pid ? std::to_string(pid) : "-",
               process ? std::to_string(process->restarts()) : "-",
               config && !config->exec().empty() ? config->exec() : "-",
               process ? process->note() : ""});
    array.push_back(std::move(one));
  }
  if (to.json) {
    const json& what = only.empty() ? array : array[0];
    to.out << what.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    return;
  }
  table.print(to.out, to.width);
  if (only.empty()) return;
  for (const char* part : {"options", "status"}) {
    to.out << part << ":" << (array[0][part].empty() ? " none" : "") << "\n";
    for (auto& [key, value] : array[0][part].items()) {
      const std::string text = value.get<std::string>();
      to.out << "  " << valueText(kindOf<std::string>(), &key) << ": "
             << valueText(kindOf<std::string>(), &text) << "\n";
    }
  }
}

void purgeAgent(Session& session, const std::string& name) {
  DirEntries& wishes = session.directoryToWrite("daemon/agent/purge");
  const Ref<GenericAgent::Purge> wish(wishes.create<GenericAgent::Purge>(name));
  if (!wish) fail("the wish to purge is refused");
  const bool isAnswered =
      session.wait([&] { return wish->dead() || !wish->refusal().empty(); }, kPurgePatience);
  const std::string refusal = wish->refusal();
  if (!wish->dead()) EntityOps::remove(*wish);
  session.commit();
  if (!isAnswered) fail("the server does not answer");
  if (!refusal.empty()) fail(refusal);
}

}  // namespace ryx::operators
