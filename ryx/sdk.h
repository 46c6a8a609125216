// The context of an agent: the one object that a program creates first. It has the agent's name,
// the connection to the switch's state, and every manager, created when it is first asked for.
//
//   int main(int argc, char** argv) {
//     ryx::sdk sdk;
//     my_agent agent(sdk);  // gets its managers, constructs its handlers
//     sdk.main_loop(argc, argv);
//   }
//
// A program that has a loop of its own uses get_event_loop() instead (event_loop.h); a host that
// has a connection of its own passes it to the constructor and calls initialize_context().
//
// The environment variable STATEHUBLOCAL, when set, selects a Statehub inside the process; its
// value names what feeds it: "linux", "sim" or "sim:FILE", empty or "1" for nothing. Otherwise the
// agent connects to a Statehub server: over the descriptor that the server handed over when it
// started the agent, at the Unix socket that STATEHUBSOCKNAME names, at the TCP port STATEHUBPORT
// of this machine, or at the Unix socket /run/ryx/NAME/statehub, where NAME is the value of SYSNAME
// ("ryx" when that is not set). An agent that reaches none says on standard error what to do and
// exits with status 1.
#ifndef RYX_SDK_H
#define RYX_SDK_H

#include <ryx/api.h>
#include <ryx/get_agent_process_name.h>

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>

namespace ryx {

class acl_mgr;
class agent_mgr;
class aresolve_mgr;
class bfd_session_mgr;
class class_map_mgr;
class decap_group_mgr;
class eth_intf_mgr;
class eth_lag_intf_mgr;
class eth_phy_intf_counter_mgr;
class eth_phy_intf_mgr;
class event_loop;
class fib_mgr;
class hardware_table_mgr;
class intf_counter_mgr;
class intf_mgr;
class intf_mgr_helper;
class ip_intf_mgr;
class ip_route_mgr;
class lldp_mgr;
class mac_table_mgr;
class macsec_mgr;
class mlag_mgr;
class mount_mgr;
class mpls_route_mgr;
class mpls_vrf_label_mgr;
class neighbor_table_mgr;
class nexthop_group_mgr;
class pathflow_mgr;
class policy_map_mgr;
class qapi_mgr;
class sdk_context;
class subintf_mgr;
class system_mgr;
class timeout_mgr;
class vrf_mgr;

/// How a manager uses tables in shared memory.
enum mgr_mode_type_t {
  MGR_MODE_READ_ONLY = 0,       ///< reads, and calls no handler
  MGR_MODE_READ_NOTIFYING = 1,  ///< reads, and calls handlers on every change
  MGR_MODE_WRITE = 2,           ///< writes
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, mgr_mode_type_t mode);

/// The context. A process may have several, each with a name of its own. An object is for the
/// loop's thread, or one that holds an sdk_scoped_lock. Managers live until the process exits, also
/// when the context is destroyed before.
///
/// Every manager must have been asked for before initialization is complete, which is when
/// `agent_handler::on_initialized` is called.
///
/// The first context installs handlers for SIGTERM and SIGINT, after which the loop returns and the
/// process exits with 128 and the signal's number. Every further context installs them anew.
class RYX_API sdk {
 public:
  /// Names the agent by get_agent_process_name().
  sdk();

  /// `name`: up to 32 letters, digits, dashes and underscores. The agent's configuration and status
  /// stand under the part after the last dash, all else that it owns under "RyxSdk-" and the whole
  /// name; a name that is empty or ends in a dash is refused when the agent starts. Raises an
  /// invalid_range_error for a longer name, a configuration_error for another character.
  ///
  /// `entity_manager`: the connection of a host that has one; it must live as long as the process.
  explicit sdk(std::string name, void* entity_manager = nullptr);

  sdk(const sdk&) = delete;
  sdk& operator=(const sdk&) = delete;
  virtual ~sdk();

  /// Mounts what the managers need over the host's connection; the host runs the loop. Raises a
  /// legacy_exception when the context was constructed without a connection.
  virtual void initialize_context();

  /// The agent's name.
  virtual std::string name() const;

  /// Connects to Statehub, mounts what the managers need, and runs the loop. The calling thread
  /// becomes the loop's. Returns after `agent_mgr::exit()`, once what the agent wrote is on its
  /// way; after SIGTERM or SIGINT the process exits with 128 and the signal's number instead.
  ///
  /// Of the arguments these are the SDK's, all others are the agent's:
  ///
  /// - --daemonize: the process goes on in the background, without a terminal, standard input and
  ///   output at /dev/null. Threads that were started before do not go along.
  /// - --sysname=NAME, --statehubsockname=PATH, --statehubport=PORT: as SYSNAME, STATEHUBSOCKNAME
  ///   and STATEHUBPORT, before which they count.
  /// - --pyserver: accepted; it does nothing yet.
  virtual void main_loop(int argc, char** argv);

  // init_X() creates the manager X unless it is there; get_X() gives it, and creates it first by
  // init_X() if it has to. Both raise an unsupported_error, "X is not supported", for a manager
  // that this version does not have. The mode of the FIB's manager counts when it is created.

  virtual void init_acl_mgr();
  virtual void init_agent_mgr();
  virtual void init_aresolve_mgr();
  virtual void init_bfd_session_mgr();
  virtual void init_class_map_mgr();
  virtual void init_decap_group_mgr();
  virtual void init_eth_intf_mgr();
  virtual void init_eth_lag_intf_mgr();
  virtual void init_eth_phy_intf_counter_mgr();
  virtual void init_eth_phy_intf_mgr();
  virtual void init_event_loop();
  virtual void init_fib_mgr(mgr_mode_type_t mode);
  virtual void init_hardware_table_mgr();
  virtual void init_intf_counter_mgr();
  virtual void init_intf_mgr();
  virtual void init_ip_intf_mgr();
  virtual void init_ip_route_mgr();
  virtual void init_lldp_mgr();
  virtual void init_mac_table_mgr();
  virtual void init_macsec_mgr();
  virtual void init_mlag_mgr();
  virtual void init_mount_mgr();
  virtual void init_mpls_route_mgr();
  virtual void init_mpls_vrf_label_mgr();
  virtual void init_neighbor_table_mgr();
  virtual void init_nexthop_group_mgr();
  virtual void init_pathflow_mgr();
  virtual void init_policy_map_mgr();
  virtual void init_qapi_mgr();
  virtual void init_subintf_mgr();
  virtual void init_system_mgr();
  virtual void init_timeout_mgr();
  virtual void init_vrf_mgr();

  virtual acl_mgr* get_acl_mgr();
  virtual agent_mgr* get_agent_mgr();
  virtual aresolve_mgr* get_aresolve_mgr();
  virtual bfd_session_mgr* get_bfd_session_mgr();
  virtual class_map_mgr* get_class_map_mgr();
  virtual decap_group_mgr* get_decap_group_mgr();
  virtual eth_intf_mgr* get_eth_intf_mgr();
  virtual eth_lag_intf_mgr* get_eth_lag_intf_mgr();
  virtual eth_phy_intf_counter_mgr* get_eth_phy_intf_counter_mgr();
  virtual eth_phy_intf_mgr* get_eth_phy_intf_mgr();
  virtual event_loop* get_event_loop();
  virtual fib_mgr* get_fib_mgr(mgr_mode_type_t mode);
  virtual hardware_table_mgr* get_hardware_table_mgr();
  virtual intf_counter_mgr* get_intf_counter_mgr();
  virtual intf_mgr* get_intf_mgr();
  virtual ip_intf_mgr* get_ip_intf_mgr();
  virtual ip_route_mgr* get_ip_route_mgr();
  virtual lldp_mgr* get_lldp_mgr();
  virtual mac_table_mgr* get_mac_table_mgr();
  virtual macsec_mgr* get_macsec_mgr();
  virtual mlag_mgr* get_mlag_mgr();
  virtual mount_mgr* get_mount_mgr();
  virtual mpls_route_mgr* get_mpls_route_mgr();
  virtual mpls_vrf_label_mgr* get_mpls_vrf_label_mgr();
  virtual neighbor_table_mgr* get_neighbor_table_mgr();
  virtual nexthop_group_mgr* get_nexthop_group_mgr();
  virtual pathflow_mgr* get_pathflow_mgr();
  virtual policy_map_mgr* get_policy_map_mgr();
  virtual qapi_mgr* get_qapi_mgr();
  virtual subintf_mgr* get_subintf_mgr();
  virtual system_mgr* get_system_mgr();
  virtual timeout_mgr* get_timeout_mgr();
  virtual vrf_mgr* get_vrf_mgr();

  /// What the interface managers share; they ask for it themselves.
  void init_intf_mgr_helper();

 protected:
  /// For a derived class whose objects end before the process does, in its destructor: a test, or a
  /// host that closes its connection. Destroys the managers, the last one created first. Their
  /// handlers are unbound from them. No loop runs meanwhile.
  void destroy_managers();

  // Null until init_X() sets it, or a derived class's own init_X() does.
  acl_mgr* acl_mgr_ = nullptr;
  agent_mgr* agent_mgr_ = nullptr;
  aresolve_mgr* aresolve_mgr_ = nullptr;
  bfd_session_mgr* bfd_session_mgr_ = nullptr;
  class_map_mgr* class_map_mgr_ = nullptr;
  decap_group_mgr* decap_group_mgr_ = nullptr;
  eth_intf_mgr* eth_intf_mgr_ = nullptr;
  eth_lag_intf_mgr* eth_lag_intf_mgr_ = nullptr;
  eth_phy_intf_counter_mgr* eth_phy_intf_counter_mgr_ = nullptr;
  eth_phy_intf_mgr* eth_phy_intf_mgr_ = nullptr;
  event_loop* event_loop_ = nullptr;
  fib_mgr* fib_mgr_ = nullptr;
  hardware_table_mgr* hardware_table_mgr_ = nullptr;
  intf_counter_mgr* intf_counter_mgr_ = nullptr;
  intf_mgr* intf_mgr_ = nullptr;
  intf_mgr_helper* intf_mgr_helper_ = nullptr;
  ip_intf_mgr* ip_intf_mgr_ = nullptr;
  ip_route_mgr* ip_route_mgr_ = nullptr;
  lldp_mgr* lldp_mgr_ = nullptr;
  mac_table_mgr* mac_table_mgr_ = nullptr;
  macsec_mgr* macsec_mgr_ = nullptr;
  mlag_mgr* mlag_mgr_ = nullptr;
  mount_mgr* mount_mgr_ = nullptr;
  mpls_route_mgr* mpls_route_mgr_ = nullptr;
  mpls_vrf_label_mgr* mpls_vrf_label_mgr_ = nullptr;
  neighbor_table_mgr* neighbor_table_mgr_ = nullptr;
  nexthop_group_mgr* nexthop_group_mgr_ = nullptr;
  pathflow_mgr* pathflow_mgr_ = nullptr;
  policy_map_mgr* policy_map_mgr_ = nullptr;
  qapi_mgr* qapi_mgr_ = nullptr;
  subintf_mgr* subintf_mgr_ = nullptr;
  system_mgr* system_mgr_ = nullptr;
  timeout_mgr* timeout_mgr_ = nullptr;
  vrf_mgr* vrf_mgr_ = nullptr;

 private:
  friend class sdk_context;

  template <class Impl, class Mgr, class... Args>
  __attribute__((visibility("hidden"))) void create(Mgr*& slot, Args... args);
  template <class Mgr, class... Args>
  __attribute__((visibility("hidden"))) Mgr* get(Mgr*& slot, void (sdk::*init)(Args...),
                                                 std::initializer_list<const char*> profiles,
                                                 Args... args);

  std::string name_;
  sdk_context* context_;
};

/// Asks the system for kernel buffers of `bytes` for the agent's connections to Statehub, in each
/// direction, for all contexts of the process. To be called from `on_initialized` or later, by a
/// process with CAP_NET_ADMIN. Raises a legacy_exception when there is no connection or the buffers
/// cannot be had.
RYX_API void internal_connection_buffer_size_is(uint32_t bytes);

}  // namespace ryx

#endif  // RYX_SDK_H
