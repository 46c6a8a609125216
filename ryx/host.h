// For a program that owns its process and its loop, and has the SDK as a guest: it makes the
// connection to Statehub itself, gives it to the context, and starts the context.
//
//   std::unique_ptr<ryx::host> host = ryx::host::local("guest", "linux");
//   ryx::sdk sdk("guest", host->entity_manager());
//   my_handlers handlers(sdk);
//   sdk.initialize_context();
//   sdk.get_event_loop()->external_loop_is(&my_loop);   // or run() now and then
//
// The environment is not looked at. Whoever leaves the loop to the SDK needs none of this: see
// `sdk::main_loop` and `event_loop`.
#ifndef RYX_HOST_H
#define RYX_HOST_H

#include <ryx/api.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ryx {

/// The connection of one agent to Statehub, made by the program. `agent_name` is that of the sdk
/// object that gets it: its writes are judged by that name. For the loop's thread, or with the
/// API's lock (sdk_scoped_lock.h) held.
///
/// The object has to outlive the managers of its context, which live until the process exits: keep
/// it as long.
class RYX_API host {
 public:
  /// The Statehub inside this process, shared by all agents in it, fed by "linux" (the kernel of
  /// this network namespace), "sim" or "sim:FILE" (a simulated switch, with a scenario) or nothing
  /// (empty). A process has one feed: a second one raises an error, the same one does not.
  /// Raises a configuration_error that says why a feed does not start.
  static std::unique_ptr<host> local(const std::string& agent_name, const std::string& feed = "");

  /// The server at a Unix socket, or, with an empty path, at the machine's default one. Raises a
  /// configuration_error when nobody listens there. When the connection dies later, it is made
  /// again as soon as the server is back; what the agent knows and writes is kept until then.
  static std::unique_ptr<host> at_socket(const std::string& agent_name, const std::string& path);

  /// The server at a TCP port of this machine (1 to 65535), likewise.
  static std::unique_ptr<host> at_port(const std::string& agent_name, uint16_t port);

  /// The server at the other end of a connected stream socket, such as one that was inherited. The
  /// descriptor belongs to the host object from now on; when the connection dies it is dead. Raises
  /// a configuration_error for a descriptor that is not open or no stream socket; it is then still
  /// the caller's.
  static std::unique_ptr<host> over(const std::string& agent_name, int fd);

  host(const host&) = delete;
  host& operator=(const host&) = delete;
  ~host();

  /// For the second argument of sdk's constructor.
  void* entity_manager() const;

  /// False while the connection to a server is lost. Always true of the local one.
  bool connected() const;

 private:
  struct impl;
  explicit host(std::unique_ptr<impl> made);
  std::unique_ptr<impl> impl_;
};

}  // namespace ryx

#endif  // RYX_HOST_H
