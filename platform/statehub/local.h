// The Statehub inside the process: the one tree that embedded participants share, with its
// well-known entities, and the feeds that fill it.
//
// STATEHUBLOCAL, when set, selects it. Its value names the feed: "linux", "sim" or "sim:FILE",
// empty or "1" for none. A feed is a module, loaded on demand from the folder ryx/ beside libryx.so
// (or from RYX_FEED_DIR): libryx.so itself knows no kernel and no simulation.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/qel/dir.h"

namespace ryx::platform {

// The tree of this process, made with its well-known entities on first use.
RYX_PRIVATE Tree& localTree();

// Whether STATEHUBLOCAL is set, whatever its value.
RYX_PRIVATE bool localSelected();

// What a feed is: made by its module's `ryxFeedStart`.
class Feed {
 public:
  virtual ~Feed() = default;
  // Does what one line says, where a feed obeys lines. Empty when it is done; else what was wrong
  // and what was expected.
  [[nodiscard]] virtual std::string command(std::string_view) {
    return "this feed takes no commands";
  }
  // It stands in the place of one that is no more: what that one left in the state, and this one
  // does not know, goes.
  virtual void takeOver() {}
  // Calls `then`, once, when all that it knows is in the state and in its tables: at once, or from
  // the loop.
  virtual void whenSettled(std::function<void()> then) { then(); }
};

// A feed's module. It stays loaded.
class RYX_PRIVATE FeedModule {
 public:
  // Empty, or why it cannot be loaded.
  [[nodiscard]] std::string load(const std::string& name);
  // Whether the feed reads or writes what is at that well-known path.
  bool worksOn(std::string_view path) const;
  // Starts one on `tree`, with what stands behind its name and a colon. Null, with `why` set, when
  // it does not start.
  std::unique_ptr<Feed> start(Tree& tree, const std::string& argument, std::string* why) const;

 private:
  std::string what_;  // the feed, for messages
  void* start_ = nullptr;
  const char* const* places_ = nullptr;
};

// Loads a feed's module and starts it.
RYX_PRIVATE std::unique_ptr<Feed> loadFeed(Tree& tree, const std::string& name,
                                           const std::string& argument, std::string* why);

// Starts a feed on the process's tree, as STATEHUBLOCAL names it; a process has one there, as long
// as it lives. What keeps it from starting, or the empty text; the Statehub then stays without one.
[[nodiscard]] RYX_PRIVATE std::string startFeed(const std::string& feed);

// Starts the feed that STATEHUBLOCAL names, once a process. What keeps it from starting is told on
// standard error.
RYX_PRIVATE void startLocalFeed();

// The module's entry. Null, with `error` set, when it cannot start.
using FeedStart = Feed* (*)(Tree& tree, const std::string& argument, std::string* error);
inline constexpr const char* kFeedStartSymbol = "ryxFeedStart";
// What the well-known paths that it works on begin with; a null pointer ends them.
inline constexpr const char* kFeedPlacesSymbol = "ryxFeedPlaces";
// Says that module and library are of one build.
inline constexpr const char* kFeedAbiSymbol = "ryxFeedAbi";
RYX_PRIVATE extern const char kPlatformAbi[];

}  // namespace ryx::platform
