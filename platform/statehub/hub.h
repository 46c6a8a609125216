// The hub's engine: one tree, and a session for every connected participant. It holds the
// authority: who may write what is judged here, by the name under which a participant came. ryxd
// runs one over its listening sockets; tests run one over a socketpair. All under the activity
// lock.
//
// Order. A participant's frames apply as they come; reactors on the tree (services in this process)
// and the other participants' reactors see only cuts: moments at which everything up to some
// version was sent and nothing newer is missing, and at which no participant is in the middle of
// what it is sending. When none comes for kForcedCutSeconds one is forced, and counted.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/activity/timer.h"
#include "platform/qel/dir.h"
#include "platform/statehub/participant.h"
#include "platform/statehub/wire.h"

namespace ryx::platform {

struct HubCounters {
  uint64_t accepted = 0;      // connections that said hello
  uint64_t refusedNames = 0;  // hellos that were turned away
  uint64_t broken = 0;        // connections ended because they broke the protocol
  uint64_t mute = 0;          // connections ended because they never said hello, and others came
  uint64_t refusedWrites = 0;
  uint64_t forcedCuts = 0;
  uint64_t pastLimits = 0;  // writes and mounts refused because of HubLimits
};

// What one participant may have at the hub. A write or mount past a limit is refused.
struct HubLimits {
  uint64_t entities = 16'000'000;
  uint64_t bytes = uint64_t{4} << 30;  // of entities and their values
  uint32_t mounts = 4096;
};

// Who is at the other end of a connection, as far as the system knows.
struct HubPeer {
  static constexpr int64_t kUnknown = -1;
  int64_t pid = kUnknown;
  int64_t uid = kUnknown;
  // The host of this hub started it, as that participant and nobody else.
  bool isStarted = false;
  Role role = Role::agent;
  std::string name;
};

// Decides who comes in.
class Doorkeeper {
 public:
  virtual ~Doorkeeper() = default;
  // Empty: it may; else why not, for it to read.
  virtual std::string turnsAway(const Participant& who, const HubPeer& peer) = 0;
};

// One connection, for an operator to see.
struct HubParticipant {
  uint64_t number;  // in the order of coming
  HubPeer peer;
  Role role;
  std::string name;
  std::vector<std::string> mounts;
  uint64_t bytesSent;  // to it
  uint64_t bytesReceived;
  uint64_t unsent;
  uint64_t refusals;
  uint64_t pastLimits;
  double since;      // clock().now() when it came
  double clogged;    // seconds in all that more was unsent than a sender sends ahead
  double heard;      // clock().now() when something came from it
  double heartbeat;  // the period that it promised, in seconds; 0: none
};

class RYX_PRIVATE Hub : public Origins, private Timer {
 public:
  // Connections that have not said hello: with one more, the oldest of them goes.
  static constexpr size_t kMaxMute = 256;

  // Serves `tree`, which outlives it and has its well-known entities.
  explicit Hub(Tree& tree);
  ~Hub() override;

  // Takes over a connected stream socket. Who is there is asked of the socket, or told.
  void accept(int fd);
  void accept(int fd, const HubPeer& peer);
  // Without one (null) everybody may come, by whatever name. It outlives the hub.
  void doorkeeperIs(Doorkeeper* keeper) { doorkeeper_ = keeper; }
  void limitsAre(const HubLimits& limits) { limits_ = limits; }
  // How long an answer to a write waits for something to travel with, in seconds: whoever wrote is
  // not woken for it alone. 0: not at all.
  void lingerIs(double seconds) { linger_ = seconds; }
  // Those that said who they are; and who is told when one comes or has gone.
  std::vector<HubParticipant> participants() const;
  void onParticipantsIs(std::function<void()> changed) {
    participantsChanged_ = std::move(changed);
  }
  // Ends the connection of that number.
  void drop(uint64_t number);
  size_t sessions() const { return sessions_.size(); }
  const HubCounters& counters() const { return counters_; }
  Tree& tree() { return tree_; }
  // Which life of the hub this is: generations of different lives mean nothing to each other.
  uint64_t incarnation() const { return incarnation_; }
  // Ends every connection, as a crash would.
  void dropAll();

 private:
  class Session;
  friend class Session;

  bool caughtUp(const Journal& journal, uint64_t version) override;
  void onTimer() override;
  void batchOpened();
  void batchClosed();
  bool inBatch(uint32_t origin) const;
  bool mayCut() const { return openBatches_ == 0 || forced_; }
  void gone(Session& session);
  void boundMute();
  Session* agentNamed(std::string_view name) const;

  Tree& tree_;
  uint64_t incarnation_;
  int openBatches_ = 0;
  bool forced_ = false;
  Session* applying_ = nullptr;
  std::vector<std::unique_ptr<Session>> sessions_;
  HubCounters counters_;
  HubLimits limits_;
  double linger_ = 0;
  Doorkeeper* doorkeeper_ = nullptr;
  std::function<void()> participantsChanged_;
};

}  // namespace ryx::platform
