// The value types of MPLS.
#include "ryx/mpls.h"

#include <ostream>
#include <string>

#include "platform/qel/hash.h"

namespace ryx {

namespace {

constexpr uint32_t kNone = 0xffffffff;

}  // namespace

mpls_label_t::mpls_label_t() : label_(kNone) {}
mpls_label_t::mpls_label_t(uint32_t label) : label_(label) {}
uint32_t mpls_label_t::label() const {
  return label_;
}
bool mpls_label_t::operator!() const {
  return label_ == kNone;
}
bool mpls_label_t::operator==(const mpls_label_t& other) const {
  return label_ == other.label_;
}
bool mpls_label_t::operator!=(const mpls_label_t& other) const {
  return label_ != other.label_;
}
bool mpls_label_t::operator<(const mpls_label_t& other) const {
  return label_ < other.label_;
}
std::size_t mpls_label_t::hash() const {
  return platform::hashInRow(label_);
}
std::string mpls_label_t::to_string() const {
  return "mpls_label_t(label=" + (label_ == kNone ? "none" : std::to_string(label_)) + ")";
}
std::ostream& operator<<(std::ostream& out, const mpls_label_t& label) {
  return out << label.to_string();
}

std::ostream& operator<<(std::ostream& out, mpls_action_t action) {
  switch (action) {
    case MPLS_ACTION_NULL:
      return out << "MPLS_ACTION_NULL";
    case MPLS_ACTION_PUSH:
      return out << "MPLS_ACTION_PUSH";
    case MPLS_ACTION_POP:
      return out << "MPLS_ACTION_POP";
    case MPLS_ACTION_SWAP:
      return out << "MPLS_ACTION_SWAP";
    case MPLS_ACTION_FORWARD:
      return out << "MPLS_ACTION_FORWARD";
  }
  return out << static_cast<int>(action);
}

}  // namespace ryx
