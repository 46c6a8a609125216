// One process that the server runs: started, watched until it ends, stopped with patience. It may
// also be one that an earlier server started.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/activity/descriptor.h"

namespace ryx::hub {

// What is to be run, and how.
struct Program {
  std::string path;                    // absolute, or to be found by PATH
  std::vector<std::string> arguments;  // the first one is what it is called
  std::vector<std::pair<std::string, std::string>> environment;  // besides the server's own
  std::string user;                                              // empty: the server's own
  int descriptor = -1;  // that it inherits, by the same number
};

// Which process a number means: numbers are used again.
struct ProcessId {
  pid_t pid = 0;
  uint64_t started = 0;  // in the kernel's ticks since the machine started
  std::string boot;      // which start of the machine that was

  static ProcessId of(pid_t pid);
  bool isAlive() const;
};

class Process final : private platform::Descriptor {
 public:
  // `status` as waitpid(2) has it, -1: unknown.
  using Ended = std::function<void(int status)>;

  // Null, with `error` set, when it cannot be started. Input is /dev/null, output the server's.
  // `ended` is called once, from the loop; it may destroy this object.
  static std::unique_ptr<Process> start(const Program& program, Ended ended, std::string* error);
  // One that runs already; null when it does not.
  static std::unique_ptr<Process> adopt(const ProcessId& id, Ended ended);
  // It runs on, by itself.
  ~Process() override;

  const ProcessId& id() const { return id_; }
  // To it, and to what it started in its process group.
  void signal(int number);

 private:
  Process(int pidfd, ProcessId id, Ended ended);
  void onReadable() override;

  const ProcessId id_;
  Ended ended_;
};

// "exited with status 3", "was killed by signal 11 (Segmentation fault)".
std::string endText(int status);

}  // namespace ryx::hub
