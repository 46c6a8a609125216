// What the benchmarks with a plain main have in common: time, memory, and the end of one that did
// not do what it measures.
#pragma once

#include <malloc.h>
#include <sys/mman.h>
#include <time.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace ryx::bench {

inline double secondsOf(clockid_t id) {
  timespec t;
  clock_gettime(id, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}
inline double seconds() {
  return secondsOf(CLOCK_MONOTONIC);
}
// This process's own, whoever else computes: of what happens in one thread, without waiting.
inline double cpuSeconds() {
  return secondsOf(CLOCK_PROCESS_CPUTIME_ID);
}

// What is in memory, when all that was freed is given back.
inline size_t residentBytes() {
  malloc_trim(0);
  unsigned long size = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f || std::fscanf(f, "%lu %lu", &size, &resident) != 2) std::abort();
  std::fclose(f);
  return resident * 4096;
}
inline double residentMiB() {
  return static_cast<double>(residentBytes()) / (1 << 20);
}

[[noreturn]] inline void fail(const char* what) {
  std::printf("FAILED: %s\n", what);
  std::exit(1);
}

// In the suite every benchmark runs once, small.
inline bool isSmall() {
  return std::getenv("RYX_BENCH_SMALL") != nullptr;
}

// Memory that nobody touched for a while costs a virtual machine's first user many times what it
// costs the next: the host has to find a page for each of the guest's. Benchmarks that fill
// hundreds of megabytes touch as much beforehand, so that their figures are the program's, and
// print what the machine took for it.
inline double touch(size_t bytes) {
  const double start = seconds();
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) fail("mmap");
  madvise(memory, bytes, MADV_HUGEPAGE);
  for (size_t i = 0; i < bytes; i += 4096) static_cast<volatile char*>(memory)[i] = 1;
  munmap(memory, bytes);
  return seconds() - start;
}
inline void warmMemory(size_t mebibytes) {
  const size_t bytes = mebibytes << 20;
  const double cold = touch(bytes);
  std::printf("memory: %zu MiB touched in %.3f s, and again in %.3f s\n", mebibytes, cold,
              touch(bytes));
}

}  // namespace ryx::bench
