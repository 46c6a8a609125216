#include "switch/hub/config.h"

#include <arpa/inet.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <functional>

#include "switch/base/names.h"

// Some malformed keys meet an assertion of the parser's own: that is one more way to be told of
// them.
struct AssertionOfParser {};
[[noreturn]] static void parserAsserts() {
  throw AssertionOfParser();
}
#undef NDEBUG
#define TOML_ASSERT(expression) ((expression) ? void() : parserAsserts())
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

namespace ryx::hub {
namespace {

// Empty, or what is wrong with the text, and where.
std::string parse(std::string_view text, const std::string& name, toml::table* table) {
  const auto told = [&](size_t line, std::string_view what) {
    std::string fault = name + ":" + std::to_string(line) + ": " + std::string(what);
    // It may quote what it found.
    std::replace_if(
        fault.begin(), fault.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return fault + "; expected TOML (https://toml.io)\n";
  };
  try {
    *table = toml::parse(text);
    return "";
  } catch (const toml::parse_error& e) {
    return told(e.source().begin.line, e.description());
  } catch (const AssertionOfParser&) {
    // It says no line: the first one up to which the text is malformed already.
    size_t line = 1;
    for (size_t end = text.find('\n'); end != text.npos; end = text.find('\n', end + 1), ++line) {
      toml::table unused;
      if (!parse(text.substr(0, end), name, &unused).empty()) break;
    }
    return told(line, "the key is malformed");
  }
}

// One table of the file, whose keys are asked for one after another; what was not asked for at the
// end is unknown.
class Table {
 public:
  Table(const toml::table* table, std::string name, const std::string& file, std::string* faults)
      : table_(table), name_(std::move(name)), file_(file), faults_(faults) {}

  void text(const char* key, std::string* to) {
    if (const toml::node* n = node(key)) {
      if (auto value = n->value_exact<std::string>(); value && !value->empty())
        *to = *value;
      else
        fault(*n, key, "expected a text in double quotes that is not empty");
    }
  }
  template <class T>
  void number(const char* key, int64_t min, int64_t max, T* to) {
    if (const toml::node* n = node(key)) {
      if (auto value = n->value_exact<int64_t>(); value && *value >= min && *value <= max)
        *to = static_cast<T>(*value);
      else
        fault(*n, key,
              "expected a number from " + std::to_string(min) + " to " + std::to_string(max));
    }
  }
  using Check = std::function<std::string(const std::string&)>;
  void list(const char* key, const Check& check, std::vector<std::string>* to) {
    if (const toml::node* n = node(key)) elements(*n, key, check, to);
  }
  Table table(const char* key) {
    const toml::node* n = node(key);
    if (n && !n->is_table()) fault(*n, key, "expected a table, [" + in(key) + "]");
    return {n ? n->as_table() : nullptr, in(key), file_, faults_};
  }
  // Every key of the table, each with a list.
  void lists(const Check& check, const Check& checkKey,
             std::map<std::string, std::vector<std::string>>* to) {
    if (!table_) return;
    for (auto&& [k, n] : *table_) {
      const std::string key(k.str());
      asked_.push_back(key);
      if (std::string what = checkKey(key); !what.empty()) fault(n, key, what);
      elements(n, key, check, &(*to)[key]);
    }
  }
  bool has(const char* key) const { return table_ && table_->contains(key); }
  void fault(const char* key, const std::string& what) { fault(*table_->get(key), key, what); }

  ~Table() {
    if (!table_) return;
    std::string known;
    for (const std::string& key : asked_) known += (known.empty() ? "" : ", ") + key;
    for (auto&& [k, n] : *table_)
      if (std::find(asked_.begin(), asked_.end(), k.str()) == asked_.end())
        fault(n, k.str(), "unknown; expected one of: " + known);
  }
  Table(const Table&) = delete;

 private:
  std::string in(std::string_view key) const {
    return name_.empty() ? std::string(key) : name_ + "." + std::string(key);
  }
  const toml::node* node(const char* key) {
    asked_.push_back(key);
    return table_ ? table_->get(key) : nullptr;
  }
  void elements(const toml::node& n, std::string_view key, const Check& check,
                std::vector<std::string>* to) {
    const toml::array* array = n.as_array();
    if (!array) return fault(n, key, "expected a list of texts, [\"...\", ...]");
    for (const toml::node& element : *array) {
      auto value = element.value_exact<std::string>();
      std::string what = value ? check(*value) : "expected a text in double quotes";
      if (what.empty())
        to->push_back(*value);
      else
        fault(element, key, what);
    }
  }
  void fault(const toml::node& at, std::string_view key, const std::string& what) {
    *faults_ +=
        file_ + ":" + std::to_string(at.source().begin.line) + ": " + in(key) + ": " + what + "\n";
  }

  const toml::table* table_;
  const std::string name_;
  const std::string& file_;
  std::string* faults_;
  std::vector<std::string> asked_;
};

std::string faultOfUser(const std::string& name) {
  if (name.starts_with("@"))
    return ::getgrnam(name.c_str() + 1) ? "" : "there is no group \"" + name.substr(1) + "\"";
  return ::getpwnam(name.c_str())
             ? ""
             : "there is no user \"" + name + "\"; expected a user, or a group behind an @";
}

std::string faultOfAgent(const std::string& name) {
  const std::string fault = name == "*" ? "" : faultOfAgentName(name);
  return fault.empty() ? "" : fault + "; or \"*\"";
}

std::string faultOfPeer(const std::string& text) {
  in_addr address;
  const bool loopback =
      ::inet_pton(AF_INET, text.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
  return loopback ? "" : "expected an IPv4 address of the loopback interface, as 127.0.0.1";
}

}  // namespace

std::string nameOfService(std::string_view service) {
  return std::string(service.substr(0, service.find(':')));
}

std::string faultOfService(std::string_view service) {
  const std::string name = nameOfService(service);
  if (name == "sim" || service == "linux") return "";
  return "\"" + std::string(service) + "\"; expected \"linux\", \"sim\" or \"sim:SCENARIO\"";
}

std::string Config::take(std::string_view text, const std::string& name) {
  toml::table parsed;
  if (std::string what = parse(text, name, &parsed); !what.empty()) return what;
  std::string faults;
  {
    Table top(&parsed, "", name, &faults);
    top.text("socket", &socket);
    top.text("state", &state);
    top.list(
        "services", [](const std::string& s) { return faultOfService(s); }, &services);
    {
      Table access = top.table("access");
      access.list("operators", faultOfUser, &operators);
      access.table("agents").lists(faultOfUser, faultOfAgent, &agents);
    }
    {
      Table tcp = top.table("tcp");
      tcp.number("port", 1, 65535, &port);
      tcp.list("peers", faultOfPeer, &peers);
      tcp.list("agents", faultOfAgent, &peerAgents);
      if (tcp.has("port") && peers.empty() && !tcp.has("peers"))
        tcp.fault("port", "needs a list of peers beside it, as peers = [\"127.0.0.1\"]");
    }
    {
      Table of = top.table("limits");
      of.number("entities", 1, INT64_MAX, &limits.entities);
      of.number("bytes", 1, INT64_MAX, &limits.bytes);
      of.number("mounts", 1, 1'000'000, &limits.mounts);
    }
    {
      Table of = top.table("agents");
      of.number("stop-seconds", 0, 3600, &stopSeconds);
      of.number("kill-seconds", 1, 3600, &killSeconds);
    }
  }
  return faults;
}

}  // namespace ryx::hub
