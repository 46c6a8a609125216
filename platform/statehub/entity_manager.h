// The door to Statehub for one participant (an agent, a service): what it has mounted, looked up by
// path, and what it writes, judged by who it is.
//
// A participant works on a tree of memory: on the one tree of the process (embedded: no second
// copy, no socket), or on a replica of what it mounted, kept by a link to a hub. Which of the two,
// nothing above this interface can tell.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/qel/dir.h"
#include "platform/statehub/participant.h"

namespace ryx::platform {

// How a mount ended.
enum class MountStatus : int {
  pending = 0,
  noSuchPath = 1,  // nothing stands there, and nothing may
  wrongType = 2,   // what stands there is of another type, or the type is unknown
  refused = 3,     // this participant may not have it in that mode
  success = 4,
  badMode = 5,  // a mode letter that does not exist
  linkLost = 6,
};

// One declared mount. `mode` is a set of letters: r (read), w (read and write), c (create it if it
// is missing), i (immediate: served before mounts without it), S (the directory level and the
// participant's own entity alone), all in any order.
struct MountRequest {
  std::string path;
  std::string typeName;
  std::string mode;
};

class RYX_PRIVATE MountGroup {
 public:
  virtual ~MountGroup() = default;
  void add(std::string_view path, std::string_view typeName, std::string_view mode) {
    requests_.push_back({std::string(path), std::string(typeName), std::string(mode)});
  }
  const std::vector<MountRequest>& requests() const { return requests_; }
  // Starts the mounts. `done` is called once from the loop, never from within: with success when
  // all of them are there in full, else with the first failure, told by a trace with its path.
  virtual void close(std::function<void(MountStatus)> done) = 0;

 private:
  std::vector<MountRequest> requests_;
};

class RYX_PRIVATE EntityManager : public Writer {
 public:
  // On the tree of this process. `agentName`: who it is; empty: a service.
  static std::unique_ptr<EntityManager> embedded(std::string_view agentName);
  // On another tree of this process, which outlives it.
  static std::unique_ptr<EntityManager> embedded(std::string_view agentName, Tree& tree);
  // On a replica, over a connected stream socket, whose descriptor it owns from now on; -1: there
  // is none yet, reconnected() brings it. `heartbeat`: the seconds between two signs of life to the
  // hub, 0 for none.
  static std::unique_ptr<EntityManager> overSocket(int fd, const Participant& who,
                                                   double heartbeat = 0);

  ~EntityManager() override = default;

  Participant who() const { return {role_, name_}; }
  // Empty of a service and of an operator.
  const std::string& agentName() const { return role_ == Role::agent ? name_ : kNone; }
  // "RyxSdk-" and the agent's name: the name of its own entities.
  std::string ownName() const { return "RyxSdk-" + agentName(); }

  virtual std::unique_ptr<MountGroup> mountGroup() = 0;

  virtual Tree& tree() = 0;
  Entity* find(std::string_view path) { return tree().find(path); }
  template <class T>
  T* find(std::string_view path) {
    return tree().find<T>(path);
  }

  // The agent's own root, "localAgentPlugin": of this participant alone, never sent.
  Dir& localRoot() { return local_.root(); }

  // --- output ---
  // Bytes that are written but not taken by the connection yet. Embedded: none, ever.
  virtual size_t unsentBytes() const = 0;
  // More than that many are unsent: a writer of much should wait.
  static constexpr size_t kCloggedBytes = 256 * 1024;
  bool clogged() { return tree().isClogged() || unsentBytes() > kCloggedBytes; }
  // Nothing that was written here is unsent: neither bytes nor changes that wait to be encoded.
  virtual bool drained() const = 0;
  // --- the connection; embedded there is none, and it is always there ---
  virtual bool connected() const { return true; }
  // A connected stream socket takes the place of one that died.
  virtual void reconnected(int /*fd*/) {}
  // Called once each time the connection dies, from the loop.
  virtual void onLostIs(std::function<void()>) {}
  // Whether a hub has let it in, ever; and what the hub said last before it ended the connection.
  virtual bool welcomed() const { return true; }
  virtual std::string farewell() const { return {}; }
  // Batches of writes sent, and the last one of which the hub has told that it and all that it
  // implied is done.
  virtual uint64_t batches() const { return 0; }
  virtual uint64_t acknowledged() const { return 0; }
  // Bytes that the present connection took.
  virtual uint64_t bytesSent() const { return 0; }
  // The sockets to Statehub, for their buffer sizes. None embedded.
  virtual std::vector<int> connections() const = 0;

  // From Writer: the rules of platform/statehub/authority.h.
  Admission admits(const Journal& journal, const Entity& entity, const Entity* parent) override;
  uint64_t refusals() const { return refusals_; }

 protected:
  explicit EntityManager(const Participant& who) : role_(who.role), name_(who.name) {}

 private:
  RYX_PRIVATE static const std::string kNone;
  const Role role_;
  const std::string name_;
  Tree local_;
  uint64_t refusals_ = 0;
};

// Writes in this scope are the participant's, and judged so.
class WriterScope {
 public:
  explicit WriterScope(EntityManager& em) : clock_(em.tree().clock()), outer_(clock_.writer) {
    clock_.writer = &em;
  }
  ~WriterScope() { clock_.writer = outer_; }
  WriterScope(const WriterScope&) = delete;

 private:
  StoreClock& clock_;
  Writer* outer_;
};

}  // namespace ryx::platform
