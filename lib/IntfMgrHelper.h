// The part of intf_mgr_helper that is the library's own: the state of all interfaces, mounted and
// assembled once a context, and the reactor that hears of interfaces that come and go.
//
// Agents see an interface from the moment that its configuration is in the collection of all of
// them, and it is reported as created a little later, in the second order of tasks. Interfaces that
// are there when the SDK is initialized are never reported.
#pragma once

#include <memory>
#include <vector>

#include "lib/convert.h"
#include "platform/interface/collections.h"
#include "platform/qel/reactor.h"
#include "ryx/intf_mgr_helper.h"

namespace ryx {

class IntfMgrHelper;

// Which managers an interface concerns, by its type; and subintf_mgr.
struct IntfKinds {
  bool eth_phy = false;
  bool eth_lag = false;
  bool eth = false;
  bool intf = false;
};
IntfKinds kindsOf(intf_id_t intf);

// Hears of the interfaces, internal ones excepted, that come and go after it was made. While a
// deletion is told, the interface is hidden, also when its successor is there already.
class IntfExistenceReactor : public platform::JournalReactor {
 protected:
  IntfExistenceReactor(const char* name, IntfMgrHelper& helper);

  virtual void onExistence(intf_id_t intf, bool created) = 0;

 private:
  void onEntity(platform::Entity& entity, platform::Change change) final;

  IntfMgrHelper& helper_;
  bool starting_ = true;
};

class IntfMgrHelper final : public intf_mgr_helper {
 public:
  using IntfConfig = platform::Interface::IntfConfig;
  using IntfStatus = platform::Interface::IntfStatus;

  // Follows the interfaces themselves, whoever is told of them: before the managers are told that
  // one was created, after they were, and before they are told that one was deleted.
  class Follower {
   public:
    virtual ~Follower() = default;
    virtual void configCame(intf_id_t intf) = 0;
    virtual void creationTold(intf_id_t intf) = 0;
    virtual void configWent(intf_id_t intf) = 0;
  };

  explicit IntfMgrHelper(mount_mgr* mounts);
  ~IntfMgrHelper() override;

  void doMounts(mount_group& group) override;
  void onMountsComplete(entity_manager& em) override;

  // Managers whose mounts are complete before the helper is told call this first.
  void assemble(platform::EntityManager& em);

  // At most one.
  void followerIs(Follower* follower) { follower_ = follower; }

  // Whether handlers may be told anything yet: `on_initialized` comes first.
  bool reporting() const { return mgr_ != nullptr && mgr_->initializationComplete(); }

  // The interface's own entities; null for one that agents do not see, or without a status.
  IntfConfig* config(intf_id_t intf) const;
  IntfStatus* status(intf_id_t intf) const;
  bool sees(intf_id_t intf) const { return config(intf) != nullptr; }
  // Whether agents see an interface that is in the collection.
  bool shows(intf_id_t intf) const;

  // The shared collections.
  const platform::IntfCollections& collections() const { return *collections_; }
  platform::Interface::AllIntfConfigDir& allIntfConfigDir() const;
  platform::Interface::AllIntfStatusDir& allIntfStatusDir() const;
  platform::Interface::AllIntfStatusLocalDir& allIntfStatusLocalDir() const;
  platform::Interface::AllEthPhyIntfConfigDir& allEthPhyIntfConfigDir() const;
  platform::Interface::AllEthPhyIntfStatusDir& allEthPhyIntfStatusDir() const;
  platform::Interface::EthLagIntfConfigDir& ethLagIntfConfigDir() const { return *lagConfig_; }
  platform::Interface::EthLagIntfStatusDir& ethLagIntfStatusDir() const;
  platform::Lag::Status& lagStatus() const;
  platform::Interface::SubIntfConfigDir& subIntfConfigDir() const { return *subConfig_; }
  platform::Interface::SubIntfStatusDir& subIntfStatusDir() const { return *subStatus_; }

 private:
  friend class IntfExistenceReactor;
  class Existence;

  std::unique_ptr<platform::IntfCollections> collections_;
  platform::Ref<platform::Interface::EthLagIntfConfigDir> lagConfig_;
  platform::Ref<platform::Interface::SubIntfConfigDir> subConfig_;
  platform::Ref<platform::Interface::SubIntfStatusDir> subStatus_;
  std::unique_ptr<Existence> existence_;
  Follower* follower_ = nullptr;
  std::vector<intf_id_t> hidden_;  // whose deletion is being told
};

}  // namespace ryx
