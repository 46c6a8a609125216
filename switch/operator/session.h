// An operator's connection to the Statehub server: it looks at what it mounts, and what it writes
// is the server's by the time that a command ends.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/agent/connection.h"
#include "platform/statehub/entity_manager.h"

namespace ryx::operators {

// How a command ends.
enum Status : int { kDone = 0, kFailed = 1, kWrongUsage = 2, kNoServer = 3 };

// What a command cannot do, told to whoever asked for it.
struct Failure : std::runtime_error {
  Failure(Status s, const std::string& text) : std::runtime_error(text), status(s) {}
  Status status;
};

class Session {
 public:
  static constexpr double kPatience = 10;  // seconds that the server may take for an answer
  static constexpr double kComing = 1;     // and to come, when it has just been started

  // Throws when there is no server, nor one in the next second, or it does not let this one in.
  explicit Session(const platform::ConnectionSettings& settings);

  platform::EntityManager& connection() { return *em_; }
  platform::Tree& tree() { return em_->tree(); }

  // Mounts what stands at that path, or, where that is a part of something, what it is a part of,
  // and gives that. Throws when nothing stands there.
  platform::Entity& mount(const std::string& path) { return mount(path, "r"); }
  platform::Entity& mountToWrite(const std::string& path) { return mount(path, "w"); }
  // Mounts a directory that is always there.
  platform::DirEntries& directory(const std::string& path) { return entriesOf(mount(path)); }
  platform::DirEntries& directoryToWrite(const std::string& path) {
    return entriesOf(mountToWrite(path));
  }
  // Until the server has taken all that was written. Throws when it does not.
  void commit();
  // Runs until that is so; false when `seconds` pass before.
  bool wait(const std::function<bool()>& done, double seconds = kPatience);

 private:
  platform::Entity& mount(const std::string& path, const char* mode);
  static platform::DirEntries& entriesOf(platform::Entity& entity);
  bool tryMount(const std::string& path, const char* mode);
  [[noreturn]] void throwLost() const;

  std::unique_ptr<platform::EntityManager> em_;
  std::map<std::pair<std::string, std::string>, std::unique_ptr<platform::MountGroup>> groups_;
};

}  // namespace ryx::operators
