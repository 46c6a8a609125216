// A manager and its handlers as the library has them, but with default callbacks that count: what
// is not overridden must never be called. The matrix compiles it as a shared library of its own.
#pragma once

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>

#include <string>

namespace ports {

class RYX_API port_mgr;

class RYX_API port_handler : public ryx::base_handler<port_mgr, port_handler> {
 public:
  // Registers, while the object is nothing but a port_handler.
  explicit port_handler(port_mgr* mgr);
  ~port_handler() override;
  virtual void on_status(int port, const std::string& status);
  virtual void on_speed(int mbps);
  virtual void on_gone();
};

class RYX_API port_mgr : public ryx::base_mgr<port_handler> {
 public:
  ~port_mgr() override;
  void speed(int mbps);
  void gone();
};

RYX_API extern int default_calls;

// What the plug-in offers, by these names.
using make_handler = port_handler*(port_mgr* mgr);
using calls_of = int(port_handler* handler);

}  // namespace ports
