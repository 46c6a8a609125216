#include "platform/mirra/mount.h"

#include <map>
#include <set>

#include "platform/activity/task.h"
#include "platform/trace/trace.h"

namespace ryx::platform::mirra {
namespace {

struct Offered {
  std::string typeName;
  std::shared_ptr<Table> table;
  uint64_t incarnation;
};

}  // namespace

class Mount::State final : public Task {
 public:
  // What is offered and who has mounted, by name.
  struct Registry {
    std::map<std::string, Offered, std::less<>> offers;
    std::map<std::string, std::set<State*>, std::less<>> mounts;
    uint64_t incarnations = 0;

    void changed(std::string_view name) {
      auto at = mounts.find(name);
      if (at == mounts.end()) return;
      for (State* s : at->second) s->wake();
    }
  };
  static Registry& registry() {
    static auto* r = new Registry;
    return *r;
  }

  State(std::string_view name, std::string_view typeName)
      : Task("MirraMount"), name_(name), typeName_(typeName) {
    registry().mounts[name_].insert(this);
    wake();
  }
  ~State() override {
    auto at = registry().mounts.find(name_);
    at->second.erase(this);
    if (at->second.empty()) registry().mounts.erase(at);
  }

  const Offered* offered() const {
    auto at = registry().offers.find(name_);
    return at == registry().offers.end() ? nullptr : &at->second;
  }
  bool fits(const Offered& o) const { return o.typeName == typeName_; }

  MountStatus status = MountStatus::pending;
  std::function<void()> changed;

 private:
  bool run(Slice&) override {
    const Offered* o = offered();
    status = !o || fits(*o) ? MountStatus::success : MountStatus::wrongType;
    if (status == MountStatus::wrongType)
      RYX_TRACE(TraceFacility::named("RyxMirra"), 0,
                "the table " << name_ << " is of type " << o->typeName << ", not " << typeName_);
    if (auto call = changed) call();
    return false;
  }

  std::string name_;
  std::string typeName_;
};

Offer::Offer(std::string_view name, std::string_view typeName, std::shared_ptr<Table> table)
    : name_(name), incarnation_(++Mount::State::registry().incarnations) {
  auto& r = Mount::State::registry();
  r.offers.insert_or_assign(name_, Offered{std::string(typeName), std::move(table), incarnation_});
  r.changed(name_);
}

Offer::~Offer() {
  auto& r = Mount::State::registry();
  auto at = r.offers.find(name_);
  if (at == r.offers.end() || at->second.incarnation != incarnation_) return;
  r.offers.erase(at);
  r.changed(name_);
}

Mount::Mount(std::string_view name, std::string_view typeName)
    : state_(std::make_unique<State>(name, typeName)) {}
Mount::~Mount() = default;

MountStatus Mount::status() const {
  return state_->status;
}

std::shared_ptr<const Table> Mount::table() const {
  const Offered* o = state_->offered();
  return o && state_->fits(*o) ? o->table : nullptr;
}

uint64_t Mount::incarnation() const {
  const Offered* o = state_->offered();
  return o && state_->fits(*o) ? o->incarnation : 0;
}

void Mount::onChangeIs(std::function<void()> changed) {
  state_->changed = std::move(changed);
}

}  // namespace ryx::platform::mirra
