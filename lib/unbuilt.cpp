// The managers that this version does not have: asking for one is an error that names it. Who adds
// a manager defines its two slots in the manager's own source, and takes its lines from here.
#include "lib/context.h"

namespace ryx {

namespace {

void unbuilt(const char* manager) {
  panic(unsupported_error(std::string(manager) + " is not supported"));
}

}  // namespace

void sdk::init_acl_mgr() {
  unbuilt("acl_mgr");
}
acl_mgr* sdk::get_acl_mgr() {
  return get(acl_mgr_, &sdk::init_acl_mgr, {});
}
void sdk::init_aresolve_mgr() {
  unbuilt("aresolve_mgr");
}
aresolve_mgr* sdk::get_aresolve_mgr() {
  return get(aresolve_mgr_, &sdk::init_aresolve_mgr, {});
}
void sdk::init_class_map_mgr() {
  unbuilt("class_map_mgr");
}
class_map_mgr* sdk::get_class_map_mgr() {
  return get(class_map_mgr_, &sdk::init_class_map_mgr, {});
}
void sdk::init_eth_phy_intf_counter_mgr() {
  unbuilt("eth_phy_intf_counter_mgr");
}
eth_phy_intf_counter_mgr* sdk::get_eth_phy_intf_counter_mgr() {
  return get(eth_phy_intf_counter_mgr_, &sdk::init_eth_phy_intf_counter_mgr, {});
}
void sdk::init_hardware_table_mgr() {
  unbuilt("hardware_table_mgr");
}
hardware_table_mgr* sdk::get_hardware_table_mgr() {
  return get(hardware_table_mgr_, &sdk::init_hardware_table_mgr, {});
}
void sdk::init_intf_counter_mgr() {
  unbuilt("intf_counter_mgr");
}
intf_counter_mgr* sdk::get_intf_counter_mgr() {
  return get(intf_counter_mgr_, &sdk::init_intf_counter_mgr, {});
}
void sdk::init_lldp_mgr() {
  unbuilt("lldp_mgr");
}
lldp_mgr* sdk::get_lldp_mgr() {
  return get(lldp_mgr_, &sdk::init_lldp_mgr, {});
}
void sdk::init_mac_table_mgr() {
  unbuilt("mac_table_mgr");
}
mac_table_mgr* sdk::get_mac_table_mgr() {
  return get(mac_table_mgr_, &sdk::init_mac_table_mgr, {});
}
void sdk::init_macsec_mgr() {
  unbuilt("macsec_mgr");
}
macsec_mgr* sdk::get_macsec_mgr() {
  return get(macsec_mgr_, &sdk::init_macsec_mgr, {});
}
void sdk::init_mlag_mgr() {
  unbuilt("mlag_mgr");
}
mlag_mgr* sdk::get_mlag_mgr() {
  return get(mlag_mgr_, &sdk::init_mlag_mgr, {});
}
void sdk::init_pathflow_mgr() {
  unbuilt("pathflow_mgr");
}
pathflow_mgr* sdk::get_pathflow_mgr() {
  return get(pathflow_mgr_, &sdk::init_pathflow_mgr, {});
}
void sdk::init_policy_map_mgr() {
  unbuilt("policy_map_mgr");
}
policy_map_mgr* sdk::get_policy_map_mgr() {
  return get(policy_map_mgr_, &sdk::init_policy_map_mgr, {});
}
void sdk::init_qapi_mgr() {
  unbuilt("qapi_mgr");
}
qapi_mgr* sdk::get_qapi_mgr() {
  return get(qapi_mgr_, &sdk::init_qapi_mgr, {});
}
void sdk::init_system_mgr() {
  unbuilt("system_mgr");
}
system_mgr* sdk::get_system_mgr() {
  return get(system_mgr_, &sdk::init_system_mgr, {});
}

}  // namespace ryx
