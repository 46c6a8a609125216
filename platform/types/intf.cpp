#include "platform/types/intf.h"

#include <cstring>
#include <ostream>

#include "platform/types/digits.h"

namespace ryx::platform {

namespace {

constexpr uint32_t kMaxSlot = 0xffff;
constexpr uint32_t kMaxPort = 0x1ff;
constexpr uint32_t kMaxLane = 0xff;
constexpr uint32_t kMaxSub = 0xffffff;
constexpr uint32_t kMaxNumber = 0xffffff;

// What follows a kind's prefix.
enum class Form : uint8_t {
  number,          // one number
  optionalNumber,  // nothing (kept as 0), or one number
  fixed,           // nothing: the prefix is the name
  ports2,          // slot[/port]
  ports3,          // slot[/port[/lane]]
};

struct Grammar {
  IntfKind kind;
  std::string_view prefix;
  Form form;
  uint32_t min;  // of the number or the slot
  uint32_t max;
  bool subintfs;
};

// In the order in which names are tried: the frequent ones first.
constexpr Grammar kGrammars[] = {
    {IntfKind::ethernet, "Ethernet", Form::ports3, 0, kMaxSlot, true},
    {IntfKind::portChannel, "Port-Channel", Form::number, 1, kMaxNumber, true},
    {IntfKind::vlan, "Vlan", Form::number, 1, 4094, false},
    {IntfKind::management, "Management", Form::ports2, 0, kMaxSlot, false},
    {IntfKind::loopback, "Loopback", Form::number, 0, kMaxNumber, false},
    {IntfKind::vxlan, "Vxlan", Form::number, 0, kMaxNumber, false},
    {IntfKind::tunnel, "Tunnel", Form::number, 0, kMaxNumber, false},
    {IntfKind::null0, "Null0", Form::fixed, 0, 0, false},
    {IntfKind::cpu, "Cpu", Form::optionalNumber, 1, kMaxNumber, false},
    {IntfKind::internal, "Internal", Form::number, 0, kMaxNumber, false},
    {IntfKind::peerEthernet, "PeerEthernet", Form::ports3, 0, kMaxSlot, false},
    {IntfKind::peerPortChannel, "PeerPort-Channel", Form::number, 1, kMaxNumber, false},
};

constexpr const Grammar* grammarOf(IntfKind kind) {
  for (const Grammar& grammar : kGrammars) {
    if (grammar.kind == kind) return &grammar;
  }
  return nullptr;
}

constexpr bool hasPorts(Form form) {
  return form == Form::ports2 || form == Form::ports3;
}

// The numbers of a name; 0 where it has none.
struct Parts {
  uint32_t number = 0;  // or the slot
  uint32_t port = 0;
  uint32_t lane = 0;
  uint32_t sub = 0;
};

uint64_t encode(const Grammar& grammar, const Parts& parts) {
  uint64_t kind = uint64_t{static_cast<uint8_t>(grammar.kind)} << 57;
  if (!hasPorts(grammar.form)) return kind | uint64_t{parts.number} << 32 | parts.sub;
  return kind | uint64_t{parts.number} << 41 | uint64_t{parts.port} << 32 |
         uint64_t{parts.lane} << 24 | parts.sub;
}

// The parts of an identifier of that kind. Returns false when no name has it.
bool decode(const Grammar& grammar, IntfId intf, Parts* parts) {
  uint32_t first = intf.firstWord() & 0x1ffffff;
  parts->sub = intf.secondWord() & kMaxSub;
  parts->lane = intf.secondWord() >> 24;
  parts->number = first;
  if (hasPorts(grammar.form)) {
    parts->number = first >> 9;
    parts->port = first & kMaxPort;
  }
  if (parts->sub != 0 && !grammar.subintfs) return false;
  if (parts->lane != 0 && (grammar.form != Form::ports3 || parts->port == 0)) return false;
  if (grammar.form == Form::optionalNumber && parts->number == 0) return true;
  return parts->number >= grammar.min && parts->number <= grammar.max;
}

// The separator and a number 1..max, or nothing, which leaves the part 0.
bool readPart(const char** at, const char* end, char separator, uint32_t max, uint32_t* part) {
  if (*at == end || **at != separator) return true;
  ++*at;
  return readNumber(at, end, max, part) && *part != 0;
}

bool readParts(const Grammar& grammar, const char* at, const char* end, Parts* parts) {
  if (at == end) return grammar.form == Form::fixed || grammar.form == Form::optionalNumber;
  if (grammar.form == Form::fixed) return false;
  if (!readNumber(&at, end, grammar.max, &parts->number) || parts->number < grammar.min) {
    return false;
  }
  if (hasPorts(grammar.form)) {
    if (!readPart(&at, end, '/', kMaxPort, &parts->port)) return false;
    bool lanes = grammar.form == Form::ports3 && parts->port != 0;
    if (lanes && !readPart(&at, end, '/', kMaxLane, &parts->lane)) return false;
  }
  if (grammar.subintfs && !readPart(&at, end, '.', kMaxSub, &parts->sub)) return false;
  return at == end;
}

char* writePart(char* out, char separator, uint32_t part) {
  if (part == 0) return out;
  *out++ = separator;
  return writeNumber(out, part);
}

char* append(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

char* writeInvalid(char* out, uint64_t value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  out = append(out, "InvalidIntf(0x");
  for (int shift = 60; shift >= 0; shift -= 4) *out++ = kDigits[value >> shift & 15];
  *out++ = ')';
  return out;
}

}  // namespace

bool IntfId::isValid() const {
  const Grammar* grammar = grammarOf(kind());
  Parts parts;
  return grammar != nullptr && decode(*grammar, *this, &parts);
}

char* IntfId::print(char* out) const {
  if (isEmpty()) return out;
  const Grammar* grammar = grammarOf(kind());
  Parts parts;
  if (grammar == nullptr || !decode(*grammar, *this, &parts)) return writeInvalid(out, value_);
  out = append(out, grammar->prefix);
  if (grammar->form == Form::fixed) return out;
  if (grammar->form == Form::optionalNumber && parts.number == 0) return out;
  out = writeNumber(out, parts.number);
  out = writePart(out, '/', parts.port);
  out = writePart(out, '/', parts.lane);
  return writePart(out, '.', parts.sub);
}

std::string IntfId::toString() const {
  char text[kMaxText];
  return std::string(text, print(text));
}

bool parse(std::string_view name, IntfId* result) {
  for (const Grammar& grammar : kGrammars) {
    if (!name.starts_with(grammar.prefix)) continue;
    Parts parts;
    const char* begin = name.data() + grammar.prefix.size();
    if (!readParts(grammar, begin, name.data() + name.size(), &parts)) return false;
    *result = IntfId(encode(grammar, parts));
    return true;
  }
  return false;
}

std::ostream& operator<<(std::ostream& out, IntfId intf) {
  return out << intf.toString();
}

}  // namespace ryx::platform
