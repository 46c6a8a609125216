// A directory for one test. It goes when its object does, and at the latest when the process that
// made it exits, which is how the statement of a death test ends.
#pragma once

#include <sys/types.h>

#include <filesystem>

namespace ryx::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const char* name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
  pid_t maker_;
};

}  // namespace ryx::test
