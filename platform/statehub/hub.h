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
#include <memory>
#include <string>
#include <vector>

#include "platform/activity/timer.h"
#include "platform/qel/dir.h"
#include "platform/statehub/wire.h"

namespace ryx::platform {

struct HubCounters {
  uint64_t accepted = 0;      // connections that said hello
  uint64_t refusedNames = 0;  // hellos under a name that is connected, or is no name
  uint64_t broken = 0;        // connections ended because they broke the protocol
  uint64_t refusedWrites = 0;
  uint64_t forcedCuts = 0;
  uint64_t tooMany = 0;  // creations refused because a participant has too many entities
};

class RYX_PRIVATE Hub : public Origins, private Timer {
 public:
  // Entities that one participant may have created in one connection.
  static constexpr uint64_t kMaxEntities = 16'000'000;

  // Serves `tree`, which outlives it and has its well-known entities.
  explicit Hub(Tree& tree);
  ~Hub() override;

  // Takes over a connected stream socket.
  void accept(int fd);
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

  Tree& tree_;
  uint64_t incarnation_;
  int openBatches_ = 0;
  bool forced_ = false;
  Session* applying_ = nullptr;
  std::vector<std::unique_ptr<Session>> sessions_;
  HubCounters counters_;
};

}  // namespace ryx::platform
