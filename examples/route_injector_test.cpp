#include "examples/route_injector.h"

#include <gtest/gtest.h>
#include <ryx/testing.h>

#include <set>
#include <sstream>
#include <string>

namespace {

// What an injector says that works off the table.
class injection {
 public:
  injection(ryx::testing::simulated_switch& sw, const std::string& table)
      : sw_(sw), file_(table), sdk_(sw, "injector"), agent_(sdk_, file_, out_, false) {
    sdk_.start();
    sw_.run_for(5);
  }
  std::string said() { return out_.str(); }

 private:
  ryx::testing::simulated_switch& sw_;
  std::istringstream file_;
  std::ostringstream out_;
  ryx::testing::agent_sdk sdk_;
  route_injector agent_;
};

std::string table(int from, int to, const std::string& way) {
  std::string text;
  for (int n = from; n < to; ++n)
    text += "10." + std::to_string(n / 250) + "." + std::to_string(n % 250) + ".0/24 " + way + "\n";
  return text;
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(RouteInjector, ProgramsAFileAndTellsWhatIsWrongWithIt) {
  ryx::testing::simulated_switch sw;
  sw.command("interface-add Ethernet1\noper-status Ethernet1 1");
  injection first(sw, table(0, 30000, "via 192.0.2.1 dev Ethernet1 tag 7") +
                          "# a comment\n"
                          "2001:db8::/32 dev Ethernet1\n"
                          "2001:db8::/32 via fe80::1 dev Ethernet1\n"
                          "11.0.0.0/8 drop preference 9\n"
                          "10.0.0.0/24 via 192.0.2.2 dev Ethernet1 tag 7\n"
                          "12.0.0.1/8 drop\n"
                          "12.0.0.0/8 by 10.0.0.1\n"
                          "12.0.0.0/8 via 10.0.0.300\n"
                          "12.0.0.0/8 via fe80::1\n"
                          "12.0.0.0/8 dev Ether1\n"
                          "12.0.0.0/8\n"
                          "12.0.0.0/8 drop tag\n"
                          "12.0.0.0/8 drop preference 256\n"
                          "12.0.0.0/8 group g dev Ethernet1\n");
  const std::string said = first.said();
  for (const char* line :
       {"line 30006: '12.0.0.1/8' is no prefix; expected one without host bits, as 10.0.0.0/8",
        "line 30007: 'by'; expected via, dev, group, drop, tag or preference",
        "line 30008: '10.0.0.300' is no address; expected one as 192.0.2.1",
        "line 30009: the next hop fe80::1 is of another family than 12.0.0.0/8",
        "line 30010: 'Ether1' is no interface; expected a name as Ethernet1",
        "line 30011: no way for 12.0.0.0/8; expected via, dev, group or drop",
        "line 30012: nothing behind 'tag'; expected its value",
        "line 30013: '256' is no preference; expected 0 to 255",
        "line 30014: a group and another way; expected one of them",
        "read 30004 lines with 30002 prefixes, 9 wrong ones", "committed: 30002 routes in ",
        "seen in the FIB: 30002 routes in "})
    EXPECT_TRUE(has(said, line)) << line << "\n" << said;
  EXPECT_EQ("30002", sw.agent_status("injector", "installed"));
  // Lines of one prefix need not follow each other.
  const std::string input = sw.show("/routing/vrf/input/default/RyxSdk-injector");
  const std::string first_route = input.substr(input.find("10.0.0.0/24"), 1000);
  EXPECT_TRUE(has(first_route, "192.0.2.1") && has(first_route, "192.0.2.2")) << first_route;
}

TEST(RouteInjector, AgainItDeletesWhatIsGoneFromTheFileAlone) {
  ryx::testing::simulated_switch sw;
  sw.command("interface-add Ethernet1\noper-status Ethernet1 1");
  const std::string input = "/routing/vrf/input/default/RyxSdk-injector";
  { injection first(sw, table(0, 30, "dev Ethernet1")); }
  {
    // Killed before it was through.
    std::istringstream file(table(10, 20, "dev Ethernet1"));
    std::ostringstream out;
    ryx::testing::agent_sdk sdk(sw, "injector");
    route_injector agent(sdk, file, out, false);
  }
  EXPECT_TRUE(has(sw.show(input), "10.0.29.0/24"));
  injection again(sw, table(10, 40, "dev Ethernet1") + "20.0.0.0/8 via 10.9.9.9\n");
  EXPECT_TRUE(has(again.said(), "seen in the FIB: 30 of 31 routes; 20.0.0.0/8 is not installed"))
      << again.said();
  EXPECT_FALSE(has(sw.show(input), "10.0.9.0/24"));
  EXPECT_TRUE(has(sw.show(input), "10.0.10.0/24"));
  EXPECT_TRUE(has(sw.show(input), "10.0.39.0/24"));
  // It follows what the switch does with them.
  sw.command("oper-status Ethernet1 2");
  sw.run();
  EXPECT_TRUE(has(again.said(), "not installed any more: 10.0.39.0/24"));
}

}  // namespace
