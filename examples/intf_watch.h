// An agent that lists the switch's interfaces, tells what happens to them, and obeys commands on a
// descriptor, one a line:
//
//   up INTF | down INTF          administrative state
//   describe INTF TEXT           description
//   show [INTF]                  the list again, or one of them
//
// It watches all interfaces, or those that it is given. What it counts it publishes: its status has
// the keys "interfaces", "up" and "changes". It tells its options, and leaves when it is disabled.
#ifndef RYX_EXAMPLES_INTF_WATCH_H
#define RYX_EXAMPLES_INTF_WATCH_H

#include <ryx/agent.h>
#include <ryx/fd.h>
#include <ryx/intf.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>
#include <unistd.h>

#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

class intf_watch : public ryx::agent_handler, public ryx::intf_handler, public ryx::fd_handler {
 public:
  /// Speaks to `out`, reads commands from `commands` (-1: none), and watches `intfs`, or all when
  /// there are none.
  intf_watch(ryx::sdk& sdk, std::ostream& out, int commands, std::set<ryx::intf_id_t> intfs = {})
      : agent_handler(sdk.get_agent_mgr()),
        intf_handler(sdk.get_intf_mgr()),
        agent_(sdk.get_agent_mgr()),
        mgr_(sdk.get_intf_mgr()),
        out_(out),
        commands_(commands),
        intfs_(std::move(intfs)) {
    if (intfs_.empty())
      watch_all_intfs(true);
    else
      for (const ryx::intf_id_t& intf : intfs_) watch_intf(intf, true);
  }

  void on_initialized() override {
    out_ << "ready" << std::endl;
    for (auto intf = mgr_->intf_iter(); intf; ++intf) {
      if (!watched(*intf)) continue;
      known_.insert(*intf);
      if (mgr_->oper_status(*intf) == ryx::INTF_OPER_UP) up_.insert(*intf);
      show(*intf);
    }
    for (auto name = agent_->agent_option_iter(); name; ++name)
      on_agent_option(*name, agent_->agent_option(*name));
    if (commands_ >= 0) watch_readable(commands_, true);
    publish();
  }

  void on_agent_option(const std::string& name, const std::string& value) override {
    out_ << "option " << name << " is '" << value << "'" << std::endl;
  }
  // There is nothing that it would have to clean up.
  void on_agent_enabled(bool enabled) override {
    if (enabled) return;
    out_ << "disabled: leaving" << std::endl;
    agent_->agent_shutdown_complete_is(true);
  }

  void on_intf_create(ryx::intf_id_t intf) override {
    known_.insert(intf);
    tell(intf) << "was added (" << mgr_->kernel_intf_name(intf) << ")" << std::endl;
  }
  void on_intf_delete(ryx::intf_id_t intf) override {
    known_.erase(intf);
    up_.erase(intf);
    tell(intf) << "was removed" << std::endl;
  }
  void on_oper_status(ryx::intf_id_t intf, ryx::oper_status_t status) override {
    if (status == ryx::INTF_OPER_UP)
      up_.insert(intf);
    else
      up_.erase(intf);
    tell(intf) << "is " << status << std::endl;
  }
  void on_admin_enabled(ryx::intf_id_t intf, bool enabled) override {
    tell(intf) << "is " << (enabled ? "enabled" : "disabled") << std::endl;
  }
  void on_intf_description(ryx::intf_id_t intf, const std::string& description) override {
    tell(intf) << "is described as '" << description << "'" << std::endl;
  }

  void on_readable(int fd) override {
    char bytes[4096];
    const ssize_t n = read(fd, bytes, sizeof bytes);
    if (n <= 0) {
      watch_readable(fd, false);
      return;
    }
    input_.append(bytes, static_cast<size_t>(n));
    for (size_t end; (end = input_.find('\n')) != std::string::npos; input_.erase(0, end + 1))
      obey(input_.substr(0, end));
  }

 private:
  bool watched(const ryx::intf_id_t& intf) const {
    return intfs_.empty() || intfs_.count(intf) != 0;
  }

  std::ostream& tell(const ryx::intf_id_t& intf) {
    ++changes_;
    publish();
    return out_ << intf << " ";
  }

  // For whoever looks at the agent from outside. What a change costs does not grow with the switch:
  // the agent counts as it hears.
  void publish() {
    agent_->status_set("interfaces", std::to_string(known_.size()));
    agent_->status_set("up", std::to_string(up_.size()));
    agent_->status_set("changes", std::to_string(changes_));
  }

  void show(const ryx::intf_id_t& intf) {
    out_ << "  " << intf << ": " << mgr_->oper_status(intf) << ", "
         << (mgr_->admin_enabled(intf) ? "enabled" : "disabled") << ", '" << mgr_->description(intf)
         << "'" << std::endl;
  }

  void obey(const std::string& line) {
    std::istringstream words(line);
    std::string command, name, text;
    words >> command >> name >> std::ws;
    std::getline(words, text);
    if (command.empty()) return;
    try {
      if (command == "show" && name.empty()) {
        for (const ryx::intf_id_t& intf : known_)
          if (mgr_->exists(intf)) show(intf);
        return;
      }
      if (name.empty() ||
          (command != "up" && command != "down" && command != "describe" && command != "show")) {
        out_ << "expected: up INTF, down INTF, describe INTF TEXT, or show [INTF]" << std::endl;
        return;
      }
      const ryx::intf_id_t intf(name);
      if (!mgr_->exists(intf))
        out_ << intf << " does not exist" << std::endl;
      else if (command == "describe")
        mgr_->description_is(intf, text);
      else if (command == "show")
        show(intf);
      else
        mgr_->admin_enabled_is(intf, command == "up");
    } catch (const ryx::error& e) {
      out_ << e.what() << std::endl;
    }
  }

  ryx::agent_mgr* agent_;
  ryx::intf_mgr* mgr_;
  std::ostream& out_;
  int commands_;
  const std::set<ryx::intf_id_t> intfs_;
  std::set<ryx::intf_id_t> known_, up_;  // that it watches
  std::string input_;
  int changes_ = 0;
};

#endif  // RYX_EXAMPLES_INTF_WATCH_H
