// What is configured and shall be in the kernel, an entry a key: it is put there when its device is
// there, put back when somebody takes it away or changes it, and taken away when it is configured
// no more. What the kernel refuses is told, and tried again when tryAgain() says that something
// changed by which it may pass; what fails for a passing reason is tried kMaxAttempts times.
//
// One request a key is on its way at a time; what changes meanwhile is seen when it is answered.
// The owner derives from it, tells what happens to a key by kernelHas(), reconcile() and
// tryAgain(), and answers its questions.
//
// Called under the activity lock. Whoever writes for it does not answer when it is gone.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
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
  virtual void remove(const Key& key, const Value& value, Answer done) = 0;
  // Whether it says by that error that there is nothing to remove.
  virtual bool isNotThere(int error) const = 0;
  // "the neighbour 10.0.0.1 at Ethernet1 ", and what happened to it.
  virtual void tell(const Key& key, const std::string& what) const = 0;

  // The kernel has that there now, or nothing that counts (null).
  void kernelHas(const Key& key, const Value* now);
  // The configuration has something else there, or the device came or went.
  void reconcile(const Key& key) { reconcile(key, own_.find(key)); }
  // The same, and what the kernel refused may pass now.
  void tryAgain(const Key& key) {
    const auto own = own_.find(key);
    if (own != own_.end()) {
      own->second.isRefused = false;
      own->second.attempts = 0;
    }
    reconcile(key, own);
  }
  // Of all that the kernel refused.
  template <class Which>
  void tryRefusedAgain(Which&& which) {
    std::vector<Key> keys;
    std::erase_if(refused_, [&](const Key& key) {
      const auto own = own_.find(key);
      const bool isRefused = own != own_.end() && own->second.isRefused;
      if (isRefused && which(key)) keys.push_back(key);
      return !isRefused;
    });
    for (const Key& key : keys) tryAgain(key);
  }

 private:
  struct Own {
    Value written;
    bool isWritten = false;  // the kernel had it
    bool isTaken = false;    // the kernel said that it takes it
    bool isRefused = false;
    // While a request is on its way: that the kernel was heard to do it, and that something else
    // happened.
    bool isBusy = false;
    bool isRemoval = false;
    bool isHeard = false;
    bool isStale = false;
    int attempts = 0;
  };
  using Owns = std::unordered_map<Key, Own, Hash>;
  using Entry = typename Owns::value_type;

  void reconcile(const Key& key, typename Owns::iterator at);
  void write(Entry& entry, const Value& value);
  void takeAway(Entry& entry);
  // A key stays while a request of its is on its way. What is captured fits an Answer itself.
  Answer answerFor(Entry& entry) {
    return [this, &entry](int error, std::string_view words) { answered(entry, error, words); };
  }
  void answered(Entry& entry, int error, std::string_view words);
  void isRefused(Entry& entry, const std::string& what);

  KeptCounters counters_;
  Owns own_;
  std::unordered_set<Key, Hash> refused_;  // at least those that are
};

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::kernelHas(const Key& key, const Value* now) {
  const auto at = own_.find(key);
  if (at == own_.end() || !at->second.isBusy) return reconcile(key, at);
  Own& own = at->second;
  const bool isEcho = own.isRemoval ? now == nullptr : now != nullptr && *now == own.written;
  (isEcho ? own.isHeard : own.isStale) = true;
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::reconcile(const Key& key, typename Owns::iterator at) {
  if (at != own_.end() && at->second.isBusy) {
    at->second.isStale = true;
    return;
  }
  const std::optional<Value> value = wanted(key);
  if (at == own_.end()) {
    const std::optional<Value> left = value ? std::nullopt : leftover(key);
    if ((!value && !left) || !deviceIsThere(key)) return;
    at = own_.try_emplace(key).first;
    if (left) {
      at->second.written = *left;
      return takeAway(*at);
    }
  }
  Own& own = at->second;
  if (!deviceIsThere(key))
    own_.erase(at);
  else if (value && has(key, *value))
    own = {.written = *value, .isWritten = true};
  else if (value)
    write(*at, *value);
  else if ((own.isWritten || own.isTaken) && has(key, own.written))
    takeAway(*at);
  else
    own_.erase(at);
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::write(Entry& entry, const Value& value) {
  auto& [key, own] = entry;
  if (own.written != value) own = {.written = value};
  if (own.isRefused) return;
  if (own.attempts++ == kMaxAttempts) {
    return isRefused(entry, "is taken by the kernel, which then has it not");
  }
  if (std::exchange(own.isWritten, false)) ++counters_.putBack;
  own.isBusy = true;
  own.isRemoval = own.isHeard = own.isStale = false;
  own.isTaken = true;  // unless it is refused
  ++counters_.writes;
  set(key, value, answerFor(entry));
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::isRefused(Entry& entry, const std::string& what) {
  entry.second.isRefused = true;
  refused_.insert(entry.first);
  ++counters_.refused;
  tell(entry.first, what);
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::takeAway(Entry& entry) {
  auto& [key, own] = entry;
  own.isBusy = own.isRemoval = true;
  own.isHeard = own.isStale = false;
  own.isWritten = own.isTaken = false;
  ++counters_.writes;
  remove(key, own.written, answerFor(entry));
}

template <class Key, class Value, class Hash>
void Kept<Key, Value, Hash>::answered(Entry& entry, int error, std::string_view words) {
  auto& [key, own] = entry;
  own.isBusy = false;
  if (own.isRemoval && isNotThere(error)) error = 0;
  if (error == 0 && own.isHeard && !own.isStale) {
    if (own.isRemoval)
      own_.erase(own_.find(key));
    else
      own = {.written = own.written, .isWritten = true};
    return;
  }
  if (isPassing(error)) {
    own.isTaken = false;  // as far as is known
  } else if (error != 0) {
    own.isTaken = false;
    std::string why = std::strerror(error);
    if (!words.empty()) why += ": " + std::string(words);
    isRefused(entry, "is refused by the kernel: " + why);
  }
  reconcile(key);
}

}  // namespace ryx::kernel
