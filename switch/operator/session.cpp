#include "switch/operator/session.h"

#include <unistd.h>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "switch/base/names.h"

namespace ryx::operators {

using namespace platform;

namespace {

std::string withoutLast(const std::string& path) {
  return path.substr(0, path.find_last_of('/', path.size() - 1));
}

}  // namespace

Session::Session(const ConnectionSettings& settings) {
  std::string why;
  bool isLate = false;
  int fd = connectToServer(settings, &why, &isLate);
  for (const double end = clock().now() + kComing; fd < 0 && isLate && clock().now() < end;) {
    ::usleep(20'000);
    fd = connectToServer(settings, &why, &isLate);
  }
  if (fd < 0)
    throw Failure(kNoServer, why +
                                 "\nStart one with ryxd, or name its socket by "
                                 "--statehubsockname=PATH or STATEHUBSOCKNAME.");
  std::string user = userName(::getuid());
  for (char& c : user)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') c = '_';
  em_ = EntityManager::overSocket(fd, Participant(Role::operators, user.substr(0, 64)));
}

bool Session::wait(const std::function<bool()>& done, double seconds) {
  const double end = clock().now() + seconds;
  for (activity().run(0); !done(); activity().run(0.01)) {
    if (!em_->connected()) throwLost();
    if (clock().now() > end) return false;
  }
  return true;
}

void Session::throwLost() const {
  const std::string why = em_->farewell();
  if (why.empty()) throw Failure(kNoServer, "the connection to the server is lost");
  throw Failure(kFailed, "the server turns this command away: " + why);
}

bool Session::tryMount(const std::string& path, const char* mode) {
  const auto [at, isNew] = groups_.try_emplace({path, mode}, em_->mountGroup());
  if (!isNew) return true;
  MountStatus status = MountStatus::pending;
  at->second->add(path, "", mode);
  at->second->close([&](MountStatus s) { status = s; });
  if (!wait([&] { return status != MountStatus::pending; }, 6 * kPatience))
    throw Failure(kFailed, "the server does not answer");
  if (status != MountStatus::success) groups_.erase(at);
  return status == MountStatus::success;
}

Entity& Session::mount(const std::string& path, const char* mode) {
  for (std::string at = path; !at.empty() && at != "/"; at = withoutLast(at))
    if (tryMount(at, mode)) return *tree().find(at);
  if ((path.empty() || path == "/") && tryMount("/", mode)) return tree().root();
  throw Failure(kFailed, "nothing stands at " + path + "; ryx ls / tells what there is");
}

DirEntries& Session::entriesOf(Entity& entity) {
  auto* dir = entity.as<Dir>();
  if (!dir) throw Failure(kFailed, "the server has no directory " + entity.path());
  return dir->entry;
}

void Session::commit() {
  const auto taken = [this] { return em_->drained() && em_->acknowledged() >= em_->batches(); };
  if (!wait(taken)) throw Failure(kFailed, "the server does not acknowledge what was written");
}

}  // namespace ryx::operators
