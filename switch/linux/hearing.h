// What a dump of the kernel's tells, beside what the kernel tells meanwhile, which is newer. A dump
// may begin again before it ends.
#pragma once

#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace ryx::kernel {

template <class Place>
class Hearing {
 public:
  bool isOn() const { return heard_.has_value(); }
  void begin() { heard_.emplace(); }
  // Told by a notification.
  void told(const Place& place) {
    if (heard_) heard_->newer.insert(place);
  }
  // Told by the dump. False when it is old.
  bool dumped(const Place& place) {
    if (!heard_ || heard_->newer.count(place)) return false;
    heard_->dumped.insert(place);
    return true;
  }
  // Those of the places, the keys of `known`, that are there no more.
  template <class Known>
  std::vector<Place> end(const Known& known) {
    std::vector<Place> gone;
    if (const std::optional<Heard> heard = std::exchange(heard_, {}))
      for (const auto& [place, value] : known)
        if (!heard->dumped.count(place) && !heard->newer.count(place)) gone.push_back(place);
    return gone;
  }

 private:
  struct Heard {
    std::set<Place> dumped, newer;
  };
  std::optional<Heard> heard_;
};

}  // namespace ryx::kernel
