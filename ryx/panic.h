// Errors: every misuse of the API is reported as an object of a class below, passed to panic(). By
// default panic() throws the object as its own type, so a program catches the class it cares about;
// exception_handler_is() installs another way to deal with it. An error is never a return value.
//
// Any thread may raise an error. The handler is one for the process; install it before other
// threads call the API.
#ifndef RYX_PANIC_H
#define RYX_PANIC_H

#include <ryx/api.h>
#include <ryx/eth.h>
#include <ryx/inline/types/intf.h>
#include <ryx/ip.h>

#include <cstdarg>
#include <cstdint>
#include <exception>
#include <iosfwd>
#include <string>

namespace ryx {

/// The base of every error: a message, and the ability to throw itself as what it is.
///
/// A program may derive classes of its own and pass them to panic(); raise() must then throw a copy
/// of the object (`throw *this;`).
class RYX_API error : public std::exception {
 public:
  explicit error(const std::string& msg);
  error(const error&) = default;
  error& operator=(const error&) = default;
  ~error() noexcept override;

  /// The full message.
  const char* what() const noexcept override;

  /// Throws a copy of this object as its most-derived type.
  virtual void raise() const = 0;

 private:
  std::string msg_;
};

/// An argument has a value that the operation cannot take.
class RYX_API invalid_argument_error : public error {
 public:
  explicit invalid_argument_error(const std::string& argument_name);
  invalid_argument_error(const std::string& argument_name, const std::string& error_details);

  const std::string& argument_name() const { return argument_name_; }

  void raise() const override;

 private:
  std::string argument_name_;
};

/// A number, or the length of a text, lies outside its range. Both bounds are valid values.
class RYX_API invalid_range_error : public invalid_argument_error {
 public:
  invalid_range_error(const std::string& argument_name, uint32_t min_valid, uint32_t max_valid);

  uint32_t min_valid() const { return min_valid_; }
  uint32_t max_valid() const { return max_valid_; }

  void raise() const override;

 private:
  uint32_t min_valid_;
  uint32_t max_valid_;
};

/// What is asked for contradicts the configuration of the switch or of the agent.
class RYX_API configuration_error : public error {
 public:
  explicit configuration_error(const std::string& msg);

  void raise() const override;
};

/// The switch has no configuration for an agent of this name.
class RYX_API unconfigured_agent_error : public configuration_error {
 public:
  explicit unconfigured_agent_error(const std::string& agent_name);

  const std::string& agent_name() const { return agent_name_; }

  void raise() const override;

 private:
  std::string agent_name_;
};

/// An address overlaps one that is configured already.
class RYX_API address_overlap_error : public configuration_error {
 public:
  /// The address must have a family; without one it has no text, which is an error of its own.
  explicit address_overlap_error(const ip_addr_mask_t& addr);

  const ip_addr_mask_t& addr() const { return addr_; }

  void raise() const override;

 private:
  ip_addr_mask_t addr_;
};

/// The switch uses this VLAN internally, so no trunk port can carry it.
class RYX_API internal_vlan_error : public configuration_error {
 public:
  explicit internal_vlan_error(vlan_id_t vlan);

  vlan_id_t vlan() const { return vlan_; }

  void raise() const override;

 private:
  vlan_id_t vlan_;
};

/// A VLAN identifier that IEEE 802.1Q (table 9-2) reserves: 0 and 4095.
class RYX_API invalid_vlan_error : public error {
 public:
  explicit invalid_vlan_error(vlan_id_t vlan);

  vlan_id_t vlan() const { return vlan_; }

  void raise() const override;

 private:
  vlan_id_t vlan_;
};

/// The interface does not exist, or a text is no interface name.
class RYX_API no_such_interface_error : public error {
 public:
  explicit no_such_interface_error(intf_id_t intf);
  explicit no_such_interface_error(const std::string& intf_name);
  explicit no_such_interface_error(const char* intf_name);

  /// The interface. The empty identifier where the name that was given is no interface name.
  intf_id_t intf() const { return intf_; }

  void raise() const override;

 private:
  intf_id_t intf_;
};

/// The interface is of a kind, or in a state, that cannot be a switchport.
class RYX_API not_switchport_eligible_error : public error {
 public:
  explicit not_switchport_eligible_error(intf_id_t intf);

  intf_id_t intf() const { return intf_; }

  void raise() const override;

 private:
  intf_id_t intf_;
};

/// A thread other than the loop's called the API without holding an sdk_scoped_lock.
class RYX_API no_scoped_lock_obtained_error : public error {
 public:
  no_scoped_lock_obtained_error();

  void raise() const override;
};

/// This switch, or this build, cannot do what is asked for.
class RYX_API unsupported_error : public error {
 public:
  explicit unsupported_error(const std::string& msg);

  void raise() const override;
};

/// What a policy is applied for.
enum policy_feature_t {
  POLICY_FEATURE_NULL = 0,
  POLICY_FEATURE_PBR = 1,  ///< policy-based routing
  POLICY_FEATURE_QOS = 2,  ///< quality of service
};

/// Prints the enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, policy_feature_t feature);

/// The policy feature is not supported by this switch.
class RYX_API unsupported_policy_feature_error : public unsupported_error {
 public:
  explicit unsupported_policy_feature_error(policy_feature_t feature);

  policy_feature_t policy_feature() const { return feature_; }

  void raise() const override;

 private:
  policy_feature_t feature_;
};

/// A value lies outside the range of the switch's own type for it, for example "VlanId::value < 1
/// or > 4094 not allowed". It is thrown as it is, and does not pass through panic().
class RYX_API range_error : public error {
 public:
  explicit range_error(const std::string& msg);

  void raise() const override;
};

/// What `panic(format, ...)` raises; nothing else does.
class RYX_API legacy_exception : public error {
 public:
  explicit legacy_exception(const std::string& msg);

  void raise() const override;
};

/// A handler of errors. It leaves by an exception, or ends the process; when it returns, the
/// process aborts with the message on standard error.
typedef void (*exception_handler_t)(const error& e);

/// Hands the error to the installed handler. Never returns.
[[noreturn]] RYX_API void panic(const error& e);

/// Raises a legacy_exception with the formatted text, cut to 1023 bytes. Never returns.
[[noreturn]] RYX_API void panic(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] RYX_API void vpanic(const char* format, va_list args)
    __attribute__((format(printf, 1, 0)));

/// Installs the handler of the process. A null handler aborts the process.
RYX_API void exception_handler_is(exception_handler_t handler);

/// Throws the error as its own type: the handler that is installed until another one is.
RYX_API void throw_exception(const error& e);

}  // namespace ryx

#endif  // RYX_PANIC_H
