// What a Mirra table's rows are. A row is a structure that can be copied byte by byte, described
// once:
//
//   struct alignas(8) RouteStatus {
//     static constexpr const char* kTypeName = "Mirra::Fib::RouteStatus";
//     static constexpr uint32_t kMaxRows = 16 << 20;
//     IpPrefix key;
//     uint32_t metric = 0;
//     static constexpr auto members() {
//       return described(member("key", &RouteStatus::key), member("metric", &RouteStatus::metric));
//     }
//   };
//
// A row may have a list beside it, of any length up to kMaxElements: it names the list and its
// elements, which are described in the same way.
//
//     using Element = FibVia;
//     static constexpr const char* kListName = "via";
//     static constexpr uint64_t kMaxListBytes = uint64_t{4} << 30;  // of all rows
//
// From the description come the layout by which reader and writer know that they mean the same, the
// check of what is read (a writer may be broken), comparison, and the dump.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/base/api.h"
#include "platform/qel/kind.h"

namespace ryx::platform::mirra {

// Named bound: elements beside one row.
inline constexpr uint32_t kMaxElements = 65536;

struct RowType {
  std::string name;  // of the table's type
  uint64_t layout;   // tells apart what is laid out differently
  uint32_t bytes;    // of a row, a multiple of 8
  uint32_t keyBytes;
  uint32_t elementBytes;  // a multiple of 8; 0: no list
  uint32_t maxRows;
  uint64_t listBytes;  // of all lists at most
  uint64_t (*hash)(const void* key, uint64_t seed);
  bool (*sameKey)(const void* key, const void* other);
  // With their lists, of one length.
  bool (*same)(const void* row, const void* other, const void* list, const void* otherList,
               size_t count);
  // Whether bytes that came from outside are values.
  bool (*isValid)(const void* row, const void* list, size_t count);
  void (*dump)(JsonWriter& w, const void* row, const void* list, size_t count);

  // Null when there is none. Known are those that rowTypeOf() was called for.
  RYX_PRIVATE static const RowType* named(std::string_view name);
};

RYX_PRIVATE const RowType& registered(RowType type, const std::string& layout);

namespace detail {

template <class Row>
concept HasList = requires {
  typename Row::Element;
};

template <class T>
bool isValue(const T& v) {
  static_assert(!std::is_same_v<T, bool>, "a bool in a row is a uint8_t: any byte is one");
  if constexpr (kinds::Validated<T>) {
    return v.isValid() || v == T();
  } else if constexpr (kinds::ValidatedEnum<T>) {
    return isValid(v);
  } else if constexpr (kinds::Ranged<T>) {
    return v.value() >= T::kMin && v.value() <= T::kMax;
  } else if constexpr (kinds::Described<T>) {
    return std::apply([&](const auto&... m) { return (isValue(v.*m.pointer) && ...); },
                      T::members());
  } else {
    return true;
  }
}

template <class T>
void describe(std::string* layout, const char* name) {
  *layout += std::string(name) + ":" + kinds::nameOf<T>() + std::to_string(sizeof(T));
  if constexpr (kinds::Described<T>) {
    const T v{};
    *layout += "{";
    const auto one = [&](const auto& m) {
      const auto offset =
          reinterpret_cast<const char*>(&(v.*m.pointer)) - reinterpret_cast<const char*>(&v);
      *layout += "@" + std::to_string(offset);
      describe<std::decay_t<decltype(v.*m.pointer)>>(layout, m.name);
    };
    std::apply([&](const auto&... m) { (one(m), ...); }, T::members());
    *layout += "}";
  }
}

template <class T>
constexpr bool isRowLike() {
  return std::is_trivially_copyable_v<T> && sizeof(T) % 8 == 0 && alignof(T) == 8;
}

// The elements of a list, where they stand.
template <class Element>
std::span<const Element> elementsAt(const void* list, size_t count) {
  return {static_cast<const Element*>(list), count};
}

template <class Row>
const RowType& makeRowType() {
  static_assert(isRowLike<Row>(), "a row is alignas(8) and can be copied byte by byte");
  using Key = decltype(Row::key);
  RowType type{};
  std::string layout;
  describe<Row>(&layout, Row::kTypeName);
  type.name = Row::kTypeName;
  type.bytes = sizeof(Row);
  type.keyBytes = sizeof(Key);
  type.maxRows = Row::kMaxRows;
  type.hash = [](const void* key, uint64_t seed) {
    return kinds::hashValue(*static_cast<const Key*>(key), seed);
  };
  type.sameKey = [](const void* a, const void* b) {
    return *static_cast<const Key*>(a) == *static_cast<const Key*>(b);
  };
  type.same = [](const void* a, const void* b, const void* listA, const void* listB, size_t n) {
    bool same = kinds::equalValue(*static_cast<const Row*>(a), *static_cast<const Row*>(b));
    if constexpr (HasList<Row>) {
      using E = typename Row::Element;
      for (size_t i = 0; same && i < n; ++i)
        same = kinds::equalValue(elementsAt<E>(listA, n)[i], elementsAt<E>(listB, n)[i]);
    }
    return same;
  };
  type.isValid = [](const void* row, const void* list, size_t n) {
    bool valid = isValue(*static_cast<const Row*>(row));
    if constexpr (HasList<Row>)
      for (const auto& e : elementsAt<typename Row::Element>(list, n)) valid = valid && isValue(e);
    return valid;
  };
  type.dump = [](JsonWriter& w, const void* row, const void* list, size_t n) {
    const Row& r = *static_cast<const Row*>(row);
    w.beginObject();
    const auto one = [&](const auto& m) {
      w.key(m.name);
      kinds::dumpValue(w, r.*m.pointer);
    };
    std::apply([&](const auto&... m) { (one(m), ...); }, Row::members());
    if constexpr (HasList<Row>) {
      w.key(Row::kListName);
      w.beginArray();
      for (const auto& e : elementsAt<typename Row::Element>(list, n)) kinds::dumpValue(w, e);
      w.endArray();
    }
    w.endObject();
  };
  if constexpr (HasList<Row>) {
    static_assert(isRowLike<typename Row::Element>(), "so is an element of its list");
    type.elementBytes = sizeof(typename Row::Element);
    type.listBytes = Row::kMaxListBytes;
    describe<typename Row::Element>(&layout, Row::kListName);
  }
  return registered(std::move(type), layout);
}

}  // namespace detail

template <class Row>
const RowType& rowTypeOf() {
  static const RowType& type = detail::makeRowType<Row>();
  return type;
}

// The list beside a row, where a row without one has nothing.
template <class Row>
struct ListOf {
  struct Element {};
};
template <detail::HasList Row>
struct ListOf<Row> {
  using Element = typename Row::Element;
};

}  // namespace ryx::platform::mirra
