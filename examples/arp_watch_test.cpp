#include "examples/arp_watch.h"

#include <gtest/gtest.h>
#include <ryx/testing.h>

#include <sstream>
#include <string>
#include <utility>

namespace {

TEST(ArpWatch, TellsOfNeighboursAndPinsOne) {
  ryx::testing::simulated_switch sw;
  sw.command("interface-add Ethernet1");
  sw.command("neighbor-learn 10.0.0.1 Ethernet1 00:1c:73:00:00:01");
  ryx::testing::agent_sdk sdk(sw, "watch");
  std::ostringstream out;
  arp_watch agent(sdk, out);
  sdk.start();
  const auto told = [&](const std::string& line = "") {
    if (!line.empty()) sw.command(line);
    sw.run();
    return std::exchange(out, std::ostringstream()).str();
  };
  EXPECT_EQ("10.0.0.1 at Ethernet1 is 00:1c:73:00:00:01\n", told());
  EXPECT_EQ("fe80::7 at Ethernet1 is 00:1c:73:00:00:07\n",
            told("neighbor-learn fe80::7 Ethernet1 00:1c:73:00:00:07"));
  EXPECT_EQ("10.0.0.1 at Ethernet1 moved to 00:1c:73:00:00:02 from 00:1c:73:00:00:01\n",
            told("neighbor-learn 10.0.0.1 Ethernet1 00:1c:73:00:00:02"));
  EXPECT_EQ("2", sw.agent_status("watch", "neighbors"));
  EXPECT_EQ("1", sw.agent_status("watch", "moves"));
  // Whoever pretends to be the pinned one is not heard.
  sw.agent_option_set("watch", "pin", "10.0.0.1 Ethernet1 00:1c:73:00:00:01");
  EXPECT_EQ("10.0.0.1 at Ethernet1 moved to 00:1c:73:00:00:01 from 00:1c:73:00:00:02, configured\n",
            told());
  EXPECT_EQ("", told("neighbor-learn 10.0.0.1 Ethernet1 00:1c:73:00:00:66"));
  sw.agent_option_set("watch", "pin", "10.0.0.1 Ethernet1 nonsense");
  EXPECT_EQ(
      "the option pin is \"10.0.0.1 Ethernet1 nonsense\"; expected IP INTF MAC, as 10.0.0.1 "
      "Ethernet1 00:1c:73:00:00:01\n"
      "10.0.0.1 at Ethernet1 moved to 00:1c:73:00:00:66 from 00:1c:73:00:00:01\n",
      told());
  EXPECT_EQ("10.0.0.1 at Ethernet1 is gone\n", told("neighbor-age 10.0.0.1 Ethernet1"));
}

}  // namespace
