// The store's values, entities and collections. One conformance suite runs over every kind of
// attribute; whole entities are copied, compared and sent through a byte form that is written here
// from the descriptions alone.
#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <typeinfo>

#include "platform/activity/activity.h"
#include "platform/model/acl.h"
#include "platform/model/lldp.h"
#include "platform/model/routing.h"
#include "platform/model/wellknown.h"
#include "platform/qel/dir.h"
#include "platform/qel/reactor.h"
#include "tests/support/json.h"
#include "tests/support/random_runs.h"

namespace ryx::platform {
namespace {

using ryx::test::JsonCheck;
using ryx::test::randomRuns;

// --- values ------------------------------------------------------------------------------------

enum class Loose : uint8_t { a = 0, b = 1, unknown = 200 };
enum class Signed : int16_t { least = -32768, minus = -1, zero = 0, most = 32767 };

struct Inner {
  uint32_t number = 7;  // a default that is not zero
  std::string text;
  static constexpr auto members() {
    return described(member("number", &Inner::number), member("text", &Inner::text));
  }
  bool operator==(const Inner&) const = default;
  auto operator<=>(const Inner&) const = default;
};
struct Outer {
  Inner key;
  std::map<std::string, std::vector<Inner>> lists;
  SmallSet<Inner> set;
  double ratio = 0;
  static constexpr auto members() {
    return described(member("key", &Outer::key), member("lists", &Outer::lists),
                     member("set", &Outer::set), member("ratio", &Outer::ratio));
  }
};
// Valid when the two agree.
struct Pair {
  uint8_t low = 0;
  uint8_t high = 0;
  bool isValid() const { return low < high; }
  static constexpr auto members() {
    return described(member("low", &Pair::low), member("high", &Pair::high));
  }
};

struct Bound {
  static constexpr size_t kMaxBytes = 4;
  static constexpr const char* kTooLong = "Bound::bytes > 4 not allowed";
};

template <class T>
struct Holder : EntityType<Holder<T>> {
  static const char* typeName() {
    static const std::string name = std::string("test::Holder<") + typeid(T).name() + ">";
    return name.c_str();
  }
  KeyOf<Holder, Name> key;
  AttrOf<Holder, "value", T, kPlain> value;
  AttrOf<Holder, "fixed", T, kConstructor> fixed;
};

std::string allBytes() {
  std::string s;
  for (int i = 0; i < 256; ++i) s += static_cast<char>(i);
  return s;
}

// Values of a kind, all different, the default first.
template <class T>
std::deque<T> extremes() {
  using L = std::numeric_limits<T>;
  std::deque<T> v = {T(0), T(1), L::max(), T(L::max() - 1), T(0x55)};
  if (L::is_signed) v.insert(v.end(), {T(-1), L::min(), T(L::min() + 1)});
  return v;
}
IpAddr v6(const char* text) {
  IpAddr a;
  check(parse(text, &a), "an address");
  return a;
}
Routing::Via via(uint32_t i) {
  Routing::Via v;
  v.hop = IpAddr::v4(0x0a000000 + i);
  v.mplsLabel = i;
  return v;
}
template <class T>
SmallSet<T> setOf(std::vector<T> elements) {
  SmallSet<T> s;
  for (const T& e : elements) s.insert(e);
  return s;
}

template <class T>
struct Samples;
template <std::integral T>
struct Samples<T> {
  static std::deque<T> get() { return extremes<T>(); }
};
template <std::floating_point T>
struct Samples<T> {
  static std::deque<T> get() {
    using L = std::numeric_limits<T>;
    return {0,
            T(-0.0),
            T(0.1),
            L::max(),
            L::denorm_min(),
            L::infinity(),
            -L::infinity(),
            L::quiet_NaN()};
  }
};
#define RYX_SAMPLES(type, ...)                                      \
  template <>                                                       \
  struct Samples<type> {                                            \
    static std::deque<type> get() { return {type(), __VA_ARGS__}; } \
  }
using StringList = std::vector<std::string>;
using NestedMap = std::map<uint32_t, std::map<std::string, int64_t>>;
using Short = BoundedBytes<Bound>;
RYX_SAMPLES(bool, true);
RYX_SAMPLES(Loose, Loose::b, Loose::unknown, Loose(255));
RYX_SAMPLES(Signed, Signed::least, Signed::minus, Signed::most);
RYX_SAMPLES(Routing::RouteType, Routing::RouteType::drop, Routing::RouteType::nexthopGroup);
RYX_SAMPLES(std::string, "a", allBytes(), std::string(1, '\0'), std::string(127, 'x'),
            std::string(128, 'x'), std::string(70000, '\xff'));
RYX_SAMPLES(Name, "a", Name(allBytes()), Name(std::string_view("\0", 1)), "Ethernet1");
RYX_SAMPLES(Short, "a", Short(std::string_view("\0\0\xff\n", 4)));
RYX_SAMPLES(Acl::TcpFlag, Acl::TcpFlag(1), Acl::TcpFlag(0x1ff));
RYX_SAMPLES(Lldp::Subtype, Lldp::Subtype(2), Lldp::Subtype(255));
RYX_SAMPLES(IpAddr, IpAddr::v4(0), IpAddr::v4(0xffffffff), IpAddr::v4(0x0a000001), v6("::"),
            v6("::1"), v6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
RYX_SAMPLES(IpPrefix, IpPrefix(IpAddr::v4(0), 0), IpPrefix(IpAddr::v4(0), 1), IpPrefix(v6("::"), 0),
            IpPrefix(v6("2001:db8::1"), 128));
RYX_SAMPLES(IpAddrMask, IpAddrMask(IpAddr::v4(0x0a000001), 8), IpAddrMask(v6("fe80::1"), 64));
RYX_SAMPLES(MacAddr, MacAddr(0, 0, 0, 0, 0, 1), MacAddr(0xff, 0xff, 0xff, 0xff, 0xff, 0xff),
            MacAddr(2, 0, 0, 0, 0, 0));
RYX_SAMPLES(VlanId, VlanId(2), VlanId(4094));
RYX_SAMPLES(IntfId, IntfId(0), IntfId(1), IntfId(~uint64_t{0}));
RYX_SAMPLES(std::vector<uint32_t>, {0}, {0, 0}, {1, 2, 3}, std::vector<uint32_t>(1000, 5));
RYX_SAMPLES(std::vector<bool>, {false}, {true, false}, std::vector<bool>(200, true));
RYX_SAMPLES(StringList, {""}, {"", ""}, {allBytes(), "b"});
RYX_SAMPLES(std::vector<double>, {0.0}, {-0.0}, {std::nan("")});
RYX_SAMPLES(std::set<std::string>, {""}, {"a", "b"});
RYX_SAMPLES(NestedMap, {{0, {}}}, {{0, {{"", -1}}}, {1, {}}}, {{1, {{"a", 1}, {"b", 2}}}});
RYX_SAMPLES(SmallSet<uint32_t>, setOf<uint32_t>({0}), setOf<uint32_t>({0, 1}),
            setOf<uint32_t>({9, 8, 7, 6, 5}));
RYX_SAMPLES(SmallSet<Routing::Via>, setOf<Routing::Via>({Routing::Via()}),
            setOf<Routing::Via>({via(1)}), setOf<Routing::Via>({via(2), via(1)}));
RYX_SAMPLES(Inner, Inner{0, ""}, Inner{7, "x"});
RYX_SAMPLES(Pair, Pair{0, 1}, Pair{254, 255});
RYX_SAMPLES(Outer, Outer{{0, "k"}, {}, {}, 0}, Outer{{}, {{"", {}}}, {}, 0},
            Outer{{}, {{"l", {{}, {1, "m"}}}}, setOf<Inner>({{3, "c"}, {2, "b"}}), -1.5});
RYX_SAMPLES(Routing::RouteKey, Routing::RouteKey{IpPrefix(IpAddr::v4(0), 0), 1},
            Routing::RouteKey{IpPrefix(), 255});
RYX_SAMPLES(Lldp::Msap, Lldp::Msap{{Lldp::ChassisIdEncoding::local, std::string(255, '\xfe')}, {}},
            Lldp::Msap{{}, {Lldp::PortIdEncoding::reserved, ""}});
#undef RYX_SAMPLES

// One value of any kind.
struct Value {
  const Kind* kind;
  std::shared_ptr<void> at;
  std::shared_ptr<void> (*make)(const void*);
  explicit Value(const Kind& k, std::shared_ptr<void> v, std::shared_ptr<void> (*m)(const void*))
      : kind(&k), at(std::move(v)), make(m) {}
  Value(const Value& o) : kind(o.kind), at(o.make(o.at.get())), make(o.make) {}
  Value(Value&&) = default;
  Value& operator=(const Value&) = delete;
  bool operator==(const Value& o) const { return kind->equal(at.get(), o.at.get()); }
  bool isDefault() const { return kind->isDefault(at.get()); }
  std::string encoded() const {
    Encoder e;
    kind->encode(e, at.get());
    return e.bytes();
  }
  // Accepts what begins `bytes`; `left`: how much is behind it.
  bool decode(std::string_view bytes, size_t* left = nullptr) {
    // Exactly its size on the heap, so that the address sanitizer sees a read past the end.
    std::vector<char> block(bytes.begin(), bytes.end());
    Decoder d(block.data(), block.size());
    bool ok = kind->decode(d, at.get());
    EXPECT_EQ(ok, !d.failed());
    if (left) *left = d.left();
    return ok;
  }
  std::string dumped() const {
    JsonWriter w;
    kind->dump(w, at.get());
    return w.text();
  }
};
template <class T>
std::shared_ptr<void> copyOf(const void* v) {
  return std::make_shared<T>(*static_cast<const T*>(v));
}
template <class T>
Value valueOf(const T& v) {
  return Value(kindOf<T>(), copyOf<T>(&v), &copyOf<T>);
}

// The values of a kind that the suite runs over, and an entity with attributes of it.
struct KindCase {
  std::string name;
  std::vector<Value> values;
  const TypeInfo& (*holder)();
  bool (*set)(Entity&, const void*);
};
template <class T>
KindCase kindCase(const char* name) {
  std::vector<Value> values;
  for (const T& v : Samples<T>::get()) values.push_back(valueOf<T>(v));
  return {name, std::move(values), &typeOf<Holder<T>>, [](Entity& e, const void* v) {
            return static_cast<Holder<T>&>(e).value.set(*static_cast<const T*>(v));
          }};
}
std::vector<KindCase> kindCases() {
  return {kindCase<bool>("bool"),
          kindCase<uint8_t>("uint8"),
          kindCase<uint16_t>("uint16"),
          kindCase<uint32_t>("uint32"),
          kindCase<uint64_t>("uint64"),
          kindCase<int8_t>("int8"),
          kindCase<int16_t>("int16"),
          kindCase<int32_t>("int32"),
          kindCase<int64_t>("int64"),
          kindCase<double>("double"),
          kindCase<float>("float"),
          kindCase<Loose>("enum"),
          kindCase<Signed>("signedEnum"),
          kindCase<Routing::RouteType>("boundedEnum"),
          kindCase<std::string>("string"),
          kindCase<Name>("name"),
          kindCase<Short>("boundedBytes"),
          kindCase<Acl::TcpFlag>("boundedNumber"),
          kindCase<Lldp::Subtype>("boundedNumberFromOne"),
          kindCase<IpAddr>("ipAddr"),
          kindCase<IpPrefix>("ipPrefix"),
          kindCase<IpAddrMask>("ipAddrMask"),
          kindCase<MacAddr>("macAddr"),
          kindCase<VlanId>("vlanId"),
          kindCase<IntfId>("intfId"),
          kindCase<std::vector<uint32_t>>("numbers"),
          kindCase<std::vector<bool>>("flags"),
          kindCase<StringList>("strings"),
          kindCase<std::vector<double>>("doubles"),
          kindCase<std::set<std::string>>("set"),
          kindCase<NestedMap>("mapOfMaps"),
          kindCase<SmallSet<uint32_t>>("smallSet"),
          kindCase<SmallSet<Routing::Via>>("vias"),
          kindCase<Inner>("struct"),
          kindCase<Pair>("validatedStruct"),
          kindCase<Outer>("nestedStruct"),
          kindCase<Routing::RouteKey>("routeKey"),
          kindCase<Lldp::Msap>("nestedKey")};
}

class Counting : public EntityReactor {
 public:
  Counting() : EntityReactor("Counting") {}
  uint32_t attributes = 0;
  int calls = 0;

 protected:
  void onAttributes(uint32_t a) override {
    attributes |= a;
    ++calls;
  }
};

class KindTest : public ::testing::TestWithParam<KindCase> {
 protected:
  const std::vector<Value>& values() const { return GetParam().values; }
};
INSTANTIATE_TEST_SUITE_P(Kinds, KindTest, ::testing::ValuesIn(kindCases()),
                         [](const auto& p) { return p.param.name; });

TEST_P(KindTest, ComparesCopiesHashes) {
  std::set<uint64_t> hashes;
  for (const Value& a : values()) {
    EXPECT_EQ(&a == &values()[0], a.isDefault()) << a.dumped();
    for (const Value& b : values()) {
      Value copy = b;
      EXPECT_EQ(&a == &b, a == copy) << a.dumped() << " " << b.dumped();
      a.kind->assign(copy.at.get(), a.at.get());
      EXPECT_TRUE(a == copy);
      EXPECT_EQ(a.kind->hash(a.at.get()), a.kind->hash(copy.at.get()));
    }
    hashes.insert(a.kind->hash(a.at.get()));
    Value cleared = a;
    a.kind->reset(cleared.at.get());
    EXPECT_TRUE(cleared.isDefault());
    EXPECT_TRUE(JsonCheck::isValid(a.dumped())) << a.dumped();
  }
  EXPECT_EQ(hashes.size(), values().size());
}

TEST_P(KindTest, WireIdentity) {
  Encoder e;
  for (const Value& v : values()) {
    v.kind->encode(e, v.at.get());
    for (Value into : values()) {
      size_t left = 1;
      EXPECT_TRUE(into.decode(v.encoded(), &left));
      EXPECT_EQ(left, 0u);
      EXPECT_TRUE(into == v) << v.dumped();
    }
  }
  // One behind the other, and passed over by who knows only how they travel.
  Decoder all(e.bytes()), skipper(e.bytes());
  for (const Value& v : values()) {
    Value into = values()[0];
    EXPECT_TRUE(v.kind->decode(all, into.at.get()));
    EXPECT_TRUE(into == v);
    kinds::skipValue(skipper, v.kind->wire);
  }
  EXPECT_TRUE(all.done() && skipper.done() && !skipper.failed());
}

TEST_P(KindTest, RefusesWhatIsCutShort) {
  for (const Value& v : values()) {
    std::string bytes = v.encoded();
    for (size_t n = 0; n<bytes.size(); n += bytes.size()> 1000 ? 997 : 1) {
      Value into = values()[0];
      EXPECT_FALSE(into.decode(std::string_view(bytes).substr(0, n))) << n;
      EXPECT_TRUE(into.isDefault()) << "what is refused leaves nothing";
    }
  }
}

void mutate(std::mt19937& random, std::string* bytes) {
  size_t at = random() % (bytes->size() + 1);
  if (random() % 3 == 0) {
    bytes->insert(at, 1, static_cast<char>(random()));
  } else if (at < bytes->size()) {
    char& byte = (*bytes)[at];
    if (random() % 3 == 0)
      bytes->erase(at, 1);
    else
      byte = static_cast<char>(random() % 2 ? random() : byte ^ 1u << random() % 8);
  }
}

// Whatever is accepted is a value like any other: it goes through the wire unchanged, and prints.
TEST_P(KindTest, MutatedBytesGiveValuesOrNothing) {
  randomRuns(1, [&](std::mt19937& random) {
    for (int i = 0; i < 2000; ++i) {
      std::string bytes = values()[random() % values().size()].encoded();
      if (bytes.size() > 2000) continue;
      for (unsigned n = 1 + random() % 3; n > 0; --n) mutate(random, &bytes);
      Value v = values()[0], again = v;
      if (!v.decode(bytes)) {
        ASSERT_TRUE(v.isDefault()) << v.dumped();
        continue;
      }
      ASSERT_TRUE(again.decode(v.encoded()));
      ASSERT_TRUE(again == v) << v.dumped() << again.dumped();
      ASSERT_TRUE(JsonCheck::isValid(v.dumped())) << v.dumped();
    }
  });
}

TEST_P(KindTest, AsAttribute) {
  const TypeInfo& type = GetParam().holder();
  const FieldInfo &value = *type.field("value"), &fixed = *type.field("fixed");
  Tree tree;
  Entity& h = *tree.make("dir/holder", type);
  Counting reactor;
  reactor.follow(h, 1u << value.index);
  std::vector<Value> written(values().begin() + 1, values().end());
  written.push_back(values()[0]);  // and back to the default: cleared
  int calls = 0;
  for (const Value& v : written) {
    uint64_t version = h.version;
    h.dirtyIs(0);
    EXPECT_TRUE(GetParam().set(h, v.at.get()));
    EXPECT_TRUE(v.kind->equal(h.at(value.offset), v.at.get()))
        << "an own write is readable at once";
    EXPECT_GT(h.version, version);
    EXPECT_EQ(h.dirty(), 1u << value.index);
    EXPECT_EQ(reactor.calls, calls) << "never within the write";
    activity().run(0);
    EXPECT_EQ(reactor.calls, ++calls);
    // The same again is nothing at all.
    version = tree.clock().version;
    h.dirtyIs(0);
    EXPECT_TRUE(GetParam().set(h, v.at.get()));
    activity().run(0);
    EXPECT_EQ(tree.clock().version, version);
    EXPECT_EQ(h.dirty(), 0u);
    EXPECT_EQ(reactor.calls, calls);
  }
  // Copied but for what is fixed at creation; compared with it.
  Ref<Entity> copy = EntityOps::make(type);
  const Value& v = values()[1];
  v.kind->assign(copy->at(value.offset), v.at.get());
  v.kind->assign(copy->at(fixed.offset), v.at.get());
  EXPECT_TRUE(EntityOps::copyAttributes(h, *copy));
  EXPECT_TRUE(v.kind->equal(h.at(value.offset), v.at.get()));
  EXPECT_TRUE(v.kind->isDefault(h.at(fixed.offset)));
  EXPECT_FALSE(EntityOps::equalAttributes(h, *copy));
  v.kind->reset(copy->at(fixed.offset));
  EXPECT_TRUE(EntityOps::equalAttributes(h, *copy));
  JsonWriter w;
  h.dump(w);
  EXPECT_TRUE(JsonCheck::isValid(w.text())) << w.text();
}

// --- what does not come in
// ------------------------------------------------------------------------

template <class T>
bool decoded(std::string_view bytes, T* v) {
  Decoder d(bytes);
  return kindOf<T>().decode(d, v) && d.done();
}
template <class T>
void expectRefused(std::string_view bytes) {
  Value v = valueOf(T());
  EXPECT_FALSE(v.decode(bytes)) << typeid(T).name() << " took " << v.dumped();
  EXPECT_TRUE(v.isDefault());
}
template <class T>
void expectNumberRefused(uint64_t n) {
  Encoder e;
  e.varint(n);
  expectRefused<T>(e.bytes());
}

TEST(KindBounds, NumbersOutOfRange) {
  expectNumberRefused<bool>(2);
  expectNumberRefused<uint8_t>(256);
  expectNumberRefused<uint16_t>(65536);
  expectNumberRefused<uint32_t>(uint64_t{1} << 32);
  for (int64_t n : {int64_t{128}, int64_t{-129}, INT64_MAX, INT64_MIN}) {
    Encoder e;
    e.zigzag(n);
    expectRefused<int8_t>(e.bytes());
  }
  expectNumberRefused<Loose>(256);
  expectNumberRefused<Signed>(32768);
  expectNumberRefused<Signed>(UINT64_MAX - 32768);
  expectNumberRefused<Routing::RouteType>(3);
  expectNumberRefused<Acl::RangeOperator>(6);
  expectNumberRefused<VlanId>(0);
  expectNumberRefused<VlanId>(4095);
  expectNumberRefused<VlanId>(65537);
  expectNumberRefused<Acl::TcpFlag>(0x200);
  expectNumberRefused<Acl::Dscp>(64);
  expectNumberRefused<Lldp::Subtype>(0);
  expectNumberRefused<Lldp::Subtype>(256);
  expectNumberRefused<Lldp::Oui>(0x1000000);
  expectRefused<uint64_t>("\xff\xff\xff\xff\xff\xff\xff\xff\xff\x02");  // the 65th bit
  expectRefused<double>(std::string_view("\x04\0\0\0\0", 5));
}

TEST(KindBounds, ValuesOutOfRange) {
  auto text = [](std::string_view bytes) {
    Encoder e;
    e.text(bytes);
    return e.bytes();
  };
  expectRefused<IpAddr>(text("\x07"));                                   // a family
  expectRefused<IpAddr>(text(std::string_view("\x04\x0a\0\0\1\1", 6)));  // past four bytes
  expectRefused<IpAddr>(text(std::string(18, '\4')));                    // too long
  expectRefused<IpPrefix>(
      text("\x04\x0a\x01\x01\x01" + std::string(12, '\0') + "\x08"));      // host bits
  expectRefused<IpPrefix>(text("\x04" + std::string(16, '\0') + "\x21"));  // /33
  expectRefused<MacAddr>(text("1234567"));
  expectRefused<Short>(text("12345"));
  expectRefused<Lldp::TlvBytes>(text(std::string(508, 'x')));
  Encoder e;
  size_t mark = e.beginLength();
  e.varint(0 << 1 | 0);
  e.varint(9);
  e.varint(1 << 1 | 0);
  e.varint(8);
  e.endLength(mark);
  expectRefused<Pair>(e.bytes());
  EXPECT_THROW(Acl::TcpFlag(0x200), std::exception);
  EXPECT_THROW(Acl::Dscp(256), std::exception) << "not cut to 8 bits first";
  EXPECT_THROW(Lldp::Subtype(0), std::exception);
}

TEST(KindBounds, ElementsOfOneValue) {
  auto list = [](size_t n) {
    Encoder e;
    size_t mark = e.beginLength();
    for (size_t i = 0; i < n; ++i) e.varint(i);
    e.endLength(mark);
    return e.bytes();
  };
  std::vector<uint32_t> v;
  SmallSet<uint32_t> s;
  EXPECT_TRUE(decoded(list(kinds::kMaxElements), &v));
  EXPECT_TRUE(decoded(list(kinds::kMaxElements), &s));
  EXPECT_EQ(v.size(), kinds::kMaxElements);
  EXPECT_EQ(s.size(), kinds::kMaxElements);
  expectRefused<std::vector<uint32_t>>(list(kinds::kMaxElements + 1));
  expectRefused<SmallSet<uint32_t>>(list(kinds::kMaxElements + 1));
}

// The worst order for a sorted array must not take the time of its square.
TEST(KindBounds, SetsInAnyOrder) {
  Encoder e;
  size_t mark = e.beginLength();
  for (uint32_t i = kinds::kMaxElements / 2; i-- > 0;) {
    e.varint(i);
    e.varint(i);
  }
  e.endLength(mark);
  SmallSet<uint32_t> s;
  std::set<uint32_t> model;
  ASSERT_TRUE(decoded(e.bytes(), &s));
  ASSERT_TRUE(decoded(e.bytes(), &model));
  EXPECT_TRUE(std::equal(s.begin(), s.end(), model.begin(), model.end()));
}

TEST(SmallSetTest, AsStdSet) {
  randomRuns(20, [](std::mt19937& random) {
    SmallSet<std::string> s;
    std::set<std::string> model;
    for (int i = 0; i < 300; ++i) {
      std::string e = std::to_string(random() % 12);
      switch (random() % 5) {
        case 0:
        case 1:
          ASSERT_EQ(s.insert(e), model.insert(e).second);
          break;
        case 2:
          ASSERT_EQ(s.erase(e), model.erase(e) != 0);
          break;
        case 3: {
          SmallSet<std::string> copy = s, moved = std::move(s);
          ASSERT_EQ(copy, moved);
          s = random() % 2 ? copy : std::move(moved);
          break;
        }
        default: {
          std::vector<std::string> more = {e, e + "x", e};
          if (random() % 4 == 0) more.clear(), s.clear(), model.clear();
          s.insertAll(more);
          model.insert(more.begin(), more.end());
        }
      }
      ASSERT_EQ(s.contains(e), model.count(e) != 0);
      ASSERT_TRUE(std::equal(s.begin(), s.end(), model.begin(), model.end()));
    }
  });
}

struct Old {
  uint32_t a = 1;
  std::string b;
  static constexpr auto members() { return described(member("a", &Old::a), member("b", &Old::b)); }
};
struct New {
  uint32_t a = 1;
  std::string b;
  std::vector<Inner> c;
  int64_t d = -1;
  static constexpr auto members() {
    return described(member("a", &New::a), member("b", &New::b), member("c", &New::c),
                     member("d", &New::d));
  }
};

TEST(KindBounds, UnknownMembersArePassedOver) {
  New sent{5, "text", {{1, "x"}, {2, "y"}}, 9};
  Old got;
  ASSERT_TRUE(decoded(valueOf(sent).encoded(), &got));
  EXPECT_EQ(got.a, 5u);
  EXPECT_EQ(got.b, "text");
  New back;
  ASSERT_TRUE(decoded(valueOf(got).encoded(), &back));
  EXPECT_EQ(back.a, 5u);
  EXPECT_EQ(back.d, -1) << "a member that did not come has its default";
  // A member that travels in another way is not that member.
  Encoder e;
  size_t mark = e.beginLength();
  e.varint(0 << 1 | 1);
  e.text("a is a number");
  e.varint(1 << 1 | 1);
  e.text("b");
  e.endLength(mark);
  ASSERT_TRUE(decoded(e.bytes(), &got));
  EXPECT_EQ(got.a, 1u);
  EXPECT_EQ(got.b, "b");
}

struct WithReference {
  uint32_t before = 0;
  Ref<Entity> reference;
  uint32_t after = 0;
  static constexpr auto members() {
    return described(member("before", &WithReference::before),
                     member("reference", &WithReference::reference),
                     member("after", &WithReference::after));
  }
};

TEST(KindBounds, ReferencesStayHere) {
  EXPECT_EQ(kindOf<Ref<Entity>>().wire, Wire::local);
  EXPECT_EQ(kindOf<std::vector<Ref<Entity>>>().wire, Wire::local);
  Tree tree;
  Entity* e = tree.make<Dir>("a/b");
  WithReference sent{1, Ref<Entity>(e), 2}, got;
  ASSERT_TRUE(decoded(valueOf(sent).encoded(), &got));
  EXPECT_EQ(got.before, 1u);
  EXPECT_EQ(got.after, 2u);
  EXPECT_FALSE(got.reference);
  EXPECT_EQ(valueOf(Ref<Entity>(e)).dumped(), "\"/a/b\"");
  EXPECT_EQ(valueOf(Ref<Entity>()).dumped(), "null");
  expectRefused<std::vector<Ref<Entity>>>("\x01\x01");
}

TEST(JsonTest, WhateverTheBytes) {
  randomRuns(1, [](std::mt19937& random) {
    for (int i = 0; i < 20000; ++i) {
      std::string s;
      for (unsigned n = random() % 8; n > 0; --n)
        s += static_cast<char>(random() % 3 == 0 ? random() % 256 : 0xe0 + random() % 24);
      JsonWriter w;
      w.beginObject();
      w.key(s);
      w.string(s);
      w.endObject();
      ASSERT_TRUE(JsonCheck::isValid(w.text())) << w.text();
    }
  });
  JsonWriter w;
  w.string("a\xe2\x82\xac\xf0\x9f\x98\x80\"\\\n\x7f\xc0\x80\xff");
  EXPECT_EQ(w.text(),
            "\"a\xe2\x82\xac\xf0\x9f\x98\x80\\\"\\\\\\u000a\\u007f\xef\xbf\xbd\xef\xbf\xbd\xef\xbf"
            "\xbd\"");
  for (double d : {0.1, 1e300, -5e-324, 123456789.0, 1e21})
    EXPECT_EQ(std::strtod(valueOf(d).dumped().c_str(), nullptr), d) << valueOf(d).dumped();
}

// --- entities ----------------------------------------------------------------------------------

struct Leaf : EntityType<Leaf> {
  static constexpr const char* kTypeName = "test::Leaf";
  Key<uint32_t> key;
  Attr<"number", uint32_t> number;
  Attr<"text", std::string> text;
  Attr<"secret", std::string, kSecret> secret;
};
struct Branch : EntityType<Branch> {
  static constexpr const char* kTypeName = "test::Branch";
  Key<uint32_t> key;
  Attr<"number", uint32_t> number;
  Collection<"leaf", Leaf> leaf;
};
struct Box : JournalRootType<Box> {
  static constexpr const char* kTypeName = "test::Box";
  Key<Name> key;
  Attr<"size", uint32_t> size;
  Collection<"branch", Branch> branch;
  Table<"note", std::string, std::string> note;
  Table<"password", std::string, std::string, kSecret> password;
};
struct WideBox : EntityType<WideBox, Box> {
  static constexpr const char* kTypeName = "test::WideBox";
  Attr<"width", uint32_t> width;
};

// Keeps what it was told, in order: "created /x/y".
class Log : public JournalReactor {
 public:
  Log() : JournalReactor("Log") {}
  std::vector<std::string> take() {
    activity().run(0);
    return std::exchange(lines_, {});
  }

 protected:
  void onEntity(Entity& e, Change change) override {
    static constexpr const char* kWords[] = {"created ", "changed ", "deleted "};
    lines_.push_back(kWords[static_cast<int>(change)] + e.path());
  }

 private:
  std::vector<std::string> lines_;
};
using Lines = std::vector<std::string>;

TEST(EntityTest, CreateChangeDelete) {
  Tree tree;
  Box* box = tree.make<Box>("box");
  Log log;
  log.follow(box->journal);
  Branch* b = box->branch.create(1);
  EXPECT_EQ(box->branch.create(1), b) << "the one there is";
  EXPECT_EQ(b->parent(), box);
  EXPECT_EQ(b->path(), "/box/branch/1");
  EXPECT_TRUE(b->alive());
  b->number.set(1);
  b->number.set(2);
  EXPECT_EQ(log.take(), Lines{"created /box/branch/1"});
  b->number.set(3);
  b->number.set(4);
  EXPECT_EQ(log.take(), Lines{"changed /box/branch/1"}) << "once, whatever was written";
  uint64_t generation = b->generation();
  EXPECT_TRUE(box->branch.erase(1));
  EXPECT_FALSE(box->branch.erase(1));
  EXPECT_FALSE(box->branch.find(1));
  // Again before anyone looked: another entity.
  b = box->branch.create(1);
  EXPECT_NE(b->generation(), generation);
  EXPECT_EQ(b->number(), 0u);
  EXPECT_EQ(log.take(), (Lines{"deleted /box/branch/1", "created /box/branch/1"}));
  // What came and went before anyone looked is nothing.
  box->branch.create(2);
  box->branch.erase(2);
  EXPECT_EQ(log.take(), Lines{});
  EXPECT_EQ(box->journal.tombstones(), 0u);
  // A table's entries are told one by one.
  box->note.set("a", "1");
  box->note.set("b", "2");
  EXPECT_EQ(log.take(), (Lines{"created /box/note/a", "created /box/note/b"}));
  box->note.set("a", "1");
  EXPECT_EQ(log.take(), Lines{});
  box->note.set("a", "3");
  EXPECT_EQ(*box->note.get("a"), "3");
  EXPECT_EQ(log.take(), Lines{"changed /box/note/a"});
}

TEST(EntityTest, ChildrenAreToldBeforeTheirParentGoes) {
  Tree tree;
  Log log;
  log.follow(tree.root().journal, true);
  Box* box = tree.make<Box>("dir/box");
  Branch* b = box->branch.create(1);
  b->leaf.create(10);
  b->leaf.create(11);
  box->note.set("n", "");
  log.take();
  EXPECT_TRUE(tree.root().entry.erase("dir"));
  EXPECT_EQ(log.take(), (Lines{"deleted /dir/box/branch/1/10", "deleted /dir/box/branch/1/11",
                               "deleted /dir/box/branch/1", "deleted /dir/box/note/n",
                               "deleted /dir/box", "deleted /dir"}));
  EXPECT_EQ(tree.root().journal.tombstones(), 0u);
}

TEST(EntityTest, WhatIsInItWhenItComesIsToldToo) {
  Tree tree;
  Box* box = tree.make<Box>("box");
  Log log;
  log.follow(box->journal);
  box->branch.create(1, [](Branch& b) {
    b.number.init(5);
    b.leaf.create(10)->number.set(3);
  });
  EXPECT_EQ(log.take(), (Lines{"created /box/branch/1", "created /box/branch/1/10"}));
  Leaf* leaf = box->branch.find(1)->leaf.find(10);
  EXPECT_NE(leaf->generation(), 0u);
  leaf->number.set(4);
  EXPECT_EQ(log.take(), Lines{"changed /box/branch/1/10"});
  box->branch.erase(1);
  EXPECT_EQ(log.take(), (Lines{"deleted /box/branch/1/10", "deleted /box/branch/1"}));
}

TEST(EntityTest, TheDeadAreNobodysBusiness) {
  Tree tree;
  Log log;
  log.follow(tree.root().journal, true);
  Box* box = tree.make<Box>("dir/box");
  Ref<Branch> branch = Ref<Branch>(box->branch.create(1));
  Ref<Leaf> leaf(branch->leaf.create(2));
  Ref<Box> hold(box);
  Counting reactor;
  reactor.follow(*branch, branch->number.bit());
  log.take();
  tree.root().entry.erase("dir");
  log.take();
  for (Entity* e : {static_cast<Entity*>(box), static_cast<Entity*>(branch.get())}) {
    EXPECT_TRUE(e->dead());
    EXPECT_FALSE(e->alive());
    EXPECT_TRUE(EntityOps::remove(*e)) << "gone already";
  }
  EXPECT_EQ(leaf->path(), "/dir/box/branch/1/2") << "where it was";
  uint64_t version = tree.clock().version;
  branch->number.set(9);
  leaf->number.set(9);
  box->size.set(9);
  branch->leaf.create(3);
  box->note.set("x", "y");
  box->branch.create(7)->leaf.create(8);
  EXPECT_EQ(tree.clock().version, version);
  EXPECT_EQ(log.take(), Lines{});
  EXPECT_EQ(reactor.attributes, branch->number.bit()) << "its own followers still hear of it";
}

TEST(EntityTest, WorkingCopiesOutliveAndPrecedeTrees) {
  Ref<Branch> copy = make<Branch>(uint32_t{5});
  copy->number.set(3);
  copy->leaf.create(1);
  Ref<Leaf> leaf;
  Ref<Box> box;
  {
    Tree tree;
    box = Ref<Box>(tree.make<Box>("box"));
    Branch* b = box->branch.create(5);
    EXPECT_TRUE(EntityOps::copyAttributes(*b, *copy));
    EXPECT_EQ(b->number(), 3u);
    leaf = Ref<Leaf>(b->leaf.create(9));
  }
  leaf->number.set(1);
  box->note.set("a", "b");
  box->size.set(2);
  EXPECT_TRUE(leaf->dead());
  EXPECT_TRUE(box->dead());
}

TEST(EntityTest, SecretsAreInNoDump) {
  Tree tree;
  Box* box = tree.make<Box>("box");
  box->branch.create(1)->leaf.create(2)->secret.set("s3cret");
  box->password.set("root-s3cret", "s3cret");
  box->note.set("open", allBytes());
  JsonWriter w;
  box->dump(w);
  EXPECT_TRUE(JsonCheck::isValid(w.text())) << w.text();
  EXPECT_EQ(w.text().find("s3cret"), std::string::npos) << w.text();
  EXPECT_NE(w.text().find("\"@type\":\"test::Box\",\"@key\":\"box\",\"size\":0"),
            std::string::npos);
  JsonWriter entry;
  box->password.find("root-s3cret")->dump(entry);
  EXPECT_EQ(entry.text(), "{\"@type\":\"test::Box.password\"}");
}

TEST(EntityTest, TypesByNameAndBase) {
  const TypeInfo& wide = typeOf<WideBox>();
  EXPECT_EQ(TypeInfo::named("test::WideBox"), &wide);
  EXPECT_EQ(TypeInfo::named("test::Nothing"), nullptr);
  EXPECT_TRUE(wide.is(typeOf<Box>()));
  EXPECT_FALSE(typeOf<Box>().is(wide));
  ASSERT_TRUE(wide.field("size") && wide.field("width"));
  EXPECT_FALSE(wide.field("Width"));
  Tree tree;
  auto* w = tree.make<WideBox>("w");
  w->size.set(4);
  w->width.set(5);
  Box* asBox = tree.find<Box>("w");
  ASSERT_EQ(asBox, w);
  EXPECT_EQ(asBox->size(), 4u);
  EXPECT_FALSE(tree.make<Leaf>("w"));
  // Made by name, with all it needs.
  registerModel();
  const TypeInfo* route = TypeInfo::named("Routing::Route");
  ASSERT_TRUE(route) << "what stands in the collections of the model is known by name";
  Ref<Entity> made = EntityOps::make(*route);
  ASSERT_TRUE(made->as<Routing::Route>());
  EXPECT_FALSE(made->as<Box>());
  EXPECT_TRUE(TypeInfo::named("Acl::Input::List.ipRule"));
}

struct Twice : EntityType<Twice> {
  static constexpr const char* kTypeName = "test::Twice";
  Key<uint32_t> key;
  Attr<"same", uint32_t> one;
  Attr<"same", std::string> two;
};
struct OtherLeaf : EntityType<OtherLeaf> {
  static constexpr const char* kTypeName = "test::Leaf";
  Key<uint32_t> key;
  Attr<"number", std::string> number;
};

TEST(EntityDeathTest, MisdeclaredTypes) {
  EXPECT_DEATH(typeOf<Twice>(), "names of their own");
  typeOf<Leaf>();
  EXPECT_DEATH(typeOf<OtherLeaf>(), "declare one type differently");
}

// --- writers -----------------------------------------------------------------------------------

class Judge : public Writer {
 public:
  Admission verdict = Admission::refused;
  int asked = 0;
  Admission admits(const Journal&, const Entity&, const Entity*) override {
    ++asked;
    return verdict;
  }
};

std::string dumpOf(Tree& tree) {
  JsonWriter w;
  tree.root().dump(w);
  return w.text();
}

TEST(WriterTest, RefusedWritesChangeNothing) {
  Tree tree;
  Box* box = tree.make<Box>("box");
  Branch* b = box->branch.create(1);
  Leaf* leaf = b->leaf.create(2);
  box->note.set("a", "1");
  Log log;
  log.follow(tree.root().journal, true);
  log.take();
  Judge judge;
  tree.clock().writer = &judge;
  std::string before = dumpOf(tree);
  uint64_t version = tree.clock().version;
  size_t names = Name::interned();

  Ref<Leaf> copy = make<Leaf>(uint32_t{2});
  copy->number.set(9);
  EXPECT_FALSE(leaf->number.set(1));
  EXPECT_TRUE(leaf->number.set(0)) << "what it is already is no write";
  EXPECT_FALSE(leaf->text.edit([](std::string& s) {
    s = "x";
    return true;
  }));
  EXPECT_FALSE(EntityOps::copyAttributes(*leaf, *copy));
  EXPECT_FALSE(box->branch.create(7));
  EXPECT_FALSE(box->note.set("b", "1"));
  EXPECT_FALSE(box->note.set("a", "2"));
  EXPECT_TRUE(box->note.set("a", "1"));
  EXPECT_FALSE(box->note.erase("a"));
  EXPECT_FALSE(b->leaf.erase(2));
  EXPECT_FALSE(EntityOps::remove(*box));
  EXPECT_FALSE(box->size.set(1));
  EXPECT_FALSE(tree.make<Box>("other"));
  EXPECT_FALSE(tree.make<Box>("box/below"));
  EXPECT_EQ(dumpOf(tree), before);
  EXPECT_EQ(tree.clock().version, version);
  EXPECT_EQ(Name::interned(), names);
  EXPECT_EQ(log.take(), Lines{});

  judge.verdict = Writer::Admission::thisOne;
  EXPECT_TRUE(leaf->number.set(1));
  EXPECT_TRUE(EntityOps::remove(*box));
  tree.clock().writer = nullptr;
}

TEST(WriterTest, AdmissionIsRememberedForAWriterAndNoOther) {
  Tree tree;
  Box* box = tree.make<Box>("box");
  alignas(Judge) char memory[sizeof(Judge)];
  auto* first = new (memory) Judge;
  first->verdict = Writer::Admission::all;
  tree.clock().writer = first;
  for (uint32_t i = 0; i < 10; ++i) EXPECT_TRUE(box->branch.create(i));
  EXPECT_EQ(first->asked, 1) << "what holds for all of a journal is judged once";
  box->journal.forgetAdmitted();
  EXPECT_TRUE(box->branch.create(10));
  EXPECT_EQ(first->asked, 2);
  first->~Judge();
  auto* second = new (memory) Judge;  // another, at the same address
  tree.clock().writer = second;
  EXPECT_FALSE(box->branch.create(11));
  EXPECT_EQ(second->asked, 1);
  tree.clock().writer = nullptr;
  second->~Judge();
}

// --- collections and their iterators -----------------------------------------------------------

TEST(CollectionTest, AsAMapUnderAnyIterator) {
  struct Walk {
    Branch* owner;
    decltype(Branch::leaf)::Iterator it;
    std::set<Entity*> seen;
    std::set<Entity*> atStart;
  };
  randomRuns(30, [](std::mt19937& random) {
    Tree tree;
    Branch* b = tree.make<Box>("box")->branch.create(1);
    std::map<uint32_t, Ref<Leaf>> model;
    std::vector<Ref<Leaf>> everything;  // so that no address is used twice
    std::vector<Walk> walks;
    uint32_t range = 1u << random() % 10;
    auto look = [](Walk& w) {
      if (!w.it) return;
      ASSERT_TRUE(w.seen.insert(w.it.get()).second) << "seen twice: " << w.it.key();
      w.it.key();
    };
    auto step = [&](Walk& w) {
      w.it.next();
      look(w);
      if (w.it) return;
      for (auto& [key, leaf] : model)
        ASSERT_TRUE(!w.atStart.count(leaf.get()) || w.seen.count(leaf.get())) << "missed " << key;
    };
    for (int i = 0; i < 1500; ++i) {
      uint32_t key = random() % range;
      switch (random() % 8) {
        case 0:
        case 1:
        case 2: {
          bool isNew = !model.count(key);
          Leaf* leaf = b->leaf.create(key);
          ASSERT_EQ(isNew, leaf->number() == 0);
          leaf->number.set(1);
          if (isNew) everything.emplace_back(leaf);
          model[key] = Ref<Leaf>(leaf);
          break;
        }
        case 3:
        case 4:
          ASSERT_EQ(b->leaf.erase(key), model.erase(key) != 0);
          break;
        case 5: {
          Walk w{b, b->leaf.iterator(), {}, {}};
          for (auto& [k, leaf] : model) w.atStart.insert(leaf.get());
          look(w);
          if (walks.size() < 10) walks.push_back(std::move(w));
          break;
        }
        case 6:
          if (walks.empty()) break;
          if (Walk& w = walks[random() % walks.size()]; w.it)
            step(w);
          else
            w = Walk(walks[random() % walks.size()]);  // a copy goes on by itself
          break;
        default:
          if (random() % 100 == 0) {
            for (auto it = b->leaf.iterator(); it; it.next()) b->leaf.erase(it.key());
            model.clear();
          } else if (!walks.empty() && random() % 4 == 0) {
            walks.erase(walks.begin() + static_cast<ptrdiff_t>(random() % walks.size()));
          }
      }
      ASSERT_EQ(b->leaf.size(), model.size());
      Leaf* there = b->leaf.find(key);
      ASSERT_EQ(there, model.count(key) ? model[key].get() : nullptr);
    }
    for (Walk& w : walks)
      while (w.it && !::testing::Test::HasFailure()) step(w);
  });
}

TEST(CollectionTest, IteratorsOutliveCollections) {
  decltype(Branch::leaf)::Iterator never, empty, full, atEnd;
  EXPECT_FALSE(never);
  never.next();
  {
    Ref<Branch> b = make<Branch>(uint32_t{1});
    empty = b->leaf.iterator();
    b->leaf.create(1);
    b->leaf.create(2);
    full = b->leaf.iterator();
    atEnd = full;
    atEnd.next();
    atEnd.next();
    EXPECT_TRUE(full);
  }
  EXPECT_FALSE(full);
  for (auto* it : {&empty, &full, &atEnd}) {
    it->next();
    EXPECT_FALSE(*it);
    auto copy = *it;
    *it = copy;
  }
  // The element that an iterator is at lives on, though its tree does not.
  Tree* tree = new Tree;
  Branch* b = tree->make<Box>("box")->branch.create(1);
  b->leaf.create(5);
  full = b->leaf.iterator();
  delete tree;
  ASSERT_TRUE(full);
  EXPECT_EQ(full.key(), 5u);
  EXPECT_TRUE(full->dead());
  full.next();
  EXPECT_FALSE(full);
}

// Taking the first again and again, as a list of things to do is worked off, takes the time of one
// walk; so does an emptied table's next life. (Quadratic, this would not end.)
TEST(CollectionTest, FirstOfManyAgainAndAgain) {
  Ref<Branch> b = make<Branch>(uint32_t{1});
  for (int life = 0; life < 2; ++life) {
    for (uint32_t i = 0; i < 200000; ++i) b->leaf.create(i);
    uint32_t taken = 0;
    while (auto it = b->leaf.iterator()) {
      EXPECT_EQ(it.key(), taken);
      b->leaf.erase(it.key());
      ++taken;
    }
    EXPECT_EQ(taken, 200000u);
  }
}

TEST(CollectionDeathTest, AnEntityStandsInOnePlace) {
  Ref<Branch> a = make<Branch>(uint32_t{1}), b = make<Branch>(uint32_t{2});
  Leaf* leaf = a->leaf.create(1);
  EXPECT_DEATH(b->leaf.add(Ref<Entity>(leaf)), "in one place");
  EXPECT_DEATH(b->leaf.remove(*leaf), "from where it stands");
  Ref<Entity> same(make<Leaf>(uint32_t{1}).get());
  EXPECT_FALSE(a->leaf.add(same)) << "the key is taken";
  EXPECT_TRUE(b->leaf.add(same));
}

// --- names and paths ---------------------------------------------------------------------------

TEST(NameTest, KeptOnceAsLongAsUsed) {
  size_t before = Name::interned();
  {
    Name a("one"), b(std::string("one")), c("two"), empty(""), none;
    EXPECT_EQ(Name::interned(), before + 2);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.view().data(), b.view().data());
    EXPECT_EQ(a.hash(), b.hash());
    EXPECT_FALSE(a == c);
    EXPECT_EQ(empty, none);
    EXPECT_TRUE(a < c);
    Name moved = std::move(a);
    a = c;
    Name& same = b;
    b = same;
    c = Name();
    EXPECT_EQ(moved.view(), "one");
    EXPECT_EQ(a.view(), "two");
    EXPECT_EQ(Name::interned(), before + 2);
  }
  EXPECT_EQ(Name::interned(), before);
  std::vector<Name> many;
  for (int i = 0; i < 5000; ++i) many.emplace_back(std::to_string(i));
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(Name(std::to_string(i)), many[static_cast<size_t>(i)]);
  EXPECT_EQ(Name::interned(), before + 5000);
  many.clear();
  EXPECT_EQ(Name::interned(), before);
}

TEST(TreeTest, FindAndMake) {
  Tree tree;
  EXPECT_EQ(tree.find(""), &tree.root());
  EXPECT_EQ(tree.find("///"), &tree.root());
  EXPECT_EQ(tree.make<Dir>("/"), &tree.root());
  Box* box = tree.make<Box>("//a//b/box/");
  ASSERT_TRUE(box);
  EXPECT_EQ(tree.make<Box>("a/b/box"), box);
  EXPECT_EQ(tree.find("/a/b/box"), box);
  EXPECT_EQ(tree.find<Dir>("a/b/box"), nullptr);
  EXPECT_TRUE(tree.find<Dir>("a/b"));
  EXPECT_FALSE(tree.find("a/b/box/c"));
  EXPECT_FALSE(tree.find("a/c"));
  EXPECT_FALSE(tree.make<Dir>("a/b/box"));
  EXPECT_FALSE(tree.make<Box>("a/b/box/c"));
  EXPECT_FALSE(tree.make<Leaf>("x/y/leaf")) << "not keyed by a name";
  EXPECT_FALSE(tree.find("x")) << "and nothing is left of it";
  EXPECT_FALSE(tree.root().entry.create(typeOf<Acl::Input::List>(), "keyed by text"));
  // Directories hold any names.
  Name strange("a/b\"\xff");
  Dir* d = tree.root().entry.create<Dir>(strange);
  EXPECT_EQ(tree.root().entry.find(strange), d);
  EXPECT_TRUE(JsonCheck::isValid(dumpOf(tree)));
}

// --- whole entities ----------------------------------------------------------------------------

void copyWhole(Entity& to, const Entity& from) {
  for (const FieldInfo& f : from.type().fields) f.kind->assign(to.at(f.offset), from.at(f.offset));
  for (const CollectionInfo& c : from.type().collections)
    for (CollectionIterator it(*static_cast<const CollectionBase*>(from.at(c.offset))); it;
         it.next()) {
      Ref<Entity> child = EntityOps::make(it.get()->type());
      child->type().keyKind->assign(child->at(child->type().keyOffset), it.get()->keyData());
      copyWhole(*child, *it.get());
      ASSERT_TRUE(to.collection(c).add(child));
    }
}

bool equalWhole(Entity& a, Entity& b) {
  if (!EntityOps::equalAttributes(a, b)) return false;
  for (const CollectionInfo& c : a.type().collections) {
    if (a.collection(c).size() != b.collection(c).size()) return false;
    for (CollectionIterator it(a.collection(c)); it; it.next()) {
      Entity* other = b.collection(c).findErased(it.get()->keyData(), *it.get()->type().keyKind);
      if (!other || !equalWhole(*it.get(), *other)) return false;
    }
  }
  return true;
}

// Tag and value of each attribute, 0, then each collection's entities behind a 1, then 0.
void encodeWhole(Encoder& e, Entity& from) {
  for (const FieldInfo& f : from.type().fields) {
    if (f.kind->isDefault(from.at(f.offset))) continue;
    e.varint((f.index + 1u) << 1 | static_cast<unsigned>(f.kind->wire));
    f.kind->encode(e, from.at(f.offset));
  }
  e.varint(0);
  for (const CollectionInfo& c : from.type().collections) {
    for (CollectionIterator it(from.collection(c)); it; it.next()) {
      e.varint(1);
      it.get()->type().keyKind->encode(e, it.get()->keyData());
      encodeWhole(e, *it.get());
    }
    e.varint(0);
  }
}

bool decodeWhole(Decoder& d, Entity& to) {
  while (uint64_t tag = d.varint()) {
    uint64_t index = (tag >> 1) - 1;
    if (index >= to.type().fields.size()) return false;
    const FieldInfo& f = to.type().fields[index];
    if (!f.kind->decode(d, to.at(f.offset))) return false;
  }
  for (const CollectionInfo& c : to.type().collections)
    while (uint64_t more = d.varint()) {
      if (more != 1) return false;
      Ref<Entity> child = EntityOps::make(c.child());
      const TypeInfo& type = child->type();
      if (!type.keyKind->decode(d, child->at(type.keyOffset)) || !decodeWhole(d, *child))
        return false;
      if (!to.collection(c).add(child)) return false;
    }
  return !d.failed();
}

// Each attribute of it, one after the other, set to what random changes of its bytes give.
void scramble(std::mt19937& random, Entity& e) {
  for (const FieldInfo& f : e.type().fields) {
    Encoder bytes;
    f.kind->encode(bytes, e.at(f.offset));
    std::string changed = bytes.bytes();
    if (changed.empty()) continue;
    changed[random() % changed.size()] = static_cast<char>(random());
    Decoder d(changed);
    f.kind->decode(d, e.at(f.offset));
  }
  for (const CollectionInfo& c : e.type().collections)
    for (CollectionIterator it(e.collection(c)); it; it.next()) scramble(random, *it.get());
}

void expectConforms(Entity& sample) {
  auto roundTrip = [](Entity& from) {
    Encoder e;
    encodeWhole(e, from);
    Ref<Entity> back = EntityOps::make(from.type());
    Decoder d(e.bytes());
    ASSERT_TRUE(decodeWhole(d, *back) && d.done());
    EXPECT_TRUE(equalWhole(from, *back));
    JsonWriter w;
    from.dump(w);
    EXPECT_TRUE(JsonCheck::isValid(w.text())) << w.text();
    for (size_t n = 0; n < e.size(); n += 1 + e.size() / 200) {
      Ref<Entity> cut = EntityOps::make(from.type());
      Decoder shortened(e.bytes().data(), n);
      EXPECT_FALSE(decodeWhole(shortened, *cut)) << n;
    }
  };
  roundTrip(sample);
  Ref<Entity> copy = EntityOps::make(sample.type());
  EXPECT_FALSE(equalWhole(sample, *copy));
  copyWhole(*copy, sample);
  EXPECT_TRUE(equalWhole(sample, *copy));
  roundTrip(*copy);
  // One attribute that differs is found, and copied; what is fixed at creation is not copied.
  for (const FieldInfo& f : sample.type().fields) {
    f.kind->reset(copy->at(f.offset));
    bool isDefault = f.kind->isDefault(sample.at(f.offset));
    EXPECT_EQ(equalWhole(sample, *copy), isDefault) << f.name;
    EXPECT_TRUE(EntityOps::copyAttributes(*copy, sample));
    EXPECT_EQ(equalWhole(sample, *copy), isDefault || !(f.marks & kConstructor)) << f.name;
    f.kind->assign(copy->at(f.offset), sample.at(f.offset));
  }
  randomRuns(20, [&](std::mt19937& random) {
    for (int i = 0; i < 5; ++i) {
      scramble(random, *copy);
      roundTrip(*copy);
    }
  });
}

TEST(WholeEntityTest, Route) {
  auto route = make<Routing::Route>(Routing::RouteKey{IpPrefix(IpAddr::v4(0x0a000000), 8), 1});
  route->routeType.init(Routing::RouteType::nexthopGroup);
  route->dynamic.set(true);
  route->tag.set(0xffffffff);
  route->nexthopGroup.set("group");
  route->dropNexthop.set("drop");
  route->via.edit([](auto& vias) {
    for (uint32_t i = 0; i < 70; ++i) vias.insert(via(i * 37 % 71));
    return true;
  });
  expectConforms(*route);
}

TEST(WholeEntityTest, AccessList) {
  auto list = make<Acl::Input::List>(std::string("web"));
  list->dynamic.set(true);
  list->countersEnabled.set(true);
  list->fragmentsEnabled.set(true);
  Acl::IpRule rule;
  EXPECT_TRUE(list->ipRule.set(5, rule));
  rule.action = Acl::Action::deny;
  rule.log = rule.established = true;
  rule.vlan = {100, 0xfff};
  rule.innerVlan = {4095, 0xf};
  rule.ipProtocol = 6;
  rule.ttl = {Acl::RangeOperator::gt, 64};
  rule.source = {IpAddr::v4(0x0a000000), 0xff000000, 0};
  rule.destination = {v6("2001:db8::"), 0, 32};
  rule.sourcePort = {Acl::RangeOperator::eq, "80 443"};
  rule.destinationPort = {Acl::RangeOperator::between, "1 65535"};
  rule.remark = allBytes();
  rule.tcpFlags = Acl::TcpFlag(0x1ff);
  rule.tcpFlagsMask = 0x12;
  rule.icmpType = rule.icmpCode = 0;
  rule.dscp = Acl::Dscp(63);
  rule.matchDscp = rule.matchFragments = 1;
  EXPECT_TRUE(list->ipRule.set(4294967295, rule));
  EXPECT_TRUE(list->macRule.set(
      1, {Acl::Action::deny, true, {1, 2}, {3, 4}, {MacAddr(1, 2, 3, 4, 5, 6), MacAddr()}, {}}));
  expectConforms(*list);
  // Set again, the same is no change and another takes its place.
  Acl::Input::Config* config = nullptr;
  Tree tree;
  config = tree.make<Acl::Input::Config>("acl/config/input/RyxSdk-a");
  auto* mine = config->type.create(Acl::AclType::ipv4)->acl.create("web");
  EXPECT_TRUE(mine->ipRule.set(10, rule));
  uint64_t version = tree.clock().version;
  EXPECT_TRUE(mine->ipRule.set(10, rule));
  EXPECT_EQ(tree.clock().version, version);
  EXPECT_TRUE(mine->ipRule.set(10, Acl::IpRule()));
  EXPECT_EQ(mine->ipRule.size(), 1u);
  EXPECT_TRUE(kinds::equalValue(*mine->ipRule.get(10), Acl::IpRule()));
}

TEST(WholeEntityTest, LldpRemoteSystem) {
  using namespace Lldp;
  Msap msap{{ChassisIdEncoding::macAddr, std::string_view("\0\1\2\3\4\5", 6)},
            {PortIdEncoding::intfName, "Ethernet1"}};
  auto remote = make<RemoteSystem>(msap);
  remote->sysName.set("spine");
  remote->sysDesc.set(allBytes());
  remote->portDesc.set("to leaf");
  remote->portVlanId.set(1);
  remote->managementVid.set(4094);
  remote->maxFrameSize.set(9236);
  remote->linkAggregationInfo.set({true, true, 7});
  remote->macPhyConfigStatusInfo.set({true, false, 0x6c11, 30});
  remote->sysCapabilities.set({true, 0x14, 0x10});
  remote->managementAddress.set(
      {{IpAddr::v4(0x0a000001), 2, 1, "\x06\x03"}, {v6("::1"), 1, 0, ""}});
  remote->lastChangeTime.set(1e9 + 0.25);
  EXPECT_TRUE(remote->unknownOrgDefTlv.set({Oui(0xffffff), Subtype(255)}, std::string(507, 'x')));
  EXPECT_TRUE(remote->unknownOrgDefTlv.set({Oui(0), Subtype(1)}, ""));
  EXPECT_THROW(remote->unknownOrgDefTlv.set({Oui(0), Subtype(2)}, std::string(508, 'x')),
               std::exception);
  expectConforms(*remote);
  Ref<Entity> keyed = EntityOps::make(typeOf<RemoteSystem>());
  Encoder e;
  keyed->type().keyKind->encode(e, remote->keyData());
  Decoder d(e.bytes());
  EXPECT_TRUE(keyed->type().keyKind->decode(d, keyed->at(keyed->type().keyOffset)));
  EXPECT_TRUE(keyed->type().keyKind->equal(keyed->keyData(), remote->keyData()));
}

}  // namespace
}  // namespace ryx::platform
