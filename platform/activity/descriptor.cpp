#include "platform/activity/descriptor.h"

#include "platform/activity/activity.h"
#include "platform/activity/activity_trace.h"

namespace ryx::platform {

Descriptor::Descriptor(int fd, const char* name) : fd_(fd), name_(name) {
  if (fd_ >= 0) activity().descriptors_.add(*this);
}

Descriptor::~Descriptor() {
  if (fd_ < 0) return;
  Activity& loop = activity();
  if (interests_ != 0) {
    interests_ = 0;
    try {
      loop.interestChanged(*loop.descriptors_.find(fd_), false);
    } catch (...) {
      RYX_TRACE(activityTrace(), 0, "The listener failed when fd " << fd_ << " was unwatched");
    }
  }
  loop.descriptors_.remove(*this);
  if (inCallback_) loop.descriptorGone(*this);
}

void Descriptor::interestIs(DescriptorEvent event, bool on) {
  if (interest(event) == on) return;
  interests_ ^= DescriptorTable::bit(event);
  if (fd_ < 0) return;
  Activity& loop = activity();
  loop.interestChanged(*loop.descriptors_.find(fd_), on);
}

void Descriptor::deliver(DescriptorEvent event) {
  ++counts_[index(event)];
  switch (event) {
    case DescriptorEvent::readable:
      return onReadable();
    case DescriptorEvent::writable:
      return onWritable();
    case DescriptorEvent::exception:
      return onException();
  }
}

}  // namespace ryx::platform
