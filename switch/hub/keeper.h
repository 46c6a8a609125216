// What outlives the server: the file in which it keeps what the model marks persistent, and from
// which it takes that again.
//
// The file holds one line that says what it is, how long and with which checksum, and then the
// state, in the operations of the link (docs/protocol.md): so a server of a newer or older model
// reads what it knows and passes over the rest. It is replaced as a whole, by a new file beside it
// that is on the disk before it takes the name, and only its owner can read it. One that is damaged
// is set aside under another name, and told.
//
// For the loop's thread; the writing to the disk is done by a thread of its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/activity/timer.h"
#include "platform/qel/dir.h"
#include "platform/qel/reactor.h"

namespace ryx::hub {

// What the file of the tree would hold now.
std::string stateBytes(platform::Tree& tree);
// The file around those operations of the link.
std::string stateFile(std::string_view operations);
// Takes what stands in such bytes into the tree. Empty: done; else what is wrong with them, and
// nothing was taken.
[[nodiscard]] std::string takeStateBytes(platform::Tree& tree, std::string_view bytes);

class Keeper final : private platform::JournalReactor, private platform::Timer {
 public:
  // A change is written at once, unless the last writing was less than so many seconds ago.
  static constexpr double kGatherSeconds = 0.2;
  // A failure is told, and the same is tried again in so many.
  static constexpr int kRetrySeconds = 5;

  // Takes what the folder's file holds into the tree, and keeps the file up to date from now on.
  // The folder is made if it is missing, and is this one's alone while it lives. Null, with `error`
  // set, when that cannot be. What the user should know is added to `told`.
  static std::unique_ptr<Keeper> start(platform::Tree& tree, const std::string& folder,
                                       std::string* error, std::vector<std::string>* told);
  // What changed is written before it returns.
  ~Keeper() override;

  // Writes now what changed, without waiting for more. It returns before that is done.
  void saveNow();
  uint64_t writes() const { return writes_; }

 private:
  Keeper(platform::Tree& tree, std::string folder, int lock);
  void onEntity(platform::Entity&, platform::Change) override { changed(); }
  void onTimer() override { saveNow(); }
  void changed();
  void writeThem();

  platform::Tree& tree_;
  const std::string folder_;
  const int lock_;
  std::string last_;   // what was handed over last
  double lastAt_ = 0;  // and when

  // Shared with the writing thread.
  std::mutex mutex_;
  std::condition_variable wake_;
  std::optional<std::string> next_;
  bool ends_ = false;
  std::atomic<uint64_t> writes_{0};
  std::thread writer_;
};

}  // namespace ryx::hub
