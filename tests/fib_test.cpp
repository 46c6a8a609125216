// The forwarding table as an agent reads and follows it, made by a simulated switch of what agents
// and operators configure.
#include "ryx/fib.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "platform/mirra/table.h"
#include "platform/model/tables.h"
#include "ryx/ip_route.h"
#include "ryx/panic.h"
#include "tests/support/random_runs.h"
#include "tests/support/routes.h"

namespace ryx::testing {
namespace {

class FibTest : public ForwardingTest {};
RYX_OVER_BOTH(FibTest);

// What a handler is told, as lines; and what the table is by that alone.
class Watch : public fib_handler {
 public:
  explicit Watch(fib_mgr* mgr) : fib_handler(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  std::map<fib_route_key_t, fib_route_t> routes;
  std::map<fib_fec_key_t, fib_fec_t> fecs;

  void on_route_set(const fib_route_t& route) override {
    lines_ += "route " + route.route_key().prefix().to_string() + "\n";
    routes[route.route_key()] = route;
  }
  void on_route_del(const fib_route_key_t& key) override {
    lines_ += "no route " + key.prefix().to_string() + "\n";
    routes.erase(key);
  }
  void on_fec_set(const fib_fec_t& fec) override { fecs[fec.fec_key()] = fec; }
  void on_fec_del(const fib_fec_key_t& key) override { EXPECT_EQ(1u, fecs.erase(key)); }

 private:
  std::string lines_;
};

// The vias of what the route leads to, with a blank before each.
std::string vias(const fib_mgr* fib, const std::string& net) {
  const fib_route_t route = fib->fib_route(fib_route_key_t(prefixOf(net)));
  std::string text;
  const fib_fec_t fec = fib->fib_fec(fib_fec_key_t(route.fec_id()));
  for (const fib_via_t& via : fec.vias()) text += " " + via.to_string();
  return text;
}

TEST_P(FibTest, ShowsWhatIsInstalled) {
  address("Ethernet1", "10.1.0.1/24");
  TestSdk sdk(*this, "a");
  fib_mgr* fib = sdk.get_fib_mgr(MGR_MODE_READ_NOTIFYING);
  ip_route_mgr* routes = sdk.get_ip_route_mgr();
  Watch watch(fib);
  EXPECT_THROW(fib->fib_route_iter(), legacy_exception);
  sdk.start();
  settle();
  EXPECT_EQ(MGR_MODE_READ_NOTIFYING, fib->mode_type());
  const fib_route_t own = fib->fib_route(fib_route_key_t(prefixOf("10.1.0.0/24")));
  EXPECT_EQ(
      "fib_route_t(route_key=fib_route_key_t(10.1.0.0/24), preference=0, metric=0, "
      "route_type=ROUTE_TYPE_CONNECTED, fec_id=" +
          std::to_string(own.fec_id()) + ")",
      own.to_string());
  EXPECT_EQ(ROUTE_TYPE_RECEIVE,
            fib->fib_route(fib_route_key_t(prefixOf("10.1.0.1/32"))).route_type());

  hop(routes, "20.0.0.0/8", "10.1.0.9");
  ip_route_via_t tunnel(keyOf("30.0.0.0/8", 7));
  tunnel.hop_is(addrOf("10.1.0.9"));
  tunnel.vtep_addr_is(addrOf("20.0.0.1"));
  tunnel.vni_is(77);
  tunnel.router_mac_is(eth_addr_t("00:1c:73:00:00:07"));
  routes->ip_route_set(ip_route_t(keyOf("30.0.0.0/8", 7)));
  routes->ip_route_via_set(tunnel);
  routes->ip_route_set(ip_route_t(keyOf("40.0.0.0/8")), IP_ROUTE_ACTION_DROP);
  ip_route_via_t v6(keyOf("2001:db8::/32"));
  v6.hop_is(addrOf("fe80::1"));
  v6.intf_is("Ethernet2");
  v6.mpls_label_is(mpls_label_t(100));
  routes->ip_route_set(ip_route_t(keyOf("2001:db8::/32")));
  routes->ip_route_via_set(v6);
  settle();
  EXPECT_EQ(" fib_via_t(hop=10.1.0.9, intf=Ethernet1)", vias(fib, "20.0.0.0/8"));
  EXPECT_EQ(
      " fib_via_t(hop=10.1.0.9, intf=Ethernet1, vtep_addr=20.0.0.1, vni=77, "
      "router_mac=00:1c:73:00:00:07)",
      vias(fib, "30.0.0.0/8"));
  EXPECT_EQ(7, fib->fib_route(fib_route_key_t(prefixOf("30.0.0.0/8"))).preference());
  EXPECT_EQ(" fib_via_t(intf=Null0)", vias(fib, "40.0.0.0/8"));
  EXPECT_EQ(" fib_via_t(hop=fe80::1, intf=Ethernet2, mpls_label=mpls_label_t(label=100))",
            vias(fib, "2001:db8::/32"));
  size_t count = 0;
  for (auto it = fib->fib_route_iter(); it; ++it, ++count)
    EXPECT_EQ(*it, watch.routes[it->route_key()]) << "told as it is read";
  EXPECT_EQ(6u, count);
  for (auto it = fib->fib_fec_iter(); it; ++it) EXPECT_EQ(*it, watch.fecs[it->fec_key()]);
  for (const auto& [key, route] : watch.routes)
    EXPECT_EQ(1u, watch.fecs.count(fib_fec_key_t(route.fec_id()))) << route;

  // Its interface is down: the route is not installed, nor what is resolved by way of it.
  watch.told();
  does("oper-status Ethernet1 2");
  settle();
  EXPECT_FALSE(fib->fib_route_exists(fib_route_key_t(prefixOf("20.0.0.0/8"))));
  EXPECT_FALSE(fib->fib_route_exists(fib_route_key_t(prefixOf("30.0.0.0/8"))));
  EXPECT_TRUE(fib->fib_route_exists(fib_route_key_t(prefixOf("40.0.0.0/8"))));
  EXPECT_EQ(3u, watch.routes.size());
  does("oper-status Ethernet1 1");
  settle();
  EXPECT_EQ(6u, watch.routes.size());
  EXPECT_EQ(" fib_via_t(hop=10.1.0.9, intf=Ethernet1)", vias(fib, "20.0.0.0/8"));
}

TEST_P(FibTest, ModesAndRefusals) {
  for (const mgr_mode_type_t mode : {MGR_MODE_READ_ONLY, MGR_MODE_WRITE}) {
    TestSdk sdk(*this, "a");
    fib_mgr* fib = sdk.get_fib_mgr(mode);
    ip_route_mgr* routes = sdk.get_ip_route_mgr();
    Watch watch(fib);
    sdk.start();
    intf(routes, "50.0.0.0/8", "Ethernet1");
    settle();
    EXPECT_TRUE(fib->fib_route_exists(fib_route_key_t(prefixOf("50.0.0.0/8"))));
    EXPECT_EQ("", watch.told()) << "no handler is called in this mode";
    const char* const kRefusal = "Write mode not supported !!!";
    EXPECT_EQ(kRefusal, errorOf<legacy_exception>([&] { fib->fib_route_set(fib_route_t()); }));
    EXPECT_EQ(kRefusal, errorOf<legacy_exception>([&] { fib->fib_route_del(fib_route_key_t()); }));
    EXPECT_EQ(kRefusal, errorOf<legacy_exception>([&] { fib->fib_fec_set(fib_fec_t()); }));
    EXPECT_EQ(kRefusal, errorOf<legacy_exception>([&] { fib->fib_fec_del(fib_fec_key_t()); }));
  }
  fib_fec_t fec(7);
  fec.via_set(1, fib_via_t(addrOf("10.0.0.1"), "Ethernet1", mpls_label_t()));
  fec.via_set(0, fib_via_t(addrOf("10.0.0.2"), "Ethernet1", mpls_label_t()));
  EXPECT_EQ(2u, fec.vias().size());
  EXPECT_EQ("ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed",
            errorOf<range_error>([&] { fec.via_set(65536, fib_via_t()); }));
  fec.via_del(0);
  EXPECT_EQ("fib_fec_t(fec_key=fib_fec_key_t(7), vias=[fib_via_t(hop=10.0.0.1, intf=Ethernet1)])",
            fec.to_string());
}

TEST_P(FibTest, VrfsAreRegisteredBeforeAndAfterTheStart) {
  for (const char* vrf : {"red", "blue"}) does(std::string("vrf-add ") + vrf);
  TestSdk sdk(*this, "a");
  fib_mgr* fib = sdk.get_fib_mgr(MGR_MODE_READ_NOTIFYING);
  ip_route_mgr* routes = sdk.get_ip_route_mgr();
  Watch watch(fib);
  EXPECT_TRUE(fib->register_vrf("red", true));
  EXPECT_FALSE(fib->register_vrf("red", true));
  EXPECT_FALSE(fib->register_vrf("default", true));
  EXPECT_THROW(fib->register_vrf(std::string(101, 'x'), true), range_error);
  sdk.start();
  intf(routes, "10.0.0.0/8", "Ethernet1");
  intf(routes, "11.0.0.0/8", "Ethernet1", "red");
  intf(routes, "12.0.0.0/8", "Ethernet1", "blue");
  settle();
  EXPECT_EQ(2u, watch.routes.size());
  EXPECT_FALSE(fib->fib_route_exists(fib_route_key_t(prefixOf("12.0.0.0/8"))));
  EXPECT_TRUE(fib->register_vrf("blue", true));
  settle();
  EXPECT_EQ(3u, watch.routes.size());
  watch.told();

  EXPECT_TRUE(fib->register_vrf("red", false));
  EXPECT_FALSE(fib->fib_route_exists(fib_route_key_t(prefixOf("11.0.0.0/8")))) << "at once";
  settle();
  EXPECT_EQ("no route 11.0.0.0/8\n", watch.told());
  EXPECT_FALSE(watch.fecs.empty()) << "those of the other VRFs";
  EXPECT_TRUE(fib->register_vrf("red", true));
  settle();
  EXPECT_EQ("route 11.0.0.0/8\n", watch.told());

  does("vrf-del red");  // and what is in it
  settle();
  EXPECT_EQ("no route 11.0.0.0/8\n", watch.told());
  does("vrf-add red");
  settle();
  intf(routes, "13.0.0.0/8", "Ethernet2", "red");
  settle();
  EXPECT_EQ("route 13.0.0.0/8\n", watch.told());
  size_t count = 0;
  for (auto it = fib->fib_route_iter(); it; ++it) ++count;
  EXPECT_EQ(3u, count);
}

TEST_P(FibTest, WhatIsToldIsWhatIsRead) {
  test::randomRuns(5, [this](std::mt19937& random) {
    TestSdk sdk(*this, "a");
    fib_mgr* fib = sdk.get_fib_mgr(MGR_MODE_READ_NOTIFYING);
    ip_route_mgr* routes = sdk.get_ip_route_mgr();
    sdk.start();
    Watch watch(fib);
    for (int step = 0; step < 200; ++step) {
      const std::string net = std::to_string(20 + random() % 40) + ".0.0.0/8";
      const std::string port = "Ethernet" + std::to_string(1 + random() % 2);
      switch (random() % 5) {
        case 0:
          routes->ip_route_del(keyOf(net));
          break;
        case 1:
          does("oper-status " + port + " " + std::to_string(1 + random() % 2));
          break;
        case 2:
          hop(routes, net, std::to_string(20 + random() % 40) + ".0.0.1");
          break;
        default:
          intf(routes, net, port);
      }
      if (random() % 4 != 0) continue;
      settle();
      std::map<fib_route_key_t, fib_route_t> read;
      for (auto it = fib->fib_route_iter(); it; ++it) {
        read[it->route_key()] = *it;
        ASSERT_TRUE(fib->fib_fec_exists(fib_fec_key_t(it->fec_id()))) << *it;
      }
      ASSERT_EQ(read, watch.routes);
      std::map<fib_fec_key_t, fib_fec_t> fecs;
      for (auto it = fib->fib_fec_iter(); it; ++it) fecs[it->fec_key()] = *it;
      ASSERT_EQ(fecs, watch.fecs);
    }
    routes->resync_init();
    routes->resync_complete();
    settle();
    EXPECT_TRUE(watch.routes.empty());
  });
}

}  // namespace
}  // namespace ryx::testing
