#include "platform/activity/task.h"

#include <algorithm>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"

namespace ryx::platform {

Slice::Slice() : began_(clock().coarseNow()) {}

bool Slice::look() {
  constexpr uint32_t kStride = 64;
  bool spent = items_ >= kItems;
  if (items_ == 1) {
    spent = clock().coarseNow() - began_ >= kSeconds;
    nextLook_ = 2;
  } else if (items_ == 2) {
    end_ = clock().now() + kSeconds;
    nextLook_ = 3;
  } else if (!spent) {
    spent = clock().now() >= end_;
    nextLook_ = std::min(items_ + std::min(items_ / 2, kStride), kItems);
  }
  if (!spent) return false;
  items_ = kItems;  // spent it stays
  nextLook_ = 0;
  return true;
}

Task::~Task() {
  if (!queued_ && running_ == 0) return;
  Activity& loop = activity();
  if (queued_) loop.tasks_.remove(*this);
  if (running_ != 0) loop.taskGone(*this);
}

void Task::enqueue() {
  Activity& loop = activity();
  loop.tasks_.push(*this);
  loop.taskQueued();
}

}  // namespace ryx::platform
