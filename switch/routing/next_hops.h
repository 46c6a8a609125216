// The next hops that groups have, each once, counted, with the number that the programmer knows it
// by. Under the activity lock.
#pragma once

#include <unordered_map>
#include <vector>

#include "switch/routing/programmer.h"

namespace ryx::routing {

class NextHops {
 public:
  struct Record {
    NextHopId id = 0;
    uint32_t users = 0;
    bool isProgrammed = false;
  };

  // One more user of it, or one less.
  GroupMember take(const NextHop& nextHop, uint32_t weight);
  void keep(const GroupMember& member) { ++record(member).users; }
  void release(const GroupMember& member, Programmer& programmer);
  // Tells the programmer of it, if it does not know.
  void program(const GroupMember& member, Programmer& programmer);

  size_t size() const { return all_.size(); }

 private:
  struct Hash {
    size_t operator()(const NextHop& n) const;
  };
  using All = std::unordered_map<NextHop, Record, Hash>;
  // A member points to the key of its record.
  Record& record(const GroupMember& member) { return byId_[member.id]->second; }

  All all_;
  std::vector<All::value_type*> byId_ = {nullptr};
  std::vector<NextHopId> free_;
};

}  // namespace ryx::routing
