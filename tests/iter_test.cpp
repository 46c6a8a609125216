// The public iterators: what they show of one collection and of several, what a copy is, and what
// happens when the collections change under them.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "lib/iter_impl.h"
#include "platform/model/agent.h"

namespace {

using std::string;

// A map whose iterators survive its changes, by coming back to their key.
class shelf {
 public:
  class iterator {
   public:
    explicit iterator(const std::map<int, string>& map) : map_(&map) { at(map.begin()); }
    explicit operator bool() const { return !end_; }
    void next() { at(map_->upper_bound(key_)); }
    const int& key() const { return key_; }
    const string& operator*() const { return value_; }
    const string* operator->() const { return &value_; }

   private:
    void at(std::map<int, string>::const_iterator place) {
      end_ = place == map_->end();
      if (end_) return;
      key_ = place->first;
      value_ = place->second;
    }
    const std::map<int, string>* map_;
    int key_ = 0;
    string value_;
    bool end_ = false;
  };

  iterator iter() const { return iterator(items); }
  std::map<int, string> items;
};

class label {
 public:
  label() = default;
  explicit label(int number) : text_(std::to_string(number)) {}
  explicit label(string text) : text_(std::move(text)) {}
  const string& text() const { return text_; }
  bool operator==(const label& other) const { return text_ == other.text_; }

 private:
  string text_;
};

class label_iter_impl : public ryx::chained_iter_impl<label> {
 public:
  label_iter_impl() { ++live; }
  label_iter_impl(const label_iter_impl& other) : chained_iter_impl(other) { ++live; }
  ~label_iter_impl() { --live; }
  static inline int live = 0;
};

using label_iter_t = ryx::iter_base<label, label_iter_impl>;

}  // namespace

template class ryx::iter_base<label, label_iter_impl>;

namespace {

std::unique_ptr<ryx::sub_iter_impl<label>> keys(const shelf& of) {
  return ryx::keySource<label>(of.iter());
}

// The values, but not those that start with a minus.
std::unique_ptr<ryx::sub_iter_impl<label>> values(const shelf& of) {
  return ryx::elementSource<label>(
      of.iter(), [](const shelf::iterator& it) { return label(*it); },
      [](const shelf::iterator& it) { return it->substr(0, 1) == "-"; });
}

template <class... Sources>
label_iter_t over(Sources... sources) {
  auto impl = std::make_unique<label_iter_impl>();
  (impl->add_iter(std::move(sources)), ...);
  impl->initialize();
  return label_iter_t(impl.release());
}

string shown(label_iter_t it) {
  string all;
  for (; it; ++it) all += it->text() + " ";
  return all;
}

void expectPastTheEnd(label_iter_t it) {
  EXPECT_FALSE(it);
  try {
    ++it;
    ADD_FAILURE() << "incremented";
  } catch (const ryx::legacy_exception& e) {
    EXPECT_STREQ("Attempt to increment past the end of the iterator", e.what());
  }
  try {
    (void)*it;
    ADD_FAILURE() << "dereferenced";
  } catch (const ryx::legacy_exception& e) {
    EXPECT_STREQ("Attempt to dereference the end of the iterator", e.what());
  }
}

TEST(Iterator, chainsItsSources) {
  shelf a{{{1, ""}, {2, ""}}}, none, b{{{7, "x"}, {8, "y"}}};
  EXPECT_EQ("1 2 x y ", shown(over(keys(a), values(b))));
  EXPECT_EQ("7 8 1 2 ", shown(over(keys(none), keys(b), keys(none), keys(a), keys(none))));
}

TEST(Iterator, atTheEnd) {
  shelf none, one{{{1, ""}}};
  expectPastTheEnd(over());
  expectPastTheEnd(over(keys(none), keys(none)));
  expectPastTheEnd(label_iter_t());
  label_iter_t it = over(keys(one));
  ++it;
  expectPastTheEnd(it);
}

// Hidden at the start, at the end, alone, and in a row between.
TEST(Iterator, skips) {
  shelf a{{{1, "-"}, {2, "a"}, {3, "-b"}, {4, "-c"}, {5, "d"}, {6, "-"}}};
  shelf hidden{{{1, "-"}, {2, "-"}}}, b{{{1, "-"}, {2, "e"}}};
  EXPECT_EQ("a d e a d ", shown(over(values(hidden), values(a), values(hidden), values(b),
                                     values(a), values(hidden))));
  expectPastTheEnd(over(values(hidden)));
}

TEST(Iterator, copiesGoTheirOwnWay) {
  shelf a{{{1, ""}, {2, ""}}}, b{{{3, ""}, {4, ""}}};
  label_iter_t it = over(keys(a), keys(b));
  ++it;
  label_iter_t copy = it;
  EXPECT_TRUE(copy == it);
  EXPECT_EQ("2 3 4 ", shown(copy));
  ++copy;
  ++copy;
  EXPECT_EQ("2", it->text());
  EXPECT_EQ("4", copy->text());
  EXPECT_TRUE(copy != it);
  label_iter_t before = it++;
  EXPECT_EQ("2", before->text());
  EXPECT_EQ("3", it->text());

  it = copy;
  EXPECT_TRUE(it == copy);
  EXPECT_EQ("4 ", shown(it));
  const label_iter_t& self = it;
  it = self;
  EXPECT_EQ("4", (*it).text());
  it = std::move(before);
  EXPECT_EQ("2 3 4 ", shown(it));
  it = over();
  EXPECT_FALSE(it);
}

TEST(Iterator, equality) {
  shelf a{{{1, ""}, {2, ""}}}, same = a, none;
  label_iter_t one = over(keys(a), keys(same)), two = one;
  ++ ++one;  // the same label, but in another source
  EXPECT_EQ(one->text(), two->text());
  EXPECT_FALSE(one == two);
  ++ ++two;
  EXPECT_TRUE(one == two);
  ++ ++one;
  EXPECT_FALSE(one == two || two == one);
  EXPECT_TRUE(one == over(keys(none)) && one == label_iter_t() && label_iter_t() == one);
}

TEST(Iterator, ownsItsImplementation) {
  shelf a{{{1, ""}}};
  {
    label_iter_t it = over(keys(a)), copy = it, moved = std::move(copy);
    it = moved;
    EXPECT_EQ(2, label_iter_impl::live);
    it = std::move(moved);
    EXPECT_EQ(1, label_iter_impl::live);
  }
  EXPECT_EQ(0, label_iter_impl::live);
}

TEST(Iterator, tableChangesMeanwhile) {
  shelf a;
  for (int i = 0; i < 10; ++i) a.items[i] = std::to_string(i);
  label_iter_t it = over(keys(a));
  a.items.erase(0);  // what it is at
  a.items.erase(1);  // what is next
  EXPECT_EQ("0", it->text());
  ++it;
  EXPECT_EQ("2", it->text());
  a.items.clear();
  EXPECT_EQ("2", it->text());
  ++it;
  EXPECT_FALSE(it);
}

// A subclass in the manner of those that need more than two functions.
class even_keys : public ryx::qelc_keys_sub_iter<label, shelf::iterator> {
 public:
  using qelc_keys_sub_iter::qelc_keys_sub_iter;
  std::unique_ptr<sub_iter_impl> clone() const override {
    return std::make_unique<even_keys>(*this);
  }
  bool skip_iter_elem() const override { return iter().key() % 2 != 0; }
};

class forgetful : public even_keys {
 public:
  using even_keys::even_keys;
};

TEST(Iterator, subclassedSources) {
  shelf a;
  for (int i = 1; i < 8; ++i) a.items[i];
  label_iter_t it = over(std::make_unique<even_keys>(a.iter()));
  label_iter_t copy = it;
  EXPECT_EQ("2 4 6 ", shown(copy));
}

TEST(IteratorDeathTest, misuseByAManager) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  shelf a{{{1, ""}}};
  label_iter_impl impl;
  EXPECT_DEATH(impl.next(), "Iterator has not been initialized");
  EXPECT_DEATH(impl.current(), "Iterator has not been initialized");
  EXPECT_DEATH((void)static_cast<bool>(label_iter_t(new label_iter_impl)),
               "Iterator has not been initialized");
  impl.initialize();
  EXPECT_DEATH(impl.add_iter(keys(a)), "All iterators must be added before initialization");
  EXPECT_DEATH(impl.initialize(), "Iterator is already initialized");
  EXPECT_DEATH(
      {
        label_iter_t it = over(std::make_unique<forgetful>(a.iter()));
        label_iter_t copy = it;
      },
      "A source of an iterator must clone itself");
}

}  // namespace

// Over the platform's own tables.

class RYX_API option_iter_impl : public ryx::chained_iter_impl<string> {};
template class ryx::iter_base<string, option_iter_impl>;

namespace {

namespace GenericAgent = ryx::platform::GenericAgent;
using option_iter_t = ryx::iter_base<string, option_iter_impl>;

option_iter_t optionsOf(const GenericAgent::Config& config) {
  auto impl = std::make_unique<option_iter_impl>();
  impl->add_iter(ryx::keySource<string>(config.option.iterator()));
  impl->add_iter(ryx::elementSource<string>(config.option.iterator(),
                                            [](const auto& it) { return string(it->value()); }));
  impl->initialize();
  return option_iter_t(impl.release());
}

// Every element that stays is shown once, whatever is set and erased meanwhile, in the loop's body
// and in copies alike.
TEST(Iterator, overTheStore) {
  auto config = ryx::platform::make<GenericAgent::Config>(ryx::platform::Name("tester"));
  auto key = [](int i) { return GenericAgent::AgentKey("key" + std::to_string(i)); };
  auto value = [](int i) { return GenericAgent::AgentVal("value" + std::to_string(i)); };
  constexpr int kStart = 300;
  for (int i = 0; i < kStart; ++i) config->option.set(key(i), value(i));
  std::multiset<string> seen;
  std::vector<option_iter_t> copies;
  int at = 0;
  for (option_iter_t it = optionsOf(*config); it; ++it, ++at) {
    seen.insert(*it);
    if (at % 40 == 0) copies.push_back(it);
    if (at < kStart && at % 3 == 0) config->option.erase(key(at / 3));  // 0 to 99, as they pass
    if (at < kStart && at % 2 == 0) config->option.set(key(1000 + at), value(1000 + at));
  }
  for (int i = 200; i < kStart; ++i) {
    EXPECT_EQ(1u, seen.count(string(key(i)))) << i;
  }
  for (const string& text : seen) EXPECT_LE(seen.count(text), 1u) << text;
  ASSERT_GE(copies.size(), 2u);
  std::multiset<string> rest;
  for (option_iter_t it = copies[1]; it; ++it) rest.insert(*it);
  for (int i = 200; i < kStart; ++i) EXPECT_EQ(1u, rest.count(string(value(i)))) << i;
}

}  // namespace
