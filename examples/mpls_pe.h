// The edge of an MPLS network (RFC 4364) in miniature. Labels that come in lead to VRFs; a nexthop
// group puts what leaves under the labels of the far edges, and routes lead to it. All of it is
// told by the agent's options, and may change at any time:
//
//   ryx agent option mpls_pe vrf.red 1000              label 1000 leads to the VRF red
//   ryx agent option mpls_pe uplinks "192.0.2.1/2001 192.0.2.5/16,2002"
//                                                      next hops, and the labels towards them,
//                                                      the outermost first
//   ryx agent option mpls_pe prefixes "10.1.0.0/16 10.2.0.0/16"
//
// Whatever the options say is declared anew when one of them changes: what is as it was is not
// written, and what they say no more goes. The status "group" says whether the hardware has it.
#ifndef RYX_EXAMPLES_MPLS_PE_H
#define RYX_EXAMPLES_MPLS_PE_H

#include <ryx/agent.h>
#include <ryx/ip_route.h>
#include <ryx/mpls_vrf_label.h>
#include <ryx/nexthop_group.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>

#include <cstdint>
#include <cstdlib>
#include <list>
#include <ostream>
#include <sstream>
#include <string>

class mpls_pe : public ryx::agent_handler, public ryx::nexthop_group_handler {
 public:
  mpls_pe(ryx::sdk& sdk, std::ostream& out)
      : agent_handler(sdk.get_agent_mgr()),
        nexthop_group_handler(sdk.get_nexthop_group_mgr()),
        agent_(sdk.get_agent_mgr()),
        groups_(sdk.get_nexthop_group_mgr()),
        labels_(sdk.get_mpls_vrf_label_mgr()),
        routes_(sdk.get_ip_route_mgr()),
        out_(out) {
    watch_nexthop_group(kGroup, true);
  }

  void on_initialized() override { declare(); }
  void on_agent_option(const std::string&, const std::string&) override { declare(); }
  void on_nexthop_group_active(const std::string& name, bool active) override {
    out_ << "the group " << name << (active ? " forwards" : " does not forward") << std::endl;
    agent_->status_set("group", active ? "active" : "inactive");
  }

 private:
  static constexpr const char* kGroup = "uplinks";

  void declare() {
    labels_->resync_init();
    for (auto name = agent_->agent_option_iter(); name; ++name)
      if (name->compare(0, 4, "vrf.") == 0) bind(name->substr(4), agent_->agent_option(*name));
    labels_->resync_complete();

    groups_->resync_init();
    const ryx::nexthop_group_t group = group_of(agent_->agent_option("uplinks"));
    if (!group.destination_ips().empty()) try_to([&] { groups_->nexthop_group_set(group); });
    groups_->resync_complete();

    routes_->resync_init();
    std::istringstream prefixes(agent_->agent_option("prefixes"));
    for (std::string text; prefixes >> text;) lead_to_group(text);
    routes_->resync_complete();
  }

  void bind(const std::string& vrf, const std::string& text) {
    uint32_t label = 0;
    if (!label_of(text, &label)) return refuse(text, "a label, 16 to 1048575");
    try_to([&] { labels_->mpls_vrf_label_set({ryx::mpls_label_t(label), vrf}); });
  }

  ryx::nexthop_group_t group_of(const std::string& text) {
    ryx::nexthop_group_t group(kGroup, ryx::NEXTHOP_GROUP_MPLS);
    std::istringstream words(text);
    uint16_t index = 0;
    for (std::string word; words >> word;) {
      const size_t slash = word.find('/');
      ryx::ip_addr_t hop;
      std::list<ryx::mpls_label_t> stack;
      std::istringstream list(slash == std::string::npos ? "" : word.substr(slash + 1));
      bool is_right = ryx::parse_ip_addr(word.substr(0, slash).c_str(), &hop);
      for (std::string one; std::getline(list, one, ',');) {
        uint32_t label = 0;
        is_right = is_right && label_of(one, &label);
        stack.emplace_back(label);
      }
      if (!is_right || stack.empty()) {
        refuse(word, "a next hop and labels, as 192.0.2.1/16,2001");
        continue;
      }
      group.destination_ip_set(index, hop);
      group.mpls_action_set(index++, {ryx::MPLS_ACTION_PUSH, stack});
    }
    return group;
  }

  void lead_to_group(const std::string& text) {
    ryx::ip_prefix_t prefix;
    if (!ryx::parse_ip_prefix(text.c_str(), &prefix)) return refuse(text, "a prefix");
    const ryx::ip_route_key_t key(prefix, 1);
    routes_->ip_route_set(ryx::ip_route_t(key), ryx::IP_ROUTE_ACTION_NEXTHOP_GROUP);
    ryx::ip_route_via_t via(key);
    via.nexthop_group_is(kGroup);
    routes_->ip_route_via_set(via);
  }

  static bool label_of(const std::string& text, uint32_t* label) {
    char* end = nullptr;
    const unsigned long n = std::strtoul(text.c_str(), &end, 10);
    *label = static_cast<uint32_t>(n);
    return !text.empty() && *end == '\0' && n >= 16 && n <= 1048575;
  }
  void refuse(const std::string& what, const char* expected) {
    out_ << "'" << what << "': expected " << expected << std::endl;
  }
  // The hardware, or the switch, may not be able to: that is told, and the rest goes on.
  template <class Call>
  void try_to(Call&& call) {
    try {
      call();
    } catch (const ryx::error& e) {
      out_ << e.what() << std::endl;
    }
  }

  ryx::agent_mgr* agent_;
  ryx::nexthop_group_mgr* groups_;
  ryx::mpls_vrf_label_mgr* labels_;
  ryx::ip_route_mgr* routes_;
  std::ostream& out_;
};

#endif  // RYX_EXAMPLES_MPLS_PE_H
