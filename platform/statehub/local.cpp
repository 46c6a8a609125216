#include "platform/statehub/local.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "platform/model/wellknown.h"

namespace ryx::platform {
namespace {

// As long as the process: reactors and feeds may outlive every static.
struct Local {
  Tree tree;
  Feed* feed = nullptr;
};
Local& local() {
  static Local* local = [] {
    auto* made = new Local;
    makeWellKnown(made->tree);
    return made;
  }();
  return *local;
}

// Where the feeds are: RYX_FEED_DIR, or the folder ryx/ beside this library.
std::string feedDirectory() {
  if (const char* dir = std::getenv("RYX_FEED_DIR"); dir && *dir) return dir;
  Dl_info info;
  if (!dladdr(reinterpret_cast<const void*>(&feedDirectory), &info) || !info.dli_fname)
    return "ryx";
  std::string path = info.dli_fname;
  size_t slash = path.rfind('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + "ryx";
}

void loadFeed(const std::string& name, const std::string& argument) {
  std::string file = feedDirectory() + "/feed_" + name + ".so";
  auto tell = [&](const std::string& what) {
    std::fprintf(stderr, "STATEHUBLOCAL: the feed \"%s\" (%s) %s; the local Statehub has no feed\n",
                 name.c_str(), file.c_str(), what.c_str());
  };
  void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) return tell(std::string("cannot be loaded: ") + dlerror());
  auto* abi = static_cast<const char*>(dlsym(module, kFeedAbiSymbol));
  if (!abi || std::string_view(abi) != kPlatformAbi)
    return tell("is of another build of libryx.so");
  auto start = reinterpret_cast<FeedStart>(dlsym(module, kFeedStartSymbol));
  if (!start) return tell("has no entry ryxFeedStart");
  std::string error;
  local().feed = start(localTree(), argument, &error);
  if (!local().feed) tell("does not start: " + error);
}

}  // namespace

const char kPlatformAbi[] = RYX_VERSION;

Tree& localTree() {
  return local().tree;
}

bool localSelected() {
  return std::getenv("STATEHUBLOCAL") != nullptr;
}

void startLocalFeed() {
  static bool started = false;
  const char* value = std::getenv("STATEHUBLOCAL");
  if (started || !value) return;
  started = true;
  std::string text = value;
  if (text.empty() || text == "1") return;
  std::string name = text.substr(0, text.find(':'));
  std::string argument = name.size() == text.size() ? std::string() : text.substr(name.size() + 1);
  if (name != "linux" && name != "sim") {
    std::fprintf(
        stderr,
        "STATEHUBLOCAL=%s: expected \"linux\", \"sim\", \"sim:FILE\", \"1\" or nothing; the "
        "local Statehub has no feed\n",
        value);
    return;
  }
  loadFeed(name, argument);
}

}  // namespace ryx::platform
