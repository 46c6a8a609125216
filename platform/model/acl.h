// Access lists as the agents and the operator write them: "acl/config/input/NAME" is one writer's
// configuration, with the lists of each type by name and in each list its rules by sequence number.
//
// Masks here say which bits have to match, as hardware takes them: none is the default.
#pragma once

#include <cstdint>
#include <string>

#include "platform/qel/collection.h"
#include "platform/types/bounded_number.h"
#include "platform/types/eth.h"
#include "platform/types/ip.h"

namespace ryx::platform::Acl {

enum class AclType : uint8_t { ipv4 = 0, ipv6 = 1, mac = 2 };
constexpr bool isValid(AclType t) {
  return t <= AclType::mac;
}

enum class Action : uint8_t { permit = 0, deny = 1 };
constexpr bool isValid(Action a) {
  return a <= Action::deny;
}

enum class RangeOperator : uint8_t { any = 0, eq = 1, gt = 2, lt = 3, neq = 4, between = 5 };
constexpr bool isValid(RangeOperator o) {
  return o <= RangeOperator::between;
}

// The nine flag bits of a TCP header, from NS (RFC 3540) to FIN (RFC 9293).
struct TcpFlagBound {
  static constexpr uint16_t kMin = 0, kMax = 0x1ff;
  static constexpr const char* kOutOfRange = "TcpFlag::value > 0x1ff not allowed";
};
using TcpFlag = BoundedNumber<TcpFlagBound>;

// A differentiated services code point (RFC 2474).
struct DscpBound {
  static constexpr uint8_t kMin = 0, kMax = 63;
  static constexpr const char* kOutOfRange = "IpFilter::dscp < 0 or > 63 not allowed";
};
using Dscp = BoundedNumber<DscpBound>;

struct TtlSpec {
  RangeOperator oper = RangeOperator::any;
  uint8_t ttl = 0;
  static constexpr auto members() {
    return described(member("oper", &TtlSpec::oper), member("ttl", &TtlSpec::ttl));
  }
};

// The ports in decimal, in their order, with a blank between two; none with the operator any.
struct PortSpec {
  RangeOperator oper = RangeOperator::any;
  std::string ports;
  static constexpr auto members() {
    return described(member("oper", &PortSpec::oper), member("ports", &PortSpec::ports));
  }
};

struct VlanMatch {
  uint16_t vlan = 0;
  uint16_t mask = 0;
  static constexpr auto members() {
    return described(member("vlan", &VlanMatch::vlan), member("mask", &VlanMatch::mask));
  }
};

// IPv4: address and netmask; IPv6: address and the number of its leading bits that have to match.
// The default matches every address.
struct AddrMatch {
  IpAddr addr;
  uint32_t netmask = 0;
  uint8_t length = 0;
  static constexpr auto members() {
    return described(member("addr", &AddrMatch::addr), member("netmask", &AddrMatch::netmask),
                     member("length", &AddrMatch::length));
  }
};

struct MacMatch {
  MacAddr addr;
  MacAddr mask;
  static constexpr auto members() {
    return described(member("addr", &MacMatch::addr), member("mask", &MacMatch::mask));
  }
};

// A rule of an IPv4 or IPv6 list.
struct IpRule {
  static constexpr uint16_t kAnyIcmp = 0xffff;

  Action action = Action::permit;
  bool log = false;
  bool established = false;  // TCP segments with ACK or RST alone
  VlanMatch vlan;
  VlanMatch innerVlan;
  uint8_t ipProtocol = 0;  // 0: every protocol
  TtlSpec ttl;
  AddrMatch source;
  AddrMatch destination;
  PortSpec sourcePort;
  PortSpec destinationPort;
  std::string remark;
  TcpFlag tcpFlags;
  uint16_t tcpFlagsMask = 0;
  uint16_t icmpType = kAnyIcmp;
  uint16_t icmpCode = kAnyIcmp;
  Dscp dscp;
  uint8_t matchDscp = 0;       // not 0: dscp has to match
  uint8_t matchFragments = 0;  // not 0: fragments but the first alone

  static constexpr auto members() {
    return described(
        member("action", &IpRule::action), member("log", &IpRule::log),
        member("established", &IpRule::established), member("vlan", &IpRule::vlan),
        member("innerVlan", &IpRule::innerVlan), member("ipProtocol", &IpRule::ipProtocol),
        member("ttl", &IpRule::ttl), member("source", &IpRule::source),
        member("destination", &IpRule::destination), member("sourcePort", &IpRule::sourcePort),
        member("destinationPort", &IpRule::destinationPort), member("remark", &IpRule::remark),
        member("tcpFlags", &IpRule::tcpFlags), member("tcpFlagsMask", &IpRule::tcpFlagsMask),
        member("icmpType", &IpRule::icmpType), member("icmpCode", &IpRule::icmpCode),
        member("dscp", &IpRule::dscp), member("matchDscp", &IpRule::matchDscp),
        member("matchFragments", &IpRule::matchFragments));
  }
};

// A rule of an Ethernet list.
struct MacRule {
  Action action = Action::permit;
  bool log = false;
  VlanMatch vlan;
  VlanMatch innerVlan;
  MacMatch source;
  MacMatch destination;

  static constexpr auto members() {
    return described(member("action", &MacRule::action), member("log", &MacRule::log),
                     member("vlan", &MacRule::vlan), member("innerVlan", &MacRule::innerVlan),
                     member("source", &MacRule::source),
                     member("destination", &MacRule::destination));
  }
};

namespace Input {

// One list. Rules apply in the order of their sequence numbers, which a collection does not keep.
struct List : EntityType<List> {
  static constexpr const char* kTypeName = "Acl::Input::List";
  Key<std::string> key;
  Attr<"dynamic", bool> dynamic;  // an agent's, not part of what the operator saves
  Attr<"countersEnabled", bool> countersEnabled;
  Attr<"fragmentsEnabled", bool> fragmentsEnabled;
  Table<"ipRule", uint32_t, IpRule> ipRule;
  Table<"macRule", uint32_t, MacRule> macRule;
};

struct TypeConfig : EntityType<TypeConfig> {
  static constexpr const char* kTypeName = "Acl::Input::TypeConfig";
  Key<AclType> key;
  Collection<"acl", List> acl;
};

struct Config : JournalRootType<Config> {
  static constexpr const char* kTypeName = "Acl::Input::Config";
  Key<Name> key;
  Collection<"type", TypeConfig> type;
};

}  // namespace Input

}  // namespace ryx::platform::Acl
