// One of each kind of symbol that a C++ library shows, in both namespaces, beside what must stay
// hidden: symbols_test.sh links it with the map of libryx.so.
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#define SHOWN __attribute__((visibility("default")))

// Classes with thunks (plain, virtual and covariant), virtual tables, type information, qualified
// members, static and thread-local variables, templates, a static variable of an inline function.
#define KINDS_OF_SYMBOLS                                                   \
  struct SHOWN First {                                                     \
    virtual ~First();                                                      \
    virtual First* self();                                                 \
    virtual int number() const;                                            \
    int x = 1;                                                             \
  };                                                                       \
  struct SHOWN Second {                                                    \
    virtual ~Second();                                                     \
    virtual Second* clone();                                               \
    virtual int count() const;                                             \
    virtual void take() &;                                                 \
    int y = 2;                                                             \
  };                                                                       \
  struct SHOWN Both : First, Second {                                      \
    ~Both() override;                                                      \
    Both* self() override;                                                 \
    Both* clone() override;                                                \
    int count() const override;                                            \
    void take() & override;                                                \
  };                                                                       \
  struct SHOWN Virtual : virtual First, virtual Second {                   \
    ~Virtual() override;                                                   \
    Virtual* self() override;                                              \
    Virtual* clone() override;                                             \
    int count() const override;                                            \
  };                                                                       \
  First::~First() {}                                                       \
  First* First::self() {                                                   \
    return this;                                                           \
  }                                                                        \
  int First::number() const {                                              \
    return x;                                                              \
  }                                                                        \
  Second::~Second() {}                                                     \
  Second* Second::clone() {                                                \
    return this;                                                           \
  }                                                                        \
  int Second::count() const {                                              \
    return y;                                                              \
  }                                                                        \
  void Second::take()& {}                                                  \
  Both::~Both() {}                                                         \
  Both* Both::self() {                                                     \
    return this;                                                           \
  }                                                                        \
  Both* Both::clone() {                                                    \
    return this;                                                           \
  }                                                                        \
  int Both::count() const {                                                \
    return x;                                                              \
  }                                                                        \
  void Both::take()& {}                                                    \
  Virtual::~Virtual() {}                                                   \
  Virtual* Virtual::self() {                                               \
    return this;                                                           \
  }                                                                        \
  Virtual* Virtual::clone() {                                              \
    return this;                                                           \
  }                                                                        \
  int Virtual::count() const {                                             \
    return x;                                                              \
  }                                                                        \
  struct SHOWN Error : std::runtime_error {                                \
    using std::runtime_error::runtime_error;                               \
    ~Error() override;                                                     \
  };                                                                       \
  Error::~Error() {}                                                       \
  struct SHOWN Key {                                                       \
    int value = 0;                                                         \
    bool operator<(const Key& other) const { return value < other.value; } \
    void move() &&;                                                        \
    void look() const&;                                                    \
    static int counter;                                                    \
    static Key& one() {                                                    \
      static Key key{std::rand()};                                         \
      return key;                                                          \
    }                                                                      \
  };                                                                       \
  void Key::move()&& {}                                                    \
  void Key::look() const& {}                                               \
  int Key::counter = 1;                                                    \
  template <class T>                                                       \
  struct SHOWN Box {                                                       \
    virtual ~Box() = default;                                              \
    virtual T get() const { return value; }                                \
    T value;                                                               \
  };                                                                       \
  template struct SHOWN Box<int>;                                          \
  SHOWN bool operator==(const Key& a, const Key& b) {                      \
    return a.value == b.value;                                             \
  }                                                                        \
  SHOWN extern thread_local int perThread;                                 \
  thread_local int perThread = std::rand();                                \
  SHOWN std::string name(const Key& key) {                                 \
    std::map<Key, std::string> names;                                      \
    std::vector<Key> keys;                                                 \
    names[key] = "name";                                                   \
    keys.push_back(Key::one());                                            \
    return names.begin()->second;                                          \
  }

namespace ryx {
KINDS_OF_SYMBOLS
SHOWN int platformish() {
  return 1;
}
namespace platform {
KINDS_OF_SYMBOLS
}
namespace platform2 {
SHOWN void near() {}
}  // namespace platform2
#ifdef LEAK
SHOWN int leak(platform::Key& key) {
  return key.value;
}
#endif
void hidden() {}
}  // namespace ryx

namespace ryxtra {
SHOWN void stranger() {}
}  // namespace ryxtra

extern "C" SHOWN void stray() {}
