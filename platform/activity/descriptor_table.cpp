#include "platform/activity/descriptor_table.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "platform/activity/activity.h"
#include "platform/activity/activity_trace.h"
#include "platform/base/check.h"

namespace ryx::platform {

namespace {

constexpr uint64_t kNudge = ~uint64_t{0};

constexpr DescriptorTable::Mask kReadable = DescriptorTable::bit(DescriptorEvent::readable);
constexpr DescriptorTable::Mask kWritable = DescriptorTable::bit(DescriptorEvent::writable);
constexpr DescriptorTable::Mask kException = DescriptorTable::bit(DescriptorEvent::exception);

// The bits of poll() and of epoll are the same.
static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLPRI == POLLPRI &&
              EPOLLERR == POLLERR && EPOLLHUP == POLLHUP);

uint32_t kernelEvents(DescriptorTable::Mask mask) {
  return (mask & kReadable ? uint32_t{EPOLLIN} : 0) | (mask & kWritable ? uint32_t{EPOLLOUT} : 0) |
         (mask & kException ? uint32_t{EPOLLPRI} : 0);
}

DescriptorTable::Mask maskOf(uint32_t events) {
  DescriptorTable::Mask mask = 0;
  if (events & EPOLLIN) mask |= kReadable;
  if (events & EPOLLOUT) mask |= kWritable;
  if (events & EPOLLPRI) mask |= kException;
  if (events & (EPOLLHUP | EPOLLERR)) mask |= DescriptorTable::kTrouble;
  return mask;
}

}  // namespace

DescriptorTable::Walk::Walk(DescriptorTable& table, Entry& entry)
    : table_(table),
      entry_(entry),
      next_(entry.first),
      began_(table.registrations_),
      after_(table.walks_) {
  if (after_) after_->before_ = this;
  table_.walks_ = this;
  ++entry_.walks;
}

DescriptorTable::Walk::~Walk() {
  (before_ ? before_->after_ : table_.walks_) = after_;
  if (after_) after_->before_ = before_;
  --entry_.walks;
  table_.release(entry_);
}

Descriptor* DescriptorTable::Walk::next() {
  Descriptor* descriptor = next_;
  if (!descriptor || descriptor->registered_ > began_) return nullptr;
  next_ = descriptor->after_;
  return descriptor;
}

DescriptorTable::~DescriptorTable() {
  if (set_ >= 0) ::close(set_);
}

DescriptorTable::Entry* DescriptorTable::find(int fd) {
  const auto found = entries_.find(fd);
  return found == entries_.end() ? nullptr : &found->second;
}

DescriptorTable::Mask DescriptorTable::interests(const Entry& entry) {
  Mask mask = 0;
  for (const Descriptor* object = entry.first; object; object = object->after_)
    mask |= object->interests_;
  return mask;
}

std::vector<DescriptorState> DescriptorTable::list() const {
  std::vector<DescriptorState> states;
  states.reserve(entries_.size());
  for (const auto& [fd, entry] : entries_) {
    if (!entry.first) continue;
    const Mask mask = interests(entry);
    DescriptorState state{
        fd, (mask & kReadable) != 0, (mask & kWritable) != 0, (mask & kException) != 0, 0, 0, 0};
    for (const Descriptor* object = entry.first; object; object = object->after_) {
      state.readableCount += object->count(DescriptorEvent::readable);
      state.writableCount += object->count(DescriptorEvent::writable);
      state.exceptionCount += object->count(DescriptorEvent::exception);
    }
    states.push_back(state);
  }
  std::sort(states.begin(), states.end(),
            [](const DescriptorState& a, const DescriptorState& b) { return a.fd < b.fd; });
  return states;
}

DescriptorTable::Entry& DescriptorTable::add(Descriptor& descriptor) {
  Entry& entry = entries_[descriptor.fd_];
  entry.fd = descriptor.fd_;
  descriptor.registered_ = ++registrations_;
  descriptor.before_ = entry.last;
  descriptor.after_ = nullptr;
  (entry.last ? entry.last->after_ : entry.first) = &descriptor;
  entry.last = &descriptor;
  return entry;
}

void DescriptorTable::remove(Descriptor& descriptor) {
  Entry& entry = *find(descriptor.fd_);
  for (Walk* walk = walks_; walk; walk = walk->after_)
    if (walk->next_ == &descriptor) walk->next_ = descriptor.after_;
  (descriptor.before_ ? descriptor.before_->after_ : entry.first) = descriptor.after_;
  (descriptor.after_ ? descriptor.after_->before_ : entry.last) = descriptor.before_;
  release(entry);
}

void DescriptorTable::release(Entry& entry) {
  if (entry.first || entry.walks != 0 || entry.untold) return;
  unwatch(entry);
  entries_.erase(entry.fd);
}

void DescriptorTable::interestChanged(Entry& entry, bool on) {
  if (!on && interests(entry) == 0) return unwatch(entry);
  if (on) entry.closed = entry.refused = false;
  markChanged(entry);
}

void DescriptorTable::markChanged(Entry& entry) {
  if (entry.changed) return;
  entry.changed = true;
  changed_.push_back(entry.fd);
}

bool DescriptorTable::prepare() {
  if (set_ < 0) openSet();
  // What the system refuses now goes back on the list, for the next time.
  std::vector<int> changed;
  changed.swap(changed_);
  for (const int fd : changed) {
    Entry* entry = find(fd);
    if (!entry || !entry->changed) continue;
    entry->changed = false;
    tellKernel(*entry);
  }
  return alwaysReady_.empty();
}

void DescriptorTable::tellKernel(Entry& entry) {
  Mask all = 0;
  Mask free = 0;
  for (const Descriptor* object = entry.first; object; object = object->after_) {
    all |= object->interests_;
    if (!object->inCallback_) free |= object->interests_;
  }
  entry.masked = free != all;
  if (free == 0) return unwatch(entry);
  if (entry.alwaysReady) unwatch(entry);
  if (tryWatch(entry, kernelEvents(free))) return;
  entry.watched = false;
  if (errno == EPERM) {
    entry.alwaysReady = true;
    alwaysReady_.push_back(entry.fd);
  } else if (errno == EBADF) {
    foundClosed(entry);
  } else {
    if (!entry.refused) {
      entry.refused = true;
      ++counters_.refusedDescriptors;
      RYX_TRACE(activityTrace(), 0,
                "Cannot wait for fd " << entry.fd << ": " << std::strerror(errno));
    }
    markChanged(entry);
  }
}

bool DescriptorTable::tryWatch(Entry& entry, uint32_t events) {
  if (!entry.watched) entry.generation = ++generations_;
  epoll_event event{};
  event.events = events;
  event.data.u64 = uint64_t{entry.generation} << 32 | static_cast<uint32_t>(entry.fd);
  int operation = entry.watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (::epoll_ctl(set_, operation, entry.fd, &event) != 0) {
    // The number names another file than it did, or the same one again.
    if (operation == EPOLL_CTL_MOD && errno == ENOENT)
      operation = EPOLL_CTL_ADD;
    else if (operation == EPOLL_CTL_ADD && errno == EEXIST)
      operation = EPOLL_CTL_MOD;
    else
      return false;
    if (::epoll_ctl(set_, operation, entry.fd, &event) != 0) return false;
  }
  entry.watched = true;
  return true;
}

void DescriptorTable::unwatch(Entry& entry) {
  entry.generation = 0;
  if (entry.watched) {
    entry.watched = false;
    // Fails when the file is closed already, which is as good.
    ::epoll_ctl(set_, EPOLL_CTL_DEL, entry.fd, nullptr);
  }
  if (entry.alwaysReady) {
    entry.alwaysReady = false;
    alwaysReady_.erase(std::find(alwaysReady_.begin(), alwaysReady_.end(), entry.fd));
  }
}

void DescriptorTable::foundClosed(Entry& entry) {
  unwatch(entry);
  if (entry.closed) return;
  entry.closed = true;
  ++counters_.closedDescriptors;
  RYX_TRACE(activityTrace(), 0,
            "Fd " << entry.fd << " (" << (entry.first ? entry.first->name() : "")
                  << ") is closed: it is no longer watched");
}

void DescriptorTable::openSet() {
  set_ = ::epoll_create1(EPOLL_CLOEXEC);
  check(set_ >= 0, "epoll_create1");
  watchNudge();
}

void DescriptorTable::watchNudge() {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kNudge;
  check(::epoll_ctl(set_, EPOLL_CTL_ADD, nudge_, &event) == 0, "the nudge descriptor is watched");
}

// A file that was closed under our feet lives on in another descriptor: the kernel goes on telling
// of it, and only a new set ends that. The set keeps its number, for a thread that waits for it.
void DescriptorTable::rebuildSet() {
  ++counters_.pollSetsRebuilt;
  const int fresh = ::epoll_create1(EPOLL_CLOEXEC);
  check(fresh >= 0, "epoll_create1");
  check(::dup3(fresh, set_, O_CLOEXEC) == set_, "dup3");
  ::close(fresh);
  watchNudge();
  for (auto& [fd, entry] : entries_) {
    if (!entry.watched) continue;
    entry.watched = false;
    markChanged(entry);
  }
}

int DescriptorTable::wait(double seconds, epoll_event* events) const {
  if (seconds == 0) return ::epoll_wait(set_, events, kPollEvents, 0);
  // Cut at what the kernel takes; the caller looks again in any case.
  constexpr double kLongest = 1e6;
  seconds = std::min(seconds, kLongest);
  timespec time;
  time.tv_sec = static_cast<time_t>(seconds);
  time.tv_nsec = static_cast<long>((seconds - static_cast<double>(time.tv_sec)) * 1e9);
  const int count = ::epoll_pwait2(set_, events, kPollEvents, &time, nullptr);
  if (count >= 0 || errno != ENOSYS) return count;
  return ::epoll_wait(set_, events, kPollEvents, static_cast<int>(std::ceil(seconds * 1e3)));
}

void DescriptorTable::take(const epoll_event* events, int count) {
  ready_.clear();
  nextReady_ = 0;
  readyIsFresh_ = true;
  bool stale = false;
  for (int i = 0; i < count; ++i) {
    const uint64_t data = events[i].data.u64;
    if (data == kNudge) continue;
    const int fd = static_cast<int>(static_cast<uint32_t>(data));
    const uint32_t generation = static_cast<uint32_t>(data >> 32);
    const Entry* entry = find(fd);
    if (!entry || !entry->watched || entry->generation != generation)
      stale = true;
    else
      ready_.push_back({fd, generation, maskOf(events[i].events)});
  }
  for (const int fd : alwaysReady_) ready_.push_back({fd, 0, 0});
  if (stale) rebuildSet();
}

bool DescriptorTable::nextReady(Ready* ready) {
  while (nextReady_ < ready_.size()) {
    Found found = ready_[nextReady_++];
    Entry* entry = find(found.fd);
    if (!entry) continue;
    const bool always = found.generation == 0;
    if (always ? !entry->alwaysReady : entry->generation != found.generation) continue;
    if (always || !readyIsFresh_) found.events = lookAgain(*entry);
    if (found.events == 0) continue;
    *ready = {found.fd, found.events};
    return true;
  }
  return false;
}

DescriptorTable::Mask DescriptorTable::lookAgain(Entry& entry) {
  pollfd look{entry.fd, static_cast<short>(kernelEvents(interests(entry))), 0};
  if (::poll(&look, 1, 0) < 0) return 0;
  if (look.revents & POLLNVAL) {
    foundClosed(entry);
    return 0;
  }
  // Not the kind of file any more that is always ready.
  if (look.revents == 0 && entry.alwaysReady) markChanged(entry);
  return maskOf(static_cast<uint32_t>(look.revents));
}

}  // namespace ryx::platform
