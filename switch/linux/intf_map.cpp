#include "switch/linux/intf_map.h"

#include <algorithm>

#include "platform/base/check.h"
#include "switch/base/interfaces.h"

namespace ryx::kernel {
namespace {

using platform::IntfId;

std::string replaced(std::string_view text, char from, char to) {
  std::string result(text);
  std::replace(result.begin(), result.end(), from, to);
  return result;
}

IntfId interfaceNamed(const std::string& name) {
  IntfId intf;
  if (!platform::parse(name, &intf) || !feeds::hasDirectory(intf)) return {};
  return intf;
}

}  // namespace

// --- patterns -----------------------------------------------------------------------------------

std::optional<std::string_view> IntfMap::Pattern::match(std::string_view name) const {
  if (!star) return name == before ? std::optional(std::string_view()) : std::nullopt;
  if (name.size() <= before.size() + after.size()) return {};
  if (!name.starts_with(before) || !name.ends_with(after)) return {};
  return name.substr(before.size(), name.size() - before.size() - after.size());
}

std::string IntfMap::Pattern::fill(std::string_view text) const {
  return star ? before + std::string(text) + after : before;
}

// --- reading the rules --------------------------------------------------------------------------

IntfMap::IntfMap() {
  platform::check(parse(kDefault, this).empty(), "the default map is well-formed");
}

std::string IntfMap::parse(std::string_view text, IntfMap* map) {
  std::vector<Rule> rules;
  for (;;) {
    size_t comma = text.find(',');
    std::string_view piece = text.substr(0, comma);
    Rule rule;
    std::string error = parseRule(piece, &rule);
    if (!error.empty())
      return "rule " + std::to_string(rules.size() + 1) + ", \"" + std::string(piece) +
             "\": " + error;
    rules.push_back(std::move(rule));
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  map->rules_ = std::move(rules);
  return {};
}

std::string IntfMap::parseRule(std::string_view text, Rule* rule) {
  size_t equals = text.find('=');
  if (equals == std::string_view::npos) return "expected KERNEL=INTERFACE, like eth*=Ethernet*";
  std::string_view device = text.substr(0, equals);
  if (std::string error = parsePattern(device, &rule->device); !error.empty()) return error;
  if (std::string error = parsePattern(text.substr(equals + 1), &rule->interface); !error.empty())
    return error;

  bool taken = std::any_of(device.begin(), device.end(), [](unsigned char c) {
    return c <= ' ' || c == 0x7f || c == '/' || c == ':';
  });
  if (device.empty() || device.size() > kMaxDevice || taken)
    return "expected a device's name before the =, at most " + std::to_string(kMaxDevice) +
           " bytes without blanks, slashes and colons";
  if (rule->device.star != rule->interface.star) return "expected a * on both sides or on neither";
  if (interfaceNamed(rule->interface.fill("1")).isEmpty())
    return "expected the name of an interface behind the =, like Ethernet* or Management0";
  return {};
}

std::string IntfMap::parsePattern(std::string_view text, Pattern* pattern) {
  size_t star = text.find('*');
  pattern->star = star != std::string_view::npos;
  pattern->before = text.substr(0, star);
  if (pattern->star) pattern->after = text.substr(star + 1);
  return pattern->after.find('*') == std::string::npos ? "" : "expected one * at most on each side";
}

// --- names --------------------------------------------------------------------------------------

IntfId IntfMap::interfaceOf(std::string_view device) const {
  for (const Rule& rule : rules_) {
    std::optional<std::string_view> star = rule.device.match(device);
    if (!star) continue;
    IntfId intf = interfaceNamed(rule.interface.fill(replaced(*star, '_', '/')));
    if (!intf.isEmpty()) return intf;
  }
  return {};
}

std::string IntfMap::deviceOf(IntfId intf) const {
  std::string name = intf.toString();
  for (const Rule& rule : rules_) {
    std::optional<std::string_view> star = rule.interface.match(name);
    if (!star) continue;
    std::string device = rule.device.fill(replaced(*star, '/', '_'));
    if (device.size() <= kMaxDevice && interfaceOf(device) == intf) return device;
  }
  return {};
}

}  // namespace ryx::kernel
