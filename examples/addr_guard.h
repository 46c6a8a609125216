// Keeps the addresses of interfaces as they are given, whatever else changes them: another agent or
// an operator that configures others, and whoever sets or deletes them in the kernel itself. Each
// of the agent's options names an interface and says its addresses:
//
//   ryx agent option addr_guard "Ethernet1=10.0.0.1/24 2001:db8::1/64"
//
// An interface whose option goes is left as it is. What it had to do it publishes: its status has
// the keys "guarded" (interfaces) and "mended".
#ifndef RYX_EXAMPLES_ADDR_GUARD_H
#define RYX_EXAMPLES_ADDR_GUARD_H

#include <ryx/agent.h>
#include <ryx/ip_intf.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>
#include <ryx/timer.h>

#include <cstdlib>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

class addr_guard : public ryx::agent_handler,
                   public ryx::ip_intf_handler,
                   public ryx::timeout_handler {
 public:
  addr_guard(ryx::sdk& sdk, std::ostream& out)
      : agent_handler(sdk.get_agent_mgr()),
        ip_intf_handler(sdk.get_ip_intf_mgr()),
        timeout_handler(sdk.get_timeout_mgr()),
        agent_(sdk.get_agent_mgr()),
        ip_(sdk.get_ip_intf_mgr()),
        out_(out) {
    watch_all_ip_intfs(true);
  }

  void on_initialized() override {
    for (auto name = agent_->agent_option_iter(); name; ++name)
      on_agent_option(*name, agent_->agent_option(*name));
    tell_status();
  }

  void on_agent_option(const std::string& name, const std::string& value) override {
    std::set<ryx::ip_addr_mask_t> addrs;
    try {
      const ryx::intf_id_t intf(name);
      guarded_.erase(intf);
      if (!value.empty() && parse(value, &addrs)) {
        guarded_[intf] = addrs;
        enforce(intf);
      } else if (!value.empty()) {
        out_ << name << "=" << value << ": expected addresses, as 10.0.0.1/24 2001:db8::1/64"
             << std::endl;
      }
    } catch (const ryx::no_such_interface_error& e) {
      out_ << "the option " << name << ": expected the name of an interface" << std::endl;
    }
    tell_status();
  }

  void on_ip_addr_add(ryx::intf_id_t intf, const ryx::ip_addr_mask_t& addr) override {
    const auto guarded = guarded_.find(intf);
    if (guarded == guarded_.end() || guarded->second.count(addr)) return;
    out_ << intf << ": takes " << addr << " away" << std::endl;
    ++mended_;
    strays_.insert({intf, addr});
    deal_with_strays();
  }
  void on_ip_addr_del(ryx::intf_id_t intf, const ryx::ip_addr_mask_t& addr) override {
    strays_.erase({intf, addr});
    const auto guarded = guarded_.find(intf);
    if (guarded == guarded_.end() || !guarded->second.count(addr)) return;
    // The switch puts back by itself what is configured still.
    if (ip_->ip_addrs(intf) == guarded->second) return;
    out_ << intf << ": puts " << addr << " back" << std::endl;
    ++mended_;
    enforce(intf);
  }
  void on_timeout() override { deal_with_strays(); }

 private:
  using place = std::pair<ryx::intf_id_t, ryx::ip_addr_mask_t>;

  static bool parse(const std::string& value, std::set<ryx::ip_addr_mask_t>* addrs) {
    std::istringstream words(value);
    for (std::string word; words >> word;) {
      const std::size_t slash = word.find('/');
      ryx::ip_addr_t addr;
      char* end = nullptr;
      if (slash == std::string::npos || !ryx::parse_ip_addr(word.substr(0, slash).c_str(), &addr))
        return false;
      const unsigned long length = std::strtoul(word.c_str() + slash + 1, &end, 10);
      if (*end != '\0' || end == word.c_str() + slash + 1 || length > 128) return false;
      addrs->insert(ryx::ip_addr_mask_t(addr, static_cast<uint8_t>(length)));
    }
    return true;
  }

  void enforce(ryx::intf_id_t intf) {
    try {
      ip_->ip_addrs_is(intf, guarded_[intf]);
    } catch (const ryx::error& e) {
      out_ << intf << ": " << e.what() << std::endl;
    }
    tell_status();
  }

  // An address that is configured goes with its configuration. One that somebody gave to the
  // switch's kernel is nobody's: it is configured first, and taken away when the switch has seen
  // that.
  void deal_with_strays() {
    for (const place& stray : std::set<place>(strays_)) {
      const auto& [intf, addr] = stray;
      if (!guarded_.count(intf)) {
        strays_.erase(stray);
      } else if (ip_->ip_addrs(intf) != guarded_[intf]) {
        enforce(intf);
      } else {
        try {
          ip_->ip_addr_add(intf, addr);
        } catch (const ryx::error& e) {
          out_ << intf << ": " << e.what() << std::endl;
          strays_.erase(stray);
        }
      }
    }
    constexpr double patience = 0.2;
    timeout_time_is(strays_.empty() ? ryx::never : ryx::now() + patience);
  }

  void tell_status() {
    agent_->status_set("guarded", std::to_string(guarded_.size()));
    agent_->status_set("mended", std::to_string(mended_));
  }

  ryx::agent_mgr* agent_;
  ryx::ip_intf_mgr* ip_;
  std::ostream& out_;
  std::map<ryx::intf_id_t, std::set<ryx::ip_addr_mask_t>> guarded_;
  std::set<place> strays_;  // active, and not to be
  unsigned mended_ = 0;
};

#endif  // RYX_EXAMPLES_ADDR_GUARD_H
