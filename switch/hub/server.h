// Where participants connect: a Unix socket, at which a hub listens. The socket's file is the
// server's own: it is there while the server is, and one that a killed server left behind is taken
// over.
#pragma once

#include <memory>
#include <string>

#include "platform/activity/descriptor.h"
#include "platform/activity/timer.h"
#include "platform/statehub/hub.h"

namespace ryx::hub {

class Server final : private platform::Descriptor, private platform::Timer {
 public:
  // Listens at `path`, for the hub, which outlives it. Null, with `error` set, when that cannot be.
  static std::unique_ptr<Server> listen(platform::Hub& hub, const std::string& path,
                                        std::string* error);
  // The socket's file goes, if it still is this one.
  ~Server() override;

 private:
  // While no descriptor is free, nobody is let in for so long.
  static constexpr double kPauseSeconds = 1;

  Server(platform::Hub& hub, int fd, std::string path);
  void onReadable() override;
  void onTimer() override { readableInterestIs(true); }

  platform::Hub& hub_;
  const std::string path_;
  uint64_t device_ = 0, inode_ = 0;  // of the file
};

}  // namespace ryx::hub
