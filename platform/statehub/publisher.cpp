#include "platform/statehub/publisher.h"

#include <algorithm>

namespace ryx::platform {
namespace {

constexpr int kFeedTurn = 256;  // items of one feed before the next one's turn

}  // namespace

class Publisher::Feed final : public Cursor {
 public:
  Feed(Publisher& publisher, Entity& root, bool fromStart, uint64_t knownTo)
      : publisher_(publisher), root_(&root), starting(fromStart), since(knownTo) {}
  ~Feed() override { detach(); }  // while the root, which has the journal, is there
  void start(bool fromStart) {
    sameToSay = since != 0 && root_->childJournal()->remembersSince(since);
    if (sameToSay)
      attachAfter(*root_->childJournal(), since, false);
    else if (fromStart)
      attachAtHead(*root_->childJournal(), false);
    else
      attachAtEnd(*root_->childJournal(), false);
  }
  void rewind() {
    goToHead();
    comparing = compareToSay = sameToSay = false;
    since = 0;
    starting = true;
    enqueue();
  }
  void enqueue() {
    if (queued) return;
    queued = true;
    publisher_.active_.push_back(this);
    publisher_.activated();
  }
  Entity& root() { return *root_; }

  bool queued = false;

 protected:
  void activated() override { enqueue(); }
  bool isBounded() const override { return publisher_.isBounded(*root_); }
  void overrun() override {
    sameToSay = false;
    comparing = compareToSay = true;
    enqueue();
  }

 private:
  void goToHead() {
    Journal& j = *journal();
    detach();
    attachAtHead(j, false);
  }

  Publisher& publisher_;
  Ref<Entity> root_;

 public:
  bool starting;              // the first walk has not ended
  bool comparing = false;     // a walk to be compared has not ended
  bool compareToSay = false;  // and the peer was not told of its start
  uint64_t since;             // the peer may have been told all up to that version
  bool sameToSay = false;     // it has, and is to hear that it stands
};

Publisher::Publisher() = default;
Publisher::~Publisher() = default;

void Publisher::publish(Entity& root, uint32_t handle, bool fromStart, uint64_t since) {
  Journal* journal = root.childJournal();
  if (handle != 0 && !handles_.count(&root)) handles_[&root] = {Ref<Entity>(&root), handle};
  auto& feed = feeds_[journal];
  if (feed) return;  // published already, as a part of something else
  feed = std::make_unique<Feed>(*this, root, fromStart, since);
  if (fromStart) ++starting_;
  feed->start(fromStart);
  if (fromStart) feed->enqueue();
}

uint32_t Publisher::newHandle() {
  if (freeHandles_.empty()) return nextHandle_++;
  uint32_t handle = freeHandles_.back();
  freeHandles_.pop_back();
  return handle;
}

uint32_t Publisher::handleOf(const Entity& container) const {
  auto at = handles_.find(&container);
  return at == handles_.end() ? 0 : at->second.handle;
}

uint64_t Publisher::sentVersion(const Journal& journal) const {
  auto at = feeds_.find(&journal);
  return at == feeds_.end() ? 0 : at->second->version;
}

void Publisher::reset() {
  handles_.clear();
  freeHandles_.clear();
  typesSent_.clear();
  lastContainer_ = nullptr;
  nextHandle_ = 1;
}

std::vector<Ref<Entity>> Publisher::rewind() {
  std::vector<Ref<Entity>> removals;
  for (auto& [journal, feed] : feeds_)
    while (Ref<Entity> e = feed->next())
      if (e->dead() && wantsRemoval(*e)) removals.push_back(e);
  std::erase_if(feeds_, [&](auto& f) {
    if (!f.second->root().dead()) return false;
    std::erase(active_, f.second.get());
    return true;
  });
  for (auto& [journal, feed] : feeds_) feed->rewind();
  starting_ = static_cast<int>(feeds_.size());
  return removals;
}

void Publisher::unpublish(Entity& root) {
  auto at = feeds_.find(root.childJournal());
  if (at == feeds_.end()) return;
  if (at->second->starting) --starting_;
  std::erase(active_, at->second.get());
  feeds_.erase(at);
}

bool Publisher::encode(Encoder& out, size_t limit) {
  while (!active_.empty()) {
    if (out.size() >= limit) return false;
    Feed& feed = *active_.front();
    active_.pop_front();
    feed.queued = false;
    if (waitsForOuter(feed)) {
      feed.queued = true;
      active_.push_back(&feed);
      continue;
    }
    if (!encodeFeed(feed, out, limit)) {
      feed.queued = true;
      active_.push_back(&feed);
    }
  }
  return true;
}

// A root that the peer does not know yet waits until what came before it in the outer journal was
// sent: a deletion under its key may be there.
bool Publisher::waitsForOuter(Feed& feed) const {
  const Entity& root = feed.root();
  if (!root.alive() || handles_.count(&root)) return false;
  auto outer = feeds_.find(root.owner()->journal());
  return outer != feeds_.end() && outer->second->queued;
}

// Journals below a root whose own journal says nothing of them.
void Publisher::publishBelow(Entity& root, uint64_t since) {
  for (const CollectionInfo& c : root.type().collections) {
    if (c.child && c.child().journalOffset == 0 && c.child().collections.empty()) continue;
    for (CollectionIterator it(root.collection(c)); it; it.next()) {
      Entity& e = *it.get();
      if (!visible(e)) continue;
      if (e.type().journalOffset == 0)
        publishBelow(e, since);
      else if (!publishes(*e.childJournal()))
        publish(e, 0, true, since);
    }
  }
}

// True when the feed has nothing left.
bool Publisher::encodeFeed(Feed& feed, Encoder& out, size_t limit) {
  if (std::exchange(feed.sameToSay, false)) {
    const uint32_t handle = containerHandle(out, feed.root());
    out.u8(static_cast<uint8_t>(Op::same));
    out.varint(handle);
    publishBelow(feed.root(), feed.since);
  }
  if (feed.compareToSay) {
    feed.compareToSay = false;
    uint32_t handle = containerHandle(out, feed.root());
    encodeReach(out, Op::compare, handle, Reach::journal);
    // The root's own attributes are sent again, too.
    encodeRoot(out, feed.root(), handle, kItemWhole, ~0u);
  }
  for (int i = 0; i < kFeedTurn; ++i) {
    if (out.size() >= limit) return false;
    Ref<Entity> e = feed.next();
    if (!e) {
      if (std::exchange(feed.comparing, false)) {
        encodeReach(out, Op::sweep, containerHandle(out, feed.root()), Reach::journal);
        forgetDead(out, feed);
      }
      if (std::exchange(feed.starting, false)) --starting_;
      return true;
    }
    if (e.get() == &feed.root()) {
      if (!wants(*e)) continue;
      uint32_t fields = itemFields(*e);
      encodeRoot(out, *e, containerHandle(out, *e), itemFlags(*e), fields);
      sent(*e, fields);
    } else if (e->dead()) {
      // What died with its container goes with it; a root's own end is told by nobody else.
      Entity* container = e->parent();
      bool told = container->dead() && (container != &feed.root() || handleOf(*container) == 0);
      if (wantsRemoval(*e) && !told && visible(*e))
        encodeRemoval(out, *container, e->owner()->info(), e->type(), e->keyData(),
                      itemGeneration(*e), removalFlags(*e));
      removalSent(*e);
      forget(out, *e);
    } else {
      bool own = e->type().journalOffset != 0;
      if (!visible(*e)) continue;
      if ((feed.comparing && compares(*e)) || wants(*e)) {
        uint32_t fields = itemFields(*e);
        encodeItem(out, *e, 0);
        sent(*e, fields);
      }
      if (own && !publishes(*e->childJournal())) publish(*e, 0, true, feed.since);
    }
  }
  return false;
}

void Publisher::encodeType(Encoder& out, const TypeInfo& type) {
  if (type.id < typesSent_.size() && typesSent_[type.id]) return;
  if (type.id >= typesSent_.size()) typesSent_.resize(type.id + 1u);
  typesSent_[type.id] = true;
  out.u8(static_cast<uint8_t>(Op::type));
  out.varint(type.id);
  out.text(type.name);
  out.u8(static_cast<uint8_t>(type.keyKind ? type.keyKind->wire : Wire::local));
  out.varint(type.fields.size());
  for (const FieldInfo& f : type.fields) {
    out.text(f.name);
    out.text(f.kind->name);
    out.u8(static_cast<uint8_t>(f.kind->wire));
  }
  out.varint(type.collections.size());
  for (const CollectionInfo& c : type.collections) out.text(c.name);
}

void Publisher::encodeFields(Encoder& out, Entity& e, uint32_t fields, bool skipDefaults) {
  fields &= readable(e);
  for (const FieldInfo& f : e.type().fields) {
    if (!(fields >> f.index & 1) || (f.marks & kLocal)) continue;
    const void* value = e.at(f.offset);
    if (skipDefaults && f.kind->isDefault(value)) continue;
    out.varint((uint64_t{f.index} + 1) << 1 | static_cast<uint64_t>(f.kind->wire));
    f.kind->encode(out, value);
  }
  out.u8(0);
}

void Publisher::encodeRoot(Encoder& out, Entity& root, uint32_t handle, uint8_t flags,
                           uint32_t fields) {
  encodeType(out, root.type());
  out.u8(static_cast<uint8_t>(Op::root));
  out.u8(flags);
  out.varint(handle);
  encodeFields(out, root, fields, flags & (kItemWhole | kItemCreate));
}

void Publisher::encodeItem(Encoder& out, Entity& e, uint8_t extraFlags) {
  const TypeInfo& type = e.type();
  encodeType(out, type);
  uint32_t container = containerHandle(out, *e.parent());
  auto flags = static_cast<uint8_t>(itemFlags(e) | extraFlags);
  out.u8(static_cast<uint8_t>(Op::item));
  out.u8(flags);
  out.varint(container);
  out.u8(e.owner()->info().index);
  out.varint(type.id);
  if (flags & kItemHandle) out.varint(handles_.at(&e).handle);
  out.varint(itemGeneration(e));
  type.keyKind->encode(out, e.keyData());
  encodeFields(out, e, flags & kItemWhole ? ~0u : itemFields(e),
               flags & (kItemWhole | kItemCreate));
}

// The number of a container that the peer knows, or is told here and now.
uint32_t Publisher::containerHandle(Encoder& out, Entity& container) {
  if (&container == lastContainer_) return lastHandle_;
  auto [at, isNew] = handles_.try_emplace(&container);
  if (isNew) at->second = {Ref<Entity>(&container), newHandle()};
  uint32_t handle = at->second.handle;
  if (isNew) {
    uint32_t fields = itemFields(container);
    encodeItem(out, container, kItemHandle);
    if (wants(container)) sent(container, fields);
  }
  lastContainer_ = &container;
  return lastHandle_ = handle;
}

void Publisher::encodeReach(Encoder& out, Op op, uint32_t handle, Reach reach) {
  out.u8(static_cast<uint8_t>(op));
  out.varint(handle);
  out.u8(static_cast<uint8_t>(reach));
}

void Publisher::encodeToldItem(Encoder& out, Entity& e, bool numbered) {
  if (numbered) {
    auto [at, isNew] = handles_.try_emplace(&e);
    if (isNew) at->second = {Ref<Entity>(&e), newHandle()};
  }
  encodeItem(out, e, numbered ? kItemHandle : 0);
}

void Publisher::renumber(Encoder& out, const Entity& container) {
  auto at = handles_.find(&container);
  if (at == handles_.end()) return;
  out.u8(static_cast<uint8_t>(Op::forget));
  out.varint(at->second.handle);
  if (lastContainer_ == &container) lastContainer_ = nullptr;
  freeHandles_.push_back(at->second.handle);
  handles_.erase(at);
}

// Those whose deletions a comparison stood in for.
void Publisher::forgetDead(Encoder& out, Feed& feed) {
  std::vector<Ref<Entity>> dead;
  for (auto& [container, numbered] : handles_)
    if (container->dead() && container != &feed.root()) dead.push_back(numbered.entity);
  for (auto& e : dead) forget(out, *e);
}

void Publisher::forget(Encoder& out, const Entity& container) {
  renumber(out, container);
  uint16_t own = container.type().journalOffset;
  auto at = own ? feeds_.find(static_cast<const Journal*>(container.at(own))) : feeds_.end();
  if (at == feeds_.end()) return;
  std::unique_ptr<Feed> feed = std::move(at->second);
  feeds_.erase(at);
  if (feed->starting) --starting_;
  if (feed->queued) std::erase(active_, feed.get());
  while (Ref<Entity> e = feed->next())
    if (e->dead()) forget(out, *e);
}

void Publisher::encodeRemoval(Encoder& out, Entity& container, const CollectionInfo& collection,
                              const TypeInfo& type, const void* key, uint64_t generation,
                              uint8_t flags) {
  encodeType(out, type);
  uint32_t handle = containerHandle(out, container);
  out.u8(static_cast<uint8_t>(Op::remove));
  out.u8(flags);
  out.varint(handle);
  out.u8(collection.index);
  out.varint(type.id);
  out.varint(generation);
  type.keyKind->encode(out, key);
}

void Publisher::encodeToldRoot(Encoder& out, Entity& root) {
  if (root.dead()) return;
  encodeRoot(out, root, containerHandle(out, root), kItemWhole, ~0u);
}

}  // namespace ryx::platform
