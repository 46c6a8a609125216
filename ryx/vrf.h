// VRFs (RFC 4364): which there are, in which state, and sockets in them.
#ifndef RYX_VRF_H
#define RYX_VRF_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/iter_base.h>

#include <iosfwd>
#include <string>

namespace ryx {

enum vrf_state_t : int {
  VRF_NULL = 0,  ///< unknown, or not there
  VRF_INITIALIZING = 1,
  VRF_ACTIVE = 2,
  VRF_DELETING = 3,
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, vrf_state_t state);

class vrf_mgr;

/// Callbacks, all called on the loop's thread with the API's lock held.
class RYX_API vrf_handler : public base_handler<vrf_mgr, vrf_handler> {
 public:
  explicit vrf_handler(vrf_mgr* mgr);
  ~vrf_handler() override;

  /// Whether the handler wants the events of every VRF, or of the one of that name.
  void watch_all_vrfs(bool interest);
  void watch_vrf(const std::string& vrf, bool interest);

  /// The VRF came, or has another state; VRF_NULL: it went. The VRFs that there are when the SDK is
  /// initialized are reported too, soon after.
  virtual void on_vrf_state(std::string vrf, vrf_state_t state);
};

class RYX_API vrf_iter_impl;
/// The names of VRFs.
using vrf_iter_t = iter_base<std::string, vrf_iter_impl>;

/// Obtained from `sdk::get_vrf_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock. The VRF that is always there is named "default".
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Those that take a name raise a
/// range_error, "VrfName::bytes > VrfName::maxLength not allowed", for one of more than 100 bytes.
class RYX_API vrf_mgr : public base_mgr<vrf_handler, std::string> {
 public:
  ~vrf_mgr() override;

  /// The VRFs that the switch has.
  virtual vrf_iter_t vrf_iter() const = 0;
  virtual bool exists(const std::string& vrf) const = 0;
  /// VRF_NULL for one that is not there.
  virtual vrf_state_t state(const std::string& vrf) const = 0;

  /// The name of the network namespace that stands for the VRF on this machine, as in /run/netns
  /// (ip-netns(8)); empty for one that is not there, or has none. The one that the machine's own
  /// services run in stands for the VRF "default", and is called "default".
  virtual std::string vrf_namespace(const std::string& vrf) const = 0;

  /// A socket in the VRF, as by socket(2); for the VRF "default", that of the calling thread. -1
  /// with errno set when there is none: ENOENT for a VRF that is not there or has no namespace;
  /// EPERM where the process may not enter it (CAP_SYS_ADMIN); what socket(2) says. The calling
  /// thread stays in its network namespace.
  [[nodiscard]] virtual int socket_at(int domain, int type, int protocol,
                                      const std::string& vrf) const = 0;

 protected:
  vrf_mgr();
};

}  // namespace ryx

#endif  // RYX_VRF_H
