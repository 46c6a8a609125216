// ryxd: the Statehub server. Agents connect to its socket, and share the state of one switch.
#include <getopt.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "platform/activity/activity.h"
#include "platform/agent/connection.h"
#include "platform/statehub/hub.h"
#include "platform/statehub/local.h"
#include "switch/hub/server.h"

namespace {

using ryx::platform::activity;

constexpr const char* kUsage =
    R"(usage: ryxd [--statehubsockname=PATH] [--sysname=NAME] [--feed=FEED]

  --statehubsockname=PATH  the Unix socket at which agents connect
                           (default: STATEHUBSOCKNAME, else /run/ryx/NAME/statehub)
  --sysname=NAME           which switch of this machine (default: SYSNAME, else "ryx")
  --feed=FEED              what fills the state: linux, sim or sim:FILE (default: nothing)
  --help                   this text

It serves until SIGTERM or SIGINT.
)";

struct Options {
  ryx::platform::ConnectionSettings settings = ryx::platform::ConnectionSettings::fromEnvironment();
  std::string feed;
};

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "ryxd: %s\n", what.c_str());
  std::exit(1);
}

Options parse(int argc, char** argv) {
  const option known[] = {{"statehubsockname", required_argument, nullptr, 's'},
                          {"sysname", required_argument, nullptr, 'n'},
                          {"feed", required_argument, nullptr, 'f'},
                          {"help", no_argument, nullptr, 'h'},
                          {}};
  Options options;
  for (int c; (c = getopt_long(argc, argv, "", known, nullptr)) != -1;) switch (c) {
      case 's':
        options.settings.socketName = optarg;
        break;
      case 'n':
        options.settings.systemName = optarg;
        break;
      case 'f':
        options.feed = optarg;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        std::exit(0);
      default:
        std::fputs(kUsage, stderr);
        std::exit(2);
    }
  if (optind != argc) {
    std::fprintf(stderr, "ryxd: expected options alone, not \"%s\"\n%s", argv[optind], kUsage);
    std::exit(2);
  }
  return options;
}

// The folder of the default socket, which no package makes.
void makeFolderOf(const std::string& socket) {
  for (size_t slash = socket.find('/', 1); slash != std::string::npos;
       slash = socket.find('/', slash + 1)) {
    const std::string folder = socket.substr(0, slash);
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
      fail("cannot make the folder " + folder + ": " + std::strerror(errno));
  }
}

class Signals final : private ryx::platform::Descriptor {
 public:
  // The signals are blocked from here on, in every thread that is started later too.
  static int block() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  }
  Signals() : Descriptor(block(), "Signals") { readableInterestIs(true); }

 private:
  void onReadable() override { activity().executionTimeIs(0); }
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::string socket = options.settings.socketName;
  if (socket.empty()) makeFolderOf(socket = options.settings.defaultSocketName());

  const Signals signals;
  ryx::platform::Hub hub(ryx::platform::localTree());
  if (const std::string why = ryx::platform::startFeed(options.feed); !why.empty())
    fail("--feed=" + options.feed + ": " + why);
  std::string error;
  std::unique_ptr<ryx::hub::Server> server = ryx::hub::Server::listen(hub, socket, &error);
  if (!server) fail(error);
  std::printf("ryxd: listening at %s\n", socket.c_str());
  std::fflush(stdout);
  activity().run(std::numeric_limits<double>::infinity());
}
