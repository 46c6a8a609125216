// An agent with descriptors and timers of its own: a TCP server on this machine's loopback address
// that tells the state of interfaces. A client sends names, one a line, and gets a line for each:
//
//   $ printf 'Ethernet1\n' | nc -N 127.0.0.1 7001
//   Ethernet1 INTF_OPER_UP
//
// The agent's option "port" says where it listens, 0 or none: wherever there is room; its status
// "port" tells where it does, "clients" how many there are. A client that says nothing for 30
// seconds is sent away.
#ifndef RYX_EXAMPLES_SOCKETS_AND_TIMERS_H
#define RYX_EXAMPLES_SOCKETS_AND_TIMERS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <ryx/agent.h>
#include <ryx/event_loop.h>
#include <ryx/fd.h>
#include <ryx/intf.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>
#include <ryx/timer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>

class intf_server : public ryx::agent_handler, public ryx::fd_handler, public ryx::timeout_handler {
 public:
  static constexpr double patience = 30;        // seconds that a client may say nothing
  static constexpr size_t longest_line = 1024;  // bytes; a client that sends more is sent away
  static constexpr size_t most_unsent = 65536;  // bytes of answers that a client has not taken

  explicit intf_server(ryx::sdk& sdk)
      : agent_handler(sdk.get_agent_mgr()),
        timeout_handler(sdk.get_timeout_mgr()),
        agent_(sdk.get_agent_mgr()),
        intfs_(sdk.get_intf_mgr()) {}

  ~intf_server() override {
    while (!clients_.empty()) drop(clients_.begin()->first);
    stop_listening();
  }

  void on_initialized() override { listen_at(agent_->agent_option("port")); }

  void on_agent_option(const std::string& name, const std::string& value) override {
    if (name == "port") listen_at(value);
  }

  void on_readable(int fd) override {
    if (fd == listener_)
      accept_one();
    else
      read_lines(fd);
  }

  // A client that did not take all of its answers can take more.
  void on_writable(int fd) override { send_answers(fd); }

  // One timer serves all clients: it is armed for the one who has been silent for longest.
  void on_timeout() override {
    for (auto at = clients_.begin(); at != clients_.end();) {
      const int fd = (at++)->first;
      if (clients_[fd].heard + patience <= ryx::now()) drop(fd);
    }
    arm();
  }

 private:
  struct client {
    std::string in, out;
    double heard;
  };

  void listen_at(const std::string& port) {
    stop_listening();
    char* end = nullptr;
    const long number = std::strtol(port.c_str(), &end, 10);
    if (*end != '\0' || number < 0 || number > 65535) {
      agent_->status_set("port", "'" + port + "' is no port: expected 0 to 65535");
      return;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(number));
    socklen_t size = sizeof address;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      agent_->status_set("port", "cannot listen at " + port + ": " + std::strerror(errno));
      close(fd);
      return;
    }
    listener_ = fd;
    watch_readable(fd, true);
    agent_->status_set("port", std::to_string(ntohs(address.sin_port)));
  }

  // A descriptor is let go before it is closed.
  void stop_listening() {
    if (listener_ < 0) return;
    watch_readable(listener_, false);
    close(listener_);
    listener_ = -1;
  }

  void accept_one() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    clients_[fd].heard = ryx::now();
    watch_readable(fd, true);
    clients_changed();
  }

  void read_lines(int fd) {
    client& from = clients_[fd];
    char bytes[4096];
    const ssize_t n = recv(fd, bytes, sizeof bytes, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) return drop(fd);
    from.heard = ryx::now();
    from.in.append(bytes, static_cast<size_t>(n));
    for (size_t end; (end = from.in.find('\n')) != std::string::npos; from.in.erase(0, end + 1))
      from.out += answer(from.in.substr(0, end)) + "\n";
    if (from.in.size() > longest_line || from.out.size() > most_unsent) return drop(fd);
    send_answers(fd);
    arm();
  }

  std::string answer(const std::string& name) const {
    try {
      const ryx::intf_id_t intf(name);
      if (!intfs_->exists(intf)) return name + " does not exist";
      std::ostringstream text;
      text << name << " " << intfs_->oper_status(intf);
      return text.str();
    } catch (const ryx::error& e) {
      return e.what();
    }
  }

  void send_answers(int fd) {
    client& to = clients_[fd];
    const ssize_t n = send(fd, to.out.data(), to.out.size(), MSG_NOSIGNAL);
    if (n > 0) to.out.erase(0, static_cast<size_t>(n));
    watch_writable(fd, !to.out.empty());
  }

  void drop(int fd) {
    watch_readable(fd, false);
    watch_writable(fd, false);
    close(fd);
    clients_.erase(fd);
    clients_changed();
  }

  void clients_changed() {
    arm();
    agent_->status_set("clients", std::to_string(clients_.size()));
  }

  void arm() {
    double earliest = ryx::never;
    for (const auto& [fd, c] : clients_)
      if (earliest == ryx::never || c.heard < earliest) earliest = c.heard;
    timeout_time_is(earliest == ryx::never ? ryx::never : earliest + patience);
  }

  ryx::agent_mgr* agent_;
  ryx::intf_mgr* intfs_;
  int listener_ = -1;
  std::map<int, client> clients_;
};

#endif  // RYX_EXAMPLES_SOCKETS_AND_TIMERS_H
