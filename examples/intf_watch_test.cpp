// The agent of the demonstration, on a simulated switch.
#include "examples/intf_watch.h"

#include <gtest/gtest.h>
#include <ryx/testing.h>

namespace {

using ryx::testing::agent_sdk;
using ryx::testing::simulated_switch;

class IntfWatch : public testing::Test {
 protected:
  IntfWatch() {
    EXPECT_EQ(0, pipe(commands_));
    sw_.command(
        "interface-add Ethernet1 eth1\n"
        "interface-add Ethernet2 eth2\n"
        "oper-status Ethernet1 1\n");
  }
  ~IntfWatch() override {
    close(commands_[0]);
    close(commands_[1]);
  }

  // What the agent said since the last time.
  std::string said() {
    sw_.run();
    std::string text = out_.str();
    out_.str("");
    return text;
  }
  std::string order(const std::string& line) {
    EXPECT_EQ(static_cast<ssize_t>(line.size()), write(commands_[1], line.data(), line.size()));
    return said();
  }

  simulated_switch sw_;
  agent_sdk sdk_{sw_, "watch"};
  std::ostringstream out_;
  int commands_[2];
};

TEST_F(IntfWatch, ListsThenTellsWhatHappens) {
  intf_watch agent(sdk_, out_, commands_[0]);
  sdk_.start();
  const std::string start = said();
  EXPECT_EQ(0u, start.find("ready\n"
                           "  Ethernet1: INTF_OPER_UP, enabled, ''\n"
                           "  Ethernet2: INTF_OPER_DOWN, enabled, ''\n"))
      << start;
  sw_.command("oper-status Ethernet1 2");
  EXPECT_EQ("Ethernet1 is INTF_OPER_DOWN\n", said());
  sw_.command("interface-add Ethernet3 eth3");
  EXPECT_EQ("Ethernet3 was added (eth3)\nEthernet3 is INTF_OPER_DOWN\n", said());
  EXPECT_EQ("3", sw_.agent_status("watch", "interfaces"));
  EXPECT_EQ("0", sw_.agent_status("watch", "up"));
  sw_.command("oper-status Ethernet3 1\noper-status Ethernet2 1");
  said();
  EXPECT_EQ("2", sw_.agent_status("watch", "up"));
  sw_.command("interface-del Ethernet3");
  EXPECT_EQ("Ethernet3 was removed\n", said());
  EXPECT_EQ("2", sw_.agent_status("watch", "interfaces"));
  EXPECT_EQ("1", sw_.agent_status("watch", "up"));
}

TEST_F(IntfWatch, Obeys) {
  intf_watch agent(sdk_, out_, commands_[0]);
  sdk_.start();
  said();
  EXPECT_EQ("Ethernet1 is described as 'to the core'\n", order("describe Ethernet1 to the core\n"));
  EXPECT_NE(std::string::npos,
            sw_.show("interface/config/eth/phy/slice/1").find("\"description\":\"to the core\""));
  const std::string down = order("down Ethernet1\n");
  EXPECT_NE(std::string::npos, down.find("Ethernet1 is disabled\n")) << down;
  EXPECT_NE(std::string::npos, down.find("Ethernet1 is INTF_OPER_DOWN\n")) << "the switch obeys";
  // Pieces of lines, and what it cannot do.
  EXPECT_EQ("", order("show Ether"));
  EXPECT_EQ("  Ethernet2: INTF_OPER_DOWN, enabled, ''\n", order("net2\n"));
  EXPECT_EQ("Ethernet9 does not exist\n", order("up Ethernet9\n"));
  EXPECT_EQ(0u, order("jump Ethernet1\n").find("expected: up INTF"));
  EXPECT_NE("", order("up Ethernot1\n"));
}

TEST_F(IntfWatch, MayBeGivenItsInterfaces) {
  intf_watch agent(sdk_, out_, -1, {ryx::intf_id_t("Ethernet2")});
  sdk_.start();
  EXPECT_EQ(0u, said().find("ready\n  Ethernet2: INTF_OPER_DOWN, enabled, ''\n"));
  sw_.command("oper-status Ethernet1 2\noper-status Ethernet2 1");
  EXPECT_EQ("Ethernet2 is INTF_OPER_UP\n", said());
  EXPECT_EQ("1", sw_.agent_status("watch", "interfaces"));
}

}  // namespace
