// MPLS: which labels lead to VRFs, by each agent ("routing/mpls/vrfLabel/input/dynamic/AGENT").
#pragma once

#include "platform/qel/dir.h"
#include "platform/types/bounded_number.h"
#include "platform/types/vrf_name.h"

namespace ryx::platform::Mpls {

struct LabelBound {
  static constexpr uint32_t kMin = 0, kMax = 8'388'608;
  static constexpr const char* kOutOfRange =
      "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
};
using Label = BoundedNumber<LabelBound>;

struct VrfLabel : EntityType<VrfLabel> {
  static constexpr const char* kTypeName = "Mpls::VrfLabel";
  Key<Label> key;
  Attr<"vrfName", VrfName> vrfName;
};
struct VrfLabelConfigInput : JournalRootType<VrfLabelConfigInput> {
  static constexpr const char* kTypeName = "Mpls::VrfLabelConfigInput";
  Key<Name> key;
  Collection<"vrfLabel", VrfLabel> vrfLabel;
};

}  // namespace ryx::platform::Mpls
