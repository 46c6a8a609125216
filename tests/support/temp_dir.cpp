#include "tests/support/temp_dir.h"

#include <unistd.h>

#include <cstdlib>
#include <set>
#include <stdexcept>

namespace ryx::test {
namespace {

struct Left {
  std::set<std::pair<pid_t, std::filesystem::path>> all;
  ~Left() {
    for (const auto& [maker, path] : all)
      if (maker == ::getpid()) std::filesystem::remove_all(path);
  }
};
Left& left() {
  static Left left;
  return left;
}

}  // namespace

TempDir::TempDir() : maker_(::getpid()) {
  std::string pattern = std::filesystem::temp_directory_path() / "ryx-test-XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp " + pattern);
  path_ = pattern;
  left().all.emplace(maker_, path_);
}

TempDir::~TempDir() {
  left().all.erase({maker_, path_});
  if (maker_ == ::getpid()) std::filesystem::remove_all(path_);
}

}  // namespace ryx::test
