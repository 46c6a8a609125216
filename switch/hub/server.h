// Where participants connect: a Unix socket, and, where that is asked for, a TCP port of the
// loopback interface. The socket's file is the server's own: it is there while the server is, and
// one that a killed server left behind is taken over.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/activity/descriptor.h"
#include "platform/activity/timer.h"
#include "platform/statehub/hub.h"

namespace ryx::hub {

class Server final : private platform::Descriptor, private platform::Timer {
 public:
  // Listens at `path`, for the hub, which outlives it. Null, with `error` set, when that cannot be.
  static std::unique_ptr<Server> listen(platform::Hub& hub, const std::string& path,
                                        std::string* error);
  // The same at a port, for connections from those addresses.
  static std::unique_ptr<Server> listen(platform::Hub& hub, uint16_t port,
                                        std::vector<std::string> peers, std::string* error);
  // The socket's file goes, if it still is this one.
  ~Server() override;

  // Lets those in that come, and that came before: until then they wait.
  void open() { readableInterestIs(true); }

 private:
  // While no descriptor is free, nobody is let in for so long.
  static constexpr double kPauseSeconds = 1;

  Server(platform::Hub& hub, int fd);
  void onReadable() override;
  void onTimer() override { readableInterestIs(true); }
  bool isPeer(int connection) const;

  platform::Hub& hub_;
  std::string path_;                 // empty: a port
  uint64_t device_ = 0, inode_ = 0;  // of the file
  std::vector<std::string> peers_;
};

}  // namespace ryx::hub
