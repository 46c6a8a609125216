#include "switch/sim/command_line.h"

#include <algorithm>
#include <cstdio>

#include "platform/base/check.h"
#include "platform/types/digits.h"

namespace ryx::sim {
namespace {

using platform::readNumber;

constexpr std::string_view kBlanks = " \t";

bool isBlank(char c) {
  return kBlanks.find(c) != std::string_view::npos;
}

// --- the kinds of arguments ---------------------------------------------------------------------

bool intfName(Argument* a) {
  return parse(a->text, &a->intf);
}

bool intfOrNone(Argument* a) {
  return a->text == "-" || intfName(a);
}

bool vrfName(Argument* a) {
  return !a->text.empty() && a->text.size() <= 100;
}

bool word(Argument* a) {
  return !a->text.empty();
}

bool ipAddress(Argument* a) {
  return parse(a->text, &a->ip);
}

bool macAddress(Argument* a) {
  return parse(a->text, &a->mac);
}

bool number(Argument* a, uint32_t max) {
  const char* at = a->text.data();
  const char* end = at + a->text.size();
  return readNumber(&at, end, max, &a->number) && at == end;
}

bool code(Argument* a) {
  return number(a, 255);
}

bool count(Argument* a) {
  return number(a, UINT32_MAX);
}

bool entry(Argument* a) {
  return number(a, UINT16_MAX);
}

bool labels(Argument* a) {
  return a->text == "none" || number(a, 255);
}

bool onOff(Argument* a) {
  return a->text == "on" || a->text == "off";
}

bool vlanOrNone(Argument* a) {
  return number(a, platform::VlanId::kMax);
}

// What the kernel takes for a device: at most 15 bytes, no slash, no blank, not "." or "..".
bool deviceName(Argument* a) {
  const std::string& t = a->text;
  return !t.empty() && t.size() <= 15 && t != "." && t != ".." &&
         std::all_of(t.begin(), t.end(),
                     [](unsigned char c) { return c > ' ' && c != 0x7f && c != '/' && c != ':'; });
}

struct Kind {
  std::string_view name;
  bool (*parse)(Argument* argument);
  const char* meaning;
};
constexpr Kind kKinds[] = {
    {"INTF", intfName, "an interface name, like Ethernet3/1"},
    {"INTF|-", intfOrNone, "an interface name, or - for none"},
    {"VRF", vrfName, "the name of a VRF, at most 100 bytes"},
    {"NAME", vrfName, "the name of a VRF, at most 100 bytes"},
    {"STATE", word, "a state"},
    {"IP", ipAddress, "an IPv4 or IPv6 address"},
    {"MAC", macAddress, "a MAC address, like 00:1c:73:00:00:01"},
    {"VLAN", vlanOrNone, "a VLAN from 1 to 4094, or 0 for none"},
    {"CODE", code, "a number from 0 to 255"},
    {"GROUP", word, "the name of a nexthop group"},
    {"ENTRY", entry, "the number of an entry, from 0 to 65535"},
    {"PACKETS", count, "a number of packets"},
    {"OCTETS", count, "a number of octets"},
    {"TYPE", word, "a type of nexthop groups"},
    {"MAXLABELS", labels, "a number of labels, or none"},
    {"ACTION,...", word, "actions with commas between them, or - for none"},
    {"on|off", onOff, "on or off"},
    {"kernel-name", deviceName, "a network device's name, at most 15 bytes"},
};

const Kind* kindNamed(std::string_view name) {
  auto at = std::find_if(std::begin(kKinds), std::end(kKinds),
                         [&](const Kind& k) { return k.name == name; });
  return at == std::end(kKinds) ? nullptr : at;
}

}  // namespace

// --- words --------------------------------------------------------------------------------------

bool Words::next(std::string* word) {
  word->clear();
  size_t start = rest_.find_first_not_of(kBlanks);
  rest_.remove_prefix(std::min(start, rest_.size()));
  if (!error_.empty() || rest_.empty() || rest_.front() == '#') return false;
  if (rest_.front() == '"') return quoted(word);
  size_t size = std::min(rest_.find_first_of(" \t\""), rest_.size());
  *word = rest_.substr(0, size);
  rest_.remove_prefix(size);
  if (rest_.empty() || isBlank(rest_.front())) return true;
  error_ = "a quote inside the word " + inQuotes(*word) + "; expected a blank before it";
  return false;
}

bool Words::quoted(std::string* word) {
  for (size_t i = 1; i < rest_.size(); ++i) {
    char c = rest_[i];
    if (c == '"') {
      rest_.remove_prefix(i + 1);
      if (rest_.empty() || isBlank(rest_.front())) return true;
      error_ = "text right behind the quoted word " + inQuotes(*word) + "; expected a blank";
      return false;
    }
    if (c == '\\') {
      if (++i == rest_.size()) break;
      c = rest_[i];
      if (c != '"' && c != '\\') {
        error_ = "a backslash before " + inQuotes({&c, 1}) + R"(; expected \" or \\)";
        return false;
      }
    }
    word->push_back(c);
  }
  error_ = "a quote without its end";
  return false;
}

// --- arguments ----------------------------------------------------------------------------------

std::string parseArguments(std::string_view usage, Words& words, Arguments* result) {
  Argument argument;
  Words kinds(usage);
  for (std::string name; kinds.next(&name);) {
    bool optional = name.front() == '[';
    if (optional) name = name.substr(1, name.size() - 2);
    const Kind* kind = kindNamed(name);
    platform::check(kind != nullptr, "a usage text names kinds of arguments");
    argument = {};
    if (!words.next(&argument.text)) {
      if (!words.error().empty()) return words.error();
      return optional ? "" : name + " is missing (" + kind->meaning + ")";
    }
    if (!kind->parse(&argument))
      return inQuotes(argument.text) + " is no " + name + " (" + kind->meaning + ")";
    result->push_back(argument);
  }
  if (words.next(&argument.text)) return inQuotes(argument.text) + " is too much";
  return words.error();
}

std::string inQuotes(std::string_view word) {
  constexpr size_t kMost = 64;
  std::string text = "\"";
  for (unsigned char c : word.substr(0, kMost)) {
    if (c >= ' ' && c < 0x7f) {
      text += static_cast<char>(c);
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      text += hex;
    }
  }
  return text + (word.size() > kMost ? "...\"" : "\"");
}

}  // namespace ryx::sim
