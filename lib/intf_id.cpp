// The out-of-line members of the interface identifier: names by way of the name codec.
#include <ostream>
#include <string_view>

#include "lib/convert.h"
#include "ryx/inline/types/intf.h"
#include "ryx/panic.h"

namespace ryx {

namespace {

intf_id_t parseIntf(std::string_view name) {
  platform::IntfId intf;
  if (!platform::parse(name, &intf)) panic(no_such_interface_error(std::string(name)));
  return convert(intf);
}

}  // namespace

intf_id_t::intf_id_t(const char* name)
    : intf_id_t(parseIntf(name == nullptr ? std::string_view() : name)) {}

intf_id_t::intf_id_t(const std::string& name) : intf_id_t(parseIntf(name)) {}

intf_type_t intf_id_t::intf_type() const {
  switch (convert(*this).kind()) {
    case platform::IntfKind::ethernet:
      return INTF_TYPE_ETH;
    case platform::IntfKind::vlan:
      return INTF_TYPE_VLAN;
    case platform::IntfKind::management:
      return INTF_TYPE_MANAGEMENT;
    case platform::IntfKind::loopback:
      return INTF_TYPE_LOOPBACK;
    case platform::IntfKind::cpu:
      return INTF_TYPE_SYSTEM;
    case platform::IntfKind::portChannel:
      return INTF_TYPE_LAG;
    case platform::IntfKind::vxlan:
      return INTF_TYPE_VXLAN;
    default:
      break;
  }
  if (is_null0()) return INTF_TYPE_NULL0;
  return !*this ? INTF_TYPE_NULL : INTF_TYPE_OTHER;
}

bool intf_id_t::is_null0() const {
  static const intf_id_t kNull0("Null0");
  return *this == kNull0;
}

bool intf_id_t::is_subintf() const {
  return convert(*this).isSubintf();
}

std::size_t intf_id_t::hash() const {
  return convert(*this).hash();
}

std::string intf_id_t::to_string() const {
  return convert(*this).toString();
}

std::ostream& operator<<(std::ostream& out, intf_type_t type) {
  static constexpr const char* kNames[] = {
      "INTF_TYPE_NULL",       "INTF_TYPE_OTHER",    "INTF_TYPE_ETH", "INTF_TYPE_VLAN",
      "INTF_TYPE_MANAGEMENT", "INTF_TYPE_LOOPBACK", "INTF_TYPE_LAG", "INTF_TYPE_NULL0",
      "INTF_TYPE_SYSTEM",     "INTF_TYPE_VXLAN"};
  if (type >= INTF_TYPE_NULL && type <= INTF_TYPE_VXLAN) return out << kNames[type];
  return out << "intf_type_t(" << static_cast<int>(type) << ")";
}

std::ostream& operator<<(std::ostream& out, const intf_id_t& intf) {
  return out << intf.to_string();
}

}  // namespace ryx
