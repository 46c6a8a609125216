#include "switch/hub/clients.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>
#include <vector>

#include "platform/base/clock.h"
#include "platform/model/statehub.h"
#include "switch/base/names.h"
#include "switch/hub/access.h"

namespace ryx::hub {

using namespace platform;

Clients::Clients(Hub& hub, std::function<void(const std::string&)> silent)
    : Timer("Clients"), hub_(hub), silent_(std::move(silent)) {
  hub_.onParticipantsIs([this] { armAt(std::min(wakeUp(), clock().now() + kSoonSeconds)); });
  look();
}

void Clients::look() {
  const double now = clock().now();
  // A server that was stopped itself has heard nobody meanwhile.
  if (now - std::exchange(lastLook_, now) > 2 * kLookSeconds) backAt_ = now;
  armAt(now + kLookSeconds);
  DirEntries& clients = hub_.tree().find<Dir>("statehub/client")->entry;
  std::set<std::string> there;
  for (const HubParticipant& p : hub_.participants()) {
    const std::string number = std::to_string(p.number);
    there.insert(number);
    auto* client = clients.create<Statehub::Client>(number);
    const double heard = std::max(p.heard, backAt_);
    const bool isSilent = p.heartbeat > 0 && now - heard > kSilentPeriods * p.heartbeat;
    client->role.set(nameOf(p.role));
    client->name.set(p.name);
    client->pid.set(static_cast<uint32_t>(std::max<int64_t>(p.peer.pid, 0)));
    if (client->user().empty()) client->user.set(userName(p.peer.uid));
    client->mount.set(p.mounts);
    client->bytesSent.set(p.bytesSent);
    client->bytesReceived.set(p.bytesReceived);
    client->unsent.set(p.unsent);
    client->secondsClogged.set(static_cast<uint32_t>(std::lround(p.clogged)));
    client->refusals.set(p.refusals);
    client->pastLimits.set(p.pastLimits);
    client->silent.set(isSilent);
    if (!isSilent) {
      told_.erase(p.number);
    } else if (told_.insert(p.number).second && p.role == Role::agent) {
      std::fprintf(stderr,
                   "ryxd: the agent %s (process %lld) is silent: nothing came from it for %.0f s\n",
                   p.name.c_str(), static_cast<long long>(p.peer.pid), now - p.heard);
      silent_(p.name);
    }
  }
  std::vector<Name> gone;
  for (CollectionIterator it(clients); it; it.next()) {
    const Name& number = static_cast<Statehub::Client*>(it.get())->key();
    if (!there.count(std::string(number.view()))) gone.push_back(number);
  }
  for (const Name& number : gone) clients.erase(number);
}

}  // namespace ryx::hub
