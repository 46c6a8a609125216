#include "platform/agent/trace_control.h"

#include <cstdlib>
#include <utility>

#include "platform/model/agent.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

constexpr const char* kPath = "daemon/trace";

TraceFacility& trace() {
  static auto& facility = TraceFacility::named("RyxTrace");
  return facility;
}

}  // namespace

class TraceControl::Follower final : private JournalReactor {
 public:
  Follower(Dir& dir, std::string name) : JournalReactor("TraceControl"), name_(std::move(name)) {
    follow(dir.journal);
  }

 private:
  void onEntity(Entity& entity, Change change) override {
    auto* mine = entity.as<GenericAgent::Trace>();
    if (!mine || mine->key().view() != name_) return;
    const char* environment = std::getenv("RYX_TRACE");
    std::string setting = environment ? environment : "";
    if (change != Change::deleted && !mine->setting().empty())
      setting += (setting.empty() ? "" : ",") + mine->setting();
    if (const std::string why = setTraceFromText(setting); !why.empty())
      RYX_TRACE(trace(), 0, "the trace setting \"" << mine->setting() << "\": " << why);
  }

  const std::string name_;
};

TraceControl::TraceControl(EntityManager& em, std::string name) : em_(em), name_(std::move(name)) {
  group_ = em.mountGroup();
  group_->add(kPath, "Qel::Dir", "r");
  group_->close([this](MountStatus status) {
    auto* dir = status == MountStatus::success ? em_.find<Dir>(kPath) : nullptr;
    if (dir) follower_ = std::make_unique<Follower>(*dir, name_);
  });
}

TraceControl::~TraceControl() = default;

}  // namespace ryx::platform
