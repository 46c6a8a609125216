// Decapsulation groups: the agent's own, in an input of its own.
#include "ryx/decap_group.h"

#include <ostream>
#include <sstream>
#include <string>
#include <tuple>

#include "lib/context.h"
#include "lib/convert.h"
#include "lib/own_input_mgr.h"
#include "platform/model/decap.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

class decap_group_iter_impl : public chained_iter_impl<decap_group_t> {};
template class iter_base<decap_group_t, decap_group_iter_impl>;

namespace {

using platform::Name;
using platform::Tunnel::Decap::ConfigInput;
using platform::Tunnel::Decap::DecapGroup;
using platform::Tunnel::Decap::TunnelType;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkDecapGroup");
  return facility;
}

decap_group_t convert(const DecapGroup& group) {
  return {std::string(group.key().view()), ryx::convert(group.destinationAddr()),
          static_cast<decap_protocol_type_t>(group.tunnelType())};
}

// Raises the error for a group that there cannot be.
void check(const decap_group_t& group) {
  if (group.group_name().empty())
    panic(invalid_argument_error("group.group_name()", "Empty decap group name"));
  if (group.destination_addr().af() != AF_IPV4)
    panic(invalid_argument_error("group.destination_addr()",
                                 "only IPv4 destination addresses are supported"));
  if (group.protocol_type() == PROTOCOL_TYPE_NULL)
    panic(invalid_argument_error("group.protocol_type()",
                                 "must pass a tunnel protocol other than PROTOCOL_TYPE_NULL"));
  if (group.protocol_type() != PROTOCOL_TYPE_UDP) {
    std::ostringstream text;
    text << "Unsupported protocol type for decap group " << group.protocol_type();
    panic(unsupported_error(text.str()));
  }
}

}  // namespace

class DecapGroupMgrImpl final
    : public OwnInputMgr<decap_group_mgr, ConfigInput, &ConfigInput::decapGroup> {
 public:
  explicit DecapGroupMgrImpl(mount_mgr* mounts)
      : OwnInputMgr(mounts, "DecapGroupMgrImpl", "routing/tunneldecap/input/dynamic", trace()) {}

  decap_group_iter_t decap_group_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return iterator<decap_group_t, decap_group_iter_impl>(
        [](const DecapGroup& group) { return convert(group); });
  }
  void decap_group_set(const decap_group_t& group) override {
    RYX_TRACE_ENTRY(trace(), 7, " group=" << group);
    const ApiGuard guard(*this);
    check(group);
    const Name name(group.group_name());
    declare(name);
    DecapGroup* there = entries().create(name);
    there->destinationAddr.set(ryx::convert(group.destination_addr()));
    there->tunnelType.set(TunnelType::udp);
  }
  void decap_group_del(const std::string& group_name) override {
    RYX_TRACE_ENTRY(trace(), 7, " group_name=" << group_name);
    const ApiGuard guard(*this);
    withdraw(Name(group_name));
    entries().erase(Name(group_name));
  }
  decap_group_t decap_group(const std::string& group_name) const override {
    RYX_TRACE_ENTRY(trace(), 7, " group_name=" << group_name);
    const ApiGuard guard(*this);
    const DecapGroup* there = entries().find(Name(group_name));
    return there ? convert(*there) : decap_group_t();
  }
};

// --- the public classes -------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, decap_protocol_type_t type) {
  switch (type) {
    case PROTOCOL_TYPE_NULL:
      return out << "PROTOCOL_TYPE_NULL";
    case PROTOCOL_TYPE_UDP:
      return out << "PROTOCOL_TYPE_UDP";
  }
  return out << static_cast<int>(type);
}

decap_group_t::decap_group_t() = default;
decap_group_t::decap_group_t(const std::string& group_name) : group_name_(group_name) {}
decap_group_t::decap_group_t(const std::string& group_name, const ip_addr_t& destination_addr,
                             decap_protocol_type_t protocol_type)
    : group_name_(group_name), destination_addr_(destination_addr), protocol_type_(protocol_type) {}
const std::string& decap_group_t::group_name() const {
  return group_name_;
}
void decap_group_t::group_name_is(const std::string& group_name) {
  group_name_ = group_name;
}
const ip_addr_t& decap_group_t::destination_addr() const {
  return destination_addr_;
}
void decap_group_t::destination_addr_is(const ip_addr_t& destination_addr) {
  destination_addr_ = destination_addr;
}
decap_protocol_type_t decap_group_t::protocol_type() const {
  return protocol_type_;
}
void decap_group_t::protocol_type_is(decap_protocol_type_t protocol_type) {
  protocol_type_ = protocol_type;
}
bool decap_group_t::operator==(const decap_group_t& other) const {
  return group_name_ == other.group_name_ && destination_addr_ == other.destination_addr_ &&
         protocol_type_ == other.protocol_type_;
}
bool decap_group_t::operator!=(const decap_group_t& other) const {
  return !(*this == other);
}
bool decap_group_t::operator<(const decap_group_t& other) const {
  return std::tie(group_name_, destination_addr_, protocol_type_) <
         std::tie(other.group_name_, other.destination_addr_, other.protocol_type_);
}
std::size_t decap_group_t::hash() const {
  return platform::hashMix(platform::hashBytes(group_name_.data(), group_name_.size()),
                           destination_addr_.hash() + protocol_type_);
}
std::string decap_group_t::to_string() const {
  std::ostringstream text;
  text << "decap_group_t(group_name='" << group_name_
       << "', destination_addr=" << destination_addr_.to_string()
       << ", protocol_type=" << protocol_type_ << ")";
  return text.str();
}
std::ostream& operator<<(std::ostream& out, const decap_group_t& group) {
  return out << group.to_string();
}

decap_group_mgr::decap_group_mgr() = default;
decap_group_mgr::~decap_group_mgr() = default;

void sdk::init_decap_group_mgr() {
  if (decap_group_mgr_ == nullptr) create<DecapGroupMgrImpl>(decap_group_mgr_);
}
decap_group_mgr* sdk::get_decap_group_mgr() {
  return get(decap_group_mgr_, &sdk::init_decap_group_mgr, {"decap_group"});
}

}  // namespace ryx
