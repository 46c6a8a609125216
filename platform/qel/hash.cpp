#include "platform/qel/hash.h"

#include <sys/random.h>

namespace ryx::platform {

uint64_t hashSeed = 0x2545f4914f6cdd1dull;

// Before the statics of every other file: they may hold names and keys.
__attribute__((constructor(101))) static void chooseSeed() {
  uint64_t v;
  if (getrandom(&v, sizeof v, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof v)) hashSeed = v;
}

}  // namespace ryx::platform
