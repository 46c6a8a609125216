// MPLS labels that lead to VRFs: of a packet that arrives with such a label, the label is popped,
// and the VRF decides where it goes (RFC 4364).
#ifndef RYX_MPLS_VRF_LABEL_H
#define RYX_MPLS_VRF_LABEL_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/iter_base.h>
#include <ryx/mpls.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

/// A label, and the VRF that it leads to. A plain value.
class RYX_API mpls_vrf_label_t {
 public:
  /// No label, no VRF.
  mpls_vrf_label_t();
  explicit mpls_vrf_label_t(mpls_label_t label);
  mpls_vrf_label_t(mpls_label_t label, const std::string& vrf_name);

  mpls_label_t label() const;
  void label_is(mpls_label_t label);
  const std::string& vrf_name() const;
  void vrf_name_is(const std::string& vrf_name);

  bool operator==(const mpls_vrf_label_t& other) const;
  bool operator!=(const mpls_vrf_label_t& other) const;
  bool operator<(const mpls_vrf_label_t& other) const;
  std::size_t hash() const;
  std::string to_string() const;

 private:
  mpls_label_t label_;
  std::string vrf_name_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const mpls_vrf_label_t& binding);

class RYX_API mpls_vrf_label_iter_impl;
using mpls_vrf_label_iter_t = iter_base<mpls_vrf_label_t, mpls_vrf_label_iter_impl>;

/// Obtained from `sdk::get_mpls_vrf_label_mgr()`. For the loop's thread, or one that holds an
/// sdk_scoped_lock. An agent sees its own bindings alone. It has no handlers.
///
/// Every operation raises a legacy_exception, "SDK not initialized -- did you forget to wait for
/// your agent_handler to call on_initialized?", before the SDK is initialized, and a
/// no_scoped_lock_obtained_error in a thread that may not call. Whatever fails has changed nothing.
class RYX_API mpls_vrf_label_mgr {
 public:
  virtual ~mpls_vrf_label_mgr();

  /// What is set from now on is declared; resync_complete() removes the bindings of all labels that
  /// were not. Without resync_init() it raises an error: "Resync mode was not initialized; cannot
  /// complete resync".
  virtual void resync_init() = 0;
  virtual void resync_complete() = 0;

  virtual mpls_vrf_label_iter_t mpls_vrf_label_iter() const = 0;
  /// Adds a binding, in the place of what its label had. Raises a range_error, "VrfName::bytes >
  /// VrfName::maxLength not allowed", for a VRF's name of more than 100 bytes, and
  /// "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed" for a label above
  /// 8388608.
  virtual void mpls_vrf_label_set(const mpls_vrf_label_t& binding) = 0;
  /// One that is not there is no error.
  virtual void mpls_vrf_label_del(const mpls_label_t& label) = 0;
  /// `mpls_vrf_label_t()` when there is none.
  virtual mpls_vrf_label_t mpls_vrf_label(const mpls_label_t& label) const = 0;

 protected:
  mpls_vrf_label_mgr();
};

}  // namespace ryx

template <>
struct std::hash<ryx::mpls_vrf_label_t> {
  std::size_t operator()(const ryx::mpls_vrf_label_t& binding) const { return binding.hash(); }
};

#endif  // RYX_MPLS_VRF_LABEL_H
