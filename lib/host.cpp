#include "ryx/host.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/agent/connection.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/local.h"
#include "ryx/panic.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

using platform::ConnectionSettings;
using platform::EntityManager;

struct host::impl {
  std::unique_ptr<EntityManager> em;
  std::unique_ptr<platform::Reconnection> reconnection;

  static std::unique_ptr<host> with(std::unique_ptr<EntityManager> em) {
    return std::unique_ptr<host>(new host(std::unique_ptr<impl>(new impl{std::move(em), nullptr})));
  }
  static std::unique_ptr<host> to(const std::string& agentName,
                                  const ConnectionSettings& settings) {
    std::string why;
    const int fd = platform::connectToServer(settings, &why);
    if (fd < 0) panic(configuration_error("cannot connect to Statehub: " + why));
    std::unique_ptr<host> made = with(EntityManager::overSocket(fd, agentName));
    made->impl_->reconnection =
        std::make_unique<platform::Reconnection>(*made->impl_->em, settings);
    return made;
  }
};

namespace {

// What keeps the descriptor from being a connection; empty: nothing.
std::string unfit(int fd) {
  int type = 0;
  socklen_t size = sizeof type;
  if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) return std::strerror(errno);
  if (type != SOCK_STREAM) return "expected a stream socket";
  sockaddr_storage peer;
  size = sizeof peer;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0)
    return std::strerror(errno);
  return "";
}

}  // namespace

host::host(std::unique_ptr<impl> made) : impl_(std::move(made)) {}

host::~host() {
  const sdk_scoped_lock lock;
  impl_->reconnection.reset();
  impl_->em.reset();
}

std::unique_ptr<host> host::local(const std::string& agent_name, const std::string& feed) {
  const sdk_scoped_lock lock;
  if (const std::string why = platform::startFeed(feed); !why.empty())
    panic(configuration_error("the local Statehub cannot be fed by \"" + feed + "\": " + why));
  return impl::with(EntityManager::embedded(agent_name));
}

std::unique_ptr<host> host::at_socket(const std::string& agent_name, const std::string& path) {
  const sdk_scoped_lock lock;
  ConnectionSettings settings;
  settings.socketName = path;
  return impl::to(agent_name, settings);
}

std::unique_ptr<host> host::at_port(const std::string& agent_name, uint16_t port) {
  const sdk_scoped_lock lock;
  ConnectionSettings settings;
  settings.port = std::to_string(port);
  return impl::to(agent_name, settings);
}

std::unique_ptr<host> host::over(const std::string& agent_name, int fd) {
  const sdk_scoped_lock lock;
  if (const std::string why = unfit(fd); !why.empty())
    panic(configuration_error("descriptor " + std::to_string(fd) +
                              " is no connection to Statehub: " + why));
  return impl::with(EntityManager::overSocket(fd, agent_name));
}

void* host::entity_manager() const {
  return impl_->em.get();
}

bool host::connected() const {
  const sdk_scoped_lock lock;
  return impl_->em->connected();
}

}  // namespace ryx
