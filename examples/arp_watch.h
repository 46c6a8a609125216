// Tells who the neighbours are: each that comes, goes, or answers from another MAC address than
// before, which may be a moved host, a first-hop failover, or somebody who pretends to be it. The
// agent's option "pin" names one that must not move, as "IP INTF MAC": the agent configures it as a
// static entry, and takes that away when the option goes.
#ifndef RYX_EXAMPLES_ARP_WATCH_H
#define RYX_EXAMPLES_ARP_WATCH_H

#include <ryx/agent.h>
#include <ryx/neighbor_table.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>

#include <arpa/inet.h>

#include <map>
#include <ostream>
#include <sstream>
#include <string>

class arp_watch : public ryx::agent_handler, public ryx::neighbor_table_handler {
 public:
  arp_watch(ryx::sdk& sdk, std::ostream& out)
      : agent_handler(sdk.get_agent_mgr()),
        neighbor_table_handler(sdk.get_neighbor_table_mgr()),
        agent_(sdk.get_agent_mgr()),
        neighbors_(sdk.get_neighbor_table_mgr()),
        out_(out) {
    watch_all_neighbor_entries(true);
  }

  void on_initialized() override { on_agent_option("pin", agent_->agent_option("pin")); }

  void on_agent_option(const std::string& name, const std::string& value) override {
    if (name != "pin") return;
    // An earlier life of this agent may have had another pin.
    for (auto own = neighbors_->neighbor_table_iter(); own; ++own)
      neighbors_->neighbor_entry_del(*own);
    if (value.empty()) return;
    std::istringstream words(value);
    std::string ip, intf, mac;
    uint8_t bytes[16];
    words >> ip >> intf >> mac;
    const bool is_v4 = ::inet_pton(AF_INET, ip.c_str(), bytes) == 1;
    if (!is_v4 && ::inet_pton(AF_INET6, ip.c_str(), bytes) != 1) return refuse(value);
    try {
      ryx::neighbor_entry_t entry({is_v4 ? ryx::AF_IPV4 : ryx::AF_IPV6, bytes}, intf);
      entry.eth_addr_is(ryx::eth_addr_t(mac));
      neighbors_->neighbor_entry_set(entry);
    } catch (const ryx::error&) {
      refuse(value);
    }
  }

  void on_neighbor_entry_set(const ryx::neighbor_entry_t& entry) override {
    const auto before = known_.insert({entry.neighbor_key(), entry.eth_addr()});
    const bool is_new = before.second;
    ryx::eth_addr_t& mac = before.first->second;
    if (!is_new && mac == entry.eth_addr()) return;
    out_ << where(entry.neighbor_key()) << (is_new ? " is " : " moved to ") << entry.eth_addr();
    if (!is_new) out_ << " from " << mac;
    if (entry.entry_type() == ryx::NEIGHBOR_ENTRY_TYPE_STATIC) out_ << ", configured";
    out_ << std::endl;
    mac = entry.eth_addr();
    moves_ += !is_new;
    tell_status();
  }
  void on_neighbor_entry_del(const ryx::neighbor_key_t& key) override {
    known_.erase(key);
    out_ << where(key) << " is gone" << std::endl;
    tell_status();
  }

 private:
  static std::string where(const ryx::neighbor_key_t& key) {
    return key.ip_addr().to_string() + " at " + key.intf_id().to_string();
  }
  void refuse(const std::string& value) {
    out_ << "the option pin is \"" << value
         << "\"; expected IP INTF MAC, as 10.0.0.1 Ethernet1 00:1c:73:00:00:01" << std::endl;
  }
  void tell_status() {
    agent_->status_set("neighbors", std::to_string(known_.size()));
    agent_->status_set("moves", std::to_string(moves_));
  }

  ryx::agent_mgr* agent_;
  ryx::neighbor_table_mgr* neighbors_;
  std::ostream& out_;
  std::map<ryx::neighbor_key_t, ryx::eth_addr_t> known_;
  unsigned moves_ = 0;
};

#endif  // RYX_EXAMPLES_ARP_WATCH_H
