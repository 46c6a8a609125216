#include "switch/linux/links.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/qel/reactor.h"
#include "platform/trace/trace.h"
#include "switch/base/interfaces.h"
#include "switch/linux/two_way.h"

namespace ryx::kernel {

using namespace platform;
using Interface::IntfConfig;
using Interface::IntfStatus;

namespace {

TraceFacility& facility() {
  static auto& f = TraceFacility::named("RyxLinuxLinks");
  return f;
}

}  // namespace

// --- one interface ------------------------------------------------------------------------------

class Links::Port final : public EntityReactor, public std::enable_shared_from_this<Port> {
 public:
  Port(Links& links, const feeds::IntfEntities& entities, const Link& link)
      : EntityReactor("linux link"),
        links_(links),
        config_(entities.config),
        status_(entities.status),
        up_(link.up),
        alias_(link.alias),
        device_(link.name) {
    if (config_->adminEnabledStateLocal() == 0) setEnabled(link.up);
    if (config_->description().empty()) config_->description.set(link.alias);
    showStatus(link);
    follow(*config_, config_->adminEnabledStateLocal.bit() | config_->description.bit());
  }

  // What was configured before the interface came goes to its device.
  void begin() { onAttributes(0); }

  // Its entities stand in the tree still.
  bool whole() const { return config_->alive() && status_->alive(); }

  void kernelHas(const Link& link) {
    device_ = link.name;
    showStatus(link);
    up_.kernelHas(link.up);
    alias_.kernelHas(link.alias);
    onAttributes(0);
  }

 protected:
  void onAttributes(uint32_t) override {
    act(up_.next(config_->adminEnabled()));
    act(alias_.next(config_->description()));
  }

 private:
  using UpStep = TwoWay<bool>::Step;
  using AliasStep = TwoWay<std::string>::Step;

  class Retry final : public Timer {
   public:
    Retry(Port& port, void (Port::*again)()) : Timer("linux link"), port_(port), again_(again) {}
    void onTimer() override { (port_.*again_)(); }

   private:
    Port& port_;
    void (Port::*again_)();
  };

  void showStatus(const Link& link) {
    status_->deviceName.set(link.name);
    status_->operStatus.set(static_cast<uint8_t>(operStatus(link)));
  }
  // On by default and on are the same.
  void setEnabled(bool on) {
    if (config_->adminEnabled() != on) config_->adminEnabledStateLocal.set(on ? 1 : 2);
  }

  void act(UpStep step) {
    if (step == UpStep::toState) {
      ++links_.counters_.takenUp;
      setEnabled(up_.kernel());
    } else if (step == UpStep::toKernel) {
      ++links_.counters_.writes;
      links_.writer_.upIs(device_, config_->adminEnabled(), answerTo(&Port::upAnswered));
    }
  }
  void act(AliasStep step) {
    if (step == AliasStep::toState) {
      ++links_.counters_.takenUp;
      config_->description.set(alias_.kernel());
    } else if (step == AliasStep::toKernel && isAlias(config_->description())) {
      ++links_.counters_.writes;
      links_.writer_.aliasIs(device_, config_->description(), answerTo(&Port::aliasAnswered));
    } else if (step == AliasStep::toKernel) {
      aliasAnswered(EINVAL, "an alias has at most 255 bytes and no zero byte");
    }
  }

  // The port may be gone by the time that the answer comes.
  LinkWriter::Done answerTo(void (Port::*answered)(int, std::string_view)) {
    return [port = weak_from_this(), answered](int error, std::string_view words) {
      if (auto there = port.lock()) ((*there).*answered)(error, words);
    };
  }
  void upAnswered(int error, std::string_view words) {
    settle(up_, "administrative state", error, words, &upRetry_);
    act(up_.next(config_->adminEnabled()));
  }
  void aliasAnswered(int error, std::string_view words) {
    settle(alias_, "alias", error, words, &aliasRetry_);
    act(alias_.next(config_->description()));
  }
  void upAgain() { act(up_.again(config_->adminEnabled())); }
  void aliasAgain() { act(alias_.again(config_->description())); }

  template <class T>
  void settle(TwoWay<T>& attribute, const char* what, int error, std::string_view words,
              Retry* retry) {
    auto answer = attribute.answered(error);
    if (answer == TwoWay<T>::Answer::done) return;
    bool later = answer == TwoWay<T>::Answer::later;
    RYX_TRACE(facility(), later ? 3 : 0,
              "the kernel refused the " << what << " of " << config_->key().toString() << " ("
                                        << device_ << "): " << std::strerror(error)
                                        << (words.empty() ? "" : ": ") << words
                                        << (later ? "; tried again" : "; the state goes back"));
    if (!later) {
      ++links_.counters_.refused;
      return;
    }
    ++links_.counters_.retries;
    retry->armAt(clock().now() + kRetryDelay * (1 << (attribute.attempts() - 1)));
  }

  Links& links_;
  Ref<IntfConfig> config_;
  Ref<IntfStatus> status_;
  TwoWay<bool> up_;
  TwoWay<std::string> alias_;
  std::string device_;
  Retry upRetry_{*this, &Port::upAgain};
  Retry aliasRetry_{*this, &Port::aliasAgain};
};

// --- devices ------------------------------------------------------------------------------------

Links::Links(Tree& tree, const IntfMap& map, LinkWriter& writer)
    : tree_(tree), map_(map), writer_(writer) {}

Links::~Links() = default;

void Links::changed(const Link& link) {
  hearing_.told(link.index);
  take(link);
}

void Links::gone(int index) {
  hearing_.told(index);
  if (auto at = devices_.find(index); at != devices_.end()) forget(at);
}

void Links::dumpBegins() {
  hearing_.begin();
}

void Links::dumped(const Link& link) {
  if (hearing_.dumped(link.index)) take(link);
}

void Links::dumpEnds() {
  if (!hearing_.isOn()) return;
  for (const int index : hearing_.end(devices_)) forget(devices_.find(index));
  for (const auto& [intf, index] : waiting_) tellConflict(devices_.at(index));
}

void Links::takeOver() {
  feeds::eraseIntfsBut(tree_, [this](IntfId intf) { return owners_.count(intf) != 0; });
}

int Links::deviceOf(IntfId intf) const {
  const auto at = owners_.find(intf);
  return at == owners_.end() ? 0 : at->second;
}

IntfId Links::interfaceOf(int index) const {
  const auto at = devices_.find(index);
  return at == devices_.end() || !at->second.port ? IntfId() : at->second.intf;
}

std::shared_ptr<void> Links::onDeviceIs(DeviceIs is) {
  for (const auto& [intf, index] : owners_) is(index, intf);
  std::shared_ptr<DeviceIs> told(new DeviceIs(std::move(is)), [this](DeviceIs* gone) {
    std::erase(toldOfDevices_, gone);
    delete gone;
  });
  toldOfDevices_.push_back(told.get());
  return told;
}

bool Links::someAreDown() const {
  return std::any_of(devices_.begin(), devices_.end(),
                     [](const auto& entry) { return entry.second.port && !entry.second.link.up; });
}

void Links::take(const Link& link) {
  Device& device = devices_[link.index];
  const Link before = std::exchange(device.link, link);
  IntfId intf = before.name == link.name ? device.intf : map_.interfaceOf(link.name);
  if (intf != device.intf) {
    release(device);
    device.intf = intf;
    device.told = false;
  }
  if (intf.isEmpty()) return;
  if (device.port && device.port->whole()) {
    device.port->kernelHas(link);
    if (before.up != link.up) tellDevice(link.index, intf);
    return;
  }
  if (!device.port && owners_.count(intf) != 0) return wait(device);
  claim(device);  // anew, when somebody deleted its entities
}

void Links::forget(std::map<int, Device>::iterator at) {
  release(at->second);
  devices_.erase(at);
}

void Links::claim(Device& device) {
  RYX_TRACE(facility(), 5, device.link.name << " is " << device.intf.toString());
  owners_[device.intf] = device.link.index;
  device.port = std::make_shared<Port>(*this, feeds::createIntf(tree_, device.intf), device.link);
  device.port->begin();
  tellDevice(device.link.index, device.intf);
}

// It is no interface from now on, and another device that maps to the one it was takes that over.
void Links::release(Device& device) {
  IntfId intf = std::exchange(device.intf, {});
  waiting_.erase({intf, device.link.index});
  if (!std::exchange(device.port, nullptr)) return;
  RYX_TRACE(facility(), 5, intf.toString() << " goes");
  owners_.erase(intf);
  tellDevice(device.link.index, {});
  feeds::eraseIntf(tree_, intf);
  auto next = waiting_.lower_bound({intf, 0});
  if (next == waiting_.end() || next->first != intf) return;
  Device& heir = devices_.at(next->second);
  waiting_.erase(next);
  claim(heir);
}

// Another device is its interface. Not told during a dump: names may have changed hands, which is
// seen at its end.
void Links::wait(Device& device) {
  waiting_.insert({device.intf, device.link.index});
  if (!hearing_.isOn()) tellConflict(device);
}

void Links::tellConflict(Device& device) {
  if (device.told) return;
  device.told = true;
  ++counters_.conflicts;
  std::fprintf(stderr,
               "The linux feed leaves the device %s alone: it maps to %s, which is %s already\n",
               device.link.name.c_str(), device.intf.toString().c_str(),
               devices_.at(owners_.at(device.intf)).link.name.c_str());
}

}  // namespace ryx::kernel
