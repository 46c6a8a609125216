// What it costs an agent to turn the texts of the value types into values and back. Each run walks
// over many different texts, so that no branch is learnt by heart; a figure is the time of one
// text.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ryx/eth.h"
#include "ryx/inline/types/intf.h"
#include "ryx/ip.h"

namespace {

constexpr const char* kTarget = "target: 100 ns";
constexpr const char* kNoTarget = "no target";
constexpr uint32_t kCount = 1024;

// Well mixed and the same in every run.
uint32_t scrambled(uint32_t i) {
  return i * 2654435761u ^ (i * 40503u) >> 3;
}

std::vector<std::string> intfNames() {
  std::vector<std::string> names;
  for (uint32_t i = 0; i < kCount; ++i) {
    uint32_t n = scrambled(i);
    std::string slot = std::to_string(1 + n % 64);
    std::string port = std::to_string(1 + n / 64 % 48);
    std::string sub = std::to_string(1 + n / 4096 % 4000);
    const std::string forms[] = {"Ethernet" + slot,
                                 "Ethernet" + slot + "/" + port,
                                 "Ethernet" + slot + "/" + port + "/4." + sub,
                                 "Port-Channel" + sub,
                                 "Vlan" + sub,
                                 "Loopback" + slot,
                                 "Management" + slot,
                                 "PeerPort-Channel" + sub};
    names.push_back(forms[n >> 29]);
  }
  return names;
}

std::vector<std::string> macs() {
  std::vector<std::string> texts;
  for (uint32_t i = 0; i < kCount; ++i) {
    uint32_t n = scrambled(i);
    auto byte = [n](int shift) { return static_cast<uint8_t>(n >> shift); };
    texts.push_back(ryx::eth_addr_t(2, byte(4), byte(24), byte(16), byte(8), byte(0)).to_string());
  }
  return texts;
}

std::vector<std::string> addrs(ryx::af_t af) {
  std::vector<std::string> texts;
  for (uint32_t i = 0; i < kCount; ++i) {
    uint32_t n = scrambled(i);
    uint8_t bytes[16] = {0x20, 0x01, 0x0d, 0xb8};
    uint8_t* tail = af == ryx::AF_IPV4 ? bytes : bytes + 12;
    for (int b = 0; b < 4; ++b) tail[b] = static_cast<uint8_t>(n >> 8 * b);
    texts.push_back(ryx::ip_addr_t(af, bytes).to_string());
  }
  return texts;
}

template <class Value>
Value fromText(const std::string& text) {
  return Value(text);
}

template <>
ryx::ip_addr_t fromText(const std::string& text) {
  ryx::ip_addr_t addr;
  if (!ryx::parse_ip_addr(text.c_str(), &addr)) std::abort();
  return addr;
}

template <class Value>
void parsing(benchmark::State& state, const std::vector<std::string>& texts) {
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(fromText<Value>(texts[i++ % kCount]));
}

template <class Value>
void printing(benchmark::State& state, const std::vector<std::string>& texts) {
  std::vector<Value> values;
  for (const std::string& text : texts) values.push_back(fromText<Value>(text));
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(values[i++ % kCount].to_string());
}

template <class Value>
void both(const std::string& what, const std::vector<std::string>& texts, const char* target) {
  benchmark::RegisterBenchmark(("parse_" + what).c_str(), [=](benchmark::State& state) {
    parsing<Value>(state, texts);
    state.SetLabel(target);
  });
  benchmark::RegisterBenchmark(("print_" + what).c_str(), [=](benchmark::State& state) {
    printing<Value>(state, texts);
    state.SetLabel(target);
  });
}

}  // namespace

int main(int argc, char** argv) {
  both<ryx::intf_id_t>("interface_name", intfNames(), kTarget);
  both<ryx::eth_addr_t>("mac", macs(), kTarget);
  both<ryx::ip_addr_t>("ipv4", addrs(ryx::AF_IPV4), kTarget);
  both<ryx::ip_addr_t>("ipv6", addrs(ryx::AF_IPV6), kNoTarget);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
