// Handlers of a plug-in that the agent loads while it runs.
#include "ports.h"

namespace {

class watcher : public ports::port_handler {
 public:
  using port_handler::port_handler;
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

class inert : public ports::port_handler {
 public:
  using port_handler::port_handler;
  void on_status(int, const std::string&) override {}
};

}  // namespace

extern "C" {
RYX_API ports::port_handler* make_watcher(ports::port_mgr* mgr) {
  return new watcher(mgr);
}
RYX_API ports::port_handler* make_inert(ports::port_mgr* mgr) {
  return new inert(mgr);
}
RYX_API int calls_of(ports::port_handler* handler) {
  return static_cast<watcher*>(handler)->calls;
}
}
