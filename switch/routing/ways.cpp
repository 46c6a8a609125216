#include "switch/routing/ways.h"

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

}  // namespace

void Ways::addVia(const Fec& fec, size_t member) {
  const Source& source = *fec.members[member].source;
  const FecKey& key = *fec.key;
  const auto addApplied = [&](NextHop way, uint32_t weight) {
    bool isWay;
    if (key.kind == FecKey::Kind::vias)
      isWay = apply(key.vias.begin()[member], way);
    else if (key.kind == FecKey::Kind::labelVias)
      isWay = apply(key.labelVias.begin()[member], way);
    else
      isWay = apply(*fec.config, fec.config->entries.at(fec.numbers[member]), way);
    if (isWay) add(std::move(way), weight);
  };
  if (source.kind == Source::Kind::port) {
    if (!static_cast<const Port&>(source).isUp) return;
    const bool isIp = key.kind == FecKey::Kind::vias;
    const IntfId intf = isIp ? key.vias.begin()[member].intf : key.labelVias.begin()[member].intf;
    const IpAddr hop = isIp ? key.vias.begin()[member].hop : key.labelVias.begin()[member].hop;
    return addApplied({.hop = hop, .intf = intf}, 1);
  }
  const bool isHop = source.kind == Source::Kind::hop;
  const auto* hop = isHop ? &static_cast<const Hop&>(source) : nullptr;
  const Fec* through = isHop ? hop->through : &static_cast<const Fec&>(source);
  if (!through) return;
  for (const GroupMember& way : through->resolved) {
    NextHop next = *way.nextHop;
    if (hop && next.hop.isNull()) next.hop = hop->addr;
    addApplied(std::move(next), way.weight);
  }
}

}  // namespace ryx::routing
