#include "switch/hub/service.h"

#include <unistd.h>

#include <cstdio>
#include <limits>
#include <memory>

#include "platform/activity/activity.h"
#include "platform/agent/process_title.h"
#include "platform/agent/trace_control.h"
#include "platform/mirra/exchange.h"
#include "platform/model/agent.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/local.h"
#include "switch/hub/config.h"

namespace ryx::hub {

using namespace platform;

namespace {

constexpr const char* kStatuses = "daemon/service/status";

}  // namespace

int serve(const std::string& service, int fd) {
  const std::string name = nameOfService(service);
  agentTitleIs("ryx-" + name);
  FeedModule module;
  if (const std::string why = module.load(name); !why.empty()) {
    std::fprintf(stderr, "ryxd: the service %s: %s\n", name.c_str(), why.c_str());
    return 1;
  }
  auto em = EntityManager::overSocket(fd, Participant(Role::service, name));
  int status = 0;
  em->onLostIs([&] { activity().executionTimeIs(0); });
  TraceControl traces(*em, name);
  auto group = em->mountGroup();
  group->add(kStatuses, "Qel::Dir", "w");
  for (const WellKnown& place : wellKnown())
    if (module.worksOn(place.path)) group->add(place.path, place.type().name, "w");
  std::unique_ptr<Feed> feed;
  group->close([&](MountStatus mounted) {
    std::string why = "its mounts ended with status " + std::to_string(static_cast<int>(mounted));
    if (mounted == MountStatus::success)
      feed =
          module.start(em->tree(), service.substr(std::min(service.size(), name.size() + 1)), &why);
    if (!feed) {
      std::fprintf(stderr, "ryxd: the service %s: %s\n", name.c_str(), why.c_str());
      status = 1;
      return activity().executionTimeIs(0);
    }
    feed->takeOver();
    feed->whenSettled([&] {
      em->tree().tables().settle();
      auto* mine = em->find<Dir>(kStatuses)->entry.create<GenericAgent::Service>(name);
      mine->pid.set(static_cast<uint32_t>(::getpid()));
    });
  });
  activity().run(std::numeric_limits<double>::infinity());
  return status;
}

}  // namespace ryx::hub
