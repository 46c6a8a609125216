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
//       -o /tmp/fuzz tests/fuzz/fuzz.cpp lib/*.cpp platform/*/*.cpp switch/base/*.cpp
//       $(ls switch/{hub,sim,linux}/*.cpp | grep -v -e feed.cpp -e ryxd.cpp) -lmnl
//   RYX_FUZZ=interface-name /tmp/fuzz tests/fuzz/corpus/interface-name     (or --target=NAME)
//
// To add a parser, write a function like those below and its line in the table, and put a few
// inputs of each form into its corpus directory.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/mirra/table.h"
#include "platform/model/acl.h"
#include "platform/model/interface.h"
#include "platform/model/lldp.h"
#include "platform/model/routing.h"
#include "platform/model/tables.h"
#include "platform/model/wellknown.h"
#include "platform/qel/dir.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"
#include "ryx/ip.h"
#include "switch/hub/config.h"
#include "switch/hub/keeper.h"
#include "switch/linux/bfd_session.h"
#include "switch/linux/intf_map.h"
#include "switch/linux/kernel_addresses.h"
#include "switch/linux/kernel_neighbors.h"
#include "switch/linux/link_message.h"
#include "switch/linux/message.h"
#include "switch/sim/sim.h"
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

// --- the link -----------------------------------------------------------------------------------

inline std::string framed(std::string_view payload) {
  auto n = static_cast<uint32_t>(payload.size());
  return std::string(reinterpret_cast<const char*>(&n), sizeof n).append(payload);
}

// Bytes for one end of a link: an even first byte means that a stream of frames follows, an odd one
// that the payload of one frame does.
inline std::string linkBytes(const platform::Encoder& hello, const uint8_t* data, size_t size) {
  std::string bytes = framed(hello.view());
  if (size == 0) return bytes;
  std::string_view rest = textOf(data + 1, size - 1);
  return data[0] & 1 ? bytes + framed(rest) : bytes.append(rest);
}

inline void sendThenClose(int fd, const std::string& bytes) {
  // What does not fit into the socket at once is more than any input needs.
  (void)!::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  for (int i = 0; i < 4; ++i) platform::activity().run(0);
  ::close(fd);
  for (int i = 0; i < 4; ++i) platform::activity().run(0);
}

// To the hub, from an agent that was greeted: the places that are not its own stay as they were.
inline void fuzzHub(const uint8_t* data, size_t size) {
  using namespace platform;
  Tree tree;
  makeWellKnown(tree);
  tree.make<Dir>("routing/vrf/input/default/RyxSdk-other");
  auto* status = tree.find<Interface::EthLagIntfStatusDir>("interface/status/eth/lag");
  IntfId lag;
  require(parse("Port-Channel1", &lag), "a name of an interface");
  status->intf.create(lag)->operStatus.set(1);
  Hub hub(tree);
  int fds[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "a socketpair");
  hub.accept(fds[0]);
  Encoder hello;
  hello.u8(static_cast<uint8_t>(Op::hello));
  hello.varint(kWireMagic);
  hello.varint(kWireVersion);
  hello.varint(static_cast<uint64_t>(Role::agent));
  hello.text("a");
  hello.varint(0);
  hello.varint(0);
  sendThenClose(fds[1], linkBytes(hello, data, size));
  require(hub.sessions() == 0, "who is gone leaves no session");
  require(status->intf.size() == 1 && status->intf.find(lag)->operStatus() == 1,
          "an agent writes no status");
  require(tree.find<Dir>("daemon/agent/config")->entry.empty(), "nor its own configuration");
  require(tree.find("routing/vrf/input/default/RyxSdk-other"), "nor the input of another");
  for (const WellKnown& place : wellKnown())
    require(tree.find(place.path), "a well-known place stands");
}

// To a participant, from whoever is at the other end: it gets over it, and a hub then finds all of
// it as it should be.
inline void fuzzClient(const uint8_t* data, size_t size) {
  using namespace platform;
  int fds[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "a socketpair");
  auto em = EntityManager::overSocket(fds[1], "a");
  auto group = em->mountGroup();
  group->add("interface/config/eth/lag", "Interface::EthLagIntfConfigDir", "w");
  group->add("daemon/agent/status", "Qel::Dir", "w");
  group->close([](MountStatus) {});
  const mirra::Table<Macsec::CounterStatus> counters(em->tree().tables(), "t", mirra::Mode::notify);
  activity().run(0);
  Encoder hello;
  hello.u8(static_cast<uint8_t>(Op::hello));
  hello.varint(kWireMagic);
  hello.varint(kWireVersion);
  hello.varint(1);
  sendThenClose(fds[0], linkBytes(hello, data, size));
  require(!em->connected(), "a participant notices that the hub is gone");

  Tree tree;
  makeWellKnown(tree);
  Hub hub(tree);
  require(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "a socketpair");
  hub.accept(fds[0]);
  em->reconnected(fds[1]);
  for (int i = 0; i < 8; ++i) activity().run(0);
  if (!em->connected()) return;  // it has mounted things that are no more
  auto* lags = em->find<Interface::EthLagIntfConfigDir>("interface/config/eth/lag");
  require(!lags || lags->intf.empty(), "what is not at the hub is gone");
}

// The operations in a server's state file, as a whole file and in one with the right checksum: what
// is taken is written in a form that is taken again, and means the same.
inline void fuzzStateFile(const uint8_t* data, size_t size) {
  using namespace platform;
  Tree tree, again;
  makeWellKnown(tree);
  makeWellKnown(again);
  const std::string before = hub::stateBytes(tree);
  if (!hub::takeStateBytes(tree, textOf(data, size)).empty())
    require(hub::stateBytes(tree) == before, "what is refused leaves nothing");
  if (!hub::takeStateBytes(tree, hub::stateFile(textOf(data, size))).empty()) {
    require(hub::stateBytes(tree) == before, "what is refused leaves nothing");
    return;
  }
  const std::string kept = hub::stateBytes(tree);
  require(hub::takeStateBytes(again, kept).empty(), "what is kept is taken");
  require(hub::stateBytes(again).size() == kept.size(), "and is kept again");
}

// A configuration file: every fault is a line with the file's name and a line's number.
inline void fuzzConfiguration(const uint8_t* data, size_t size) {
  hub::Config config;
  const std::string faults = config.take(textOf(data, size), "file");
  for (size_t at = 0; at < faults.size();) {
    const size_t end = faults.find('\n', at);
    require(end != faults.npos, "a fault is a line");
    require(faults.compare(at, 5, "file:") == 0 && faults[at + 5] >= '0' && faults[at + 5] <= '9',
            "a fault tells its line");
    at = end + 1;
  }
}

inline void fuzzSimCommand(const uint8_t* data, size_t size) {
  static auto* tree = new platform::Tree;
  static auto* sim = new sim::Sim(*tree);
  uint64_t version = tree->clock().version;
  std::string error = sim->command(textOf(data, size));
  require(error.empty() || tree->clock().version == version, "a refused line changes nothing");
  for (unsigned char c : error) require(c >= ' ' && c < 0x7f, "what is told is plain text");
  platform::activity().run(0);
}

// A map, a line break, and a device's name.
inline void fuzzIntfMap(const uint8_t* data, size_t size) {
  std::string_view text = textOf(data, size);
  size_t end = std::min(text.find('\n'), text.size());
  std::string_view device = text.substr(std::min(end + 1, text.size()));
  kernel::IntfMap map;
  platform::IntfId before = map.interfaceOf(device);
  std::string error = kernel::IntfMap::parse(text.substr(0, end), &map);
  platform::IntfId intf = map.interfaceOf(device);
  require(error.empty() || intf == before, "a refused map leaves the map alone");
  if (intf.isEmpty() || device.find('/') != device.npos) return;  // no device has a slash
  std::string back = map.deviceOf(intf);
  require(back.empty() || map.interfaceOf(back) == intf, "a device's name maps back");
  require(!back.empty() || device.size() > kernel::IntfMap::kMaxDevice,
          "an interface that a name maps to has a device's name");
}

// Runs `take` on the bytes as a netlink message, if they are one: of exactly that size, aligned.
template <class Take>
void asMessage(const uint8_t* data, size_t size, Take&& take) {
  auto block = std::make_unique<char[]>(size);
  std::memcpy(block.get(), data, size);
  auto* message = reinterpret_cast<nlmsghdr*>(block.get());
  if (kernel::isWhole(message, size)) take(*message);
}

inline void fuzzLinkMessage(const uint8_t* data, size_t size) {
  asMessage(data, size, [](const nlmsghdr& message) {
    std::optional<kernel::Link> link = kernel::parseLink(message);
    if (!link) return;
    require(link->index > 0 && !link->name.empty(), "a device has an index and a name");
    require(link->name.find('\0') == std::string::npos, "a name ends at its zero byte");
    auto code = static_cast<int>(kernel::operStatus(*link));
    require(code <= 7 && code != 4, "the codes of the table");
  });
}

inline void fuzzAddressMessage(const uint8_t* data, size_t size) {
  asMessage(data, size, [](const nlmsghdr& message) {
    const auto event = kernel::parseAddress(message);
    if (!event) return;
    require(event->address.index > 0, "an address has a device");
    require(event->address.addr.isValid() && !event->address.addr.addr().isNull(),
            "an address is one");
    const auto again = kernel::parseAddress(*kernel::setAddress(event->address).header());
    require(again && again->address.addr == event->address.addr, "what is set is what was read");
  });
}

inline void fuzzNeighborMessage(const uint8_t* data, size_t size) {
  asMessage(data, size, [](const nlmsghdr& message) {
    const auto event = kernel::parseNeighbor(message);
    if (!event) return;
    require(event->neighbor.index > 0, "a neighbour has a device");
    require(event->neighbor.addr.isValid() && !event->neighbor.addr.isNull(),
            "a neighbour has an address");
    require(!event->exists || event->neighbor.mac != platform::MacAddr(),
            "one that is there has a MAC address");
  });
}

inline void fuzzBfdPacket(const uint8_t* data, size_t size) {
  const auto packet = kernel::parseBfd(textOf(data, size));
  if (!packet) return;
  require(packet->myDiscriminator != 0 && packet->detectMult != 0, "a packet is from somebody");
  const auto bytes = packet->bytes();
  const auto again = kernel::parseBfd(textOf(bytes.data(), bytes.size()));
  require(again && again->bytes() == bytes, "what is sent is what was read");
}

inline constexpr FuzzTarget kFuzzTargets[] = {
    {"ip-address", fuzzIpAddr},
    {"ip-prefix", fuzzIpPrefix},
    {"mac-address", fuzzMacAddr},
    {"interface-name", fuzzInterfaceName},
    {"sim-command", fuzzSimCommand},
    {"intf-map", fuzzIntfMap},
    {"link-message", fuzzLinkMessage},
    {"address-message", fuzzAddressMessage},
    {"neighbor-message", fuzzNeighborMessage},
    {"bfd-packet", fuzzBfdPacket},
    {"hub", fuzzHub},
    {"client", fuzzClient},
    {"state-file", fuzzStateFile},
    {"configuration", fuzzConfiguration},
    {"value-decode", fuzzValueDecode},
    {"json", fuzzJson},
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
