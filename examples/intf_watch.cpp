// Lists the switch's interfaces, tells what happens to them, and obeys commands on standard input:
//
//   up INTF | down INTF          administrative state
//   describe INTF TEXT           description
//   show                         the list again
//
//   STATEHUBLOCAL=linux ./intf_watch        the interfaces are those of this machine
//   STATEHUBLOCAL=sim:FILE ./intf_watch     those of a simulated switch
#include <ryx/agent.h>
#include <ryx/fd.h>
#include <ryx/intf.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <string>

class intf_watch : public ryx::agent_handler, public ryx::intf_handler, public ryx::fd_handler {
 public:
  explicit intf_watch(ryx::sdk& sdk)
      : agent_handler(sdk.get_agent_mgr()),
        intf_handler(sdk.get_intf_mgr()),
        intfs_(sdk.get_intf_mgr()) {
    watch_all_intfs(true);
  }

  void on_initialized() override {
    std::cout << "ready" << std::endl;
    show();
    watch_readable(STDIN_FILENO, true);
  }

  void on_intf_create(ryx::intf_id_t intf) override {
    std::cout << intf << " was added (" << intfs_->kernel_intf_name(intf) << ")" << std::endl;
  }
  void on_intf_delete(ryx::intf_id_t intf) override {
    std::cout << intf << " was removed" << std::endl;
  }
  void on_oper_status(ryx::intf_id_t intf, ryx::oper_status_t status) override {
    std::cout << intf << " is " << status << std::endl;
  }
  void on_admin_enabled(ryx::intf_id_t intf, bool enabled) override {
    std::cout << intf << " is " << (enabled ? "enabled" : "disabled") << std::endl;
  }
  void on_intf_description(ryx::intf_id_t intf, const std::string& description) override {
    std::cout << intf << " is described as '" << description << "'" << std::endl;
  }

  void on_readable(int fd) override {
    char bytes[4096];
    ssize_t n = read(fd, bytes, sizeof bytes);
    if (n <= 0) {
      watch_readable(fd, false);
      return;
    }
    input_.append(bytes, static_cast<size_t>(n));
    for (size_t end; (end = input_.find('\n')) != std::string::npos; input_.erase(0, end + 1))
      obey(input_.substr(0, end));
  }

 private:
  void show() {
    for (auto intf = intfs_->intf_iter(); intf; ++intf)
      std::cout << "  " << *intf << ": " << intfs_->oper_status(*intf) << ", "
                << (intfs_->admin_enabled(*intf) ? "enabled" : "disabled") << ", '"
                << intfs_->description(*intf) << "'" << std::endl;
  }

  void obey(const std::string& line) {
    std::istringstream words(line);
    std::string command, name, text;
    words >> command >> name >> std::ws;
    std::getline(words, text);
    try {
      if (command == "up" || command == "down")
        intfs_->admin_enabled_is(ryx::intf_id_t(name), command == "up");
      else if (command == "describe")
        intfs_->description_is(ryx::intf_id_t(name), text);
      else if (command == "show")
        show();
      else if (!command.empty())
        std::cout << "expected: up INTF, down INTF, describe INTF TEXT, or show" << std::endl;
    } catch (const ryx::error& e) {
      std::cout << e.what() << std::endl;
    }
  }

  ryx::intf_mgr* intfs_;
  std::string input_;
};

int main(int argc, char** argv) {
  ryx::sdk sdk;
  intf_watch agent(sdk);
  sdk.main_loop(argc, argv);
}
