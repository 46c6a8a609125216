// Iterators over what a manager knows: interfaces, routes, sessions. They read the switch's tables
// in place and convert one element at a time.
//
//   for (auto it = mgr->intf_iter(); it; ++it) use(*it);
//
// The order is not specified. A table may change while it is iterated, also by the loop's body: an
// element may then be seen or missed, and what an iterator shows is always a valid element, as it
// was when the iterator came to it.
#ifndef RYX_ITER_BASE_H
#define RYX_ITER_BASE_H

#include <ryx/api.h>

#include <cstddef>
#include <iterator>

namespace ryx {

/// A forward iterator, and a value: a copy goes its own way. `T` is what it shows; `Impl` is the
/// manager's own business.
///
/// An iterator is for the loop's thread, or for a thread that holds an sdk_scoped_lock; it must not
/// outlive its manager.
template <typename T, typename Impl>
class RYX_API iter_base {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = T;
  using difference_type = std::ptrdiff_t;
  using pointer = const T*;
  using reference = const T&;

  /// At the end.
  iter_base() noexcept;
  iter_base(const iter_base& other);
  iter_base(iter_base&& other) noexcept;
  iter_base& operator=(const iter_base& other);
  iter_base& operator=(iter_base&& other) noexcept;
  ~iter_base();

  /// Goes on to the next element. At the end it raises a legacy_exception, "Attempt to increment
  /// past the end of the iterator".
  iter_base& operator++();
  iter_base operator++(int);

  /// The current element, which stands until the iterator moves. At the end they raise a
  /// legacy_exception, "Attempt to dereference the end of the iterator".
  const T& operator*() const;
  const T* operator->() const;

  /// Equal when both are at the end, or both are at the same place and show the same element.
  bool operator==(const iter_base& other) const;
  bool operator!=(const iter_base& other) const;

  /// True while there is an element.
  operator bool() const;

  /// For managers: takes the implementation over.
  explicit iter_base(Impl* impl) noexcept;

 private:
  Impl* impl_;  // null counts as at the end
};

}  // namespace ryx

#endif  // RYX_ITER_BASE_H
