// What it costs to offer one event to a handler: one that overrides the callback, and one that does
// not. Figures are per handler of a dispatch, the API lock excluded.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "ryx/base_handler.h"
#include "ryx/base_mgr.h"

namespace {

class port_mgr;

class port_handler : public ryx::base_handler<port_mgr, port_handler> {
 public:
  explicit port_handler(port_mgr* mgr);
  virtual void on_status(uint64_t, bool) {}
  virtual void on_speed(uint64_t, uint64_t) {}
};

class port_mgr : public ryx::base_mgr<port_handler, uint64_t> {
 public:
  void status(uint64_t port) { dispatch_key(port, &port_handler::on_status, port, true); }
  void speed(uint64_t port) { dispatch_key(port, &port_handler::on_speed, port, port); }
};

port_handler::port_handler(port_mgr* mgr) : base_handler(mgr) {
  base_table_is(this);
}

class status_watcher : public port_handler {
 public:
  using port_handler::port_handler;
  void on_status(uint64_t port, bool up) override { seen += port + up; }
  uint64_t seen = 0;
};

struct switch_ports {
  explicit switch_ports(int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
      handlers.push_back(std::make_unique<status_watcher>(&mgr));
      mgr.add_handler(handlers.back().get());
    }
  }
  port_mgr mgr;
  std::vector<std::unique_ptr<status_watcher>> handlers;
};

void perHandler(benchmark::State& state, const char* target) {
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["per_handler"] =
      benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.SetLabel(target);
}

void overriding(benchmark::State& state) {
  switch_ports ports(state.range(0));
  for (auto _ : state) ports.mgr.status(1);
  perHandler(state, "target: 10 ns a handler");
}

void notOverriding(benchmark::State& state) {
  switch_ports ports(state.range(0));
  for (auto _ : state) ports.mgr.speed(1);
  perHandler(state, "target: 4 ns a handler");
}

BENCHMARK(overriding)->Arg(1)->Arg(16)->Arg(1000);
BENCHMARK(notOverriding)->Arg(1)->Arg(16)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
