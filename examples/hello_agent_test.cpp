// The smallest agent, and the smallest test of one.
#include "examples/hello_agent.h"

#include <gtest/gtest.h>
#include <ryx/testing.h>

#include <sstream>

namespace {

TEST(HelloAgent, GreetsAndTellsItsOptions) {
  ryx::testing::simulated_switch sw;
  sw.agent_enabled_is("hello", true);
  sw.agent_option_set("hello", "color", "blue");
  ryx::testing::agent_sdk sdk(sw, "hello");
  std::ostringstream out;
  hello_agent agent(sdk, out);
  sdk.start();
  EXPECT_EQ("ready, enabled\noption color = blue\ngreeting = hello\n", out.str());
  EXPECT_EQ("hello", sw.agent_status("hello", "greeting"));
  out.str("");
  sw.agent_option_set("hello", "color", "red");
  sw.run();
  EXPECT_EQ("option color = red\n", out.str());
}

}  // namespace
