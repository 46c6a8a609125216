// The managers whose entries are written directly into the agent's own input: MPLS labels of VRFs,
// and decapsulation groups.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

#include "platform/model/decap.h"
#include "platform/model/mpls.h"
#include "ryx/decap_group.h"
#include "ryx/mpls_vrf_label.h"
#include "ryx/panic.h"
#include "tests/support/statehub_fixture.h"
#include "tests/support/texts.h"

namespace ryx::testing {
namespace {

class OwnInputTest : public StatehubTest {};
RYX_OVER_BOTH(OwnInputTest);

TEST_P(OwnInputTest, LabelsLeadToVrfs) {
  TestSdk sdk(*this, "a"), other(*this, "b");
  mpls_vrf_label_mgr* mgr = sdk.get_mpls_vrf_label_mgr();
  mpls_vrf_label_mgr* others = other.get_mpls_vrf_label_mgr();
  EXPECT_THROW(mgr->mpls_vrf_label_iter(), legacy_exception);
  sdk.start();
  other.start();
  const mpls_label_t ten(10), twenty(20), largest(8'388'608), tooLarge(8'388'609);
  mgr->mpls_vrf_label_set({ten, "red"});
  mgr->mpls_vrf_label_set({ten, "blue"});
  mgr->mpls_vrf_label_set({largest, std::string(100, 'x')});
  EXPECT_EQ("blue", mgr->mpls_vrf_label(ten).vrf_name());
  EXPECT_EQ(mpls_vrf_label_t(), mgr->mpls_vrf_label(twenty));
  EXPECT_EQ(mpls_vrf_label_t(), mgr->mpls_vrf_label(tooLarge));
  EXPECT_EQ("VrfName::bytes > VrfName::maxLength not allowed", errorOf<range_error>([&] {
              mgr->mpls_vrf_label_set({tooLarge, std::string(101, 'x')});
            }));
  for (const mpls_label_t& label : {tooLarge, mpls_label_t()})
    EXPECT_EQ("MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed",
              errorOf<range_error>([&] {
                mgr->mpls_vrf_label_set({label, "red"});
              }));
  mgr->mpls_vrf_label_del(largest);
  mgr->mpls_vrf_label_del(tooLarge);
  others->mpls_vrf_label_set({ten, "green"});
  settle();
  EXPECT_EQ("mpls_vrf_label_t(label=mpls_label_t(label=10), vrf_name='blue')\n",
            allOf(mgr->mpls_vrf_label_iter()));
  auto* input =
      find<platform::Mpls::VrfLabelConfigInput>("routing/mpls/vrfLabel/input/dynamic/RyxSdk-a");
  ASSERT_NE(nullptr, input);
  EXPECT_EQ("blue", input->vrfLabel.find(platform::Mpls::Label(10))->vrfName().bytes());

  EXPECT_EQ("Resync mode was not initialized; cannot complete resync",
            errorOf<legacy_exception>([&] { mgr->resync_complete(); }));
  mgr->mpls_vrf_label_set({twenty, "red"});
  mgr->mpls_vrf_label_set({mpls_label_t(30), "red"});
  mgr->resync_init();
  mgr->mpls_vrf_label_set({ten, "blue"});
  mgr->mpls_vrf_label_set({mpls_label_t(30), "red"});
  mgr->mpls_vrf_label_del(mpls_label_t(30));
  mgr->resync_complete();
  settle();
  EXPECT_EQ("mpls_vrf_label_t(label=mpls_label_t(label=10), vrf_name='blue')\n",
            allOf(mgr->mpls_vrf_label_iter()));
  EXPECT_EQ(1u, input->vrfLabel.size());
  EXPECT_EQ("mpls_vrf_label_t(label=mpls_label_t(label=10), vrf_name='green')\n",
            allOf(others->mpls_vrf_label_iter()));
}

TEST_P(OwnInputTest, DecapGroups) {
  TestSdk sdk(*this, "a");
  decap_group_mgr* mgr = sdk.get_decap_group_mgr();
  sdk.start();
  const uint8_t one[4] = {10, 0, 0, 1}, two[4] = {10, 0, 0, 2}, six[16] = {0x20, 1};
  const ip_addr_t first(AF_IPV4, one), second(AF_IPV4, two), ip6(AF_IPV6, six);
  mgr->decap_group_set({"g", first, PROTOCOL_TYPE_UDP});
  mgr->decap_group_set({"g", second, PROTOCOL_TYPE_UDP});
  mgr->decap_group_set({"h", first, PROTOCOL_TYPE_UDP});
  EXPECT_EQ(decap_group_t("g", second, PROTOCOL_TYPE_UDP), mgr->decap_group("g"));
  EXPECT_EQ(decap_group_t(), mgr->decap_group("none"));
  const auto foreign = static_cast<decap_protocol_type_t>(7);
  EXPECT_EQ("Invalid argument 'group.group_name()': Empty decap group name",
            errorOf<invalid_argument_error>([&] {
              mgr->decap_group_set({"", ip6, PROTOCOL_TYPE_NULL});
            }));
  EXPECT_EQ(
      "Invalid argument 'group.destination_addr()': only IPv4 destination addresses are supported",
      errorOf<invalid_argument_error>([&] {
        mgr->decap_group_set({"x", ip6, PROTOCOL_TYPE_NULL});
      }));
  EXPECT_EQ(
      "Invalid argument 'group.protocol_type()': must pass a tunnel protocol other than "
      "PROTOCOL_TYPE_NULL",
      errorOf<invalid_argument_error>([&] {
        mgr->decap_group_set({"x", first, PROTOCOL_TYPE_NULL});
      }));
  EXPECT_EQ("Unsupported protocol type for decap group 7", errorOf<unsupported_error>([&] {
              mgr->decap_group_set({"x", first, foreign});
            }));
  settle();
  const std::string g =
      "decap_group_t(group_name='g', destination_addr=10.0.0.2, protocol_type=PROTOCOL_TYPE_UDP)\n";
  EXPECT_EQ(g + "decap_group_t(group_name='h', destination_addr=10.0.0.1, "
                "protocol_type=PROTOCOL_TYPE_UDP)\n",
            allOf(mgr->decap_group_iter()));
  mgr->resync_init();
  mgr->decap_group_set({"g", second, PROTOCOL_TYPE_UDP});
  mgr->resync_complete();
  settle();
  EXPECT_EQ(g, allOf(mgr->decap_group_iter()));
  auto* input =
      find<platform::Tunnel::Decap::ConfigInput>("routing/tunneldecap/input/dynamic/RyxSdk-a");
  ASSERT_NE(nullptr, input);
  EXPECT_EQ(1u, input->decapGroup.size());
  mgr->decap_group_del("g");
  mgr->decap_group_del("g");
  settle();
  EXPECT_EQ(0u, input->decapGroup.size());
}

}  // namespace
}  // namespace ryx::testing
