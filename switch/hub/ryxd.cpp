// ryxd: the Statehub server of one switch, and the supervisor of its services and agents.
#include <getopt.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/agent/connection.h"
#include "platform/agent/trace_control.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "switch/base/stop_signals.h"
#include "switch/hub/access.h"
#include "switch/hub/clients.h"
#include "switch/hub/config.h"
#include "switch/hub/files.h"
#include "switch/hub/keeper.h"
#include "switch/hub/notify.h"
#include "switch/hub/server.h"
#include "switch/hub/service.h"
#include "switch/hub/supervisor.h"
#include "switch/hub/tables.h"

namespace {

using ryx::platform::activity;

constexpr double kLinger = 0.001;  // seconds that an answer waits for company
constexpr const char* kConfigFile = "/etc/ryx/ryxd.toml";
constexpr const char* kUsage =
    R"(usage: ryxd [OPTION...]

  --config=FILE            the configuration (default: /etc/ryx/ryxd.toml, if it is there)
  --service=NAME           runs the service linux, sim or sim:SCENARIO as a process; again for more
  --statehubsockname=PATH  the Unix socket at which agents connect
                           (default: STATEHUBSOCKNAME, else /run/ryx/SYSTEM/statehub)
  --sysname=SYSTEM         which switch of this machine (default: SYSNAME, else "ryx")
  --state=FOLDER           where agents and configuration outlive the server
                           (default: /var/lib/ryx/SYSTEM)
  --check                  checks options and configuration, and ends
  --help                   this text

What the command line says holds before what the configuration says. It serves until SIGTERM,
SIGINT or SIGHUP; then it ends the agents and services that it runs. One that is killed leaves them
running, and the next one takes them over.
)";

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "ryxd: %s\n", what.c_str());
  std::exit(1);
}
[[noreturn]] void failUsage(const std::string& what) {
  std::fprintf(stderr, "ryxd: %s\n%s", what.c_str(), kUsage);
  std::exit(2);
}

struct Options {
  ryx::hub::Config config;
  std::string systemName;
  bool check = false;
  std::string serve;  // this process is that service, of a server that started it
  int descriptor = -1;
};

void takeFile(const std::string& file, bool isRequired, ryx::hub::Config* config) {
  std::string text;
  if (const int error = ryx::hub::readFile(file, &text); error == ENOENT && !isRequired)
    return;
  else if (error != 0)
    fail("cannot read " + file + ": " + std::strerror(error));
  if (const std::string faults = config->take(text, file); !faults.empty()) {
    std::fputs(faults.c_str(), stderr);
    std::exit(1);
  }
}

Options parse(int argc, char** argv) {
  const option known[] = {{"config", required_argument, nullptr, 'c'},
                          {"service", required_argument, nullptr, 'v'},
                          {"statehubsockname", required_argument, nullptr, 's'},
                          {"sysname", required_argument, nullptr, 'n'},
                          {"state", required_argument, nullptr, 't'},
                          {"check", no_argument, nullptr, 'k'},
                          {"help", no_argument, nullptr, 'h'},
                          {"serve", required_argument, nullptr, 'S'},
                          {"statehubfd", required_argument, nullptr, 'F'},
                          {}};
  Options options;
  ryx::platform::ConnectionSettings settings = ryx::platform::ConnectionSettings::fromEnvironment();
  std::string file, socket, state;
  std::vector<std::string> services;
  for (int c; (c = getopt_long(argc, argv, "", known, nullptr)) != -1;) switch (c) {
      case 'c':
        file = optarg;
        break;
      case 'v':
        if (const std::string what = ryx::hub::faultOfService(optarg); !what.empty())
          failUsage("--service=" + what);
        services.emplace_back(optarg);
        break;
      case 's':
        socket = optarg;
        break;
      case 'n':
        settings.systemName = optarg;
        break;
      case 't':
        state = optarg;
        break;
      case 'k':
        options.check = true;
        break;
      case 'S':
        options.serve = optarg;
        break;
      case 'F':
        options.descriptor = std::atoi(optarg);
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        std::exit(0);
      default:
        failUsage("expected one of the options below");
    }
  if (optind != argc)
    failUsage("expected options alone, not \"" + std::string(argv[optind]) + "\"");
  if (!options.serve.empty()) return options;

  ryx::hub::Config& config = options.config;
  options.systemName = settings.systemName.empty() ? "ryx" : settings.systemName;
  config.socket = settings.socketName.empty() ? settings.defaultSocketName() : settings.socketName;
  config.state = "/var/lib/ryx/" + options.systemName;
  takeFile(file.empty() ? kConfigFile : file, !file.empty(), &config);
  if (!socket.empty()) config.socket = socket;
  if (!state.empty()) config.state = state;
  if (!services.empty()) config.services = services;
  return options;
}

void tellManager(const std::string& lines) {
  if (const std::string why = ryx::hub::notify(lines); !why.empty())
    std::fprintf(stderr, "ryxd: %s\n", why.c_str());
}

// A descriptor for each connection and each table may be more than the usual thousand.
void takeAllDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

int run(const Options& options) {
  const ryx::hub::Config& config = options.config;
  std::function<void()> stop;
  const ryx::StopSignals signals([&] { stop(); });
  ryx::platform::Tree tree;
  ryx::platform::makeWellKnown(tree);
  std::string error;
  std::vector<std::string> told;
  auto keeper = ryx::hub::Keeper::start(tree, config.state, &error, &told);
  if (!keeper) fail(error);
  for (const std::string& line : told) std::fprintf(stderr, "ryxd: %s\n", line.c_str());

  ryx::hub::Access access(config);
  ryx::platform::Hub hub(tree);
  hub.doorkeeperIs(&access);
  hub.limitsAre(config.limits);
  hub.lingerIs(kLinger);
  const auto own = ryx::platform::EntityManager::embedded("", tree);
  const ryx::platform::TraceControl traces(*own, "ryxd");

  if (const size_t slash = config.socket.rfind('/'); slash != std::string::npos && slash != 0)
    if (const std::string why = ryx::hub::makeFolder(config.socket.substr(0, slash), 0755);
        !why.empty())
      fail("cannot make the folder of " + config.socket + ": " + why);
  auto server = ryx::hub::Server::listen(hub, config.socket, &error);
  if (!server) fail(error);
  std::unique_ptr<ryx::hub::Server> port;
  if (config.port != 0 &&
      !(port = ryx::hub::Server::listen(hub, config.port, config.peers, &error)))
    fail(error);

  ryx::hub::Supervisor supervisor(hub, config, options.systemName, [&] { keeper->saveNow(); });
  access.ownProcessIs(
      [&](std::string_view agent, int64_t pid) { return supervisor.runs(agent, pid); });
  const ryx::hub::Tables tables(tree);
  ryx::hub::Clients clients(hub, [&](const std::string& agent) { supervisor.silent(agent); });
  stop = [&] {
    tellManager("STOPPING=1");
    supervisor.stop([] { activity().executionTimeIs(0); });
  };
  // Agents come when the state is there: those of an earlier server hear no difference.
  supervisor.startServices([&] {
    server->open();
    if (port) port->open();
    supervisor.startAgents();
    std::printf("ryxd: listening at %s\n", config.socket.c_str());
    std::fflush(stdout);
    tellManager("READY=1\nSTATUS=listening at " + config.socket);
  });
  activity().run(std::numeric_limits<double>::infinity());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  takeAllDescriptors();
  if (!options.serve.empty()) return ryx::hub::serve(options.serve, options.descriptor);
  if (options.check) {
    std::printf("ryxd: the configuration is good\n");
    return 0;
  }
  return run(options);
}
