// The agent of sockets_and_timers.h. It says where it listens in its status, and here.
//
//   STATEHUBLOCAL=linux ./sockets_and_timers
#include "examples/sockets_and_timers.h"

#include <iostream>

class talkative : public intf_server {
 public:
  explicit talkative(ryx::sdk& sdk) : intf_server(sdk), agent_(sdk.get_agent_mgr()) {}
  void on_initialized() override {
    intf_server::on_initialized();
    std::cout << "port " << agent_->status("port") << std::endl;
  }

 private:
  ryx::agent_mgr* agent_;
};

int main(int argc, char** argv) {
  ryx::sdk sdk;
  talkative agent(sdk);
  sdk.main_loop(argc, argv);
}
