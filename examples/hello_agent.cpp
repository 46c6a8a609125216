// The smallest agent: says when it is ready, prints its options and their changes, publishes a
// status, and ends on SIGTERM or SIGINT.
//
//   STATEHUBLOCAL=1 ./hello_agent
#include <ryx/agent.h>
#include <ryx/sdk.h>

#include <iostream>

class hello_agent : public ryx::agent_handler {
 public:
  explicit hello_agent(ryx::sdk& sdk)
      : agent_handler(sdk.get_agent_mgr()), agent_(sdk.get_agent_mgr()) {}

  void on_initialized() override {
    std::cout << "ready, " << (agent_->enabled() ? "enabled" : "not enabled") << std::endl;
    for (auto name = agent_->agent_option_iter(); name; ++name)
      on_agent_option(*name, agent_->agent_option(*name));
    agent_->status_set("greeting", "hello");
    std::cout << "greeting = " << agent_->status("greeting") << std::endl;
  }

  void on_agent_option(const std::string& name, const std::string& value) override {
    std::cout << "option " << name << " = " << value << std::endl;
  }

 private:
  ryx::agent_mgr* agent_;
};

int main(int argc, char** argv) {
  ryx::sdk sdk;
  hello_agent agent(sdk);
  sdk.main_loop(argc, argv);
}
