// The one fuzz driver: every parser of bytes from outside is a line of kFuzzTargets. A target takes
// any bytes and states properties, not only that nothing crashes: what is accepted prints and
// parses to itself, what is refused leaves the result alone. A broken property aborts with the
// input.
//
// In the suite, fuzz_replay_test runs each target over tests/fuzz/corpus/NAME/* and over seeded
// mutations of it. With libFuzzer, the same file searches for new inputs; to follow the library's
// branches it is built from the library's sources:
//
//   clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -DRYX_VERSION='"0"' -I.
//       -o /tmp/fuzz tests/fuzz/fuzz.cpp lib/*.cpp platform/*/*.cpp
//   RYX_FUZZ=interface-name /tmp/fuzz tests/fuzz/corpus/interface-name     (or --target=NAME)
//
// To add a parser, write a function like those below and its line in the table, and put a few
// inputs of each form into its corpus directory.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/model/acl.h"
#include "platform/model/lldp.h"
#include "platform/model/routing.h"
#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"
#include "ryx/ip.h"
#include "tests/support/json.h"

namespace ryx::fuzz {

struct FuzzTarget {
  const char* name;  // also the name of its corpus directory
  void (*run)(const uint8_t* data, size_t size);
};

// The input that is being run, for the report of a broken property.
inline const uint8_t* currentData;
inline size_t currentSize;

inline void require(bool ok, const char* property) {
  if (ok) return;
  std::fprintf(stderr, "Fuzzing: broken property \"%s\" on %zu bytes:", property, currentSize);
  for (size_t i = 0; i < currentSize; ++i) std::fprintf(stderr, " %02x", currentData[i]);
  std::fprintf(stderr, "\n");
  std::abort();
}

inline std::string_view textOf(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// For a text form with several spellings of a value: what is accepted prints in a form that parses
// to the same value. Returns whether the text was accepted.
template <class Value>
bool parsePrintParse(const uint8_t* data, size_t size, Value* value) {
  Value before = *value;
  if (!parse(textOf(data, size), value)) {
    require(*value == before, "a refused text leaves the result alone");
    return false;
  }
  std::string printed = value->toString();
  require(printed.size() <= Value::kMaxText, "a text fits its bound");
  Value again;
  require(parse(printed, &again), "what is printed parses");
  require(again == *value, "what is printed parses to the same value");
  require(again.hash() == value->hash(), "equal values have equal hashes");
  return true;
}

inline void fuzzIpAddr(const uint8_t* data, size_t size) {
  platform::IpAddr value;
  bool accepted = parsePrintParse(data, size, &value);
  require(value.isValid(), "an address is valid");

  std::string text(textOf(data, size));
  ip_addr_t addr;
  bool publicAccepted = parse_ip_addr(text.c_str(), &addr);
  if (text.find('\0') != text.npos) return;  // a C string ends there
  require(publicAccepted == accepted, "the public parser accepts the same texts");
  if (accepted) require(addr.to_string() == value.toString(), "both print the same text");
}

inline void fuzzIpPrefix(const uint8_t* data, size_t size) {
  platform::IpPrefix value;
  bool accepted = parsePrintParse(data, size, &value);
  require(value.isValid(), "a network has no host bits");
  if (accepted) require(value.contains(value.addr()), "a network holds its own address");

  platform::IpAddrMask mask;
  bool isMask = parsePrintParse(data, size, &mask);
  require(isMask || !accepted, "every network is an interface address");
  if (isMask) require(mask.subnet().contains(mask.addr()), "a subnet holds its address");
  if (isMask) require(accepted == (mask.subnet().addr() == mask.addr()), "host bits alone differ");
}

inline void fuzzMacAddr(const uint8_t* data, size_t size) {
  platform::MacAddr value;
  parsePrintParse(data, size, &value);
}

inline void fuzzInterfaceName(const uint8_t* data, size_t size) {
  platform::IntfId value;
  if (parsePrintParse(data, size, &value)) {
    require(value.toString() == textOf(data, size), "a name has one spelling");
    require(value.isValid(), "a name's identifier is valid");
    require(value.parent().isValid() && !value.parent().isSubintf(), "a parent is an interface");
  }

  uint64_t number = 0;
  std::memcpy(&number, data, size < sizeof number ? size : sizeof number);
  platform::IntfId any(number);
  platform::IntfId again;
  bool named = parse(any.toString(), &again);
  require(named == any.isValid(), "valid identifiers, and they alone, have a name");
  require(!named || again == any, "an identifier's name gives the identifier");
}

// The decoding of a value: from bytes it gives one that survives its own encoding and prints as
// JSON, or nothing.
template <class Value>
void decodeAs(std::string_view bytes) {
  const platform::Kind& kind = platform::kindOf<Value>();
  Value value{}, again{};
  platform::Decoder decoder(bytes);
  bool ok = kind.decode(decoder, &value);
  require(ok == !decoder.failed(), "a decoder knows that it failed");
  if (!ok) return require(kind.isDefault(&value), "what is refused leaves nothing of itself");
  platform::Encoder encoder;
  kind.encode(encoder, &value);
  platform::Decoder second(encoder.bytes());
  require(kind.decode(second, &again) && second.done(), "what is encoded decodes");
  require(kind.equal(&value, &again), "to the same value");
  require(kind.hash(&value) == kind.hash(&again), "with the same hash");
  platform::JsonWriter writer;
  kind.dump(writer, &value);
  require(test::JsonCheck::isValid(writer.text()), "a value prints as JSON");
  platform::Decoder skipper(encoder.bytes());
  platform::kinds::skipValue(skipper, kind.wire);
  require(skipper.done() && !skipper.failed(), "who does not know a value passes over it");
}

// The first byte says which kind.
inline void fuzzValueDecode(const uint8_t* data, size_t size) {
  static constexpr void (*kKinds[])(std::string_view) = {
      decodeAs<uint16_t>,
      decodeAs<int64_t>,
      decodeAs<double>,
      decodeAs<std::string>,
      decodeAs<platform::Name>,
      decodeAs<platform::IpPrefix>,
      decodeAs<platform::VlanId>,
      decodeAs<platform::Routing::RouteKey>,
      decodeAs<platform::SmallSet<platform::Routing::Via>>,
      decodeAs<platform::Acl::IpRule>,
      decodeAs<platform::Lldp::Msap>,
      decodeAs<std::vector<platform::Lldp::ManagementAddress>>,
      decodeAs<std::map<std::string, std::vector<int8_t>>>,
  };
  if (size == 0) return;
  kKinds[data[0] % std::size(kKinds)](textOf(data + 1, size - 1));
}

inline void fuzzJson(const uint8_t* data, size_t size) {
  platform::JsonWriter writer;
  writer.beginObject();
  writer.key(textOf(data, size));
  writer.string(textOf(data, size));
  writer.endObject();
  require(test::JsonCheck::isValid(writer.text()), "any bytes print as a JSON string");
}

inline constexpr FuzzTarget kFuzzTargets[] = {
    {"ip-address", fuzzIpAddr},        {"ip-prefix", fuzzIpPrefix},
    {"mac-address", fuzzMacAddr},      {"interface-name", fuzzInterfaceName},
    {"value-decode", fuzzValueDecode}, {"json", fuzzJson},
};

inline void runTarget(const FuzzTarget& target, const uint8_t* data, size_t size) {
  currentData = data;
  currentSize = size;
  target.run(data, size);
}

}  // namespace ryx::fuzz

#ifndef RYX_FUZZ_REPLAY

namespace {

const ryx::fuzz::FuzzTarget* chosen = nullptr;

void choose(const char* name) {
  for (const ryx::fuzz::FuzzTarget& target : ryx::fuzz::kFuzzTargets) {
    if (name != nullptr && std::strcmp(target.name, name) == 0) {
      chosen = &target;
      return;
    }
  }
  std::fprintf(stderr, "Fuzzing: \"%s\" is no target; RYX_FUZZ or --target= names one of:",
               name == nullptr ? "" : name);
  for (const ryx::fuzz::FuzzTarget& target : ryx::fuzz::kFuzzTargets) {
    std::fprintf(stderr, " %s", target.name);
  }
  std::fprintf(stderr, "\n");
  std::exit(2);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  const char* name = std::getenv("RYX_FUZZ");
  for (int i = 1; i < *argc; ++i) {
    if (std::strncmp((*argv)[i], "--target=", 9) == 0) name = (*argv)[i] + 9;
  }
  choose(name);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ryx::fuzz::runTarget(*chosen, data, size);
  return 0;
}

#endif
