#include "switch/hub/keeper.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/applier.h"
#include "platform/statehub/publisher.h"
#include "switch/hub/files.h"

namespace ryx::hub {

using namespace platform;

namespace {

constexpr std::string_view kTitle = "ryx state 1 ";

// FNV-1a: bytes that the disk or a hand changed are found.
uint64_t checksum(std::string_view bytes) {
  uint64_t sum = 0xcbf29ce484222325u;
  for (const char c : bytes) sum = (sum ^ static_cast<uint8_t>(c)) * 0x100000001b3u;
  return sum;
}

const WellKnown* placeOf(const Entity& e) {
  return wellKnownAbove(std::string_view(e.path()).substr(1));
}

// Everything that persists, once.
class Saver final : public Publisher {
 public:
  std::string bytes(Tree& tree) {
    uint32_t number = 0;
    for (const WellKnown& place : wellKnown()) {
      if (place.persists == Persists::nothing) continue;
      Entity* root = tree.find(place.path);
      const uint32_t handle = newHandle();
      out_.u8(static_cast<uint8_t>(Op::mount));
      out_.varint(number++);
      out_.varint(handle);
      out_.text(place.path);
      out_.text(root->type().name);
      publish(*root, handle, true);
    }
    encode(out_, SIZE_MAX);
    return out_.bytes();
  }

 private:
  static bool inPersistentTable(const Entity& e) {
    return e.owner() && e.owner()->info().marks & kPersistent;
  }
  bool wants(Entity& e) override {
    if (inPersistentTable(e)) return true;
    for (const FieldInfo& f : e.type().fields)
      if (f.marks & kPersistent && !f.kind->isDefault(e.at(f.offset))) return true;
    if (e.type().persistentFields == 0) return false;
    const WellKnown* place = placeOf(e);
    return place && place->persists == Persists::entities;
  }
  bool wantsRemoval(Entity&) override { return false; }
  bool visible(Entity&) override { return true; }
  uint8_t itemFlags(Entity&) override { return kItemWhole | kItemCreate; }
  uint32_t itemFields(Entity&) override { return ~0u; }
  uint32_t readable(Entity& e) override {
    return inPersistentTable(e) ? ~0u : e.type().persistentFields;
  }
  void activated() override {}

  Encoder out_;
};

class Loader final : public Applier {
 public:
  using Applier::Applier;

 private:
  Verdict judge(const Item& item, Entity* there) override {
    return {there, there && &there->type() != item.type, 0};
  }
  void applied(Entity&, const Item&, bool) override {}
  void refused(const Item&, Entity*, bool) override {}
  void remove(const Item&, Entity*) override {}
  void sweep(Entity&) override {}
  bool control(Op op, Decoder& d) override {
    if (op != Op::mount) return broken("an operation that is no state");
    d.varint();
    const uint64_t handle = d.varint();
    const std::string path(d.text()), typeName(d.text());
    if (d.failed()) return broken("a malformed place");
    const TypeInfo* type = TypeInfo::named(typeName);
    return numberIs(handle, type ? tree().make(path, *type) : nullptr);
  }
};

// Into a tree of its own first, so that bytes that are wrong in the middle leave nothing behind.
std::string load(Tree& tree, std::string_view payload) {
  Loader loader(tree);
  if (loader.frame(payload)) return {};
  return loader.error();
}

}  // namespace

std::string stateBytes(Tree& tree) {
  return stateFile(Saver().bytes(tree));
}

std::string stateFile(std::string_view payload) {
  char title[80];
  std::snprintf(title, sizeof title, "%s%zu %016llx\n", kTitle.data(), payload.size(),
                static_cast<unsigned long long>(checksum(payload)));
  return title + std::string(payload);
}

std::string takeStateBytes(Tree& tree, std::string_view bytes) {
  const size_t end = bytes.find('\n');
  unsigned long long size = 0, sum = 0;
  if (!bytes.starts_with(kTitle) || end == bytes.npos || end > 79)
    return "expected a first line \"ryx state 1 SIZE CHECKSUM\"";
  if (std::sscanf(std::string(bytes.substr(kTitle.size(), end - kTitle.size())).c_str(),
                  "%llu %llx", &size, &sum) != 2)
    return "expected a size and a checksum in the first line";
  const std::string_view payload = bytes.substr(end + 1);
  if (payload.size() != size)
    return "expected " + std::to_string(size) + " bytes behind the first line, found " +
           std::to_string(payload.size());
  if (checksum(payload) != sum) return "the checksum is wrong";
  Tree probe;
  makeWellKnown(probe);
  if (std::string why = load(probe, payload); !why.empty()) return why;
  return load(tree, payload);
}

std::unique_ptr<Keeper> Keeper::start(Tree& tree, const std::string& folder, std::string* error,
                                      std::vector<std::string>* told) {
  const auto fault = [&](const std::string& what) {
    *error = "cannot keep state in " + folder + ": " + what;
    return nullptr;
  };
  if (std::string why = makeFolder(folder, 0700); !why.empty()) return fault(why);
  const std::string lockName = folder + "/lock";
  const int lock = ::open(lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock < 0) return fault(std::strerror(errno));
  if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
    const int why = errno;
    ::close(lock);
    return fault(why == EWOULDBLOCK ? "another server keeps its state there" : std::strerror(why));
  }
  const std::string file = folder + "/state";
  std::string bytes;
  if (const int why = readFile(file, &bytes); why == 0) {
    if (const std::string what = takeStateBytes(tree, bytes); !what.empty()) {
      char when[32];
      const std::time_t now = std::time(nullptr);
      std::strftime(when, sizeof when, "%Y%m%dT%H%M%SZ", std::gmtime(&now));
      const std::string aside = file + ".damaged-" + when;
      if (::rename(file.c_str(), aside.c_str()) != 0) {
        ::close(lock);
        return fault("the file state is damaged (" + what + ") and cannot be set aside");
      }
      told->push_back("the state in " + file + " is damaged (" + what + "): it is set aside as " +
                      aside + ", and nothing is remembered");
    }
  } else if (why != ENOENT) {
    ::close(lock);
    return fault(std::string("the file state cannot be read: ") + std::strerror(why));
  }
  return std::unique_ptr<Keeper>(new Keeper(tree, folder, lock));
}

Keeper::Keeper(Tree& tree, std::string folder, int lock)
    : JournalReactor("Keeper"),
      Timer("Keeper"),
      tree_(tree),
      folder_(std::move(folder)),
      lock_(lock),
      last_(stateBytes(tree)) {
  for (const WellKnown& place : wellKnown())
    if (place.persists != Persists::nothing) follow(*tree.find(place.path)->childJournal(), true);
  writer_ = std::thread([this] { writeThem(); });
}

Keeper::~Keeper() {
  saveNow();
  {
    const std::lock_guard guard(mutex_);
    ends_ = true;
  }
  wake_.notify_one();
  writer_.join();
  ::close(lock_);
}

void Keeper::changed() {
  if (!armed()) armAt(std::max(clock().now(), lastAt_ + kGatherSeconds));
}

void Keeper::saveNow() {
  disarm();
  std::string bytes = stateBytes(tree_);
  if (bytes == last_) return;
  last_ = bytes;
  lastAt_ = clock().now();
  {
    const std::lock_guard guard(mutex_);
    next_ = std::move(bytes);
  }
  wake_.notify_one();
}

// The thread that writes: the last state that was handed over, whatever came before it.
void Keeper::writeThem() {
  std::unique_lock guard(mutex_);
  for (std::string told;;) {
    wake_.wait(guard, [this] { return next_ || ends_; });
    if (!next_) return;
    std::string bytes = *std::exchange(next_, std::nullopt);
    guard.unlock();
    const std::string why = replaceFile(folder_ + "/state", bytes, 0600);
    guard.lock();
    if (why.empty()) ++writes_;
    if (why != told) {
      if (why.empty())
        std::fprintf(stderr, "ryxd: %s/state is written again\n", folder_.c_str());
      else
        std::fprintf(stderr, "ryxd: cannot write %s/state: %s\n", folder_.c_str(), why.c_str());
    }
    told = why;
    if (why.empty() || ends_) continue;
    wake_.wait_for(guard, std::chrono::seconds(kRetrySeconds), [this] { return next_ || ends_; });
    if (!next_) next_ = std::move(bytes);
  }
}

}  // namespace ryx::hub
