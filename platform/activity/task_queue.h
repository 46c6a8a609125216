// The queue of tasks: one intrusive list for each order. Inside platform/activity/ only.
#pragma once

#include <cstddef>

#include "platform/activity/task.h"

namespace ryx::platform {

class TaskQueue {
 public:
  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }

  void push(Task& task) {
    List& list = lists_[order(task)];
    task.queued_ = true;
    task.before_ = list.last;
    task.after_ = nullptr;
    (list.last ? list.last->after_ : list.first) = &task;
    list.last = &task;
    ++size_;
  }

  void remove(Task& task) {
    List& list = lists_[order(task)];
    (task.before_ ? task.before_->after_ : list.first) = task.after_;
    (task.after_ ? task.after_->before_ : list.last) = task.before_;
    task.queued_ = false;
    --size_;
  }

  // The next to run. The queue is not empty.
  Task& pop() {
    List* list = lists_;
    while (!list->first) ++list;
    Task& task = *list->first;
    remove(task);
    return task;
  }

 private:
  struct List {
    Task* first = nullptr;
    Task* last = nullptr;
  };

  static int order(const Task& task) { return static_cast<int>(task.order_); }

  List lists_[Task::kOrders];
  size_t size_ = 0;
};

}  // namespace ryx::platform
