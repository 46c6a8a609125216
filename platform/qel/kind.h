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
// so nested keys, sets of vias and maps of lists need nothing special. A type whose bytes are its
// value (an address) is trivially copyable and has toString(); with isValid(), what comes from
// outside is checked by it.
#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
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
  bool (*decode)(Decoder&,
                 void*);  // false: malformed or out of range; the value is then unspecified
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
  SmallSet() = default;
  SmallSet(const SmallSet& o) { copyFrom(o); }
  SmallSet(SmallSet&& o) noexcept
      : size_(o.size_), capacity_(o.capacity_), many_(o.many_), one_(std::move(o.one_)) {
    o.size_ = o.capacity_ = 0;
    o.many_ = nullptr;
  }
  SmallSet& operator=(SmallSet o) noexcept {
    std::swap(size_, o.size_);
    std::swap(capacity_, o.capacity_);
    std::swap(many_, o.many_);
    std::swap(one_, o.one_);
    return *this;
  }
  ~SmallSet() { delete[] many_; }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const T* begin() const { return many_ ? many_ : &one_; }
  const T* end() const { return begin() + size_; }
  bool contains(const T& v) const {
    const T* at = lower(v);
    return at != end() && *at == v;
  }
  // False when it was there already.
  bool insert(const T& v) {
    auto at = static_cast<uint32_t>(lower(v) - begin());
    if (at < size_ && begin()[at] == v) return false;
    if (size_ == 1 && !many_) reserve(4);
    if (many_ && size_ == capacity_) reserve(capacity_ * 2);
    T* base = data();
    for (uint32_t i = size_; i > at; --i) base[i] = std::move(base[i - 1]);
    base[at] = v;
    ++size_;
    return true;
  }
  bool erase(const T& v) {
    auto at = static_cast<uint32_t>(lower(v) - begin());
    if (at == size_ || !(begin()[at] == v)) return false;
    T* base = data();
    for (uint32_t i = at; i + 1 < size_; ++i) base[i] = std::move(base[i + 1]);
    base[--size_] = T();
    return true;
  }
  void clear() { *this = SmallSet(); }
  bool operator==(const SmallSet& o) const {
    if (size_ != o.size_) return false;
    for (uint32_t i = 0; i < size_; ++i)
      if (!(begin()[i] == o.begin()[i])) return false;
    return true;
  }

 private:
  T* data() { return many_ ? many_ : &one_; }
  const T* lower(const T& v) const {
    const T* at = begin();
    while (at != end() && *at < v) ++at;
    return at;
  }
  void reserve(uint32_t n) {
    T* grown = new T[n];
    for (uint32_t i = 0; i < size_; ++i) grown[i] = std::move(data()[i]);
    if (!many_) one_ = T();
    delete[] many_;
    many_ = grown;
    capacity_ = n;
  }
  void copyFrom(const SmallSet& o) {
    if (o.size_ > 1) {
      many_ = new T[o.size_];
      capacity_ = o.size_;
      std::copy(o.begin(), o.end(), many_);
    } else if (o.size_ == 1) {
      one_ = *o.begin();
    }
    size_ = o.size_;
  }

  uint32_t size_ = 0;
  uint32_t capacity_ = 0;
  T* many_ = nullptr;
  T one_{};
};

namespace kinds {

// Passes over a value of a field that this side does not know.
RYX_PRIVATE void skipValue(Decoder& d, Wire wire);

template <class T>
concept Described = requires {
  T::members();
};
template <class T>
concept OpaqueBytes = std::is_trivially_copyable_v<T> && requires(const T& v) {
  { v.toString() } -> std::convertible_to<std::string>;
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
constexpr Wire wireOf() {
  if constexpr (Reference<T>)
    return Wire::local;
  else if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>)
    return std::is_floating_point_v<T> ? Wire::bytes : Wire::varint;
  else
    return Wire::bytes;
}

template <class T>
const char* nameOf() {
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
  else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, Name>)
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
uint64_t hashValue(const T& v) {
  if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
    return hashNumber(static_cast<uint64_t>(v));
  } else if constexpr (std::is_same_v<T, Name>) {
    return v.hash();
  } else if constexpr (std::is_same_v<T, std::string>) {
    return hashBytes(v.data(), v.size());
  } else if constexpr (OpaqueBytes<T>) {
    return hashBytes(&v, sizeof v);
  } else if constexpr (Described<T>) {
    uint64_t h = 0;
    std::apply([&](const auto&... m) { ((h = hashMix(h, hashValue(v.*m.pointer))), ...); },
               T::members());
    return h;
  } else {
    return 0;  // collections are no keys
  }
}

template <class T>
bool equalValue(const T& a, const T& b) {
  if constexpr (Described<T>) {
    return std::apply(
        [&](const auto&... m) { return (equalValue(a.*m.pointer, b.*m.pointer) && ...); },
        T::members());
  } else {
    return a == b;
  }
}

// What stands behind a field's tag: a number, or a length and that many bytes.
template <class T>
void encodeValue(Encoder& e, const T& v) {
  if constexpr (Reference<T>) {
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
  } else if constexpr (std::is_same_v<T, std::string>) {
    e.text(v);
  } else if constexpr (std::is_same_v<T, Name>) {
    e.text(v.view());
  } else if constexpr (OpaqueBytes<T>) {
    // Zeros at the end are not sent: an IPv4 address takes five bytes of seventeen.
    auto* bytes = reinterpret_cast<const char*>(&v);
    size_t n = sizeof v;
    while (n != 0 && bytes[n - 1] == 0) --n;
    e.varint(n);
    e.raw(bytes, n);
  } else {
    size_t mark = e.beginLength();
    if constexpr (Described<T>) {
      unsigned index = 0;
      auto one = [&](const auto& m) {
        using M = std::decay_t<decltype(v.*m.pointer)>;
        if (!equalValue(v.*m.pointer, M())) {
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
    } else {
      for (const auto& element : v) encodeValue(e, element);
    }
    e.endLength(mark);
  }
}

template <class T>
bool decodeValue(Decoder& d, T& v) {
  if constexpr (Reference<T>) {
    d.fail();
  } else if constexpr (std::is_same_v<T, bool>) {
    v = d.varint() != 0;
  } else if constexpr (std::is_floating_point_v<T>) {
    double number = 0;
    if (d.varint() != sizeof number || !d.raw(&number, sizeof number)) return d.fail(), false;
    v = static_cast<T>(number);
  } else if constexpr (std::is_enum_v<T>) {
    using U = std::underlying_type_t<T>;
    v = static_cast<T>(static_cast<U>(d.varint()));
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (std::is_signed_v<T>) {
      int64_t n = d.zigzag();
      v = static_cast<T>(n);
      if (v != n) d.fail();
    } else {
      uint64_t n = d.varint();
      v = static_cast<T>(n);
      if (v != n) d.fail();
    }
  } else if constexpr (std::is_same_v<T, std::string>) {
    v = d.text();
  } else if constexpr (std::is_same_v<T, Name>) {
    v = Name(d.text());
  } else if constexpr (OpaqueBytes<T>) {
    std::string_view bytes = d.text();
    if (bytes.size() > sizeof v) return d.fail(), false;
    char image[sizeof v] = {};
    std::memcpy(image, bytes.data(), bytes.size());
    std::memcpy(static_cast<void*>(&v), image, sizeof v);
    if constexpr (requires { v.isValid(); })
      if (!(v == T()) && !v.isValid()) d.fail();
  } else {
    Decoder in = d.piece();
    v = T();
    if constexpr (Described<T>) {
      while (!in.done()) {
        uint64_t tag = in.varint();
        unsigned index = 0;
        bool known = false;
        auto one = [&](const auto& m) {
          using M = std::decay_t<decltype(v.*m.pointer)>;
          if (index++ == tag >> 1 && (tag & 1) == static_cast<unsigned>(wireOf<M>())) {
            known = true;
            decodeValue(in, v.*m.pointer);
          }
        };
        std::apply([&](const auto&... m) { (one(m), ...); }, T::members());
        if (!known) skipValue(in, static_cast<Wire>(tag & 1));
      }
    } else if constexpr (IsMap<T>::value) {
      while (!in.done()) {
        typename T::key_type key{};
        decodeValue(in, key);
        if (!in.failed()) decodeValue(in, v[key]);
      }
    } else if constexpr (IsVector<T>::value) {
      while (!in.done()) {
        v.emplace_back();
        decodeValue(in, v.back());
      }
    } else {
      while (!in.done()) {
        std::decay_t<decltype(*v.begin())> element{};
        decodeValue(in, element);
        if (!in.failed()) v.insert(element);
      }
    }
    if (in.failed()) d.fail();
  }
  return !d.failed();
}

template <class T>
void dumpValue(JsonWriter& w, const T& v) {
  if constexpr (Reference<T>) {
    if (v)
      w.string(v->path());
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
  } else if constexpr (std::is_same_v<T, std::string>) {
    w.string(v);
  } else if constexpr (std::is_same_v<T, Name>) {
    w.string(v.view());
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
