// The smallest agent: says when it is ready, prints its options and their changes, and publishes a
// status.
#ifndef RYX_EXAMPLES_HELLO_AGENT_H
#define RYX_EXAMPLES_HELLO_AGENT_H

#include <ryx/agent.h>
#include <ryx/sdk.h>

#include <ostream>
#include <string>

class hello_agent : public ryx::agent_handler {
 public:
  hello_agent(ryx::sdk& sdk, std::ostream& out)
      : agent_handler(sdk.get_agent_mgr()), agent_(sdk.get_agent_mgr()), out_(out) {}

  void on_initialized() override {
    out_ << "ready, " << (agent_->enabled() ? "enabled" : "not enabled") << std::endl;
    for (auto name = agent_->agent_option_iter(); name; ++name)
      on_agent_option(*name, agent_->agent_option(*name));
    agent_->status_set("greeting", "hello");
    out_ << "greeting = " << agent_->status("greeting") << std::endl;
  }

  void on_agent_option(const std::string& name, const std::string& value) override {
    out_ << "option " << name << " = " << value << std::endl;
  }

 private:
  ryx::agent_mgr* agent_;
  std::ostream& out_;
};

#endif  // RYX_EXAMPLES_HELLO_AGENT_H
