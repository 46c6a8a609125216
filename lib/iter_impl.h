// What stands behind the public iterators: a chain of sources, each walking one platform
// collection, shown one after the other.
//
//   class RYX_API vrf_iter_impl : public chained_iter_impl<std::string> {};
//   template class iter_base<std::string, vrf_iter_impl>;
//
//   vrf_iter_t VrfMgrImpl::vrf_iter() const {
//     auto impl = std::make_unique<vrf_iter_impl>();
//     impl->add_iter(keySource<std::string>(configured.iterator()));
//     impl->add_iter(elementSource<std::string>(
//         learned.iterator(), [](const auto& it) { return it->name().toString(); }));
//     impl->initialize();
//     return vrf_iter_t(impl.release());
//   }
//
// RYX_API stands at the first declaration of the class, in the public header: without it the
// members of the iterator stay inside the library.
//
// A platform iterator walks one collection and stays valid whatever happens to it. It offers
// `explicit operator bool() const` (there is an element), `void next()`, `const K& key() const`,
// and for the element `*` and `->`.
#pragma once

#include <cstddef>
#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

#include "platform/base/check.h"
#include "ryx/iter_base.h"
#include "ryx/panic.h"

namespace ryx {

// One source of elements.
template <typename T>
class sub_iter_impl {
 public:
  virtual ~sub_iter_impl() = default;

  // Comes to the first acceptable element from here on, when `first`, or to the next one. False
  // when there is none any more.
  virtual bool compute_next(bool first) = 0;

  // A copy at the same position. Every class that can be constructed has its own, or what it adds
  // would be lost in the copies of an iterator.
  virtual std::unique_ptr<sub_iter_impl> clone() const = 0;

  // The current element.
  virtual T convert_iter_to_val() const = 0;

  // Whether the platform's current element must not be shown.
  virtual bool skip_iter_elem() const { return false; }
};

// The sources in their order, and the place in them. `T` is copied, assigned and compared.
template <typename T>
class chained_iter_impl {
 public:
  chained_iter_impl() = default;

  chained_iter_impl(const chained_iter_impl& other)
      : initialized_(other.initialized_),
        at_end_(other.at_end_),
        current_source_(other.current_source_),
        current_(other.current_) {
    sources_.reserve(other.sources_.size());
    for (const auto& source : other.sources_) sources_.push_back(copyOf(*source));
  }

  chained_iter_impl& operator=(const chained_iter_impl&) = delete;

  void add_iter(std::unique_ptr<sub_iter_impl<T>> source) {
    platform::check(!initialized_, "All iterators must be added before initialization");
    sources_.push_back(std::move(source));
  }

  // Comes to the first element. Once, after the last add_iter().
  void initialize() {
    platform::check(!initialized_, "Iterator is already initialized");
    initialized_ = true;
    advance(true);
  }

  void next() {
    checkInitialized();
    if (at_end_) panic("Attempt to increment past the end of the iterator");
    advance(false);
  }

  bool at_end() const {
    checkInitialized();
    return at_end_;
  }

  const T& current() const {
    checkInitialized();
    return current_;
  }

  bool same_place(const chained_iter_impl& other) const {
    checkInitialized();
    other.checkInitialized();
    if (at_end_ || other.at_end_) return at_end_ == other.at_end_;
    return current_source_ == other.current_source_ && current_ == other.current_;
  }

 private:
  static std::unique_ptr<sub_iter_impl<T>> copyOf(const sub_iter_impl<T>& source) {
    std::unique_ptr<sub_iter_impl<T>> copy = source.clone();
    const sub_iter_impl<T>& copied = *copy;
    platform::check(typeid(copied) == typeid(source), "A source of an iterator must clone itself");
    return copy;
  }

  void checkInitialized() const {
    platform::check(initialized_, "Iterator has not been initialized");
  }

  void advance(bool first) {
    for (; current_source_ < sources_.size(); ++current_source_, first = true) {
      sub_iter_impl<T>& source = *sources_[current_source_];
      if (!source.compute_next(first)) continue;
      current_ = source.convert_iter_to_val();
      return;
    }
    at_end_ = true;
  }

  bool initialized_ = false;
  bool at_end_ = false;
  std::vector<std::unique_ptr<sub_iter_impl<T>>> sources_;
  size_t current_source_ = 0;
  T current_{};
};

// A source over one platform iterator. What it shows of an element is the derived class's choice.
template <typename T, typename PlatformIter>
class qelc_sub_iter : public sub_iter_impl<T> {
 public:
  explicit qelc_sub_iter(PlatformIter iter) : iter_(std::move(iter)) {}

  bool compute_next(bool first) override {
    if (!first && iter_) iter_.next();
    while (iter_ && this->skip_iter_elem()) iter_.next();
    return static_cast<bool>(iter_);
  }

 protected:
  const PlatformIter& iter() const { return iter_; }

 private:
  PlatformIter iter_;
};

// A source that shows the keys.
template <typename T, typename PlatformIter>
class qelc_keys_sub_iter : public qelc_sub_iter<T, PlatformIter> {
 public:
  using qelc_sub_iter<T, PlatformIter>::qelc_sub_iter;

  std::unique_ptr<sub_iter_impl<T>> clone() const override {
    return std::make_unique<qelc_keys_sub_iter>(*this);
  }
  T convert_iter_to_val() const override { return T(this->iter().key()); }
};

// A source that shows what `Convert` makes of the platform iterator, where `Skip` does not hide it.
template <typename T, typename PlatformIter, typename Convert, typename Skip>
class qelc_converted_sub_iter final : public qelc_sub_iter<T, PlatformIter> {
 public:
  qelc_converted_sub_iter(PlatformIter iter, Convert convert, Skip skip)
      : qelc_sub_iter<T, PlatformIter>(std::move(iter)),
        convert_(std::move(convert)),
        skip_(std::move(skip)) {}

  std::unique_ptr<sub_iter_impl<T>> clone() const override {
    return std::make_unique<qelc_converted_sub_iter>(*this);
  }
  T convert_iter_to_val() const override { return convert_(this->iter()); }
  bool skip_iter_elem() const override { return skip_(this->iter()); }

 private:
  Convert convert_;
  Skip skip_;
};

// The sources that most managers need. The functions are called with the platform iterator, at an
// element; they hold by value, or outlive the iterators.
template <typename T, typename PlatformIter>
std::unique_ptr<sub_iter_impl<T>> keySource(PlatformIter iter) {
  return std::make_unique<qelc_keys_sub_iter<T, PlatformIter>>(std::move(iter));
}

template <typename T, typename PlatformIter, typename Convert, typename Skip>
std::unique_ptr<sub_iter_impl<T>> elementSource(PlatformIter iter, Convert convert, Skip skip) {
  return std::make_unique<qelc_converted_sub_iter<T, PlatformIter, Convert, Skip>>(
      std::move(iter), std::move(convert), std::move(skip));
}

template <typename T, typename PlatformIter, typename Convert>
std::unique_ptr<sub_iter_impl<T>> elementSource(PlatformIter iter, Convert convert) {
  auto none = [](const PlatformIter&) { return false; };
  return elementSource<T>(std::move(iter), std::move(convert), none);
}

// The members of the public iterators, for the explicit instantiation in a manager's source.

namespace detail {

template <typename T>
class list_source final : public sub_iter_impl<T> {
 public:
  explicit list_source(std::vector<T> list) : list_(std::move(list)) {}
  bool compute_next(bool first) override {
    if (!first && at_ < list_.size()) ++at_;
    return at_ < list_.size();
  }
  std::unique_ptr<sub_iter_impl<T>> clone() const override {
    return std::make_unique<list_source>(*this);
  }
  T convert_iter_to_val() const override { return list_[at_]; }

 private:
  std::vector<T> list_;
  size_t at_ = 0;
};

}  // namespace detail

// What is in the list, as it was.
template <typename T>
std::unique_ptr<sub_iter_impl<T>> listSource(std::vector<T> list) {
  return std::make_unique<detail::list_source<T>>(std::move(list));
}

template <typename T, typename Impl>
iter_base<T, Impl>::iter_base() noexcept : impl_(nullptr) {}

template <typename T, typename Impl>
iter_base<T, Impl>::iter_base(Impl* impl) noexcept : impl_(impl) {}

template <typename T, typename Impl>
iter_base<T, Impl>::iter_base(const iter_base& other)
    : impl_(other.impl_ == nullptr ? nullptr : new Impl(*other.impl_)) {}

template <typename T, typename Impl>
iter_base<T, Impl>::iter_base(iter_base&& other) noexcept
    : impl_(std::exchange(other.impl_, nullptr)) {}

// The old implementation goes first, so that an iterator never holds two.
template <typename T, typename Impl>
iter_base<T, Impl>& iter_base<T, Impl>::operator=(const iter_base& other) {
  if (this == &other) return *this;
  delete std::exchange(impl_, nullptr);
  if (other.impl_ != nullptr) impl_ = new Impl(*other.impl_);
  return *this;
}

template <typename T, typename Impl>
iter_base<T, Impl>& iter_base<T, Impl>::operator=(iter_base&& other) noexcept {
  if (this == &other) return *this;
  delete std::exchange(impl_, std::exchange(other.impl_, nullptr));
  return *this;
}

template <typename T, typename Impl>
iter_base<T, Impl>::~iter_base() {
  delete impl_;
}

template <typename T, typename Impl>
iter_base<T, Impl>& iter_base<T, Impl>::operator++() {
  if (impl_ == nullptr) panic("Attempt to increment past the end of the iterator");
  impl_->next();
  return *this;
}

template <typename T, typename Impl>
iter_base<T, Impl> iter_base<T, Impl>::operator++(int) {
  iter_base before(*this);
  ++*this;
  return before;
}

template <typename T, typename Impl>
const T& iter_base<T, Impl>::operator*() const {
  if (!*this) panic("Attempt to dereference the end of the iterator");
  return impl_->current();
}

template <typename T, typename Impl>
const T* iter_base<T, Impl>::operator->() const {
  return &**this;
}

template <typename T, typename Impl>
bool iter_base<T, Impl>::operator==(const iter_base& other) const {
  if (!*this || !other) return static_cast<bool>(*this) == static_cast<bool>(other);
  return impl_->same_place(*other.impl_);
}

template <typename T, typename Impl>
bool iter_base<T, Impl>::operator!=(const iter_base& other) const {
  return !(*this == other);
}

template <typename T, typename Impl>
iter_base<T, Impl>::operator bool() const {
  return impl_ != nullptr && !impl_->at_end();
}

}  // namespace ryx
