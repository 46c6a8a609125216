// The module of the feed "sim": a simulated switch. Its argument (STATEHUBLOCAL=sim:FILE) names a
// scenario, done before the agent sees the state; RYX_SIM_INPUT a FIFO or file to follow.
#include <cstdlib>

#include "platform/statehub/local.h"
#include "switch/sim/commands.h"
#include "switch/sim/input.h"
#include "switch/sim/sim.h"

namespace {

using ryx::platform::Feed;
using ryx::platform::Tree;

class SimFeed final : public Feed {
 public:
  explicit SimFeed(Tree& tree) : sim_(tree), commands_(sim_, tree) {}

  // The source to follow first: a feed that does not start leaves no interfaces behind.
  std::string start(const std::string& scenario) {
    std::string error;
    const char* input = std::getenv("RYX_SIM_INPUT");
    if (input && *input) input_ = ryx::sim::Input::follow(sim_, input, &error);
    if (error.empty() && !scenario.empty()) error = ryx::sim::runScenario(sim_, scenario);
    return error;
  }
  std::string command(std::string_view line) override { return sim_.command(line); }
  void takeOver() override { sim_.takeOver(); }
  void whenSettled(std::function<void()> then) override { sim_.whenSettled(std::move(then)); }

 private:
  ryx::sim::Sim sim_;
  ryx::sim::Commands commands_;
  std::unique_ptr<ryx::sim::Input> input_;
};

}  // namespace

extern "C" RYX_PRIVATE const char ryxFeedAbi[] = RYX_VERSION;

extern "C" RYX_PRIVATE const char* const ryxFeedPlaces[] = {
    "interface/", "ip/",      "ip6/",      "vlan/",       "lag/", "arp/",
    "bfd/",       "routing/", "routing6/", "switch/sim/", nullptr};

extern "C" RYX_PRIVATE Feed* ryxFeedStart(Tree& tree, const std::string& argument,
                                          std::string* error) {
  auto feed = std::make_unique<SimFeed>(tree);
  *error = feed->start(argument);
  return error->empty() ? feed.release() : nullptr;
}
