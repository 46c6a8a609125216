// Label routes: the agent's own, and the hardware's labels and classes.
#include "ryx/mpls_route.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/model/mpls.h"
#include "ryx/mpls_vrf_label.h"
#include "ryx/nexthop_group.h"
#include "ryx/panic.h"
#include "tests/support/routes.h"

namespace ryx::testing {
namespace {

class MplsRouteTest : public ForwardingTest {
 protected:
  static mpls_route_via_t swap(const mpls_route_key_t& key, const std::string& hop, uint32_t out) {
    mpls_route_via_t via(key);
    via.hop_is(addrOf(hop));
    via.action_is(MPLS_ACTION_SWAP);
    via.out_label_is(mpls_label_t(out));
    return via;
  }
};
RYX_OVER_BOTH(MplsRouteTest);

class Watch : public mpls_route_handler {
 public:
  explicit Watch(mpls_route_mgr* mgr) : mpls_route_handler(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  void on_mpls_route_set(mpls_label_t label, mpls_fec_id_t fec) override {
    lines_ += "route " + std::to_string(label.label()) + (!fec ? " no class\n" : "\n");
  }
  void on_mpls_route_del(mpls_label_t label) override {
    lines_ += "no route " + std::to_string(label.label()) + "\n";
  }
  void on_mpls_fec_set(mpls_fec_id_t) override { lines_ += "fec\n"; }
  void on_mpls_fec_del(mpls_fec_id_t) override { lines_ += "no fec\n"; }

 private:
  std::string lines_;
};

TEST_P(MplsRouteTest, WhatIsWrongIsToldInItsOrderAndChangesNothing) {
  TestSdk sdk(*this, "a");
  mpls_route_mgr* mgr = sdk.get_mpls_route_mgr();
  EXPECT_THROW(mgr->mpls_route_iter(), legacy_exception);
  sdk.start();
  const mpls_route_key_t key(mpls_label_t(16), 1), tooLarge(mpls_label_t(8'388'609), 1);
  const char* const kRange =
      "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
  EXPECT_EQ(kRange, errorOf<range_error>([&] { mgr->mpls_route_set(mpls_route_t(tooLarge)); }));
  mpls_route_via_t via(key);
  const auto says = [&](const std::string& part) {
    const std::string text = errorOf<invalid_argument_error>([&] { mgr->mpls_route_via_set(via); });
    EXPECT_NE(std::string::npos, text.find(part)) << text;
  };
  via.action_is(MPLS_ACTION_POP);
  via.intf_is("Ethernet1");
  via.out_label_is(mpls_label_t(8'388'609));
  says("Cannot set a via with action=POP and no hop or nexthop group set");
  via.nexthop_group_is("g");
  via.action_is(MPLS_ACTION_SWAP);
  says("Label action must be POP or FORWARD when nextho group is set");
  via.action_is(MPLS_ACTION_POP);
  says("Cannot set a via on a nonexistent MPLS route");
  EXPECT_EQ("Cannot call mpls_route_via_iter() for nonexistent route",
            errorOf<legacy_exception>([&] { mgr->mpls_route_via_iter(key); }));
  mgr->mpls_route_set(mpls_route_t(key));
  EXPECT_EQ(kRange, errorOf<range_error>([&] { mgr->mpls_route_via_set(via); }));
  via = mpls_route_via_t(key);
  via.hop_is(addrOf("10.1.0.9"));
  EXPECT_EQ("must use a mpls_action_t other than MPLS_ACTION_NULL",
            errorOf<legacy_exception>([&] { mgr->mpls_route_via_set(via); }));
  EXPECT_EQ("", allOf(mgr->mpls_route_via_iter(key)));
  EXPECT_THROW(mpls_fec_id_t(0), invalid_argument_error);
  EXPECT_EQ("mpls_fec_id_t(7)", mpls_fec_id_t(7).to_string());
  EXPECT_TRUE(!mpls_fec_id_t());
  mgr->mpls_route_del(tooLarge);
  EXPECT_FALSE(mgr->exists(tooLarge));
}

TEST_P(MplsRouteTest, RoutesAreReadBackAndResynced) {
  TestSdk sdk(*this, "a");
  mpls_route_mgr* mgr = sdk.get_mpls_route_mgr();
  sdk.start();
  const mpls_route_key_t one(mpls_label_t(16), 1), two(mpls_label_t(16), 2),
      three(mpls_label_t(17), 1);
  for (const auto& key : {one, two, three}) {
    mgr->mpls_route_set(mpls_route_t(key));
    mgr->mpls_route_via_set(swap(key, "10.1.0.9", 20));
    mgr->mpls_route_via_set(swap(key, "10.1.0.9", 21));
  }
  mpls_route_via_t pop(three);
  pop.action_is(MPLS_ACTION_POP);
  pop.nexthop_group_is("g");
  mgr->mpls_route_via_set(pop);
  mgr->mpls_route_set(mpls_route_t(three));  // keeps its vias
  EXPECT_TRUE(mgr->exists(pop));
  EXPECT_TRUE(mgr->exists(swap(two, "10.1.0.9", 21)));
  EXPECT_FALSE(mgr->exists(swap(two, "10.1.0.9", 22)));
  mgr->mpls_route_via_del(swap(three, "10.1.0.9", 20));
  EXPECT_EQ(
      "mpls_route_via_t(route_key=mpls_route_key_t(label=mpls_label_t(label=17), metric=1), "
      "action=MPLS_ACTION_POP, nexthop_group='g')\n"
      "mpls_route_via_t(route_key=mpls_route_key_t(label=mpls_label_t(label=17), metric=1), "
      "hop=10.1.0.9, out_label=mpls_label_t(label=21), action=MPLS_ACTION_SWAP)\n",
      allOf(mgr->mpls_route_via_iter(three)));

  mgr->resync_init();
  mgr->mpls_route_set(mpls_route_t(one));
  mgr->mpls_route_via_set(swap(one, "10.1.0.9", 21));
  mgr->mpls_route_set(mpls_route_t(two));
  mgr->mpls_route_del(two);
  mgr->resync_complete();
  settle();
  EXPECT_EQ(mpls_route_t(one).to_string() + "\n", allOf(mgr->mpls_route_iter()));
  EXPECT_EQ(swap(one, "10.1.0.9", 21).to_string() + "\n", allOf(mgr->mpls_route_via_iter(one)));
  const auto* input =
      find<platform::Mpls::RouteConfigInput>("routing/mpls/route/input/dynamic/RyxSdk-a");
  ASSERT_TRUE(input);
  EXPECT_EQ(1u, input->route.size());
}

TEST_P(MplsRouteTest, TheHardwaresLabelsAreTold) {
  address("Ethernet1", "10.1.0.1/24");
  address("Ethernet2", "10.2.0.1/24");
  TestSdk sdk(*this, "a");
  mpls_route_mgr* mgr = sdk.get_mpls_route_mgr();
  mpls_vrf_label_mgr* vrfs = sdk.get_mpls_vrf_label_mgr();
  nexthop_group_mgr* groups = sdk.get_nexthop_group_mgr();
  Watch every(mgr), one(mgr);
  every.watch_all_mpls_routes(true);
  one.watch_mpls_route(mpls_label_t(17), true);
  sdk.start();
  const mpls_route_key_t key(mpls_label_t(16), 5), better(mpls_label_t(16), 1);
  mgr->mpls_route_set(mpls_route_t(key));
  mgr->mpls_route_via_set(swap(key, "10.1.0.9", 20));
  settle();
  EXPECT_EQ("fec\nroute 16\n", every.told());
  EXPECT_EQ(5u, mgr->metric(mpls_label_t(16)));
  const std::string via =
      "hop=10.1.0.9, intf=Ethernet1, out_label=mpls_label_t(label=20), "
      "action=MPLS_ACTION_SWAP)\n";
  EXPECT_EQ("mpls_route_via_t(route_key=" + key.to_string() + ", " + via,
            allOf(mgr->mpls_route_via_status_iter(mpls_label_t(16))));
  EXPECT_EQ("mpls_route_via_t(route_key=" + mpls_route_key_t().to_string() + ", " + via,
            allOf(mgr->mpls_route_via_status_iter(mgr->fec_id(mpls_label_t(16)))));
  EXPECT_TRUE(!mgr->fec_id(mpls_label_t(99)));
  EXPECT_EQ("", allOf(mgr->mpls_route_via_status_iter(mpls_fec_id_t(4711))));

  mgr->mpls_route_set(mpls_route_t(better));
  mgr->mpls_route_via_set(swap(better, "10.2.0.9", 21));
  settle();
  EXPECT_EQ(1u, mgr->metric(mpls_label_t(16)));
  EXPECT_NE(std::string::npos, every.told().find("route 16\n"));
  does("oper-status Ethernet2 2");
  settle();
  EXPECT_EQ(5u, mgr->metric(mpls_label_t(16))) << "the better one leads nowhere";
  every.told();
  mgr->mpls_route_via_set(swap(key, "10.1.0.8", 20));
  settle();
  EXPECT_NE(std::string::npos, every.told().find("fec\n")) << "its class has more vias";

  // By a group; and a label that leads to a VRF is none of these.
  nexthop_group_t g("g", NEXTHOP_GROUP_IP);
  g.destination_ip_set(0, addrOf("10.1.0.7"));
  groups->nexthop_group_set(g);
  const mpls_route_key_t pops(mpls_label_t(17), 1);
  mgr->mpls_route_set(mpls_route_t(pops));
  mpls_route_via_t pop(pops);
  pop.action_is(MPLS_ACTION_POP);
  pop.nexthop_group_is("g");
  mgr->mpls_route_via_set(pop);
  vrfs->mpls_vrf_label_set({mpls_label_t(18), "default"});
  settle();
  EXPECT_EQ("route 17\n", one.told());
  EXPECT_NE(std::string::npos, allOf(mgr->mpls_route_via_status_iter(mpls_label_t(17)))
                                   .find("hop=10.1.0.7, intf=Ethernet1, action=MPLS_ACTION_POP"));
  EXPECT_EQ("mpls_label_t(label=16)\nmpls_label_t(label=17)\n",
            allOf(mgr->mpls_route_status_iter()));
  EXPECT_TRUE(find<platform::Mpls::Hardware::Status>("routing/hardware/mpls/status")
                  ->route.find(platform::Mpls::Label(18)));
  EXPECT_TRUE(!mgr->fec_id(mpls_label_t(18)));
  groups->nexthop_group_del("g");
  settle();
  EXPECT_EQ("no route 17\n", one.told());
}

}  // namespace
}  // namespace ryx::testing
