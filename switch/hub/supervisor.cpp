#include "switch/hub/supervisor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/model/bfd.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/authority.h"
#include "platform/trace/trace.h"

namespace ryx::hub {

using namespace platform;
using AgentConfig = GenericAgent::Config;

namespace {

constexpr const char* kAgentConfigs = "daemon/agent/config";
constexpr const char* kAgentProcesses = "daemon/agent/process";
constexpr const char* kAgentStatuses = "daemon/agent/status";
constexpr const char* kServiceProcesses = "daemon/service/process";
constexpr const char* kServiceStatuses = "daemon/service/status";
constexpr double kServicePatience = 10;  // for all services to serve
constexpr uint32_t kHopeless = 3;        // ends of a service, after which nobody waits for it
constexpr double kLookAgain = 0.5;       // at a connection that is in the way

TraceFacility& trace() {
  static auto& facility = TraceFacility::named("RyxHubSupervisor");
  return facility;
}

DirEntries& entries(Tree& tree, const char* path) {
  return tree.find<Dir>(path)->entry;
}

}  // namespace

// --- one process --------------------------------------------------------------------------------

class Supervisor::Supervised : private Timer {
 public:
  Supervised(Supervisor& supervisor, Role role, const char* place, std::string name)
      : Timer("Supervised"),
        supervisor_(supervisor),
        role_(role),
        place_(place),
        name_(std::move(name)) {}
  ~Supervised() override = default;

  const std::string& name() const { return name_; }
  bool runs() const { return process_ != nullptr; }
  pid_t pid() const { return process_ ? process_->id().pid : 0; }

  // Whether it shall run. It is stopped with patience.
  void wantedIs(bool wanted) {
    if (!wanted) return isNotWanted();
    if (std::exchange(wanted_, true) || process_) return;
    delay_ = kFirstDelay;
    start();
  }
  // Without more patience than it takes to heed a signal.
  void stopNow() {
    wanted_ = false;
    if (process_) return terminate();
    disarm();
    if (state() != "failed") tell("stopped", "");
  }
  void kill(const std::string& why) {
    if (!process_) return;
    killed_ = why;
    process_->signal(SIGKILL);
  }
  // Has the supervisor look at it again, soon.
  void lookAgain() { later(Next::look, kLookAgain); }
  // What an earlier server started.
  void takeOver(const ProcessId& id) {
    process_ = Process::adopt(id, [this](int status) { hasEnded(status); });
    if (!process_) return forgetProcess();
    started_ = clock().now();
    tell("running", "started by an earlier server");
  }

 protected:
  // What to run. False, with `why` set, when that cannot be.
  virtual bool program(Program* program, std::string* why) = 0;
  // Something else has its place: what; it is looked at again soon. Empty: nothing.
  virtual std::string inTheWay() { return ""; }
  virtual double stopSeconds() const = 0;
  // Whether one that left with that status has done what it was to do.
  virtual bool isContent(int /*status*/) const { return false; }
  virtual void ended() {}

  GenericAgent::Process& entity() {
    return *entries(supervisor_.hub_.tree(), place_).create<GenericAgent::Process>(name_);
  }
  void tell(const std::string& state, const std::string& note) {
    GenericAgent::Process& e = entity();
    e.state.set(state);
    e.note.set(note);
    RYX_TRACE(trace(), 1, name_ << " is " << state << (note.empty() ? "" : ": ") << note);
  }
  std::string state() { return entity().state(); }

  Supervisor& supervisor_;

 private:
  enum class Next { start, terminate, kill, look };

  void later(Next next, double seconds) {
    next_ = next;
    armAt(clock().now() + seconds);
  }
  void onTimer() override {
    if (next_ == Next::start) return start();
    if (next_ == Next::terminate) return terminate();
    if (next_ == Next::look) return supervisor_.ended(*this);
    if (process_) kill("it did not end after SIGTERM");
  }
  void isNotWanted() {
    wanted_ = false;
    if (process_) {
      if (std::exchange(stops_, true)) return;
      tell("stopping", "");
      return later(Next::terminate, stopSeconds());
    }
    disarm();
    tell("stopped", "");
  }
  void terminate() {
    stops_ = true;
    tell("stopping", "sent SIGTERM");
    process_->signal(SIGTERM);
    later(Next::kill, supervisor_.config_.killSeconds);
  }

  void start() {
    if (!wanted_ || process_) return;
    if (const std::string what = inTheWay(); !what.empty()) {
      tell("connected", what);
      return later(Next::start, kLookAgain);
    }
    std::string why;
    Program what;
    int ends[2] = {-1, -1};
    if (!program(&what, &why)) return tell("failed", why);
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
      return failed(std::string("no connection for it: ") + std::strerror(errno));
    what.descriptor = ends[1];
    for (auto& [key, value] : what.environment)
      if (value == "--statehubfd=") value += std::to_string(ends[1]);
    for (std::string& argument : what.arguments)
      if (argument == "--statehubfd=") argument += std::to_string(ends[1]);
    process_ = Process::start(
        what, [this](int status) { hasEnded(status); }, &why);
    ::close(ends[1]);
    if (!process_) {
      ::close(ends[0]);
      return failed(why);
    }
    HubPeer known = peer();
    known.pid = pid();
    supervisor_.hub_.accept(ends[0], known);
    started_ = clock().now();
    GenericAgent::Process& e = entity();
    e.pid.set(static_cast<uint32_t>(pid()));
    e.started.set(process_->id().started);
    e.boot.set(process_->id().boot);
    tell("running", "");
    supervisor_.saved_();
  }
  void failed(const std::string& why) {
    tell("waiting", why);
    startLater();
  }
  void startLater() {
    later(Next::start, delay_);
    delay_ = std::min(2 * delay_, kLongestDelay);
  }
  void forgetProcess() {
    GenericAgent::Process& e = entity();
    e.pid.set(0);
    e.started.set(0);
    e.boot.set("");
    supervisor_.saved_();
  }

  void hasEnded(int status) {
    process_.reset();
    disarm();
    forgetProcess();
    const bool asked = std::exchange(stops_, false);
    std::string how = endText(status);
    if (!killed_.empty()) how += ": " + std::exchange(killed_, "");
    ended();
    if (!wanted_) {
      tell("stopped", how);
    } else if (asked) {
      start();  // it is wanted again by now
    } else if (isContent(status)) {
      tell("stopped", "it left by itself");
    } else {
      if (clock().now() - started_ >= kLasts) delay_ = kFirstDelay;
      entity().restarts.set(entity().restarts() + 1);
      std::fprintf(stderr, "ryxd: %s %s; it is started again\n", name_.c_str(), how.c_str());
      failed(how);
    }
    supervisor_.ended(*this);  // the last word: this one may be gone
  }

  // As whom it comes to the hub.
  HubPeer peer() const {
    HubPeer peer;
    peer.isStarted = true;
    peer.role = role_;
    peer.name = name_;
    peer.uid = ::getuid();
    return peer;
  }

  const Role role_;
  const char* const place_;
  const std::string name_;
  std::unique_ptr<Process> process_;
  bool wanted_ = false;
  bool stops_ = false;
  std::string killed_;  // why the server killed it
  Next next_ = Next::start;
  double started_ = 0;
  double delay_ = kFirstDelay;
};

class Supervisor::Agent final : public Supervised {
 public:
  Agent(Supervisor& supervisor, const std::string& name)
      : Supervised(supervisor, Role::agent, kAgentProcesses, name) {}

  // Its configuration is gone, and it is to go with all that it left.
  bool isToGo = false;

  int64_t connected() const { return supervisor_.connected(name()); }

 private:
  const AgentConfig* config() const {
    return entries(supervisor_.hub_.tree(), kAgentConfigs).find<AgentConfig>(name());
  }
  bool program(Program* program, std::string* why) override {
    if (name().find('-') != std::string::npos) {
      *why = "an agent's name must have no '-': the part behind it would be taken for the name";
      return false;
    }
    const AgentConfig* c = config();
    program->path = c->exec();
    program->user = c->user();
    program->arguments = c->argument();
    program->arguments.insert(program->arguments.begin(), c->exec());
    const std::string base = c->exec().substr(c->exec().rfind('/') + 1);
    program->environment = {
        {"AGENT_PROCESS_NAME", name()},
        {"SYSNAME", supervisor_.systemName_},
        {"STATEHUBSOCKNAME", supervisor_.config_.socket},
        {"STATEHUB_SOCKID_ARGC", "3"},
        {"STATEHUB_SOCKID_ARG_0", "--statehubfd="},
        {"STATEHUB_SOCKID_ARG_1", "--agenttitle=" + base + "-" + name()},
        {"STATEHUB_SOCKID_ARG_2",
         "--demuxerOpts=" + std::to_string(supervisor_.hub_.incarnation()) + ",1," +
             supervisor_.systemName_ + ",Statehub (pid:" + std::to_string(::getpid()) + ")"},
    };
    return true;
  }
  std::string inTheWay() override {
    const int64_t pid = connected();
    if (pid == 0) return "";
    return "another process is connected under its name" +
           (pid > 0 ? ": " + std::to_string(pid) : "");
  }
  double stopSeconds() const override { return supervisor_.config_.stopSeconds; }
  bool isContent(int status) const override { return status == 0; }
  void ended() override {
    auto* status =
        entries(supervisor_.hub_.tree(), kAgentStatuses).find<GenericAgent::Status>(name());
    if (status) status->running.set(false);
  }
};

class Supervisor::Service final : public Supervised {
 public:
  Service(Supervisor& supervisor, std::string service)
      : Supervised(supervisor, Role::service, kServiceProcesses, nameOfService(service)),
        service_(std::move(service)) {}
  bool serves() const {
    return entries(supervisor_.hub_.tree(), kServiceStatuses).find(Name(name())) != nullptr;
  }
  // It failed as often as nobody waits for.
  bool isHopeless() { return entity().restarts() >= kHopeless; }

 private:
  bool program(Program* program, std::string*) override {
    program->path = "/proc/self/exe";
    program->arguments = {"ryx-service", "--serve=" + service_, "--statehubfd="};
    return true;
  }
  double stopSeconds() const override { return 0; }
  void ended() override { entries(supervisor_.hub_.tree(), kServiceStatuses).erase(Name(name())); }

  const std::string service_;
};

// --- what else it hears of ----------------------------------------------------------------------

class Supervisor::Readiness final : private JournalReactor, private Timer {
 public:
  Readiness(Supervisor& supervisor, std::function<void()> ready)
      : JournalReactor("Readiness"),
        Timer("Readiness"),
        supervisor_(supervisor),
        ready_(std::move(ready)) {
    follow(*supervisor.hub_.tree().find(kServiceStatuses)->childJournal());
    armAt(clock().now() + kServicePatience);
    look();
  }

  void look() {
    for (auto& [name, service] : supervisor_.services_)
      if (!service->serves() && !service->isHopeless()) return;
    now();
  }

 private:
  void onEntity(Entity&, Change) override { look(); }
  void onTimer() override { now(); }
  void now() {
    disarm();
    auto ready = std::exchange(ready_, nullptr);
    if (!ready || supervisor_.stopped_) return;
    for (auto& [name, service] : supervisor_.services_)
      if (!service->serves())
        std::fprintf(stderr, "ryxd: the service %s does not serve yet; agents are let in\n",
                     name.c_str());
    ready();
  }

  Supervisor& supervisor_;
  std::function<void()> ready_;
};

class Supervisor::Purges final : private JournalReactor {
 public:
  explicit Purges(Supervisor& supervisor) : JournalReactor("Purges"), supervisor_(supervisor) {
    follow(*supervisor.hub_.tree().find("daemon/agent/purge")->childJournal());
  }

 private:
  void onEntity(Entity& entity, Change change) override {
    auto* wish = entity.as<GenericAgent::Purge>();
    if (!wish || change != Change::created) return;
    const std::string name(wish->key().view());
    auto at = supervisor_.agents_.find(name);
    const int64_t pid = supervisor_.connected(name);
    if (pid != 0 || (at != supervisor_.agents_.end() && at->second->runs())) {
      wish->refusal.set("the agent is running" +
                        (pid > 0 ? " (process " + std::to_string(pid) + ")" : "") +
                        ": disable it, or end it, first");
      return;
    }
    purgeAgent(supervisor_.hub_.tree(), name);
    EntityOps::remove(*wish);
  }

  Supervisor& supervisor_;
};

// --- Supervisor ---------------------------------------------------------------------------------

Supervisor::Supervisor(Hub& hub, const Config& config, std::string systemName,
                       std::function<void()> saved)
    : JournalReactor("Supervisor"),
      hub_(hub),
      config_(config),
      systemName_(std::move(systemName)),
      saved_(std::move(saved)) {}

Supervisor::~Supervisor() = default;

void Supervisor::startServices(std::function<void()> ready) {
  for (const std::string& service : config_.services)
    services_[nameOfService(service)] = std::make_unique<Service>(*this, service);
  for (auto& [name, service] : services_) service->wantedIs(true);
  readiness_ = std::make_unique<Readiness>(*this, std::move(ready));
}

void Supervisor::startAgents() {
  std::vector<Ref<Entity>> processes;
  for (CollectionIterator it(entries(hub_.tree(), kAgentProcesses)); it; it.next())
    processes.emplace_back(it.get());
  for (const Ref<Entity>& e : processes) {
    auto* process = e->as<GenericAgent::Process>();
    if (!process || process->pid() == 0) continue;
    const std::string name(process->key().view());
    auto& agent = agents_[name] = std::make_unique<Agent>(*this, name);
    agent->takeOver({static_cast<pid_t>(process->pid()), process->started(), process->boot()});
    consider(process->key());
  }
  follow(*hub_.tree().find(kAgentConfigs)->childJournal());
  purges_ = std::make_unique<Purges>(*this);
}

void Supervisor::onEntity(Entity& entity, Change) {
  Entity* e = &entity;
  if (!e->as<AgentConfig>()) e = e->parent();  // an option
  if (e && e->as<AgentConfig>()) consider(e->as<AgentConfig>()->key());
}

void Supervisor::consider(const Name& key) {
  if (stopped_) return;
  const std::string name(key.view());
  const AgentConfig* config = entries(hub_.tree(), kAgentConfigs).find<AgentConfig>(key);
  auto at = agents_.find(name);
  if (!config || !config->exec().empty() || at != agents_.end()) {
    if (at == agents_.end()) at = agents_.emplace(name, std::make_unique<Agent>(*this, name)).first;
    Agent& agent = *at->second;
    agent.isToGo = !config;
    const bool wanted = config && config->enabled() && !config->exec().empty();
    agent.wantedIs(wanted);
    if (!wanted && !agent.runs()) ended(agent);
  }
}

// No process of it is left.
void Supervisor::ended(Supervised& one) {
  const std::string name = one.name();
  if (auto at = agents_.find(name); at != agents_.end() && at->second.get() == &one) {
    if (at->second->isToGo && at->second->connected() != 0) {
      at->second->lookAgain();  // started by somebody else, it is to leave by itself
    } else if (at->second->isToGo && !stopped_) {
      purgeAgent(hub_.tree(), name);
      entries(hub_.tree(), kAgentProcesses).erase(Name(name));
      agents_.erase(at);
    }
  }
  if (readiness_) readiness_->look();
  lookWhetherStopped();
}

void Supervisor::lookWhetherStopped() {
  if (!stopped_) return;
  const auto anyRuns = [](auto& all) {
    return std::any_of(all.begin(), all.end(), [](auto& entry) { return entry.second->runs(); });
  };
  if (anyRuns(agents_)) return;
  if (!std::exchange(servicesStop_, true))
    for (auto& [key, service] : services_) service->stopNow();
  if (anyRuns(services_)) return;
  if (auto done = std::exchange(stopped_, [] {})) done();
}

void Supervisor::stop(std::function<void()> done) {
  if (stopped_) return;
  stopped_ = std::move(done);
  for (auto& [key, agent] : agents_) agent->stopNow();
  lookWhetherStopped();
}

bool Supervisor::runs(std::string_view agent, int64_t pid) const {
  auto at = agents_.find(std::string(agent));
  return at != agents_.end() && pid > 0 && at->second->pid() == pid;
}

int64_t Supervisor::connected(std::string_view agent) const {
  for (const HubParticipant& p : hub_.participants())
    if (p.role == Role::agent && p.name == agent) return p.peer.pid;
  return 0;
}

void Supervisor::silent(const std::string& name) {
  const AgentConfig* config = entries(hub_.tree(), kAgentConfigs).find<AgentConfig>(Name(name));
  auto at = agents_.find(name);
  if (config && config->restartSilent() && at != agents_.end())
    at->second->kill("its heartbeat stayed out");
}

// --- what an agent left -------------------------------------------------------------------------

namespace {

// Of the sessions that agents ask for together, each agent's requests bear its name.
void purgeBfdRequests(Tree& tree, const std::string& agent) {
  std::vector<Ref<Entity>> own;
  for (CollectionIterator app(tree.find<Dir>("bfd/config/app")->entry); app; app.next())
    if (auto* config = app.get()->as<Bfd::AppConfig>())
      for (auto vrf = config->vrf.iterator(); vrf; vrf.next())
        for (auto peer = vrf->peer.iterator(); peer; peer.next())
          if (peer.key().agent == agent) own.emplace_back(peer.get());
  for (const Ref<Entity>& e : own) EntityOps::remove(*e);
}

}  // namespace

void purgeAgent(Tree& tree, const std::string& name) {
  purgeBfdRequests(tree, name);
  const Participant agent(Role::agent, name);
  for (const WellKnown& place : wellKnown()) {
    if (place.access != Access::agentOwn) continue;
    const auto purge = [&](auto& self, Entity& above, int depth) -> void {
      Dir* dir = above.as<Dir>();
      if (!dir) return;
      std::vector<Ref<Entity>> own;
      for (CollectionIterator it(dir->entry); it; it.next()) {
        if (depth > 1)
          self(self, *it.get(), depth - 1);
        else if (ownership(agent, *it.get(), dir) == Ownership::own)
          own.emplace_back(it.get());
      }
      for (const Ref<Entity>& e : own) EntityOps::remove(*e);
    };
    purge(purge, *tree.find(place.path), place.ownDepth);
  }
}

}  // namespace ryx::hub
