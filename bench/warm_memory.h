// Memory that nobody touched for a while costs a virtual machine's first user many times what it
// costs the next: the host has to find a page for each of the guest's. Benchmarks that fill
// hundreds of megabytes touch as much beforehand, so that their figures are the program's, and
// print what the machine took for it.
#pragma once

#include <sys/mman.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace ryx::bench {

inline double touch(size_t bytes) {
  auto start = std::chrono::steady_clock::now();
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  madvise(memory, bytes, MADV_HUGEPAGE);
  for (size_t i = 0; i < bytes; i += 4096) static_cast<volatile char*>(memory)[i] = 1;
  munmap(memory, bytes);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline void warmMemory(size_t mebibytes) {
  size_t bytes = mebibytes << 20;
  double cold = touch(bytes);
  std::printf("memory: %zu MiB touched in %.3f s, and again in %.3f s\n", mebibytes, cold,
              touch(bytes));
}

}  // namespace ryx::bench
