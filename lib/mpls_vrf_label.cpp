// MPLS labels that lead to VRFs: the agent's own, in an input of its own.
#include "ryx/mpls_vrf_label.h"

#include <ostream>
#include <string>
#include <tuple>

#include "lib/context.h"
#include "lib/own_input_mgr.h"
#include "platform/model/mpls.h"
#include "platform/trace/trace.h"

namespace ryx {

class mpls_vrf_label_iter_impl : public chained_iter_impl<mpls_vrf_label_t> {};
template class iter_base<mpls_vrf_label_t, mpls_vrf_label_iter_impl>;

namespace {

using platform::VrfName;
using platform::Mpls::Label;
using platform::Mpls::VrfLabel;
using platform::Mpls::VrfLabelConfigInput;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkMplsVrfLabel");
  return facility;
}

mpls_vrf_label_t convert(const VrfLabel& binding) {
  return {mpls_label_t(binding.key().value()), binding.vrfName().bytes()};
}

// Whether there can be such a label.
bool isLabel(const mpls_label_t& label) {
  return label.label() <= Label::kMax;
}

}  // namespace

class MplsVrfLabelMgrImpl final
    : public OwnInputMgr<mpls_vrf_label_mgr, VrfLabelConfigInput, &VrfLabelConfigInput::vrfLabel> {
 public:
  explicit MplsVrfLabelMgrImpl(mount_mgr* mounts)
      : OwnInputMgr(mounts, "MplsVrfLabelMgrImpl", "routing/mpls/vrfLabel/input/dynamic", trace()) {
  }

  mpls_vrf_label_iter_t mpls_vrf_label_iter() const override {
    RYX_TRACE_ENTRY(trace(), 7, "");
    const ApiGuard guard(*this);
    return iterator<mpls_vrf_label_t, mpls_vrf_label_iter_impl>(
        [](const VrfLabel& binding) { return convert(binding); });
  }
  void mpls_vrf_label_set(const mpls_vrf_label_t& binding) override {
    RYX_TRACE_ENTRY(trace(), 7, " binding=" << binding);
    const ApiGuard guard(*this);
    const VrfName vrf(binding.vrf_name());
    const Label label(binding.label().label());
    declare(label);
    entries().create(label)->vrfName.set(vrf);
  }
  void mpls_vrf_label_del(const mpls_label_t& label) override {
    RYX_TRACE_ENTRY(trace(), 7, " label=" << label);
    const ApiGuard guard(*this);
    if (!isLabel(label)) return;
    withdraw(Label(label.label()));
    entries().erase(Label(label.label()));
  }
  mpls_vrf_label_t mpls_vrf_label(const mpls_label_t& label) const override {
    RYX_TRACE_ENTRY(trace(), 7, " label=" << label);
    const ApiGuard guard(*this);
    const VrfLabel* there = isLabel(label) ? entries().find(Label(label.label())) : nullptr;
    return there ? convert(*there) : mpls_vrf_label_t();
  }
};

// --- the public classes -------------------------------------------------------------------------

mpls_vrf_label_t::mpls_vrf_label_t() = default;
mpls_vrf_label_t::mpls_vrf_label_t(mpls_label_t label) : label_(label) {}
mpls_vrf_label_t::mpls_vrf_label_t(mpls_label_t label, const std::string& vrf_name)
    : label_(label), vrf_name_(vrf_name) {}
mpls_label_t mpls_vrf_label_t::label() const {
  return label_;
}
void mpls_vrf_label_t::label_is(mpls_label_t label) {
  label_ = label;
}
const std::string& mpls_vrf_label_t::vrf_name() const {
  return vrf_name_;
}
void mpls_vrf_label_t::vrf_name_is(const std::string& vrf_name) {
  vrf_name_ = vrf_name;
}
bool mpls_vrf_label_t::operator==(const mpls_vrf_label_t& other) const {
  return label_ == other.label_ && vrf_name_ == other.vrf_name_;
}
bool mpls_vrf_label_t::operator!=(const mpls_vrf_label_t& other) const {
  return !(*this == other);
}
bool mpls_vrf_label_t::operator<(const mpls_vrf_label_t& other) const {
  return std::tie(label_, vrf_name_) < std::tie(other.label_, other.vrf_name_);
}
std::size_t mpls_vrf_label_t::hash() const {
  return platform::hashMix(label_.hash(), platform::hashBytes(vrf_name_.data(), vrf_name_.size()));
}
std::string mpls_vrf_label_t::to_string() const {
  return "mpls_vrf_label_t(label=" + label_.to_string() + ", vrf_name='" + vrf_name_ + "')";
}
std::ostream& operator<<(std::ostream& out, const mpls_vrf_label_t& binding) {
  return out << binding.to_string();
}

mpls_vrf_label_mgr::mpls_vrf_label_mgr() = default;
mpls_vrf_label_mgr::~mpls_vrf_label_mgr() = default;

void sdk::init_mpls_vrf_label_mgr() {
  if (mpls_vrf_label_mgr_ == nullptr) create<MplsVrfLabelMgrImpl>(mpls_vrf_label_mgr_);
}
mpls_vrf_label_mgr* sdk::get_mpls_vrf_label_mgr() {
  return get(mpls_vrf_label_mgr_, &sdk::init_mpls_vrf_label_mgr, {"mpls_vrf_label"});
}

}  // namespace ryx
