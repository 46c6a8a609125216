// Traces: what the environment switches on, what a line holds, and what agents' tracers write. The
// environment counts when the library loads, so those tests start this program again, as a child
// that traces a little and ends.
#include "platform/trace/trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ryx/ip.h"
#include "ryx/panic.h"
#include "ryx/tracing.h"

namespace {

using ryx::platform::setTraceFromText;
using ryx::platform::TraceFacility;
using std::string;

string contentsOf(const string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<string> linesOf(const string& text) {
  std::vector<string> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    EXPECT_NE(end, string::npos) << "a line without end: " << text.substr(at);
    if (end == string::npos) break;
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

string scratchFile(const char* name) {
  string path = testing::TempDir() + name + "." + std::to_string(::getpid());
  ::unlink(path.c_str());
  return path;
}

// What standard error got while it ran. Traces go there by write(2), past any buffer.
template <class F>
string tracedBy(F run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

struct ChildEnd {
  int status;
  string standardError;
};

// Runs the child with the settings as its environment, the test framework's own apart.
ChildEnd child(std::vector<string> settings) {
  string out = scratchFile("trace_child");
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 2, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
  char self[4096] = {};
  EXPECT_GT(::readlink("/proc/self/exe", self, sizeof self - 1), 0);
  char filter[] = "--gtest_filter=DISABLED_Child.traces";
  char disabledToo[] = "--gtest_also_run_disabled_tests";
  char* argv[] = {self, filter, disabledToo, nullptr};
  std::vector<char*> environment;
  for (string& setting : settings) environment.push_back(setting.data());
  environment.push_back(nullptr);
  pid_t pid = 0;
  EXPECT_EQ(0, ::posix_spawn(&pid, self, &files, nullptr, argv, environment.data()));
  posix_spawn_file_actions_destroy(&files);
  int status = -1;
  EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status)) << status;
  ChildEnd end{WEXITSTATUS(status), contentsOf(out)};
  ::unlink(out.c_str());
  return end;
}

TEST(DISABLED_Child, traces) {
  ryx::ip_addr_t parsed;
  (void)ryx::parse_ip_addr("10.0.0.1", &parsed);
  for (const char* name : {"RyxSdkIp", "RyxSdkIpRoute", "MyAgent"}) {
    TraceFacility& facility = TraceFacility::named(name);
    for (int level = 0; level < TraceFacility::kLevels; ++level)
      RYX_TRACE(facility, level, "at " << level);
  }
}

// Of the child's lines: "FACILITY/LEVEL", in order.
std::vector<string> placesOf(const string& text) {
  std::vector<string> places;
  for (const string& line : linesOf(text)) {
    size_t from = line.find("] ") + 2;
    places.push_back(line.substr(from, line.find(' ', from) - from));
  }
  return places;
}

TEST(TraceSetting, levelsAndGlobs) {
  using places = std::vector<string>;
  EXPECT_EQ(places(), placesOf(child({}).standardError));
  EXPECT_EQ(places(), placesOf(child({"RYX_TRACE="}).standardError));
  // One level is that level alone.
  EXPECT_EQ(places({"RyxSdkIp/8", "RyxSdkIp/8"}),
            placesOf(child({"RYX_TRACE=RyxSdkIp/8"}).standardError));
  EXPECT_EQ(places({"MyAgent/3", "MyAgent/4", "MyAgent/5"}),
            placesOf(child({"RYX_TRACE=My?gent/3-5"}).standardError));
  // A facility has what any glob gives it.
  EXPECT_EQ(places({"RyxSdkIp/8", "RyxSdkIp/0", "RyxSdkIp/1", "RyxSdkIp/8", "RyxSdkIpRoute/0",
                    "RyxSdkIpRoute/1"}),
            placesOf(child({"RYX_TRACE= RyxSdkIp/8 , RyxSdk*/0-1"}).standardError));
  EXPECT_EQ(31u, placesOf(child({"RYX_TRACE=*/0-9"}).standardError).size());
}

TEST(TraceSetting, malformedEndsTheProcessAtOnce) {
  for (const char* piece : {"RyxSdkIp", "RyxSdkIp/", "RyxSdkIp/10", "RyxSdkIp/3-", "RyxSdkIp/-3",
                            "RyxSdkIp/5-3", "RyxSdkIp/a", "RyxSdkIp/1-2-3", "/8", "RyxSdkIp/ 8"}) {
    for (const char* before : {"", "RyxSdkAcl/1,"}) {
      ChildEnd end = child({string("RYX_TRACE=") + before + piece});
      EXPECT_EQ(2, end.status) << piece;
      EXPECT_EQ(end.standardError, string("RYX_TRACE: malformed piece '") + piece +
                                       "': expected FACILITY/LEVEL or FACILITY/LOW-HIGH, where "
                                       "FACILITY is a glob and levels are 0 to 9, as in "
                                       "RyxSdkIp/8,RyxSdk*/0-3\n");
    }
  }
  EXPECT_EQ(2, child({"RYX_TRACE=RyxSdkIp/8,"}).status);
  EXPECT_EQ(2, child({"RYX_TRACE=,RyxSdkIp/8"}).status);
}

TEST(TraceSetting, file) {
  string path = scratchFile("trace_file");
  std::ofstream(path) << "what was there\n";
  string setting = "RYX_TRACE_FILE=" + path;
  ChildEnd end = child({"RYX_TRACE=MyAgent/0", setting});
  EXPECT_EQ(0, end.status);
  EXPECT_EQ("", end.standardError);
  child({"RYX_TRACE=MyAgent/1", setting});
  std::vector<string> lines = linesOf(contentsOf(path));
  ::unlink(path.c_str());
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("what was there", lines[0]);
  EXPECT_NE(lines[1].find(" MyAgent/0 "), string::npos) << lines[1];
  EXPECT_NE(lines[2].find(" MyAgent/1 "), string::npos) << lines[2];

  end = child({"RYX_TRACE_FILE=/nowhere/at/all"});
  EXPECT_EQ(2, end.status);
  EXPECT_EQ(
      "RYX_TRACE_FILE: cannot open '/nowhere/at/all' to append traces: No such file or directory\n",
      end.standardError);
}

TEST(TraceSetting, whileRunning) {
  TraceFacility& before = TraceFacility::named("steered");
  ASSERT_EQ("", setTraceFromText("steer*/2-3,*d/7"));
  TraceFacility& after = TraceFacility::named("steerage");
  EXPECT_TRUE(before.enabled(2) && before.enabled(3) && before.enabled(7) && !before.enabled(4));
  EXPECT_TRUE(after.enabled(2) && !after.enabled(7));
  // Of a setting with a fault nothing is taken.
  EXPECT_NE(setTraceFromText("steer*/0,steerage").find("'steerage'"), string::npos);
  EXPECT_TRUE(before.enabled(2) && !before.enabled(0));
  ASSERT_EQ("", setTraceFromText(""));
  EXPECT_FALSE(before.enabled(2) || before.enabled(7) || after.enabled(2));
}

TEST(TraceFacility, flags) {
  TraceFacility& facility = TraceFacility::named("flags");
  EXPECT_EQ(&facility, &TraceFacility::named("flags"));
  for (int level = 0; level < TraceFacility::kLevels; ++level)
    EXPECT_FALSE(facility.enabled(level));
  facility.enabledIs(3, true);
  facility.enabledIs(0, true);
  facility.enabledIs(3, false);
  EXPECT_TRUE(facility.enabled(0));
  EXPECT_FALSE(facility.enabled(3));
  facility.facilityEnabledIs(false);
  EXPECT_FALSE(facility.enabled(0));
  facility.enabledIs(5, false);  // leaves the facility off
  EXPECT_FALSE(facility.enabled(0));
  facility.enabledIs(9, true);  // brings it back, with what it had
  EXPECT_TRUE(facility.enabled(0) && facility.enabled(9));
}

TEST(TraceFacility, line) {
  TraceFacility& facility = TraceFacility::named("line");
  facility.enabledIs(4, true);
  int evaluated = 0;
  int line = 0;
  string traced = tracedBy([&] {
    RYX_TRACE(facility, 5, "off " << ++evaluated);
    errno = EXDEV;
    // clang-format off
    line = __LINE__; RYX_TRACE(facility, 4, "vlan " << 7 << "\n\tforged\x1b[m\x7f \xc3\xa4");
    // clang-format on
  });
  EXPECT_EQ(EXDEV, errno);
  EXPECT_EQ(0, evaluated);
  std::regex form(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z) ([^ ]+)\[(\d+)\] line/4 )"
                  R"(trace_test\.cpp:(\d+) (.*TestBody.*): (.*)\n)");
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(traced, parts, form)) << traced;
  EXPECT_EQ("trace_test", parts[2]);
  EXPECT_EQ(std::to_string(::getpid()), parts[3]);
  EXPECT_EQ(std::to_string(line), parts[4]);
  EXPECT_EQ("vlan 7\\n\\tforged\\x1b[m\\x7f \xc3\xa4", parts[6]);
}

// A text of any length is one line, and lines of several threads do not mix.
TEST(TraceFacility, linesStayWhole) {
  TraceFacility& facility = TraceFacility::named("whole");
  facility.enabledIs(1, true);
  constexpr size_t kThreads = 4, kEach = 300;
  string traced = tracedBy([&] {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i)
      threads.emplace_back([&facility, i] {
        for (size_t n = 0; n < kEach; ++n) {
          RYX_TRACE(facility, 1, string(n * 20, static_cast<char>('a' + i)) << "!");
          TraceFacility::named("whole").enabledIs(2, n % 2 == 0);
        }
      });
    for (std::thread& thread : threads) thread.join();
  });
  std::vector<string> lines = linesOf(traced);
  EXPECT_EQ(kThreads * kEach, lines.size());
  std::vector<size_t> lengths[kThreads];
  for (const string& line : lines) {
    string text = line.substr(line.rfind(": ") + 2);
    ASSERT_EQ('!', text.back());
    text.pop_back();
    if (text.empty()) continue;
    ASSERT_EQ(text.find_first_not_of(text[0]), string::npos) << text;
    lengths[text[0] - 'a'].push_back(text.size());
  }
  for (auto& of : lengths) {
    EXPECT_EQ(kEach - 1, of.size());
    EXPECT_TRUE(std::is_sorted(of.begin(), of.end()));
  }
}

TEST(TraceFacility, lostLinesAreCounted) {
  TraceFacility& facility = TraceFacility::named("lost");
  facility.enabledIs(0, true);
  uint64_t before = TraceFacility::linesLost();
  int saved = ::dup(2);
  int full = ::open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  ::dup2(full, 2);
  RYX_TRACE(facility, 0, "never seen");
  ::dup2(saved, 2);
  ::close(saved);
  ::close(full);
  EXPECT_EQ(before + 1, TraceFacility::linesLost());
}

// Tracers

TEST(Tracer, writesWhatPrintfWould) {
  ryx::tracer tracer("TracerTest");
  tracer.enabled_is(ryx::TRACE3, true);
  string longName(5000, 'n');
  string traced = tracedBy([&] {
    tracer.trace3("peer %s is %d%%", "a", 12);
    tracer.trace(ryx::TRACE3, "%s", longName.c_str());
    tracer.trace2("another level");
  });
  std::vector<string> lines = linesOf(traced);
  ASSERT_EQ(2u, lines.size());
  EXPECT_NE(lines[0].find("] TracerTest/3 "), string::npos) << lines[0];
  EXPECT_EQ(": peer a is 12%", lines[0].substr(lines[0].rfind(": ")));
  EXPECT_EQ(": " + longName, lines[1].substr(lines[1].rfind(": ")));
}

TEST(Tracer, everyLevelHasItsOwnFunction) {
  ryx::tracer tracer("TracerLevels");
  using function = void (ryx::tracer::*)(const char*, ...) const;
  const function functions[] = {&ryx::tracer::trace0, &ryx::tracer::trace1, &ryx::tracer::trace2,
                                &ryx::tracer::trace3, &ryx::tracer::trace4, &ryx::tracer::trace5,
                                &ryx::tracer::trace6, &ryx::tracer::trace7, &ryx::tracer::trace8,
                                &ryx::tracer::trace9};
  for (int level = 0; level < 10; ++level) {
    tracer.enabled_is(static_cast<ryx::trace_level>(level), true);
    // By address it is the library's function; a call may be inlined.
    string traced = tracedBy([&] {
      for (function f : functions) (tracer.*f)("%d", 4711);
      tracer.trace0("plain"), tracer.trace1("plain"), tracer.trace2("plain");
      tracer.trace3("plain"), tracer.trace4("plain"), tracer.trace5("plain");
      tracer.trace6("plain"), tracer.trace7("plain"), tracer.trace8("plain");
      tracer.trace9("plain");
    });
    string place = "TracerLevels/" + std::to_string(level);
    EXPECT_EQ(std::vector<string>({place, place}), placesOf(traced));
    tracer.enabled_is(static_cast<ryx::trace_level>(level), false);
  }
}

TEST(Tracer, offMeansUntouched) {
  ryx::tracer tracer("TracerOff");
  const char* nowhere = reinterpret_cast<const char*>(16);
  EXPECT_EQ("", tracedBy([&] {
              tracer.trace5("%s", nowhere);
              tracer.trace(ryx::TRACE5, "%s", nowhere);
            }));
  tracer.enabled_is(ryx::TRACE4, true);
  EXPECT_EQ("", tracedBy([&] { tracer.trace5("%s", nowhere); }));
}

TEST(Tracer, failedFormatWritesNothing) {
  ryx::tracer tracer("TracerFailed");
  tracer.enabled_is(ryx::TRACE0, true);
  const wchar_t unprintable[] = {0x7fffffff, 0};
  EXPECT_EQ("", tracedBy([&] { tracer.trace0("%ls", unprintable); }));
}

TEST(Tracer, sharesItsFacility) {
  ryx::tracer one("TracerShared");
  {
    ryx::tracer two("TracerShared");
    two.enabled_is(ryx::TRACE6, true);
  }
  EXPECT_TRUE(one.enabled(ryx::TRACE6));
  TraceFacility::named("TracerShared").facilityEnabledIs(false);
  EXPECT_FALSE(one.enabled(ryx::TRACE6));
  one.enabled_is(ryx::TRACE6, false);
  EXPECT_FALSE(one.enabled(ryx::TRACE6));

  ryx::tracer nameless(nullptr);
  nameless.enabled_is(ryx::TRACE1, true);
  EXPECT_TRUE(ryx::tracer("").enabled(ryx::TRACE1));
}

TEST(Tracer, noLevel) {
  ryx::tracer tracer("TracerNoLevel");
  auto ten = static_cast<ryx::trace_level>(10);
  EXPECT_FALSE(tracer.enabled(ten));
  EXPECT_EQ("", tracedBy([&] { tracer.trace(ten, "x"); }));
  EXPECT_THROW(tracer.enabled_is(ten, true), ryx::invalid_range_error);
}

}  // namespace
