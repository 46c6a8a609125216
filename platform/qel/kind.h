// A kind says what the store can do with values of one C++ type: compare, copy, hash, encode,
// decode, dump. It is a constant table of functions; everything generic (change detection, entity
// copy, the wire, JSON) is driven by kinds and by nothing else, so it is written once.
//
// kindOf<T>() gives the table for numbers, bool, enums, std::string, Name, std::vector, std::map,
// std::set, SmallSet, and for every *described* struct: one that lists its members,
//
//   struct Via {
//     IpAddr hop;
//     uint32_t label = 0;
//     static constexpr auto members() { return described(member("hop", &Via::hop), ...); }
//   };
//
// so nested keys, sets of vias and maps of lists need nothing special. A struct's members have
// numbers on the wire, in their order: new ones come last, a side that does not know one passes
// over it, and one that has its default is not sent, so that defaults never change. Three more
// shapes of class are values: a number with bounds (kMin, kMax, value()), a byte string with a
// bound (kMaxBytes, bytes()), and one whose bytes are its value, such as an address (trivially
// copyable without padding, with toString()).
//
// Nothing out of range comes in: numbers are checked against their type and bounds, byte strings
// against theirs, other classes by their isValid() if they have one, enums by a function
// isValid(value) beside them if there is one. A value that is refused leaves no part of itself.
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/qel/codec.h"
#include "platform/qel/hash.h"
#include "platform/qel/name.h"

namespace ryx::platform {

enum class Wire : uint8_t { varint = 0, bytes = 1, local = 2 };  // local: never sent

struct Kind {
  const char* name;
  Wire wire;
  bool (*equal)(const void*, const void*);
  void (*assign)(void* to, const void* from);
  void (*reset)(void*);
  bool (*isDefault)(const void*);
  uint64_t (*hash)(const void*);
  void (*encode)(Encoder&, const void*);
  // False: malformed or out of range. The value is then what it was, or the default.
  bool (*decode)(Decoder&, void*);
  void (*dump)(JsonWriter&, const void*);
};

template <class T>
const Kind& kindOf();

// --- described structs -------------------------------------------------------------------------

template <class S, class T>
struct Member {
  const char* name;
  T S::*pointer;
};
template <class S, class T>
constexpr Member<S, T> member(const char* name, T S::*pointer) {
  return {name, pointer};
}
template <class... M>
constexpr auto described(M... members) {
  return std::tuple<M...>(members...);
}

// A set whose first element needs no table: most routes have one via. Kept sorted.
template <class T>
class SmallSet {
 public:
  using value_type = T;

  SmallSet() = default;
  // Of elements in any order.
  explicit SmallSet(std::vector<T> elements) { insertAll(std::move(elements)); }
  SmallSet(const SmallSet& o) : size_(o.size_) {
    if (size_ > 1) grow(size_);
    std::copy(o.begin(), o.end(), data());
  }
  SmallSet(SmallSet&& o) noexcept { swap(o); }
  SmallSet& operator=(SmallSet o) noexcept {
    swap(o);
    return *this;
  }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const T* begin() const { return many_ ? many_.get() : &one_; }
  const T* end() const { return begin() + size_; }
  bool contains(const T& v) const {
    const T* at = lower(v);
    return at != end() && !(v < *at);
  }
  // False when it was there already.
  bool insert(const T& v) {
    auto at = static_cast<uint32_t>(lower(v) - begin());
    if (at < size_ && !(v < begin()[at])) return false;
    if (size_ == (many_ ? capacity_ : 1)) grow(size_ * 2 + 2);
    T* base = data();
    std::move_backward(base + at, base + size_, base + size_ + 1);
    base[at] = v;
    ++size_;
    return true;
  }
  bool erase(const T& v) {
    auto at = static_cast<uint32_t>(lower(v) - begin());
    if (at == size_ || v < begin()[at]) return false;
    T* base = data();
    std::move(base + at + 1, base + size_, base + at);
    base[--size_] = T();
    return true;
  }
  // Many at once, in any order.
  void insertAll(std::vector<T> more) {
    more.insert(more.end(), begin(), end());
    std::sort(more.begin(), more.end());
    auto isSame = [](const T& a, const T& b) { return !(a < b); };
    more.erase(std::unique(more.begin(), more.end(), isSame), more.end());
    if (more.size() > (many_ ? capacity_ : 1)) grow(static_cast<uint32_t>(more.size()));
    size_ = static_cast<uint32_t>(more.size());
    std::move(more.begin(), more.end(), data());
  }
  void clear() { *this = SmallSet(); }
  bool operator==(const SmallSet& o) const {
    return size_ == o.size_ && std::equal(begin(), end(), o.begin());
  }

 private:
  T* data() { return many_ ? many_.get() : &one_; }
  const T* lower(const T& v) const { return std::lower_bound(begin(), end(), v); }
  void grow(uint32_t capacity) {
    auto grown = std::make_unique<T[]>(capacity);
    if (many_) {
      std::move(many_.get(), many_.get() + capacity_, grown.get());
    } else {
      grown[0] = std::move(one_);
      one_ = T();
    }
    many_ = std::move(grown);
    capacity_ = capacity;
  }
  void swap(SmallSet& o) noexcept {
    std::swap(size_, o.size_);
    std::swap(capacity_, o.capacity_);
    std::swap(many_, o.many_);
    std::swap(one_, o.one_);
  }

  uint32_t size_ = 0;
  uint32_t capacity_ = 0;  // of `many_`
  std::unique_ptr<T[]> many_;
  T one_{};
};

namespace kinds {

// Passes over a value of a field that this side does not know.
RYX_PRIVATE void skipValue(Decoder& d, Wire wire);

// Named bound: elements of one list, set or map that comes from outside.
inline constexpr size_t kMaxElements = 65536;

template <class T>
concept Described = requires {
  T::members();
};
// A number with bounds: travels and prints as a number.
template <class T>
concept Ranged = requires(const T& v) {
  requires std::unsigned_integral<decltype(v.value())>;
  { T::kMin } -> std::convertible_to<uint64_t>;
  { T::kMax } -> std::convertible_to<uint64_t>;
};
// A byte string with a bound.
template <class T>
concept BoundedText = std::constructible_from<T, std::string_view> && requires(const T& v) {
  { T::kMaxBytes } -> std::convertible_to<size_t>;
  { v.bytes() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept OpaqueBytes =
    std::is_trivially_copyable_v<T> && !Described<T> && !Ranged<T> && requires(const T& v) {
  { v.toString() } -> std::convertible_to<std::string>;
};
// Where isValid() is an invariant, and not only a question to ask (kHoldsAnyValue).
template <class T>
concept Validated = requires(const T& v) {
  { v.isValid() } -> std::same_as<bool>;
}
&&!requires {
  T::kHoldsAnyValue;
};
template <class T>
concept ValidatedEnum = requires(T v) {
  { isValid(v) } -> std::same_as<bool>;
};
// A reference to another entity: of this process alone.
template <class T>
concept Reference = requires(const T& v) {
  v.get()->generation();
};
template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};
template <class T>
struct IsMap : std::false_type {};
template <class K, class V>
struct IsMap<std::map<K, V>> : std::true_type {};
template <class T>
struct IsSet : std::false_type {};
template <class T>
struct IsSet<std::set<T>> : std::true_type {};
template <class T>
struct IsSet<SmallSet<T>> : std::true_type {};

template <class T>
inline constexpr bool isContainer = IsVector<T>::value || IsMap<T>::value || IsSet<T>::value;

template <class T>
constexpr bool isLocal() {
  if constexpr (IsMap<T>::value)
    return isLocal<typename T::mapped_type>();
  else if constexpr (isContainer<T>)
    return isLocal<typename T::value_type>();
  else
    return Reference<T>;
}

template <class T>
constexpr Wire wireOf() {
  if constexpr (isLocal<T>())
    return Wire::local;
  else if constexpr (std::is_integral_v<T> || std::is_enum_v<T> || Ranged<T>)
    return Wire::varint;
  else
    return Wire::bytes;
}

template <class T>
constexpr const char* nameOf() {
  if constexpr (Reference<T>)
    return "reference";
  else if constexpr (std::is_same_v<T, bool>)
    return "bool";
  else if constexpr (std::is_enum_v<T>)
    return "enum";
  else if constexpr (std::is_floating_point_v<T>)
    return "double";
  else if constexpr (std::is_integral_v<T>)
    return std::is_signed_v<T> ? "int" : "uint";
  else if constexpr (Ranged<T>)
    return "uint";
  else if constexpr (std::is_same_v<T, Name>)
    return "name";
  else if constexpr (std::is_same_v<T, std::string> || BoundedText<T>)
    return "text";
  else if constexpr (IsVector<T>::value)
    return "list";
  else if constexpr (IsMap<T>::value)
    return "map";
  else if constexpr (IsSet<T>::value)
    return "set";
  else if constexpr (OpaqueBytes<T>)
    return "bytes";
  else
    return "struct";
}

template <class T>
uint64_t hashValue(const T& v, uint64_t seed = hashSeed) {
  if constexpr (Reference<T>) {
    return hashNumber(reinterpret_cast<uintptr_t>(v.get()), seed);
  } else if constexpr (std::is_floating_point_v<T>) {
    return hashNumber(std::bit_cast<uint64_t>(static_cast<double>(v)), seed);
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    return hashInRow(static_cast<uint64_t>(v), seed);
  } else if constexpr (Ranged<T>) {
    return hashInRow(v.value(), seed);
  } else if constexpr (std::is_same_v<T, Name>) {
    return v.hash();  // a name's, of this process
  } else if constexpr (std::is_same_v<T, std::string>) {
    return hashBytes(v.data(), v.size(), seed);
  } else if constexpr (BoundedText<T>) {
    std::string_view bytes = v.bytes();
    return hashBytes(bytes.data(), bytes.size(), seed);
  } else if constexpr (requires { v.hash(seed); }) {
    return v.hash(seed);
  } else if constexpr (OpaqueBytes<T>) {
    static_assert(std::has_unique_object_representations_v<T>, "padding is no value");
    return hashBytes(&v, sizeof v, seed);
  } else if constexpr (Described<T>) {
    // The first member says where it stands among its neighbours.
    return std::apply(
        [&](const auto& first, const auto&... m) {
          uint64_t h = hashValue(v.*first.pointer, seed);
          uint64_t place = hashPlace(h);
          h = hashLine(h);
          ((h = hashMix(h, hashValue(v.*m.pointer, seed), seed)), ...);
          return hashPlaced(h, place);
        },
        T::members());
  } else {
    uint64_t h = v.size();
    for (const auto& element : v) {
      if constexpr (IsMap<T>::value) {
        h = hashMix(h, hashValue(element.first, seed), seed);
        h = hashMix(h, hashValue(element.second, seed), seed);
      } else {
        h = hashMix(h, hashValue(element, seed), seed);
      }
    }
    return h;
  }
}

// Whether writing `b` over `a` changes nothing: of floating-point numbers, the same bits, so that
// what is no number can be written again without a change.
template <class T>
bool equalValue(const T& a, const T& b) {
  if constexpr (std::is_floating_point_v<T>) {
    return std::bit_cast<uint64_t>(static_cast<double>(a)) ==
           std::bit_cast<uint64_t>(static_cast<double>(b));
  } else if constexpr (Described<T>) {
    return std::apply(
        [&](const auto&... m) { return (equalValue(a.*m.pointer, b.*m.pointer) && ...); },
        T::members());
  } else if constexpr (IsMap<T>::value) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
             return equalValue(x.first, y.first) && equalValue(x.second, y.second);
           });
  } else if constexpr (std::is_same_v<T, std::vector<bool>>) {
    return a == b;
  } else if constexpr (isContainer<T>) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](const auto& x, const auto& y) { return equalValue(x, y); });
  } else {
    return a == b;
  }
}

// What stands behind a field's tag: a number, or a length and that many bytes. Numbers, lengths and
// texts are the same on every machine; opaque bytes are in the sender's order.
template <class T>
void encodeValue(Encoder& e, const T& v) {
  if constexpr (isLocal<T>()) {
    // Nothing: a reference means nothing elsewhere.
  } else if constexpr (std::is_same_v<T, bool>) {
    e.varint(v ? 1 : 0);
  } else if constexpr (std::is_floating_point_v<T>) {
    double d = v;
    e.varint(sizeof d);
    e.raw(&d, sizeof d);
  } else if constexpr (std::is_enum_v<T>) {
    e.varint(static_cast<uint64_t>(static_cast<std::underlying_type_t<T>>(v)));
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (std::is_signed_v<T>)
      e.zigzag(v);
    else
      e.varint(v);
  } else if constexpr (Ranged<T>) {
    e.varint(v.value());
  } else if constexpr (std::is_same_v<T, std::string>) {
    e.text(v);
  } else if constexpr (std::is_same_v<T, Name>) {
    e.text(v.view());
  } else if constexpr (BoundedText<T>) {
    e.text(v.bytes());
  } else if constexpr (OpaqueBytes<T>) {
    // Zeros at the end are not sent: an IPv4 address takes five bytes of seventeen.
    std::string_view bytes(reinterpret_cast<const char*>(&v), sizeof v);
    e.text(bytes.substr(0, bytes.find_last_not_of('\0') + 1));
  } else {
    size_t mark = e.beginLength();
    if constexpr (Described<T>) {
      static const T defaults{};
      unsigned index = 0;
      auto one = [&](const auto& m) {
        using M = std::decay_t<decltype(v.*m.pointer)>;
        if constexpr (!isLocal<M>())
          if (!equalValue(v.*m.pointer, defaults.*m.pointer)) {
            e.varint(index << 1 | static_cast<unsigned>(wireOf<M>()));
            encodeValue(e, v.*m.pointer);
          }
        ++index;
      };
      std::apply([&](const auto&... m) { (one(m), ...); }, T::members());
    } else if constexpr (IsMap<T>::value) {
      for (const auto& [key, value] : v) {
        encodeValue(e, key);
        encodeValue(e, value);
      }
    } else if constexpr (std::is_same_v<T, std::vector<bool>>) {
      for (bool element : v) encodeValue(e, element);
    } else {
      for (const auto& element : v) encodeValue(e, element);
    }
    e.endLength(mark);
  }
}

template <class T>
bool decodeValue(Decoder& d, T& v);

template <class T>
void decodeMembers(Decoder& in, T& v) {
  while (!in.done()) {
    uint64_t tag = in.varint();
    uint64_t index = 0;
    bool known = false;
    auto one = [&](const auto& m) {
      using M = std::decay_t<decltype(v.*m.pointer)>;
      if (index++ != tag >> 1 || (tag & 1) != static_cast<unsigned>(wireOf<M>())) return;
      known = true;
      decodeValue(in, v.*m.pointer);
    };
    std::apply([&](const auto&... m) { (one(m), ...); }, T::members());
    if (!known) skipValue(in, static_cast<Wire>(tag & 1));
  }
  // The default stands for "not set", valid or not.
  if constexpr (Validated<T>)
    if (!in.failed() && !v.isValid() && !equalValue(v, T())) in.fail();
}

template <class T>
void decodeElements(Decoder& in, T& v) {
  // A set arrives in its order; what does not is put in at the end, all at once.
  [[maybe_unused]] std::vector<std::conditional_t<IsSet<T>::value, typename T::value_type, char>>
      late;
  for (size_t n = 0; !in.done(); ++n) {
    if (n == kMaxElements) return in.fail();
    if constexpr (IsMap<T>::value) {
      typename T::key_type key{};
      typename T::mapped_type value{};
      if (decodeValue(in, key) && decodeValue(in, value))
        v.insert_or_assign(std::move(key), std::move(value));
    } else {
      typename T::value_type element{};
      if (!decodeValue(in, element)) return;
      if constexpr (IsVector<T>::value)
        v.push_back(std::move(element));
      else if (v.empty() || *std::prev(v.end()) < element)
        v.insert(std::move(element));
      else
        late.push_back(std::move(element));
    }
  }
  if constexpr (IsSet<T>::value) {
    if (late.empty()) return;
    if constexpr (requires { v.insertAll(late); })
      v.insertAll(std::move(late));
    else
      v.insert(late.begin(), late.end());
  }
}

template <class T>
bool decodeValue(Decoder& d, T& v) {
  if constexpr (isLocal<T>()) {
    d.fail();
  } else if constexpr (std::is_floating_point_v<T>) {
    double number = 0;
    if (d.varint() != sizeof number || !d.raw(&number, sizeof number)) return d.fail(), false;
    v = static_cast<T>(number);
  } else if constexpr (std::is_enum_v<T>) {
    uint64_t n = d.varint();
    auto number = static_cast<std::underlying_type_t<T>>(n);
    if (d.failed() || static_cast<uint64_t>(number) != n) return d.fail(), false;
    auto value = static_cast<T>(number);
    if constexpr (ValidatedEnum<T>)
      if (!isValid(value)) return d.fail(), false;
    v = value;
  } else if constexpr (std::is_integral_v<T>) {
    std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t> n;
    if constexpr (std::is_signed_v<T>)
      n = d.zigzag();
    else
      n = d.varint();
    if (d.failed() || static_cast<decltype(n)>(static_cast<T>(n)) != n) return d.fail(), false;
    v = static_cast<T>(n);
  } else if constexpr (Ranged<T>) {
    uint64_t n = d.varint();
    if (d.failed() || n < T::kMin || n > T::kMax) return d.fail(), false;
    v = T(static_cast<decltype(v.value())>(n));
  } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, Name> ||
                       BoundedText<T>) {
    std::string_view text = d.text();
    if constexpr (BoundedText<T>)
      if (text.size() > T::kMaxBytes) return d.fail(), false;
    if (!d.failed()) v = T(text);
  } else if constexpr (OpaqueBytes<T>) {
    T value;
    std::string_view bytes = d.text();
    if (d.failed() || bytes.size() > sizeof value) return d.fail(), false;
    char image[sizeof value] = {};
    bytes.copy(image, bytes.size());
    std::memcpy(static_cast<void*>(&value), image, sizeof value);
    if constexpr (Validated<T>)
      if (!value.isValid() && !(value == T())) return d.fail(), false;
    v = value;
  } else {
    Decoder in = d.piece();
    v = T();
    if constexpr (Described<T>)
      decodeMembers(in, v);
    else
      decodeElements(in, v);
    if (in.failed()) {
      v = T();
      d.fail();
    }
  }
  return !d.failed();
}

template <class T>
void dumpValue(JsonWriter& w, const T& v) {
  if constexpr (Reference<T>) {
    if (v)
      w.string(v.get()->path());
    else
      w.null();
  } else if constexpr (std::is_same_v<T, bool>) {
    w.boolean(v);
  } else if constexpr (std::is_enum_v<T>) {
    w.number(static_cast<int64_t>(static_cast<std::underlying_type_t<T>>(v)));
  } else if constexpr (std::is_floating_point_v<T>) {
    w.number(static_cast<double>(v));
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (std::is_signed_v<T>)
      w.number(static_cast<int64_t>(v));
    else
      w.number(static_cast<uint64_t>(v));
  } else if constexpr (Ranged<T>) {
    w.number(static_cast<uint64_t>(v.value()));
  } else if constexpr (std::is_same_v<T, std::string>) {
    w.string(v);
  } else if constexpr (std::is_same_v<T, Name>) {
    w.string(v.view());
  } else if constexpr (BoundedText<T>) {
    w.string(v.bytes());
  } else if constexpr (OpaqueBytes<T>) {
    w.string(v.toString());
  } else if constexpr (Described<T>) {
    w.beginObject();
    auto one = [&](const auto& m) {
      w.key(m.name);
      dumpValue(w, v.*m.pointer);
    };
    std::apply([&](const auto&... m) { (one(m), ...); }, T::members());
    w.endObject();
  } else if constexpr (IsMap<T>::value) {
    w.beginArray();
    for (const auto& [key, value] : v) {
      w.beginObject();
      w.key("key");
      dumpValue(w, key);
      w.key("value");
      dumpValue(w, value);
      w.endObject();
    }
    w.endArray();
  } else if constexpr (std::is_same_v<T, std::vector<bool>>) {
    w.beginArray();
    for (bool element : v) w.boolean(element);
    w.endArray();
  } else {
    w.beginArray();
    for (const auto& element : v) dumpValue(w, element);
    w.endArray();
  }
}

template <class T>
struct KindTable {
  static const T& in(const void* p) { return *static_cast<const T*>(p); }
  static T& out(void* p) { return *static_cast<T*>(p); }
  static bool equal(const void* a, const void* b) { return equalValue(in(a), in(b)); }
  static void assign(void* to, const void* from) { out(to) = in(from); }
  static void reset(void* p) { out(p) = T(); }
  static bool isDefault(const void* p) { return equalValue(in(p), T()); }
  static uint64_t hash(const void* p) { return hashValue(in(p)); }
  static void encode(Encoder& e, const void* p) { encodeValue(e, in(p)); }
  static bool decode(Decoder& d, void* p) { return decodeValue(d, out(p)); }
  static void dump(JsonWriter& w, const void* p) { dumpValue(w, in(p)); }
};

}  // namespace kinds

template <class T>
const Kind& kindOf() {
  using K = kinds::KindTable<T>;
  static constexpr auto wire = kinds::wireOf<T>();
  static const Kind kind{kinds::nameOf<T>(), wire,     &K::equal,  &K::assign, &K::reset,
                         &K::isDefault,      &K::hash, &K::encode, &K::decode, &K::dump};
  return kind;
}

}  // namespace ryx::platform
