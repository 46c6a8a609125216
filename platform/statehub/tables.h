// The Mirra tables over a link: what a participant offers goes to the hub's exchange, and what it
// reads comes from there, each table as a descriptor beside the operations (docs/protocol.md). A
// half for either end of a link; both under the activity lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/mirra/exchange.h"
#include "platform/qel/codec.h"
#include "platform/statehub/wire.h"

namespace ryx::platform {

// Takes the next descriptor that came with a frame, in their order; none when there is none.
using TakeFile = std::function<File()>;

// The hub's half, for one participant.
class RYX_PRIVATE TableServer {
 public:
  // Of that exchange, which outlives it. `wake` is called when there is something to say.
  TableServer(mirra::LocalExchange& tables, std::function<void()> wake);
  ~TableServer();
  TableServer(const TableServer&) = delete;

  struct Rights {
    bool offers;      // it may offer tables
    bool takesFiles;  // its connection can carry a descriptor
    bool knowsAll;    // it knows what this hub offered before: what is not there any more is gone
    std::string name;
  };
  void rightsAre(const Rights& rights) { rights_ = rights; }

  // One operation of the participant's. Empty, or how it broke the protocol.
  [[nodiscard]] std::string take(Op op, Decoder& d, const TakeFile& file);
  bool owes() const { return owes_; }
  // As much as goes into a frame, and the descriptors that have to go with it.
  void encode(Encoder& out, std::vector<File>* files);

 private:
  struct Attachment;
  friend struct Attachment;
  void owe() {
    if (!std::exchange(owes_, true)) wake_();
  }
  void settle();

  mirra::LocalExchange& tables_;
  const std::function<void()> wake_;
  Rights rights_{};
  struct Offer {
    std::string name;
    uint64_t incarnation;
  };
  std::map<uint64_t, Offer> offers_;
  std::map<uint64_t, std::unique_ptr<Attachment>> attachments_;
  bool owes_ = false;
};

// The participant's half: an exchange that is the hub's.
class RYX_PRIVATE TableClient final : public mirra::Exchange {
 public:
  explicit TableClient(std::function<void()> wake) : wake_(std::move(wake)) {}

  void offer(const std::string& name, const mirra::Offered& table) override;
  void withdraw(const std::string& name, uint64_t incarnation) override;
  void ring(const std::string& name, uint64_t incarnation) override;
  void settle() override;
  void attach(const std::string& name, mirra::Listener& listener) override;
  void detach(const std::string& name, mirra::Listener& listener) override;
  const mirra::Offered* offered(const std::string& name) const override {
    return known_.offered(name);
  }

  // The hub's half knows nothing: a new connection.
  void restart();
  // The hub has greeted: it takes descriptors from now on.
  void greeted();
  [[nodiscard]] std::string take(Op op, Decoder& d, const TakeFile& file);
  bool owes() const { return owes_; }
  void encode(Encoder& out, std::vector<File>* files);

 private:
  struct Offer {
    uint64_t number;
    mirra::Offered table;
    bool isTold = false;
    bool rings = false;
  };
  struct Attachment {
    uint64_t number;
    bool isTold = false;
  };
  void owe() {
    if (!std::exchange(owes_, true)) wake_();
  }

  const std::function<void()> wake_;
  mirra::LocalExchange known_;  // what the hub has told
  std::map<std::string, Offer, std::less<>> offers_;
  std::map<std::string, Attachment, std::less<>> attachments_;
  std::map<uint64_t, std::string> names_;       // of attachments, by their numbers
  std::vector<std::pair<Op, uint64_t>> ended_;  // what the hub has to hear of
  uint64_t numbers_ = 0;
  bool isGreeted_ = false;
  bool owes_ = false;
  bool settles_ = false;
};

}  // namespace ryx::platform
