#include "platform/statehub/local.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/model/wellknown.h"

namespace ryx::platform {
namespace {

// As long as the process: reactors and feeds may outlive every static.
struct Local {
  Tree tree;
  std::unique_ptr<Feed> feed;
  bool started = false;
  std::string text;  // of the feed that was started
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

}  // namespace

const char kPlatformAbi[] = RYX_VERSION;

Tree& localTree() {
  return local().tree;
}

bool localSelected() {
  return std::getenv("STATEHUBLOCAL") != nullptr;
}

std::string FeedModule::load(const std::string& name) {
  const std::string file = feedDirectory() + "/feed_" + name + ".so";
  what_ = "the feed \"" + name + "\" (" + file + ") ";
  void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) return what_ + "cannot be loaded: " + dlerror();
  auto* abi = static_cast<const char*>(dlsym(module, kFeedAbiSymbol));
  if (!abi || std::string_view(abi) != kPlatformAbi)
    return what_ + "is of another build of libryx.so";
  start_ = dlsym(module, kFeedStartSymbol);
  if (!start_) return what_ + "has no entry ryxFeedStart";
  places_ = static_cast<const char* const*>(dlsym(module, kFeedPlacesSymbol));
  return "";
}

bool FeedModule::worksOn(std::string_view path) const {
  for (const char* const* at = places_; at && *at; ++at)
    if (path.starts_with(*at)) return true;
  return false;
}

std::unique_ptr<Feed> FeedModule::start(Tree& tree, const std::string& argument,
                                        std::string* why) const {
  std::string error;
  std::unique_ptr<Feed> feed(reinterpret_cast<FeedStart>(start_)(tree, argument, &error));
  if (!feed) *why = what_ + "does not start: " + error;
  return feed;
}

std::unique_ptr<Feed> loadFeed(Tree& tree, const std::string& name, const std::string& argument,
                               std::string* why) {
  FeedModule module;
  *why = module.load(name);
  return why->empty() ? module.start(tree, argument, why) : nullptr;
}

std::string startFeed(const std::string& feed) {
  Local& here = local();
  if (here.started) return feed == here.text ? "" : "the feed \"" + here.text + "\" was started";
  if (!feed.empty() && feed != "1") {
    const std::string name = feed.substr(0, feed.find(':'));
    if (name != "linux" && name != "sim")
      return "expected \"linux\", \"sim\", \"sim:FILE\", \"1\" or nothing";
    std::string why;
    here.feed =
        loadFeed(here.tree, name, feed.substr(std::min(feed.size(), name.size() + 1)), &why);
    if (!here.feed) return why;
  }
  here.started = true;
  here.text = feed;
  return "";
}

void startLocalFeed() {
  static bool tried = false;
  const char* value = std::getenv("STATEHUBLOCAL");
  if (!value || std::exchange(tried, true)) return;
  if (const std::string why = startFeed(value); !why.empty())
    std::fprintf(stderr, "STATEHUBLOCAL=%s: %s; the local Statehub has no feed\n", value,
                 why.c_str());
}

}  // namespace ryx::platform
