// What the public header mount.h leaves open: the group of mounts that a manager declares into, and
// the connection whose state it then uses.
#pragma once

#include <string_view>

#include "platform/statehub/entity_manager.h"

namespace ryx {

// group.add("daemon/agent/config", "Qel::Dir", "ri");
class mount_group {
 public:
  mount_group(platform::MountGroup& group, platform::EntityManager& em) : group_(group), em_(em) {}

  void add(std::string_view path, std::string_view type, std::string_view mode) {
    group_.add(path, type, mode);
  }
  platform::EntityManager& connection() const { return em_; }

 private:
  platform::MountGroup& group_;
  platform::EntityManager& em_;
};

// em->find<Dir>("daemon/agent/config")
class entity_manager {
 public:
  explicit entity_manager(platform::EntityManager& em) : em_(em) {}

  platform::EntityManager* operator->() const { return &em_; }
  platform::EntityManager& operator*() const { return em_; }

 private:
  platform::EntityManager& em_;
};

}  // namespace ryx
