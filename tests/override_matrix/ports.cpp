#include "ports.h"

namespace ports {

int default_calls = 0;

port_handler::port_handler(port_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
  mgr_->add_handler(this);
}
port_handler::~port_handler() = default;
void port_handler::on_status(int, const std::string&) {
  ++default_calls;
}
void port_handler::on_speed(int) {
  ++default_calls;
}
void port_handler::on_gone() {
  ++default_calls;
}

port_mgr::~port_mgr() = default;
void port_mgr::speed(int mbps) {
  dispatch(&port_handler::on_speed, mbps);
}
void port_mgr::gone() {
  dispatch(&port_handler::on_gone);
}

}  // namespace ports
