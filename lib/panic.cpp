// The error classes and the one way out of a failed API call. The classes' key functions are here,
// so their type information exists once, in the library, and a catch clause in an agent or a
// plug-in sees the type that the library threw.
#include "ryx/panic.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ostream>

#include "platform/base/check.h"
#include "platform/base/range.h"
#include "platform/trace/trace.h"
#include "platform/types/intf.h"

namespace ryx {

namespace {

using platform::TraceFacility;

TraceFacility& trace() {
  static TraceFacility& facility = TraceFacility::named("RyxSdkPanic");
  return facility;
}

constinit std::atomic<exception_handler_t> exceptionHandler{throw_exception};

// The identifier of a name, or the empty one: building an intf_id_t from a bad name raises the very
// error that is under construction here.
intf_id_t intfOrNone(const std::string& name) {
  platform::IntfId id;
  if (!platform::parse(name, &id)) return intf_id_t();
  return intf_id_t(name);
}

std::string rangeDetails(uint32_t minValid, uint32_t maxValid) {
  return "value is outside its valid range. min_valid = " + std::to_string(minValid) +
         ", max_valid = " + std::to_string(maxValid);
}

}  // namespace

error::error(const std::string& msg) : msg_(msg) {}
error::~error() noexcept = default;
const char* error::what() const noexcept {
  return msg_.c_str();
}

invalid_argument_error::invalid_argument_error(const std::string& argument_name)
    : error("Invalid argument '" + argument_name + "'"), argument_name_(argument_name) {}
invalid_argument_error::invalid_argument_error(const std::string& argument_name,
                                               const std::string& error_details)
    : error("Invalid argument '" + argument_name + "': " + error_details),
      argument_name_(argument_name) {}
void invalid_argument_error::raise() const {
  throw *this;
}

invalid_range_error::invalid_range_error(const std::string& argument_name, uint32_t min_valid,
                                         uint32_t max_valid)
    : invalid_argument_error(argument_name, rangeDetails(min_valid, max_valid)),
      min_valid_(min_valid),
      max_valid_(max_valid) {}
void invalid_range_error::raise() const {
  throw *this;
}

configuration_error::configuration_error(const std::string& msg) : error(msg) {}
void configuration_error::raise() const {
  throw *this;
}

unconfigured_agent_error::unconfigured_agent_error(const std::string& agent_name)
    : configuration_error("The agent " + agent_name +
                          " has not been configured. Ensure that the agent has been configured to "
                          "run from the CLI and that the executable uses the same agent name."),
      agent_name_(agent_name) {}
void unconfigured_agent_error::raise() const {
  throw *this;
}

address_overlap_error::address_overlap_error(const ip_addr_mask_t& addr)
    : configuration_error("Address " + addr.to_string() +
                          " overlaps with an already configured address"),
      addr_(addr) {}
void address_overlap_error::raise() const {
  throw *this;
}

// The missing space before "is" is part of the text that programs match.
internal_vlan_error::internal_vlan_error(vlan_id_t vlan)
    : configuration_error("VLAN " + std::to_string(vlan) +
                          "is an internal VLAN and cannot be used on a trunk port"),
      vlan_(vlan) {}
void internal_vlan_error::raise() const {
  throw *this;
}

invalid_vlan_error::invalid_vlan_error(vlan_id_t vlan)
    : error("0 and 4095 are reserved VLAN IDs"), vlan_(vlan) {}
void invalid_vlan_error::raise() const {
  throw *this;
}

no_such_interface_error::no_such_interface_error(intf_id_t intf)
    : error("No such interface: " + intf.to_string()), intf_(intf) {}
no_such_interface_error::no_such_interface_error(const std::string& intf_name)
    : error("Bad interface name: " + intf_name), intf_(intfOrNone(intf_name)) {}
no_such_interface_error::no_such_interface_error(const char* intf_name)
    : no_such_interface_error(std::string(intf_name == nullptr ? "" : intf_name)) {}
void no_such_interface_error::raise() const {
  throw *this;
}

not_switchport_eligible_error::not_switchport_eligible_error(intf_id_t intf)
    : error("Interface cannot be used as a switchport: " + intf.to_string()), intf_(intf) {}
void not_switchport_eligible_error::raise() const {
  throw *this;
}

no_scoped_lock_obtained_error::no_scoped_lock_obtained_error()
    : error("ryx::sdk_scoped_lock not grabbed when calling an api while multithreaded") {}
void no_scoped_lock_obtained_error::raise() const {
  throw *this;
}

unsupported_error::unsupported_error(const std::string& msg) : error(msg) {}
void unsupported_error::raise() const {
  throw *this;
}

std::ostream& operator<<(std::ostream& out, policy_feature_t feature) {
  switch (feature) {
    case POLICY_FEATURE_NULL:
      return out << "POLICY_FEATURE_NULL";
    case POLICY_FEATURE_PBR:
      return out << "POLICY_FEATURE_PBR";
    case POLICY_FEATURE_QOS:
      return out << "POLICY_FEATURE_QOS";
  }
  return out << "policy_feature_t(" << static_cast<int>(feature) << ")";
}

unsupported_policy_feature_error::unsupported_policy_feature_error(policy_feature_t feature)
    : unsupported_error("Unsupported policy feature"), feature_(feature) {}
void unsupported_policy_feature_error::raise() const {
  throw *this;
}

range_error::range_error(const std::string& msg) : error(msg) {}
void range_error::raise() const {
  throw *this;
}

legacy_exception::legacy_exception(const std::string& msg) : error(msg) {}
void legacy_exception::raise() const {
  throw *this;
}

void throw_exception(const error& e) {
  e.raise();
}

void exception_handler_is(exception_handler_t handler) {
  platform::check(handler != nullptr, "exception handler must not be null");
  exceptionHandler.store(handler, std::memory_order_release);
}

void panic(const error& e) {
  RYX_TRACE(trace(), 0, "Calling exception_handler: " << e.what());
  exceptionHandler.load(std::memory_order_acquire)(e);
  std::fprintf(stderr, "%s\n", e.what());
  std::abort();
}

void vpanic(const char* format, va_list args) {
  char text[1024];
  if (std::vsnprintf(text, sizeof text, format, args) < 0)
    std::snprintf(text, sizeof text, "%s", format);
  panic(legacy_exception(text));
}

void panic(const char* format, ...) {
  va_list args;
  va_start(args, format);
  // Leaves by an exception or not at all, so va_end is never reached; it does nothing on our ABIs.
  vpanic(format, args);
}

void platform::throwRangeError(const char* text) {
  throw range_error(text);
}

}  // namespace ryx
