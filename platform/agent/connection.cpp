#include "platform/agent/connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/base/check.h"
#include "platform/base/clock.h"
#include "platform/statehub/local.h"

namespace ryx::platform {

namespace {

constexpr const char* kDefaultSystem = "ryx";

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

void noStatehub(std::string_view agentName, const std::string& why, bool isLate) {
  std::fprintf(stderr,
               "The agent \"%.*s\" finds no Statehub: %s.\n"
               "%sTo run it with a Statehub of its own, set STATEHUBLOCAL in its environment:\n"
               "  STATEHUBLOCAL=linux  fed by this machine's kernel\n"
               "  STATEHUBLOCAL=sim    fed by a simulated switch\n"
               "  STATEHUBLOCAL=1      fed by nothing\n"
               "To connect it to a Statehub server, start the server, and name its Unix socket by\n"
               "STATEHUBSOCKNAME or --statehubsockname=PATH where that is not the default.\n",
               static_cast<int>(agentName.size()), agentName.data(), why.c_str(),
               isLate ? "It waits for the server to come.\n" : "");
  if (!isLate) std::exit(1);
}

// The seconds of HEARTBEAT_PERIOD, 0 where there are none.
double heartbeatPeriod() {
  const double seconds = std::strtod(environment("HEARTBEAT_PERIOD").c_str(), nullptr);
  return seconds >= 1 ? seconds : 0;
}

int openSocket(int family) {
  return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// A connected socket, or -1 with `why` set.
int connectTo(int fd, const sockaddr* address, socklen_t size, const std::string& name,
              std::string* why, bool* isLate) {
  if (fd >= 0) {
    int result;
    do result = ::connect(fd, address, size);
    while (result != 0 && errno == EINTR);
    if (result == 0) return fd;
  }
  const int error = errno;
  *why = "no server at " + name + " (" + std::strerror(error) + ")";
  if (isLate) *isLate = error == ENOENT || error == ECONNREFUSED || error == EAGAIN;
  if (fd >= 0) ::close(fd);
  return -1;
}

int connectToSocket(const std::string& path, std::string* why, bool* isLate) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    *why = "the socket name " + path + " is longer than " +
           std::to_string(sizeof address.sun_path - 1) + " bytes";
    return -1;
  }
  path.copy(address.sun_path, path.size());
  return connectTo(openSocket(AF_UNIX), reinterpret_cast<const sockaddr*>(&address), sizeof address,
                   "the socket " + path, why, isLate);
}

int connectToPort(const std::string& text, std::string* why, bool* isLate) {
  uint16_t port = 0;
  const char* end = text.data() + text.size();
  auto [at, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || at != end || port == 0) {
    *why = "the port \"" + text + "\" is no number from 1 to 65535";
    return -1;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return connectTo(openSocket(AF_INET), reinterpret_cast<const sockaddr*>(&address), sizeof address,
                   "TCP port " + text, why, isLate);
}

}  // namespace

ConnectionSettings ConnectionSettings::fromEnvironment() {
  ConnectionSettings settings;
  settings.systemName = environment("SYSNAME");
  settings.socketName = environment("STATEHUBSOCKNAME");
  settings.port = environment("STATEHUBPORT");
  return settings;
}

std::string ConnectionSettings::defaultSocketName() const {
  return "/run/ryx/" + (systemName.empty() ? kDefaultSystem : systemName) + "/statehub";
}

int connectToServer(const ConnectionSettings& settings, std::string* why, bool* isLate) {
  if (const int fd = settings.descriptor; fd >= 0) {
    if (::fcntl(fd, F_GETFD) != -1) return fd;
    *why = "the inherited descriptor " + std::to_string(fd) + " is not open";
    return -1;
  }
  if (!settings.socketName.empty()) return connectToSocket(settings.socketName, why, isLate);
  if (!settings.port.empty()) return connectToPort(settings.port, why, isLate);
  return connectToSocket(settings.defaultSocketName(), why, isLate);
}

std::unique_ptr<EntityManager> connectToStatehub(const ConnectionSettings& settings,
                                                 std::string_view agentName) {
  if (localSelected()) {
    auto em = EntityManager::embedded(agentName);
    startLocalFeed();
    return em;
  }
  std::string why;
  bool isLate = false;
  const int fd = connectToServer(settings, &why, &isLate);
  if (fd < 0) noStatehub(agentName, why, isLate);
  return EntityManager::overSocket(fd, agentName, heartbeatPeriod());
}

Reconnection::Reconnection(EntityManager& em, const ConnectionSettings& settings,
                           TurnedAway turnedAway)
    : Timer("StatehubReconnection"),
      em_(em),
      settings_(settings),
      turnedAway_(std::move(turnedAway)) {
  if (localSelected()) return;
  settings_.descriptor = -1;
  em_.onLostIs([this] { lost(); });
  if (!em_.connected()) searchLater();
}

void Reconnection::tell(const std::string& what) const {
  const Participant who = em_.who();
  std::fprintf(stderr, "The %s \"%s\" %s.\n", nameOf(who.role), std::string(who.name).c_str(),
               what.c_str());
}

void Reconnection::lost() {
  const std::string why = em_.farewell();
  if (!why.empty() && why != told_)
    tell("is turned away by its Statehub: " + why);
  else if (state_ == State::connected)
    tell("has lost its Statehub, and waits for it");
  if (!why.empty() && !em_.welcomed() && turnedAway_) return turnedAway_();
  told_ = why;
  wait_ = state_ == State::connected ? kFirstSeconds : std::min(2 * wait_, kLongestSeconds);
  searchLater();
}

void Reconnection::searchLater() {
  state_ = State::searching;
  armAt(clock().now() + wait_);
}

void Reconnection::search() {
  std::string why;
  const int fd = connectToServer(settings_, &why);
  if (fd < 0) {
    wait_ = std::min(2 * wait_, kLongestSeconds);
    return searchLater();
  }
  state_ = State::onTrial;
  armAt(clock().now() + kLastsSeconds);
  em_.reconnected(fd);
}

void Reconnection::onTimer() {
  if (state_ == State::searching) return search();
  tell("has its Statehub again");
  state_ = State::connected;
  told_.clear();
}

std::vector<std::string> passiveMountArguments() {
  std::vector<std::string> arguments;
  const long count = std::strtol(environment("STATEHUB_SOCKID_ARGC").c_str(), nullptr, 10);
  for (long i = 0; i < count; ++i) {
    const char* value = std::getenv(("STATEHUB_SOCKID_ARG_" + std::to_string(i)).c_str());
    check(value != nullptr, "passive mount argc and argv inconsistent");
    arguments.emplace_back(value);
  }
  return arguments;
}

int passiveMountDescriptor(const std::vector<std::string>& arguments) {
  int found = -1;
  for (const std::string& argument : arguments)
    if (int fd; std::sscanf(argument.c_str(), "--statehubfd=%d", &fd) == 1) found = fd;
  return found;
}

}  // namespace ryx::platform
