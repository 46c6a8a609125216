// An agent with handlers of every shape. Each that overrides a callback must be called, once; no
// default callback may be called at all. Fails with what is wrong on standard error.
//   agent PLUGIN
#include <dlfcn.h>
#include <ryx/agent.h>
#include <ryx/event_loop.h>
#include <ryx/sdk.h>

#include <cstdio>
#include <string>

#include "ports.h"

namespace {

using ports::port_handler;
using ports::port_mgr;

int failures = 0;

void expect(const char* what, int wanted, int got) {
  if (wanted == got) return;
  std::fprintf(stderr, "%s: %d calls instead of %d\n", what, got, wanted);
  ++failures;
}

// One level below the library's class.

struct inert : port_handler {
  using port_handler::port_handler;
};

struct other_callback : port_handler {
  using port_handler::port_handler;
  void on_status(int, const std::string&) override { ++calls; }
  int calls = 0;
};

struct direct : port_handler {
  using port_handler::port_handler;
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

class hidden final : public port_handler {
 public:
  using port_handler::port_handler;
  int calls = 0;

 private:
  void on_speed(int) noexcept override { ++calls; }
};

// Classes between.

struct middle : port_handler {
  using port_handler::port_handler;
  virtual void log() {}
};

struct inert_leaf : middle {
  using middle::middle;
  void log() override {}
};

struct leaf : middle {
  using middle::middle;
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

struct below_leaf : leaf {
  using leaf::leaf;
};

template <class Self>
struct typed : port_handler {
  using port_handler::port_handler;
  void on_speed(int mbps) override { static_cast<Self*>(this)->speed(mbps); }
};

struct typed_leaf : typed<typed_leaf> {
  using typed::typed;
  void speed(int) { ++calls; }
  int calls = 0;
};

// Several bases, virtual ones among them.

struct logger {
  virtual ~logger() = default;
  virtual void on_speed(int) { ++logged; }
  int logged = 0;
  char much[200] = {};
};

struct inert_second : logger, port_handler {
  explicit inert_second(port_mgr* mgr) : port_handler(mgr) {}
};

struct second : logger, port_handler {
  explicit second(port_mgr* mgr) : port_handler(mgr) {}
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

struct first : port_handler, logger {
  explicit first(port_mgr* mgr) : port_handler(mgr) {}
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

struct inert_virtual : virtual port_handler {
  explicit inert_virtual(port_mgr* mgr) : port_handler(mgr) {}
};

struct on_virtual : logger, virtual port_handler {
  explicit on_virtual(port_mgr* mgr) : port_handler(mgr) {}
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

struct left : virtual port_handler {
  explicit left(port_mgr* mgr) : port_handler(mgr) {}
  char much[100] = {};
};

struct right : virtual port_handler {
  explicit right(port_mgr* mgr) : port_handler(mgr) {}
  void on_speed(int) override { ++calls; }
  int calls = 0;
};

struct diamond : left, right {
  explicit diamond(port_mgr* mgr) : port_handler(mgr), left(mgr), right(mgr) {}
};

struct inert_diamond : left, virtual port_handler {
  explicit inert_diamond(port_mgr* mgr) : port_handler(mgr), left(mgr) {}
  void on_gone() override {}
};

void libraryBases(const char* pluginPath) {
  port_mgr mgr;
  port_handler plain(&mgr);
  inert a(&mgr);
  other_callback b(&mgr);
  inert_leaf c(&mgr);
  inert_second d(&mgr);
  inert_virtual e(&mgr);
  inert_diamond f(&mgr);

  direct one(&mgr);
  hidden two(&mgr);
  leaf three(&mgr);
  below_leaf four(&mgr);
  typed_leaf five(&mgr);
  second six(&mgr);
  first seven(&mgr);
  on_virtual eight(&mgr);
  diamond nine(&mgr);

  void* plugin = dlopen(pluginPath, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    ++failures;
    return;
  }
  auto make = [&](const char* name) {
    return reinterpret_cast<ports::make_handler*>(dlsym(plugin, name))(&mgr);
  };
  port_handler* ten = make("make_watcher");
  port_handler* g = make("make_inert");

  mgr.speed(100);
  expect("a default callback", 0, ports::default_calls);
  expect("another callback", 0, b.calls);
  expect("direct", 1, one.calls);
  expect("private and final", 1, two.calls);
  expect("below a class between", 1, three.calls);
  expect("inherited override", 1, four.calls);
  expect("typed", 1, five.calls);
  expect("second base", 1, six.calls);
  expect("first base", 1, seven.calls);
  expect("virtual base", 1, eight.calls);
  expect("the other base's function", 0, d.logged + six.logged + seven.logged + eight.logged);
  expect("diamond", 1, nine.calls);
  auto* callsOf = reinterpret_cast<ports::calls_of*>(dlsym(plugin, "calls_of"));
  expect("plug-in", 1, callsOf(ten));

  mgr.gone();
  expect("a default callback, of on_gone", 0, ports::default_calls);
  delete ten;
  delete g;
  dlclose(plugin);
}

// Bases of the agent's own: one that makes its table known, and one that does not.

template <class Handler>
struct own_mgr : ryx::base_mgr<Handler> {
  void event() { this->dispatch(&Handler::on_event); }
};

struct telling : ryx::base_handler<own_mgr<telling>, telling> {
  explicit telling(own_mgr<telling>* mgr) : base_handler(mgr) {
    base_table_is(this);
    mgr->add_handler(this);
  }
  virtual void on_event() { ++defaults; }
  static inline int defaults = 0;
};

struct silent : ryx::base_handler<own_mgr<silent>, silent> {
  explicit silent(own_mgr<silent>* mgr) : base_handler(mgr) { mgr->add_handler(this); }
  virtual void on_event() { ++defaults; }
  static inline int defaults = 0;
};

template <class Handler>
struct watching : Handler {
  using Handler::Handler;
  void on_event() override { ++calls; }
  int calls = 0;
};

template <class Handler>
struct not_watching : Handler {
  using Handler::Handler;
};

template <class Handler>
void ownBases(const char* name) {
  own_mgr<Handler> mgr;
  Handler plain(&mgr);
  not_watching<Handler> inherits(&mgr);
  watching<Handler> overrides(&mgr);
  mgr.event();
  expect(name, 1, overrides.calls);
  expect(name, 0, Handler::defaults);
}

// The library's own class: the default that this program defines takes the place of the library's.
int sdkDefaults = 0;

struct ready : ryx::agent_handler {
  using agent_handler::agent_handler;
  void on_initialized() override { ++calls; }
  int calls = 0;
};

struct not_ready : ryx::agent_handler {
  using agent_handler::agent_handler;
  void on_agent_enabled(bool) override {}
};

void sdkHandlers() {
  ryx::sdk sdk("matrix");
  ready watches(sdk.get_agent_mgr());
  not_ready inherits(sdk.get_agent_mgr());
  ryx::agent_handler plain(sdk.get_agent_mgr());
  sdk.get_event_loop()->wait_for_initialized();
  expect("agent_handler::on_initialized", 1, watches.calls);
  expect("the default agent_handler::on_initialized", 0, sdkDefaults);
}

}  // namespace

void ryx::agent_handler::on_initialized() {
  ++sdkDefaults;
}

int main(int, char** argv) {
  libraryBases(argv[1]);
  ownBases<telling>("own base that tells its table");
  ownBases<silent>("own base that is looked at");
  sdkHandlers();
  return failures == 0 ? 0 : 1;
}
