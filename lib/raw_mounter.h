// Has the mounts of one context done, group after group, until every manager has its own, and tells
// the mount manager. For the loop's thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/statehub/entity_manager.h"

namespace ryx {

class mount_mgr;

class RawMounter {
 public:
  explicit RawMounter(std::string name) : name_(std::move(name)) {}
  RawMounter(const RawMounter&) = delete;
  RawMounter& operator=(const RawMounter&) = delete;

  const std::string& name() const { return name_; }
  mount_mgr* mountMgr() const { return mount_mgr_; }
  void mountMgrIs(mount_mgr* mgr) { mount_mgr_ = mgr; }

  // Declares the mounts and starts them. Only the first call does anything.
  void mount(platform::EntityManager& em);
  bool started() const { return em_ != nullptr; }

  // Gives up what is pending.
  void stop();

 private:
  void mountMore();
  void onMountDone(platform::MountStatus status);

  const std::string name_;
  mount_mgr* mount_mgr_ = nullptr;
  platform::EntityManager* em_ = nullptr;
  std::vector<std::unique_ptr<platform::MountGroup>> groups_;
};

}  // namespace ryx
