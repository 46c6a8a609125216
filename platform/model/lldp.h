// What a neighbour tells by the Link Layer Discovery Protocol (IEEE 802.1AB): one remote system for
// each of its MSAP identifiers, the pair of chassis and port identifier.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/qel/collection.h"
#include "platform/types/bounded_bytes.h"
#include "platform/types/bounded_number.h"
#include "platform/types/ip.h"

namespace ryx::platform::Lldp {

// The chassis ID subtypes of IEEE 802.1AB, table 8-2.
enum class ChassisIdEncoding : uint8_t {
  reserved = 0,
  component = 1,
  intfAlias = 2,
  portComponent = 3,
  macAddr = 4,
  netAddr = 5,
  intfName = 6,
  local = 7,
  null = 8,  // not set
};
constexpr bool isValid(ChassisIdEncoding e) {
  return e <= ChassisIdEncoding::null;
}

// The port ID subtypes of IEEE 802.1AB, table 8-3.
enum class PortIdEncoding : uint8_t {
  reserved = 0,
  intfAlias = 1,
  component = 2,
  macAddr = 3,
  netAddr = 4,
  intfName = 5,
  circuit = 6,
  local = 7,
  null = 8,  // not set
};
constexpr bool isValid(PortIdEncoding e) {
  return e <= PortIdEncoding::null;
}

struct ChassisBytesBound {
  static constexpr size_t kMaxBytes = 255;
  static constexpr const char* kTooLong = "ChassisId::bytes > 255 not allowed";
};
struct PortBytesBound {
  static constexpr size_t kMaxBytes = 255;
  static constexpr const char* kTooLong = "PortId::bytes > 255 not allowed";
};

struct ChassisId {
  ChassisIdEncoding encoding = ChassisIdEncoding::null;
  BoundedBytes<ChassisBytesBound> value;
  static constexpr auto members() {
    return described(member("encoding", &ChassisId::encoding), member("value", &ChassisId::value));
  }
};
struct PortId {
  PortIdEncoding encoding = PortIdEncoding::null;
  BoundedBytes<PortBytesBound> value;
  static constexpr auto members() {
    return described(member("encoding", &PortId::encoding), member("value", &PortId::value));
  }
};

struct Msap {
  ChassisId chassis;
  PortId port;
  static constexpr auto members() {
    return described(member("chassis", &Msap::chassis), member("port", &Msap::port));
  }
};

struct OuiBound {
  static constexpr uint32_t kMin = 0, kMax = 0xffffff;
  static constexpr const char* kOutOfRange = "Oui::value > 0xffffff not allowed";
};
using Oui = BoundedNumber<OuiBound>;

struct SubtypeBound {
  static constexpr uint8_t kMin = 1, kMax = 255;
  static constexpr const char* kOutOfRange = "Key::subtype < 1 or > 255 not allowed";
};
using Subtype = BoundedNumber<SubtypeBound>;

// The kind of an organisationally specific TLV (IEEE 802.1AB 8.6).
struct TlvType {
  Oui oui;
  Subtype subtype;
  static constexpr auto members() {
    return described(member("oui", &TlvType::oui), member("subtype", &TlvType::subtype));
  }
};

// The information string of such a TLV: what is left of 511 octets.
struct TlvBytesBound {
  static constexpr size_t kMaxBytes = 507;
  static constexpr const char* kTooLong = "BoundedString507::bytes > 507 not allowed";
};
using TlvBytes = BoundedBytes<TlvBytesBound>;

// IEEE 802.1AB 8.5.9.
struct ManagementAddress {
  IpAddr address;
  uint8_t intfNumbering = 0;  // 1 unknown, 2 ifIndex, 3 system port number
  uint32_t intfNumber = 0;
  std::string oid;  // as it was encoded (ASN.1 BER)
  static constexpr auto members() {
    return described(member("address", &ManagementAddress::address),
                     member("intfNumbering", &ManagementAddress::intfNumbering),
                     member("intfNumber", &ManagementAddress::intfNumber),
                     member("oid", &ManagementAddress::oid));
  }
};

// IEEE 802.1AX, the link aggregation TLV.
struct LinkAggregationInfo {
  bool capable = false;
  bool enabled = false;
  uint32_t portId = 0;
  static constexpr auto members() {
    return described(member("capable", &LinkAggregationInfo::capable),
                     member("enabled", &LinkAggregationInfo::enabled),
                     member("portId", &LinkAggregationInfo::portId));
  }
};

// IEEE 802.3, 79.3.1.
struct MacPhyConfigStatusInfo {
  bool autonegCapable = false;
  bool autonegEnabled = false;
  uint16_t autonegAdvertised = 0;
  uint16_t mauType = 0;
  static constexpr auto members() {
    return described(member("autonegCapable", &MacPhyConfigStatusInfo::autonegCapable),
                     member("autonegEnabled", &MacPhyConfigStatusInfo::autonegEnabled),
                     member("autonegAdvertised", &MacPhyConfigStatusInfo::autonegAdvertised),
                     member("mauType", &MacPhyConfigStatusInfo::mauType));
  }
};

// The bits of IEEE 802.1AB 8.5.8.
struct SystemCapabilities {
  bool present = false;  // the neighbour tells them
  uint16_t capable = 0;
  uint16_t enabled = 0;
  static constexpr auto members() {
    return described(member("present", &SystemCapabilities::present),
                     member("capable", &SystemCapabilities::capable),
                     member("enabled", &SystemCapabilities::enabled));
  }
};

// One neighbour. What it does not tell, or tells no more, has its default.
struct RemoteSystem : EntityType<RemoteSystem> {
  static constexpr const char* kTypeName = "Lldp::RemoteSystem";
  Key<Msap> key;
  Attr<"sysName", std::string> sysName;
  Attr<"sysDesc", std::string> sysDesc;
  Attr<"portDesc", std::string> portDesc;
  Attr<"portVlanId", uint16_t> portVlanId;
  Attr<"managementVid", uint16_t> managementVid;
  Attr<"maxFrameSize", uint16_t> maxFrameSize;
  Attr<"linkAggregationInfo", LinkAggregationInfo> linkAggregationInfo;
  Attr<"macPhyConfigStatusInfo", MacPhyConfigStatusInfo> macPhyConfigStatusInfo;
  Attr<"sysCapabilities", SystemCapabilities> sysCapabilities;
  Attr<"managementAddress", std::vector<ManagementAddress>> managementAddress;  // as received
  // When something in it last changed, in seconds of the switch's monotonic clock; a refresh of
  // the same is no change.
  Attr<"lastChangeTime", double> lastChangeTime;
  Table<"unknownOrgDefTlv", TlvType, TlvBytes> unknownOrgDefTlv;
};

}  // namespace ryx::platform::Lldp
