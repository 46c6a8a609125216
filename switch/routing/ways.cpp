#include "switch/routing/ways.h"

#include <utility>

namespace ryx::routing {

using Mpls::Action;
using GroupType = Routing::NexthopGroup::Type;

namespace {

constexpr uint32_t kMaxLabel = (1u << 20) - 1;  // RFC 3032
constexpr uint32_t kImplicitNull = 3;           // RFC 3032: no label at all

// Adds a label, below those that are there. False: it is none.
bool addLabel(NextHop& way, uint32_t label) {
  if (label > kMaxLabel) return false;
  if (label == kImplicitNull) return true;
  way.labels.push_back(label);
  way.action = Action::push;
  return true;
}

bool addTunnel(NextHop& way, const Tunnel& tunnel) {
  if (way.tunnel.type != Tunnel::Type::none) return false;  // none in another
  way.tunnel = tunnel;
  return true;
}

// What a via of a route does to what its next hop does.
bool apply(const Routing::Via& via, NextHop& way) {
  if (via.mplsLabel != Routing::Via().mplsLabel && !addLabel(way, via.mplsLabel)) return false;
  return via.vni == 0 || addTunnel(way, {.type = Tunnel::Type::vxlan,
                                         .vni = via.vni,
                                         .destination = via.vtepAddr,
                                         .routerMac = via.routerMac});
}

bool apply(const GroupConfig& group, const GroupConfig::Entry& entry, NextHop& way) {
  const bool isGre = group.type == GroupType::gre || group.type == GroupType::mplsOverGre;
  if (isGre || group.type == GroupType::ipInIp) {
    const Tunnel tunnel = {.type = isGre ? Tunnel::Type::gre : Tunnel::Type::ipInIp,
                           .ttl = group.ttl,
                           .hasGreKey = group.hasGreKey,
                           .source = group.source,
                           .sourceIntf = group.sourceIntf,
                           .destination = entry.destination};
    if (!addTunnel(way, tunnel)) return false;
  }
  for (const Mpls::Label label : entry.mpls.labels)
    if (!addLabel(way, label.value())) return false;
  if (entry.mpls.action != Action::none) way.action = entry.mpls.action;
  return true;
}

bool apply(const Mpls::Via& via, NextHop& way) {
  const bool hasLabel = via.action == Action::push || via.action == Action::swap;
  if (hasLabel && !addLabel(way, via.outLabel)) return false;
  way.action = via.action;
  return true;
}

// What the via does to that way, if it is one then.
bool applyVia(const Fec& fec, size_t member, NextHop& way) {
  switch (fec.key->kind) {
    case FecKey::Kind::vias:
      return apply(fec.key->vias.begin()[member], way);
    case FecKey::Kind::labelVias:
      return apply(fec.key->labelVias.begin()[member], way);
    default:
      return apply(*fec.config, fec.config->entries[member], way);
  }
}

// Out of an interface, at which the via says who the neighbour is.
NextHop at(const Port& port, const Fec& fec, size_t member) {
  const bool isIp = fec.key->kind == FecKey::Kind::vias;
  return {.hop = isIp ? fec.key->vias.begin()[member].hop : fec.key->labelVias.begin()[member].hop,
          .intf = port.intf};
}

}  // namespace

std::vector<GroupMember> waysOf(const Fec& fec, NextHops& nextHops) {
  std::vector<GroupMember> ways;
  ways.reserve(fec.members.size());
  const auto add = [&](size_t member, NextHop way, uint32_t weight) {
    if (applyVia(fec, member, way)) ways.push_back(nextHops.take(way, weight));
  };
  for (size_t member = 0; member < fec.members.size(); ++member) {
    const Source& source = *fec.members[member].source;
    const Hop* hop = nullptr;
    const Fec* through = nullptr;
    switch (source.kind) {
      case Source::Kind::port:
        if (const auto& port = static_cast<const Port&>(source); port.isUp)
          add(member, at(port, fec, member), 1);
        continue;
      case Source::Kind::hop:
        hop = &static_cast<const Hop&>(source);
        through = hop->through;
        break;
      case Source::Kind::group:
        through = &static_cast<const Fec&>(source);
        break;
    }
    if (!through) continue;
    for (const GroupMember& way : through->resolved) {
      NextHop next = *way.nextHop;
      if (hop && next.hop.isNull()) next.hop = hop->addr;
      add(member, std::move(next), way.weight);
    }
  }
  return ways;
}

}  // namespace ryx::routing
