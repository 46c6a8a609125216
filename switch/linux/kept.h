// What is configured and shall be in the kernel, an entry a key: it is put there when its device is
// there, put back when somebody takes it away or changes it, and taken away when it is configured
// no more. What the kernel refuses is told, and tried again when tryAgain() says that something
// changed by which it may pass; what fails for a passing reason is tried kMaxAttempts times.
//
// One request a key is on its way at a time; what changes meanwhile is seen when it is answered.
// The owner derives from it, tells what happens to a key by reconcile() and tryAgain(), and answers
// its questions.
//
// Called under the activity lock.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "switch/linux/answer.h"

namespace ryx::kernel {

struct KeptCounters {
  uint64_t writes = 0;   // to the kernel
  uint64_t refused = 0;  // that it refused, or took and has not
  uint64_t putBack = 0;  // of them, of what the kernel had before and somebody changed
};

template <class Key, class Value, class Hash>
class Kept {
 public:
  // Named bound: how often in a row the kernel is told what it then does not have.
  static constexpr int kMaxAttempts = 4;

  Kept(const Kept&) = delete;
  Kept& operator=(const Kept&) = delete;

  const KeptCounters& counters() const { return counters_; }

 protected:
  Kept() = default;
  ~Kept() = default;

  // What is configured.
  virtual std::optional<Value> wanted(const Key& key) const = 0;
  virtual bool deviceIsThere(const Key& key) const = 0;
  // The kernel has it so.
  virtual bool has(const Key& key, const Value& value) const = 0;
  // What the kernel has there that nobody but this switch can have put there, in an earlier life.
  virtual std::optional<Value> leftover(const Key&) const { return {}; }
  virtual void set(const Key& key, const Value& value, Answer done) = 0;
  // Done is also what was not there.
  virtual void remove(const Key& key, const Value& value, Answer done) = 0;
  // "the neighbour 10.0.0.1 at Ethernet1 ", and what happened to it.
  virtual void tell(const Key& key, const std::string& what) const = 0;

  // The kernel has something else there, or the configuration does.
  void reconcile(const Key& key);
  // The same, and what the kernel refused may pass now.
  void tryAgain(const Key& key) {
    if (const auto own = own_.find(key); own != own_.end()) {
      own->second.isRefused = false;
      own->second.attempts = 0;
    }
    reconcile(key);
  }
  // Of all that the kernel refused.
  template <class Which>
  void tryRefusedAgain(Which&& which) {
    std::vector<Key> keys;
    for (const auto& [key, own] : own_)
      if (own.isRefused && which(key)) keys.push_back(key);
    for (const Key& key : keys) tryAgain(key);
  }

 private:
  struct Own {
    Value written;
    bool isWritten = false;  // the kernel had it
    bool isTaken = false;    // the kernel said that it takes it
    bool isBusy = false;     // it has not answered yet
    bool isRefused = false;
    int attempts = 0;
  };

  void write(const Key& key, Own& own, const Value& value);
  void takeAway(const Key& key, Own& own);
  Answer answerFor(const Key& key) {
    return [this, key, self = std::weak_ptr(self_)](int error, std::string_view words) {
      if (self.lock()) answered(key, error, words);
    };
  }
  void answered(const Key& key, int error, std::string_view words);

  KeptCounters counters_;
  std::unordered_map<Key, Own, Hash> own_;
  const std::shared_ptr<Kept*> self_ = std::make_shared<Kept*>(this);  // for answers
};

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::reconcile(const Key& key) {
  const std::optional<Value> value = wanted(key);
  auto at = own_.find(key);
  if (!value && at == own_.end()) {
    const std::optional<Value> left = leftover(key);
    if (left && deviceIsThere(key)) takeAway(key, own_[key] = {.written = *left});
    return;
  }
  if (at != own_.end() && at->second.isBusy) return;
  if (!deviceIsThere(key)) {
    if (at != own_.end()) own_.erase(at);
  } else if (value) {
    Own& own = own_[key];
    if (has(key, *value))
      own = {.written = *value, .isWritten = true};
    else
      write(key, own, *value);
  } else if ((at->second.isWritten || at->second.isTaken) && has(key, at->second.written)) {
    takeAway(key, at->second);
  } else {
    own_.erase(at);
  }
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::write(const Key& key, Own& own, const Value& value) {
  if (own.written != value) own = {.written = value};
  if (own.isRefused) return;
  if (own.attempts++ == kMaxAttempts) {
    own.isRefused = true;
    ++counters_.refused;
    return tell(key, "is taken by the kernel, which then has it not");
  }
  if (std::exchange(own.isWritten, false)) ++counters_.putBack;
  own.isBusy = true;
  own.isTaken = true;  // unless it is refused
  ++counters_.writes;
  set(key, value, answerFor(key));
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::takeAway(const Key& key, Own& own) {
  own.isBusy = true;
  own.isWritten = own.isTaken = false;
  ++counters_.writes;
  remove(key, own.written, answerFor(key));
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::answered(const Key& key, int error, std::string_view words) {
  const auto at = own_.find(key);
  if (at == own_.end()) return;
  Own& own = at->second;
  own.isBusy = false;
  if (isPassing(error)) {
    own.isTaken = false;  // as far as is known
  } else if (error != 0) {
    ++counters_.refused;
    own.isRefused = true;
    own.isTaken = false;
    std::string why = std::strerror(error);
    if (!words.empty()) why += ": " + std::string(words);
    tell(key, "is refused by the kernel: " + why);
  }
  reconcile(key);
}

}  // namespace ryx::kernel
