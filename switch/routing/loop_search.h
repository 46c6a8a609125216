// Finds the next hops that would be resolved by way of themselves.
#pragma once

#include <algorithm>
#include <functional>
#include <unordered_map>
#include <vector>

#include "switch/routing/parts.h"

namespace ryx::routing {

// Which hops lead to themselves: Tarjan's search for the strongly connected components of what can
// be reached. A hop leads to those of all routes of the entry that covers it, used or not.
class LoopSearch {
 public:
  using Found = std::function<void(const std::vector<Hop*>& hops, bool isLoop)>;

  // `found` is called for each component, one hop or more, that is reached.
  explicit LoopSearch(Found found) : found_(std::move(found)) {}

  void from(Hop& start) {
    if (nodes_.count(&start)) return;
    enter(start);
    while (!path_.empty()) {
      Step& top = path_.back();
      if (top.at == top.next.size()) {
        leave();
        continue;
      }
      Hop* next = top.next[top.at++];
      const auto there = nodes_.find(next);
      if (next == top.hop) nodes_[top.hop].leadsToItself = true;
      if (there == nodes_.end())
        enter(*next);
      else if (there->second.isOpen)
        low(top.hop, there->second.number);
    }
  }

 private:
  struct Node {
    size_t number = 0, low = 0;
    bool isOpen = true;
    bool leadsToItself = false;
  };
  struct Step {
    Hop* hop;
    std::vector<Hop*> next;
    size_t at = 0;
  };

  void low(Hop* hop, size_t number) {
    Node& node = nodes_[hop];
    node.low = std::min(node.low, number);
  }
  void enter(Hop& hop) {
    const size_t number = nodes_.size() + 1;
    nodes_[&hop] = {number, number};
    open_.push_back(&hop);
    Step step{&hop, {}};
    const auto leadsBy = [&](const Fec& fec) {
      for (const auto& member : fec.members)
        if (member.source->kind == Source::Kind::hop)
          step.next.push_back(static_cast<Hop*>(member.source));
    };
    if (hop.by)
      for (const Candidate* c = hop.by->candidates; c; c = c->next) leadsBy(*c->fec);
    if (hop.by && hop.by->isWaiting()) leadsBy(*hop.by->chosen);
    path_.push_back(std::move(step));
  }
  void leave() {
    Hop* hop = path_.back().hop;
    path_.pop_back();
    const Node node = nodes_[hop];
    if (!path_.empty()) low(path_.back().hop, node.low);
    if (node.low != node.number) return;
    const auto first = std::find(open_.rbegin(), open_.rend(), hop).base() - 1;
    const std::vector<Hop*> together(first, open_.end());
    open_.erase(first, open_.end());
    for (Hop* each : together) nodes_[each].isOpen = false;
    found_(together, together.size() > 1 || node.leadsToItself);
  }

  const Found found_;
  std::unordered_map<Hop*, Node> nodes_;
  std::vector<Hop*> open_;
  std::vector<Step> path_;
};

}  // namespace ryx::routing
