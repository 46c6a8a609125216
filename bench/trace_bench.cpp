// What a trace statement costs: while it is off, which every operation of the SDK pays several
// times, and while it is on, to a file. The empty loop stands beside, since the figures are of its
// size.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "platform/trace/trace.h"
#include "ryx/tracing.h"

namespace {

using ryx::platform::TraceFacility;

TraceFacility& facility() {
  static TraceFacility& f = TraceFacility::named("TraceBench");
  return f;
}

void emptyLoop(benchmark::State& state) {
  int peer = 0;
  for (auto _ : state) benchmark::DoNotOptimize(++peer);
  state.SetLabel("the loop's own cost");
}

void disabledStatement(benchmark::State& state) {
  int peer = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++peer);
    RYX_TRACE(facility(), 8, "peer " << peer << " is up");
  }
  state.SetLabel("target: 1 ns above the empty loop");
}

void disabledTracer(benchmark::State& state) {
  ryx::tracer tracer("TraceBench");
  int peer = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++peer);
    tracer.trace8("peer %d is up", peer);
  }
  state.SetLabel("target: 1 ns above the empty loop");
}

void enabledStatement(benchmark::State& state) {
  facility().enabledIs(7, true);
  int saved = ::dup(2);
  int sink = ::open("/dev/null", O_WRONLY);
  ::dup2(sink, 2);
  int peer = 0;
  for (auto _ : state) RYX_TRACE(facility(), 7, "peer " << ++peer << " is up");
  ::dup2(saved, 2);
  ::close(saved);
  ::close(sink);
  state.SetLabel("no target: one line to /dev/null");
}

BENCHMARK(emptyLoop);
BENCHMARK(disabledStatement);
BENCHMARK(disabledTracer);
BENCHMARK(enabledStatement);

}  // namespace

BENCHMARK_MAIN();
