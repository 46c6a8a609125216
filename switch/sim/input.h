// Where the simulated switch's commands come from: a scenario file, read whole, and a FIFO or
// growing file, read as it comes. A line that cannot be done is told on standard error, as
// FILE:LINE and what was expected, and the rest goes on.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "switch/sim/sim.h"

namespace ryx::sim {

// Cuts what comes into lines and has them done.
class LineReader {
 public:
  // Named bound: the longest line, in bytes. A longer one is told and passed over.
  static constexpr size_t kMaxLine = 4096;

  // `name` is what messages call the source.
  LineReader(Sim& sim, std::string name) : sim_(sim), name_(std::move(name)) {}

  void take(std::string_view bytes);
  // The source has ended: what stands there is a line.
  void finish();
  // The source begins anew.
  void restart();

  uint64_t refusedLines() const { return refused_; }

 private:
  void endLine();
  void tell(const std::string& what);

  Sim& sim_;
  std::string name_;
  std::string line_;
  uint64_t number_ = 1;
  uint64_t refused_ = 0;
  bool tooLong_ = false;
};

// Has all of the file's lines done before it returns. Returns an empty text, or why it could not be
// read.
[[nodiscard]] std::string runScenario(Sim& sim, const std::string& path);

// Follows a FIFO (writers come and go) or a regular file: what it holds, then what is appended. A
// regular file that became shorter is read from its start again; one that was replaced by another
// of its name is not followed.
class Input {
 public:
  virtual ~Input() = default;
  virtual uint64_t refusedLines() const = 0;

  // Null, with `error` set, when the path cannot be followed.
  static std::unique_ptr<Input> follow(Sim& sim, const std::string& path, std::string* error);
};

}  // namespace ryx::sim
