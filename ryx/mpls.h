// MPLS (RFC 3031): labels, and what is done with them.
#ifndef RYX_MPLS_H
#define RYX_MPLS_H

#include <ryx/api.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

/// A label of the label stack (RFC 3032), or none. A plain value. Labels of packets are 0 to
/// 1048575; the switch also takes numbers up to 8388608, and what is larger raises a range_error
/// where it is used: "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed".
class RYX_API mpls_label_t {
 public:
  /// No label.
  mpls_label_t();
  explicit mpls_label_t(uint32_t label);

  /// 0xffffffff when there is none.
  uint32_t label() const;
  /// True when there is none.
  bool operator!() const;

  bool operator==(const mpls_label_t& other) const;
  bool operator!=(const mpls_label_t& other) const;
  /// By the number; none comes last.
  bool operator<(const mpls_label_t& other) const;
  std::size_t hash() const;
  /// "mpls_label_t(label=100)"; "none" where the number would be without a label.
  std::string to_string() const;

 private:
  uint32_t label_;
};
RYX_API std::ostream& operator<<(std::ostream& out, const mpls_label_t& label);

/// What is done with a packet's label.
enum mpls_action_t : int {
  MPLS_ACTION_NULL = 0,
  MPLS_ACTION_PUSH = 1,
  MPLS_ACTION_POP = 2,
  MPLS_ACTION_SWAP = 3,
  MPLS_ACTION_FORWARD = 4,
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, mpls_action_t action);

}  // namespace ryx

template <>
struct std::hash<ryx::mpls_label_t> {
  std::size_t operator()(const ryx::mpls_label_t& label) const { return label.hash(); }
};

#endif  // RYX_MPLS_H
