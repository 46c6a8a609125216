// Programs a routing table from a file, follows what the switch installs of it, and tells how fast
// that went. A line of the file is a prefix and where it leads to:
//
//   10.0.0.0/8 via 192.0.2.1                  a next hop; "dev INTF" behind it: at that interface
//   10.1.0.0/16 dev Ethernet2                 an interface
//   10.2.0.0/16 group uplinks                 a nexthop group
//   10.3.0.0/16 drop
//
// and behind that, if need be, "tag N" and "preference N" (1 unless said). A prefix with several
// lines has several vias; "#" begins a comment. A line that is none of that is told with its
// number, and the rest goes on.
//
// Started again, also after it was killed half-way, it declares the table anew: what is as it was
// is not written, and what is not in the file any more is deleted.
#ifndef RYX_EXAMPLES_ROUTE_INJECTOR_H
#define RYX_EXAMPLES_ROUTE_INJECTOR_H

#include <ryx/agent.h>
#include <ryx/fib.h>
#include <ryx/ip_route.h>
#include <ryx/panic.h>
#include <ryx/sdk.h>
#include <ryx/timer.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <istream>
#include <ostream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

struct table_line {
  ryx::ip_route_t route;
  ryx::ip_route_via_t via;
  ryx::ip_route_action_t action = ryx::IP_ROUTE_ACTION_FORWARD;
  bool is_first = true;  // of its route
};

// Empty, or what is wrong with the line and what was expected. A line without a route is none.
inline std::string parse_line(const std::string& text, table_line* line, bool* is_route) {
  std::istringstream words(text.substr(0, text.find('#')));
  std::string word, value;
  *is_route = static_cast<bool>(words >> word);
  if (!*is_route) return {};
  ryx::ip_prefix_t prefix;
  if (!ryx::parse_ip_prefix(word.c_str(), &prefix))
    return "'" + word + "' is no prefix; expected one without host bits, as 10.0.0.0/8";
  uint32_t preference = 1, tag = 0;
  std::string group;
  ryx::ip_addr_t hop;
  ryx::intf_id_t intf;
  const auto number = [&](uint32_t most, uint32_t* result) {
    char* end = nullptr;
    const unsigned long n = std::strtoul(value.c_str(), &end, 10);
    *result = static_cast<uint32_t>(n);
    return !value.empty() && value[0] != '-' && *end == '\0' && n <= most;
  };
  *line = {};
  while (words >> word) {
    if (word == "drop") {
      line->action = ryx::IP_ROUTE_ACTION_DROP;
      intf = ryx::intf_id_t("Null0");
      continue;
    }
    if (!(words >> value)) return "nothing behind '" + word + "'; expected its value";
    if (word == "via") {
      if (!ryx::parse_ip_addr(value.c_str(), &hop))
        return "'" + value + "' is no address; expected one as 192.0.2.1";
      if (hop.af() != prefix.af())
        return "the next hop " + value + " is of another family than " + prefix.to_string();
    } else if (word == "dev") {
      try {
        intf = ryx::intf_id_t(value);
      } catch (const ryx::error&) {
        return "'" + value + "' is no interface; expected a name as Ethernet1";
      }
    } else if (word == "group") {
      line->action = ryx::IP_ROUTE_ACTION_NEXTHOP_GROUP;
      group = value;
    } else if (word == "tag") {
      if (!number(UINT32_MAX, &tag)) return "'" + value + "' is no tag; expected 0 to 4294967295";
    } else if (word == "preference") {
      if (!number(255, &preference)) return "'" + value + "' is no preference; expected 0 to 255";
    } else {
      return "'" + word + "'; expected via, dev, group, drop, tag or preference";
    }
  }
  if (hop.af() == ryx::AF_NULL && intf == ryx::intf_id_t() && group.empty())
    return "no way for " + prefix.to_string() + "; expected via, dev, group or drop";
  if (!group.empty() && (hop.af() != ryx::AF_NULL || intf != ryx::intf_id_t()))
    return "a group and another way; expected one of them";
  const ryx::ip_route_key_t key(prefix, static_cast<uint8_t>(preference));
  line->route = ryx::ip_route_t(key);
  line->route.tag_is(tag);
  line->via = ryx::ip_route_via_t(key);
  line->via.hop_is(hop);
  line->via.intf_is(intf);
  line->via.nexthop_group_is(group);
  return {};
}

class route_injector : public ryx::agent_handler,
                       public ryx::fib_handler,
                       public ryx::timeout_handler {
 public:
  // `is_once`: it exits when everything is installed, or nothing more is.
  route_injector(ryx::sdk& sdk, std::istream& file, std::ostream& out, bool is_once)
      : agent_handler(sdk.get_agent_mgr()),
        fib_handler(sdk.get_fib_mgr(ryx::MGR_MODE_READ_NOTIFYING)),
        timeout_handler(sdk.get_timeout_mgr()),
        agent_(sdk.get_agent_mgr()),
        routes_(sdk.get_ip_route_mgr()),
        out_(out),
        is_once_(is_once) {
    read(file);
  }

  void on_initialized() override {
    routes_->resync_init();
    began_ = ryx::now();
    timeout_time_is(began_);
  }

  // A part of the table at a time: the agent stays alive meanwhile.
  void on_timeout() override {
    const size_t end = std::min(next_ + kPart, lines_.size());
    for (; next_ < end; ++next_) {
      const table_line& line = lines_[next_];
      if (line.is_first) routes_->ip_route_set(line.route, line.action);
      routes_->ip_route_via_set(line.via);
    }
    if (!is_declared_ && next_ == lines_.size()) {
      is_declared_ = true;
      routes_->resync_complete();
      tell("called", ryx::now());
    }
    if (is_declared_ && !is_committed_ && routes_->uncommitted() == 0) {
      is_committed_ = true;
      tell("committed", ryx::now());
    }
    if (is_committed_ && look_at_what_is_installed()) return;
    progress();
    timeout_time_is(ryx::now() + (is_declared_ ? kLook : 0));
  }

  void on_route_set(const ryx::fib_route_t& route) override {
    if (!is_ours(route)) return on_route_del(route.route_key());  // another's goes before it
    const auto at = wanted_.find(route.route_key().prefix());
    if (at == wanted_.end() || std::exchange(at->second, true)) return;
    ++installed_;
    last_ = ryx::now();
    if (is_done_) out_ << "installed: " << at->first << std::endl;
  }
  void on_route_del(const ryx::fib_route_key_t& key) override {
    const auto at = wanted_.find(key.prefix());
    if (at == wanted_.end() || !std::exchange(at->second, false)) return;
    --installed_;
    last_ = ryx::now();
    if (is_done_) out_ << "not installed any more: " << at->first << std::endl;
  }

 private:
  static constexpr size_t kPart = 20000;
  static constexpr double kLook = 0.01;     // seconds between two looks at what came of it
  static constexpr double kPatience = 2;    // so long may nothing happen
  static constexpr double kProgress = 0.5;  // seconds between two lines

  static bool is_ours(const ryx::fib_route_t& route) {
    return route.route_type() == ryx::ROUTE_TYPE_STATIC_CONFIG ||
           route.route_type() == ryx::ROUTE_TYPE_NEXTHOP_GROUP;
  }

  void read(std::istream& file) {
    const double began = ryx::now();
    std::string text;
    size_t number = 0, wrong = 0;
    std::unordered_set<ryx::ip_route_key_t> routes;
    while (std::getline(file, text)) {
      ++number;
      table_line line;
      bool is_route = false;
      const std::string error = parse_line(text, &line, &is_route);
      if (!error.empty()) {
        out_ << "line " << number << ": " << error << std::endl;
        ++wrong;
      } else if (is_route) {
        wanted_.emplace(line.route.key().prefix(), false);
        line.is_first = routes.insert(line.route.key()).second;
        lines_.push_back(line);
      }
    }
    out_ << "read " << lines_.size() << " lines with " << wanted_.size() << " prefixes";
    if (wrong != 0) out_ << ", " << wrong << " wrong ones";
    out_ << ", in " << ryx::now() - began << " s" << std::endl;
  }

  void tell(const char* what, double time) {
    const double took = time - began_;
    out_ << what << ": " << wanted_.size() << " routes in " << took << " s";
    if (took > 0) out_ << ", " << static_cast<uint64_t>(wanted_.size() / took) << " a second";
    out_ << std::endl;
  }
  void progress() {
    const double now = ryx::now();
    if (now < told_ + kProgress) return;
    told_ = now;
    out_ << "... " << next_ << " of " << lines_.size() << " lines, " << routes_->uncommitted()
         << " routes wait, " << installed_ << " installed" << std::endl;
  }
  // True: it is over.
  bool look_at_what_is_installed() {
    const bool is_all = installed_ == wanted_.size();
    if (!is_all && ryx::now() < std::max(last_, began_) + kPatience) return false;
    is_done_ = true;
    if (is_all) {
      tell("seen in the FIB", std::max(last_, began_));
    } else {
      out_ << "seen in the FIB: " << installed_ << " of " << wanted_.size() << " routes";
      for (const auto& prefix : wanted_) {
        if (prefix.second) continue;
        out_ << "; " << prefix.first << " is not installed";
        break;
      }
      out_ << std::endl;
    }
    agent_->status_set("installed", std::to_string(installed_));
    if (is_once_) agent_->exit();
    return true;
  }

  ryx::agent_mgr* agent_;
  ryx::ip_route_mgr* routes_;
  std::ostream& out_;
  const bool is_once_;
  std::vector<table_line> lines_;
  std::unordered_map<ryx::ip_prefix_t, bool> wanted_;  // whether they are installed
  size_t next_ = 0, installed_ = 0;
  bool is_declared_ = false, is_committed_ = false, is_done_ = false;
  double began_ = 0, last_ = 0, told_ = 0;
};

#endif  // RYX_EXAMPLES_ROUTE_INJECTOR_H
