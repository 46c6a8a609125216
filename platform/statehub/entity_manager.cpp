#include "platform/statehub/entity_manager.h"

#include <utility>

#include "platform/activity/task.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/authority.h"
#include "platform/statehub/local.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

TraceFacility& trace() {
  static TraceFacility& facility = TraceFacility::named("RyxStatehub");
  return facility;
}

// Mounts on the process's own tree: everything is there already, so a mount is a check.
class EmbeddedMountGroup final : public MountGroup, private Task {
 public:
  EmbeddedMountGroup(EntityManager& em) : Task("EmbeddedMountGroup"), em_(em) {}

  void close(std::function<void(MountStatus)> done) override {
    status_ = MountStatus::success;
    for (const MountRequest& m : requests()) {
      MountStatus s = mount(m);
      if (s == MountStatus::success) continue;
      RYX_TRACE(trace(), 0,
                "cannot mount " << m.path << " of type " << m.typeName << " in mode " << m.mode
                                << ": status " << static_cast<int>(s));
      if (status_ == MountStatus::success) status_ = s;
    }
    done_ = std::move(done);
    wake();
  }

 private:
  MountStatus mount(const MountRequest& m) {
    if (m.mode.find_first_not_of("rwciS") != std::string::npos || m.mode.empty())
      return MountStatus::badMode;
    const TypeInfo* type = TypeInfo::named(m.typeName);
    if (!type) return MountStatus::wrongType;
    if (Entity* there = em_.find(m.path))
      return there->type().is(*type) ? MountStatus::success : MountStatus::wrongType;
    if (m.mode.find('c') == std::string::npos) return MountStatus::noSuchPath;
    WriterScope as(em_);
    return em_.tree().make(m.path, *type) ? MountStatus::success : MountStatus::refused;
  }
  bool run(Slice&) override {
    if (auto done = std::exchange(done_, nullptr)) done(status_);
    return false;
  }

  EntityManager& em_;
  MountStatus status_ = MountStatus::pending;
  std::function<void(MountStatus)> done_;
};

class EmbeddedEntityManager final : public EntityManager {
 public:
  EmbeddedEntityManager(std::string_view agentName, Tree& tree)
      : EntityManager(agentName), tree_(tree) {}

  std::unique_ptr<MountGroup> mountGroup() override {
    return std::make_unique<EmbeddedMountGroup>(*this);
  }
  Tree& tree() override { return tree_; }
  size_t unsentBytes() const override { return 0; }
  bool drained() const override { return true; }
  std::vector<int> connections() const override { return {}; }

 private:
  Tree& tree_;
};

}  // namespace

std::unique_ptr<EntityManager> EntityManager::embedded(std::string_view agentName) {
  return embedded(agentName, localTree());
}
std::unique_ptr<EntityManager> EntityManager::embedded(std::string_view agentName, Tree& tree) {
  return std::make_unique<EmbeddedEntityManager>(agentName, tree);
}

const std::string EntityManager::kNone;

Writer::Admission EntityManager::admits(const Journal&, const Entity& entity,
                                        const Entity* parent) {
  Admission verdict = judgeWrite(who(), entity, parent);
  if (verdict == Admission::refused) {
    ++refusals_;
    RYX_TRACE(trace(), 0,
              "refused a write by " << name_ << " below " << (parent ? parent->path() : "/"));
  }
  return verdict;
}

}  // namespace ryx::platform
