#include "switch/base/bfd_requests.h"

#include <utility>
#include <vector>

#include "platform/model/interface.h"

namespace ryx::feeds {

using namespace platform;
using Bfd::AppPeer;
using Bfd::PeerKey;

namespace {

constexpr const char* kApplications = "bfd/config/app";

}  // namespace

BfdRequests::BfdRequests(Tree& tree, Changed changed)
    : JournalReactor("bfd requests"),
      tree_(tree),
      timers_(*tree.make<Bfd::ConfigIntf>("bfd/config/intf")),
      changed_(std::move(changed)) {
  follow(timers_.journal);
  follow(*tree.make<Dir>(kApplications)->childJournal(), true);
  follow(*tree.make<Dir>("interface/status")->childJournal(), true);
}

const Bfd::Timers& BfdRequests::timersOf(IntfId intf) const {
  const auto* own = timers_.intf.find(intf);
  return own ? own->timers() : timers_.global();
}

void BfdRequests::takeOver() {
  ByBfdPeer<bool> asked;
  for (CollectionIterator app(tree_.make<Dir>(kApplications)->entry); app; app.next())
    if (auto* config = app.get()->as<Bfd::AppConfig>())
      for (auto vrf = config->vrf.iterator(); vrf; vrf.next())
        for (auto peer = vrf->peer.iterator(); peer; peer.next()) asked[peer.key().peer] = true;
  auto& status = tree_.make<Bfd::StatusPeer>("bfd/status/peer")->peer;
  std::vector<PeerKey> left;
  for (auto it = status.iterator(); it; it.next())
    if (!asked.count(it.key())) left.push_back(it.key());
  for (const PeerKey& peer : left) status.erase(peer);
}

void BfdRequests::onEntity(Entity& entity, Change change) {
  if (const auto* intf = entity.as<platform::Interface::IntfStatus>())
    return tell([id = intf->key()](const PeerKey& peer) { return peer.intf == id; });
  if (const auto* timers = entity.as<Bfd::IntfTimers>())
    return tell([id = timers->key()](const PeerKey& peer) { return peer.intf == id; });
  const auto* asker = entity.as<AppPeer>();
  if (!asker || change == Change::changed) return;
  const PeerKey peer = asker->key().peer;
  if ((askers_[peer] += change == Change::created ? 1 : -1) == 0) askers_.erase(peer);
  changed_(peer);
}

void BfdRequests::onRootChanged(Entity& root) {
  if (&root == &timers_) tell([](const PeerKey&) { return true; });
}

template <class Which>
void BfdRequests::tell(Which&& which) {
  std::vector<PeerKey> peers;
  for (const auto& [peer, askers] : askers_)
    if (which(peer)) peers.push_back(peer);
  for (const PeerKey& peer : peers) changed_(peer);
}

}  // namespace ryx::feeds
