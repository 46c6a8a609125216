// Which callbacks a handler overrides is read from virtual tables, so it depends on how an agent is
// compiled and linked. The same agent, with handlers of every shape and with a plug-in, is built
// here with each compiler in each manner, and run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <ostream>
#include <string>

#include "tests/support/temp_dir.h"

namespace {

using std::string;

#if defined(__SANITIZE_ADDRESS__)
constexpr const char* kSanitizer = " -fsanitize=address,undefined -fno-sanitize-recover=all";
#elif defined(__SANITIZE_THREAD__)
constexpr const char* kSanitizer = " -fsanitize=thread";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr const char* kSanitizer = " -fsanitize=address,undefined -fno-sanitize-recover=all";
#elif __has_feature(thread_sanitizer)
constexpr const char* kSanitizer = " -fsanitize=thread";
#else
constexpr const char* kSanitizer = "";
#endif
#else
constexpr const char* kSanitizer = "";
#endif

#ifdef __clang__
constexpr const char* kFamily = "clang++";
#else
constexpr const char* kFamily = "g++";
#endif

const string kSources = RYX_SOURCE_DIR "/tests/override_matrix/";

// What it printed, and whether it ended well.
struct Outcome {
  bool ok;
  string output;
};

Outcome shell(const string& command) {
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  EXPECT_NE(pipe, nullptr);
  Outcome result{false, {}};
  char part[4096];
  for (size_t got; (got = std::fread(part, 1, sizeof part, pipe)) > 0;)
    result.output.append(part, got);
  result.ok = ::pclose(pipe) == 0;
  return result;
}

struct Manner {
  const char* name;
  const char* compiler;
  const char* options;  // of the agent
  const char* plugin;   // of the plug-in
};

void PrintTo(const Manner& manner, std::ostream* out) {
  *out << manner.compiler << " " << manner.options << ", the plug-in " << manner.plugin;
}

class OverrideMatrix : public testing::TestWithParam<Manner> {
 protected:
  // The directory with libports.so, made as libryx.so is.
  static void SetUpTestSuite() {
    temp_ = new ryx::test::TempDir;
    dir_ = new string(temp_->path().string() + "/");
    const Outcome built =
        shell(string(RYX_CXX) +
              " -std=c++20 -O2 -fPIC -shared -fvisibility=hidden -fvisibility-inlines-hidden "
              "-fsemantic-interposition -fuse-ld=lld -I" RYX_SOURCE_DIR +
              kSanitizer + " " + kSources + "ports.cpp -o " + *dir_ + "libports.so");
    ASSERT_TRUE(built.ok) << built.output;
  }
  static void TearDownTestSuite() {
    delete dir_;
    delete temp_;
  }
  static const string& dir() { return *dir_; }

 private:
  static inline ryx::test::TempDir* temp_ = nullptr;
  static inline string* dir_ = nullptr;
};

TEST_P(OverrideMatrix, callsWhatIsOverriddenAlone) {
  const Manner& manner = GetParam();
  // The compiler of this build, by the name that it was called by.
  const bool ours = string(manner.compiler) == kFamily;
  const string compiler = ours ? RYX_CXX : manner.compiler;
  if (*kSanitizer != '\0' && !ours) GTEST_SKIP() << "this build needs the sanitizers of " RYX_CXX;
  if (!shell(compiler + " --version").ok) GTEST_SKIP() << compiler << " is not installed";
  const string common = compiler + " -std=c++17 -I" RYX_SOURCE_DIR + kSanitizer;
  const string libraries = " -L" + dir() + " -lports -L" RYX_BINARY_DIR "/lib -lryx -Wl,-rpath," +
                           dir() + ":" RYX_BINARY_DIR "/lib";
  const string agent = dir() + "agent", plugin = dir() + "plugin.so";
  std::future<Outcome> pluginBuilt =
      std::async(std::launch::async, shell,
                 common + " " + manner.plugin + " -fPIC -shared " + kSources + "plugin.cpp -o " +
                     plugin + libraries);
  const Outcome agentBuilt = shell(common + " " + manner.options + " " + kSources +
                                   "agent.cpp -o " + agent + libraries + " -ldl");
  const Outcome plugged = pluginBuilt.get();
  ASSERT_TRUE(plugged.ok) << plugged.output;
  ASSERT_TRUE(agentBuilt.ok) << agentBuilt.output;
  Outcome result = shell("env STATEHUBLOCAL=1 " + agent + " " + plugin);
  EXPECT_TRUE(result.ok) << result.output;
}

// The compilers' defaults differ, so that nothing is left to them.
#define PIE "-fPIE -pie"
#define NO_PIE "-fno-pie -no-pie"

INSTANTIATE_TEST_SUITE_P(
    , OverrideMatrix,
    testing::Values(Manner{"gccO0Pie", "g++", "-O0 " PIE, "-O0"},
                    Manner{"gccO0NoPie", "g++", "-O0 " NO_PIE, "-O2"},
                    Manner{"gccO2Pie", "g++", "-O2 " PIE, "-O2 -Wl,-Bsymbolic"},
                    Manner{"gccO2NoPie", "g++", "-O2 " NO_PIE, "-O2 -fvisibility=hidden"},
                    Manner{"gccLtoPie", "g++", "-O2 -flto " PIE, "-O2 -flto"},
                    Manner{"clangO0NoPie", "clang++", "-O0 " NO_PIE, "-O2"},
                    Manner{"clangO2Pie", "clang++", "-O2 " PIE, "-O2 -Wl,-Bsymbolic"},
                    Manner{"clangO2NoPie", "clang++", "-O2 " NO_PIE, "-O2 -fvisibility=hidden"},
                    Manner{"clangLtoNoPie", "clang++", "-O2 -flto=thin -fuse-ld=lld " NO_PIE,
                           "-O2"}),
    [](const auto& manner) { return string(manner.param.name); });

}  // namespace
