// One process holds one copy of the platform: a second one ends it at once.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/base/check.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer has an opinion of its own on two copies of a global variable.
extern "C" const char* __asan_default_options() {
  return "detect_odr_violation=0";
}
#endif

namespace {

fs::path libraryOfThisProcess() {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(&ryx::platform::checkFailed), &info);
  return fs::canonical(info.dli_fname);
}

class OneCopy : public testing::Test {
 protected:
  ryx::test::TempDir directory_;
};
using OneCopyDeathTest = OneCopy;

TEST_F(OneCopyDeathTest, RenamedCopyAborts) {
  const fs::path copy = directory_ / "libother.so.7";
  fs::copy_file(libraryOfThisProcess(), copy);
  // Nothing of the copy is visible to others with RTLD_LOCAL, and still it is found.
  const std::string message =
      "Assertion failed: one process holds one copy of libryx.so, but here are two: "
      ".*libryx\\.so.* and .*libother\\.so\\.7";
  EXPECT_EXIT(dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL), testing::KilledBySignal(SIGABRT),
              message);
  EXPECT_EXIT(dlopen(copy.c_str(), RTLD_LAZY | RTLD_GLOBAL), testing::KilledBySignal(SIGABRT),
              message);
}

TEST_F(OneCopyDeathTest, ObjectsInAModuleAbort) {
  // A module that linked the platform's objects, reduced to the one that matters.
  const std::string module = directory_ / "module.so";
  const std::string command = std::string(RYX_CXX) +
                              " -std=c++20 -shared -fPIC -fvisibility=hidden -I" RYX_SOURCE_DIR
                              " " RYX_SOURCE_DIR "/platform/base/one_copy.cpp -o " +
                              module;
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_EXIT(dlopen(module.c_str(), RTLD_NOW), testing::KilledBySignal(SIGABRT),
              "here are two: .*libryx\\.so.* and .*module\\.so");
}

TEST_F(OneCopy, SameLibraryUnderAnotherNameIsOneCopy) {
  const fs::path link = directory_ / "liblinked.so";
  fs::create_symlink(libraryOfThisProcess(), link);
  void* const handle = dlopen(link.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  dlclose(handle);
}

}  // namespace
