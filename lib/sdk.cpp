// The context of an agent: its name, the two ways to start it, and what it owns.
#include "ryx/sdk.h"

#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ostream>

#include "lib/agent_initialized.h"
#include "lib/api_lock.h"
#include "lib/context.h"
#include "lib/loop.h"
#include "lib/names.h"
#include "lib/signals.h"
#include "platform/activity/activity.h"
#include "platform/agent/container.h"
#include "platform/agent/process_title.h"
#include "platform/agent/trace_control.h"
#include "platform/base/check.h"
#include "platform/statehub/local.h"
#include "platform/trace/trace.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "ryx/print_profiles.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

namespace {

using platform::AgentContainer;
using platform::check;

constexpr size_t kLongestName = 32;
constexpr const char* kAgentType = "ryx::Agent";
// How long main_loop waits for the agent's last writes to be sent.
constexpr double kExitFlushTime = 5.0;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdk");
  return facility;
}

void printBanner() {
  std::printf("Using RYX SDK %s\n", RYX_VERSION);
  std::fflush(stdout);
}

std::string validName(std::string name) {
  if (name.size() > kLongestName) panic(invalid_range_error(name, 1, kLongestName));
  for (const char c : name)
    if (!isNameCharacter(c))
      panic(configuration_error(
          "Invalid agent name. Only alphanumeric characters, underscores, and dashes are "
          "permitted."));
  return name;
}

// --- start-up -----------------------------------------------------------------------------------

// "ryx::Agent": what main_loop adds to its container.
class Agent final : public platform::Agent {
 public:
  static std::unique_ptr<platform::Agent> make(const std::string&) {
    return std::make_unique<Agent>();
  }
  void mounterIs(RawMounter* mounter) { mounter_ = mounter; }
  void doInit(platform::EntityManager& em) override { mounter_->mount(em); }

 private:
  RawMounter* mounter_ = nullptr;
};

void ensureHeartbeatPeriod() {
  const char* period = std::getenv("HEARTBEAT_PERIOD");
  if (period != nullptr && !(std::strtod(period, nullptr) < 1)) return;
  RYX_TRACE(trace(), 7, "Overwriting empty heartbeat period");
  check(::setenv("HEARTBEAT_PERIOD", "30", 1) == 0, "Not enough memory to set HEARTBEAT_PERIOD");
}

bool isContainerArgument(std::string_view argument) {
  for (const std::string_view prefix :
       {"--daemonize", "--sysname=", "--statehubport=", "--statehubsockname=", "--pyserver"})
    if (argument.starts_with(prefix)) return true;
  return false;
}

std::vector<std::string> containerArguments(const std::string& name, int argc, char** argv) {
  std::vector<std::string> arguments;
  arguments.emplace_back(argc > 0 ? argv[0] : name);
  RYX_TRACE(trace(), 7, "Adding program name '" << arguments.back() << "'");
  for (std::string& passive : platform::passiveMountArguments())
    arguments.push_back(std::move(passive));
  for (int i = 1; i < argc; ++i) {
    if (!isContainerArgument(argv[i])) continue;
    RYX_TRACE(trace(), 7, "Adding argv '" << argv[i] << "'");
    arguments.emplace_back(argv[i]);
  }
  return arguments;
}

// --- contexts -----------------------------------------------------------------------------------

std::vector<sdk_context*>& contexts() {
  static auto* list = new std::vector<sdk_context*>;
  return *list;
}

}  // namespace

sdk_context::sdk_context(platform::EntityManager* host) : connection_(host) {
  const sdk_scoped_lock lock;
  contexts().push_back(this);
}

sdk_context::~sdk_context() {
  const sdk_scoped_lock lock;
  std::erase(contexts(), this);
}

const std::vector<sdk_context*>& sdk_context::all() {
  return contexts();
}

void sdk_context::connectionIs(std::unique_ptr<platform::EntityManager> connection,
                               const platform::ConnectionSettings& settings) {
  const sdk_scoped_lock lock;
  own_ = std::move(connection);
  connection_ = own_.get();
  reconnection_ =
      std::make_unique<platform::Reconnection>(*connection_, settings, [] { std::exit(1); });
  if (!platform::localSelected())
    traces_ = std::make_unique<platform::TraceControl>(*connection_, connection_->agentName());
}

void sdk_context::containerIs(std::unique_ptr<platform::AgentContainer> container) {
  container_ = std::move(container);
}

void sdk_context::destroyManagers() {
  const sdk_scoped_lock lock;
  mounter_.stop();
  while (!managers_.empty()) {
    const auto destroy = std::move(managers_.back());
    managers_.pop_back();
    destroy();
  }
  mounts_ = nullptr;
}

void sdk_context::orphan() {
  const sdk_scoped_lock lock;
  if (mounts_ != nullptr) mounts_->sdk_ = nullptr;
}

// --- sdk ----------------------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, mgr_mode_type_t mode) {
  switch (mode) {
    case MGR_MODE_READ_ONLY:
      return out << "MGR_MODE_READ_ONLY";
    case MGR_MODE_READ_NOTIFYING:
      return out << "MGR_MODE_READ_NOTIFYING";
    case MGR_MODE_WRITE:
      return out << "MGR_MODE_WRITE";
  }
  return out << "mgr_mode_type_t(" << static_cast<int>(mode) << ")";
}

sdk::sdk() {
  printBanner();
  name_ = get_agent_process_name();
  installSignalHandlers();
  context_ = new sdk_context(nullptr);
  print_profiles::set_print_profiles(name_.c_str());
}

sdk::sdk(std::string name, void* entity_manager) {
  printBanner();
  name_ = validName(std::move(name));
  installSignalHandlers();
  context_ = new sdk_context(static_cast<platform::EntityManager*>(entity_manager));
  print_profiles::set_print_profiles(name_.c_str());
}

// The managers live on, and with them what stands behind them.
sdk::~sdk() {
  if (context_->ownsManagers())
    context_->orphan();
  else
    delete context_;
}

std::string sdk::name() const {
  return name_;
}

void sdk::initialize_context() {
  RYX_TRACE(trace(), 1, "sdk initialize context.");
  platform::EntityManager* em = context_->connection();
  if (em == nullptr) panic("No ryxsdk context provided, unable to initialize");
  if (em->agentName() != name_)
    panic(configuration_error("the entity manager is that of agent \"" + em->agentName() +
                              "\", and this context's agent is \"" + name_ + "\""));
  recordMainThreadIfNone();
  RawMounter& mounter = context_->mounter();
  mounter.mountMgrIs(get_mount_mgr());
  mounter.mount(*em);
}

void sdk::main_loop(int argc, char** argv) {
  RYX_TRACE(trace(), 7, __func__);
  const std::string agentName = name();
  check(!agentName.empty(), "No agent name set");
  checkMountableName(agentName);
  recordMainThread();
  ensureHeartbeatPeriod();

  auto made =
      std::make_unique<AgentContainer>("AgentContainer", containerArguments(agentName, argc, argv));
  AgentContainer& container = *made;
  context_->containerIs(std::move(made));
  if (platform::agentTitle().empty()) platform::agentTitleIs(agentName + "-" + agentName);

  platform::Agent::registerType(kAgentType, &Agent::make);
  context_->mounter().mountMgrIs(get_mount_mgr());
  static_cast<Agent*>(container.addAgent(agentName, kAgentType))->mounterIs(&context_->mounter());
  container.daemonize();
  if (context_->connection() == nullptr)
    context_->connectionIs(container.connect(agentName), container.settings());
  platform::EntityManager& em = *context_->connection();
  container.startAgents(em);

  RYX_TRACE(trace(), 7, "Starting agent's main loop");
  {
    const LoopScope scope;
    container.runAgents();
  }
  flushOutput(em, kExitFlushTime);
  exitIfSignalled();
}

void sdk::destroy_managers() {
  context_->destroyManagers();
}

void sdk::init_mount_mgr() {
  if (mount_mgr_ != nullptr) return;
  context_->own(mount_mgr_, std::make_unique<mount_mgr>(this));
  context_->mountMgrIs(mount_mgr_);
}
mount_mgr* sdk::get_mount_mgr() {
  return get(mount_mgr_, &sdk::init_mount_mgr, {});
}

// --- buffers ------------------------------------------------------------------------------------

namespace {

void bufferSizeIs(int fd, uint32_t bytes) {
  // The kernel doubles what it is asked for.
  const auto half = static_cast<int>(std::min<uint64_t>((uint64_t{bytes} + 1) / 2, INT_MAX));
  RYX_TRACE(trace(), 7, "Calling setsockopt for fd " << fd << " to buf size " << half);
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &half, sizeof half) != 0)
    panic("Unable to set internal buffer's SO_SNDBUFFORCE. Make sure this is run as root");
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &half, sizeof half) != 0)
    panic("Unable to set internal buffer's SO_RCVBUFFORCE");
  int actual = 0;
  socklen_t size = sizeof actual;
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &actual, &size) != 0)
    panic("Unable to check internal buffer size");
  RYX_TRACE(trace(), 7, "Buf size is now is now " << actual << " (requested " << bytes << ")");
  if (actual < 0 || bytes > static_cast<uint32_t>(actual))
    panic("Unable to set buffer size to requested value");
}

}  // namespace

void internal_connection_buffer_size_is(uint32_t bytes) {
  const sdk_scoped_lock lock;
  RYX_TRACE(trace(), 7, "Updating the internal socket buffer to " << bytes);
  std::vector<int> sockets;
  for (const sdk_context* context : sdk_context::all())
    if (context->connection() != nullptr)
      for (const int fd : context->connection()->connections()) sockets.push_back(fd);
  if (sockets.empty())
    panic("No internal socket found! Make sure you call this function from on_initialized()");
  for (const int fd : sockets) bufferSizeIs(fd, bytes);
}

// --- print profiles -----------------------------------------------------------------------------

void print_profiles::set_print_profiles(const char*) {}
void print_profiles::add_profile(const char*) {}
void print_profiles::write_profiles() {}

}  // namespace ryx
