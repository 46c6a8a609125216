#include "platform/trace/trace.h"

#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace ryx::platform {

namespace {

// Every facility whose name matches the glob has the levels.
struct TraceRule {
  std::string glob;
  uint16_t levels;
};

std::string_view withoutBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool isLevel(std::string_view text) {
  return text.size() == 1 && text[0] >= '0' && text[0] <= '9';
}

// The mask of "3" or "0-3"; 0 when the text is neither.
uint16_t parseLevels(std::string_view text) {
  std::string_view low = text.substr(0, text.find('-'));
  std::string_view high = low.size() == text.size() ? low : text.substr(low.size() + 1);
  if (!isLevel(low) || !isLevel(high) || low > high) return 0;
  uint16_t mask = 0;
  for (int level = low[0] - '0'; level <= high[0] - '0'; ++level) mask |= uint16_t(1u << level);
  return mask;
}

// An empty text, or what is wrong.
std::string parseRules(std::string_view text, std::vector<TraceRule>* rules) {
  if (withoutBlanks(text).empty()) return {};
  for (;;) {
    size_t comma = text.find(',');
    std::string_view piece = withoutBlanks(text.substr(0, comma));
    size_t slash = piece.rfind('/');
    uint16_t levels = 0;
    if (slash != std::string_view::npos && slash != 0)
      levels = parseLevels(piece.substr(slash + 1));
    if (levels == 0)
      return "malformed piece '" + std::string(piece) +
             "': expected FACILITY/LEVEL or FACILITY/LOW-HIGH, where FACILITY is a glob and levels "
             "are 0 to 9, as in RyxSdkIp/8,RyxSdk*/0-3";
    rules->push_back({std::string(piece.substr(0, slash)), levels});
    if (comma == std::string_view::npos) return {};
    text.remove_prefix(comma + 1);
  }
}

void appendEscaped(std::string* line, std::string_view text) {
  for (char c : text) {
    unsigned char byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      line->push_back(c);
    } else if (c == '\n') {
      line->append("\\n");
    } else if (c == '\t') {
      line->append("\\t");
    } else {
      char code[5];
      std::snprintf(code, sizeof code, "\\x%02x", byte);
      line->append(code);
    }
  }
}

void appendTime(std::string* line) {
  timeval now;
  ::gettimeofday(&now, nullptr);
  tm parts;
  ::gmtime_r(&now.tv_sec, &parts);
  char text[40];
  size_t length = ::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%06dZ", static_cast<int>(now.tv_usec));
  line->append(text);
}

const char* baseName(const char* file) {
  const char* slash = std::strrchr(file, '/');
  return slash == nullptr ? file : slash + 1;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

[[noreturn]] void refuseStart(const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  ::_exit(2);
}

}  // namespace

// The facilities, and the setting that new ones start with. One for the process, never destroyed,
// because traces may still come from the destructors of static objects.
class TraceRegistry {
 public:
  static TraceRegistry& instance() {
    static TraceRegistry& registry = *new TraceRegistry;
    return registry;
  }

  TraceFacility& named(std::string_view name) {
    std::lock_guard guard(mutex_);
    auto found = facilities_.find(name);
    if (found != facilities_.end()) return *found->second;
    std::unique_ptr<TraceFacility> facility(new TraceFacility(name, levelsFor(std::string(name))));
    return *facilities_.emplace(name, std::move(facility)).first->second;
  }

  void rulesAre(std::vector<TraceRule> rules) {
    std::lock_guard guard(mutex_);
    rules_ = std::move(rules);
    for (auto& [name, facility] : facilities_) {
      facility->levels_ = levelsFor(name);
      facility->on_ = facility->levels_ != 0;
      facility->refresh();
    }
  }

  std::mutex& mutex() { return mutex_; }
  int fd() const { return fd_; }

  std::atomic<uint64_t> linesLost{0};

 private:
  TraceRegistry() {
    // A program with more rights than its user takes no file name from the user's environment.
    const char* setting = ::secure_getenv("RYX_TRACE");
    std::string wrong = parseRules(setting == nullptr ? "" : setting, &rules_);
    if (!wrong.empty()) refuseStart("RYX_TRACE: " + wrong);
    const char* file = ::secure_getenv("RYX_TRACE_FILE");
    if (file == nullptr || *file == '\0') return;
    fd_ = ::open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0)
      refuseStart("RYX_TRACE_FILE: cannot open '" + std::string(file) +
                  "' to append traces: " + std::strerror(errno));
  }

  uint16_t levelsFor(const std::string& name) const {
    uint16_t levels = 0;
    for (const TraceRule& rule : rules_)
      if (::fnmatch(rule.glob.c_str(), name.c_str(), 0) == 0) levels |= rule.levels;
    return levels;
  }

  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<TraceFacility>, std::less<>> facilities_;
  std::vector<TraceRule> rules_;
  int fd_ = STDERR_FILENO;
};

namespace {
// Reads the environment when the library loads, so that what is wrong with it is told at once.
[[maybe_unused]] const TraceRegistry& loaded = TraceRegistry::instance();
}  // namespace

TraceFacility::TraceFacility(std::string_view name, uint16_t levels)
    : name_(name), effective_(levels), levels_(levels), on_(levels != 0) {}

TraceFacility& TraceFacility::named(std::string_view name) {
  return TraceRegistry::instance().named(name);
}

uint64_t TraceFacility::linesLost() {
  return TraceRegistry::instance().linesLost.load(std::memory_order_relaxed);
}

void TraceFacility::enabledIs(int level, bool on) {
  std::lock_guard guard(TraceRegistry::instance().mutex());
  uint16_t bit = static_cast<uint16_t>(1u << level);
  levels_ = static_cast<uint16_t>(on ? levels_ | bit : levels_ & ~bit);
  on_ = on_ || on;
  refresh();
}

void TraceFacility::facilityEnabledIs(bool on) {
  std::lock_guard guard(TraceRegistry::instance().mutex());
  on_ = on;
  refresh();
}

void TraceFacility::refresh() {
  effective_.store(on_ ? levels_ : uint16_t(0), std::memory_order_relaxed);
}

void TraceFacility::emit(int level, const char* file, int line, const char* function,
                         std::string_view text) const {
  int savedErrno = errno;
  std::string out;
  out.reserve(128 + text.size());
  appendTime(&out);
  out.append(" ");
  appendEscaped(&out, program_invocation_short_name);
  out.append("[").append(std::to_string(::getpid())).append("] ");
  appendEscaped(&out, name_);
  out.append("/").append(std::to_string(level)).append(" ");
  if (file == nullptr)
    out.append("-");
  else
    out.append(baseName(file)).append(":").append(std::to_string(line));
  out.append(" ").append(function == nullptr ? "-" : function).append(": ");
  appendEscaped(&out, text);
  out.append("\n");
  TraceRegistry& registry = TraceRegistry::instance();
  if (!writeAll(registry.fd(), out)) registry.linesLost.fetch_add(1, std::memory_order_relaxed);
  errno = savedErrno;
}

std::string setTraceFromText(std::string_view text) {
  std::vector<TraceRule> rules;
  std::string wrong = parseRules(text, &rules);
  if (wrong.empty()) TraceRegistry::instance().rulesAre(std::move(rules));
  return wrong;
}

}  // namespace ryx::platform
