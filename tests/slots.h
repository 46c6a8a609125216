// The slot of the virtual table that a member pointer names (Itanium C++ ABI): 0 and 1 are the
// destructor's where it comes first.
#pragma once

#include <cstddef>
#include <cstring>

template <class Member>
ptrdiff_t slot(Member member) {
  ptrdiff_t words[2];
  static_assert(sizeof member == sizeof words);
  std::memcpy(words, &member, sizeof words);
#if defined(__aarch64__) || defined(__arm__)
  return words[0] / static_cast<ptrdiff_t>(sizeof(void*));
#else
  return (words[0] - 1) / static_cast<ptrdiff_t>(sizeof(void*));
#endif
}
