#include "platform/statehub/publisher.h"

#include <algorithm>

namespace ryx::platform {
namespace {

constexpr int kFeedTurn = 256;  // items of one feed before the next one's turn

}  // namespace

class Publisher::Feed final : public Cursor {
 public:
  Feed(Publisher& publisher, Entity& root, bool fromStart)
      : publisher_(publisher), root_(&root), starting(fromStart) {}
  void start(bool fromStart) {
    if (fromStart)
      attachAtHead(*root_->childJournal(), false);
    else
      attachAtEnd(*root_->childJournal(), false);
  }
  void startOver() {
    Journal& j = *journal();
    detach();
    comparing = compareToSay = true;
    attachAtHead(j, false);
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
  void overrun() override {
    comparing = compareToSay = true;
    enqueue();
  }

 private:
  Publisher& publisher_;
  Ref<Entity> root_;

 public:
  bool starting;              // the first walk has not ended
  bool comparing = false;     // a walk to be compared has not ended
  bool compareToSay = false;  // and the peer was not told of its start
};

Publisher::Publisher() = default;
Publisher::~Publisher() = default;

void Publisher::publish(Entity& root, uint32_t handle, bool fromStart) {
  Journal* journal = root.childJournal();
  if (handle != 0 && !handles_.count(&root)) handles_[&root] = {Ref<Entity>(&root), handle};
  auto& feed = feeds_[journal];
  if (feed) return;  // published already, as a part of something else
  feed = std::make_unique<Feed>(*this, root, fromStart);
  if (fromStart) ++starting_;
  feed->start(fromStart);
  if (fromStart) feed->enqueue();
}

uint32_t Publisher::handleOf(const Entity& container) const {
  auto at = handles_.find(&container);
  return at == handles_.end() ? 0 : at->second.handle;
}

uint64_t Publisher::sentVersion(const Journal& journal) const {
  auto at = feeds_.find(&journal);
  return at == feeds_.end() ? 0 : at->second->version;
}

void Publisher::startOver(const Journal& journal) {
  auto at = feeds_.find(&journal);
  if (at != feeds_.end()) at->second->startOver();
}

std::vector<Ref<Entity>> Publisher::takeRemovals() {
  std::vector<Ref<Entity>> removals;
  for (auto& [journal, feed] : feeds_)
    while (Ref<Entity> e = feed->next())
      if (e->dead() && wantsRemoval(*e)) removals.push_back(e);
  return removals;
}

void Publisher::reset() {
  active_.clear();
  feeds_.clear();
  handles_.clear();
  typesSent_.clear();
  lastContainer_ = nullptr;
  nextHandle_ = 1;
  starting_ = 0;
}

bool Publisher::encode(Encoder& out, size_t limit) {
  while (!active_.empty()) {
    if (out.size() >= limit) return false;
    Feed& feed = *active_.front();
    active_.pop_front();
    feed.queued = false;
    if (!encodeFeed(feed, out, limit)) {
      feed.queued = true;
      active_.push_back(&feed);
    }
  }
  return true;
}

// True when the feed has nothing left.
bool Publisher::encodeFeed(Feed& feed, Encoder& out, size_t limit) {
  if (feed.compareToSay) {
    feed.compareToSay = false;
    uint32_t handle = containerHandle(out, feed.root());
    out.u8(static_cast<uint8_t>(Op::compare));
    out.varint(handle);
    // The root's own attributes are sent again, too.
    encodeRoot(out, feed.root(), handle, kItemWhole, ~0u);
  }
  for (int i = 0; i < kFeedTurn; ++i) {
    if (out.size() >= limit) return false;
    Ref<Entity> e = feed.next();
    if (!e) {
      if (std::exchange(feed.comparing, false)) {
        out.u8(static_cast<uint8_t>(Op::sweep));
        out.varint(containerHandle(out, feed.root()));
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
      Entity* container = e->parent();
      if (wantsRemoval(*e) && !container->dead() && visible(*e))
        encodeRemoval(out, *container, e->owner()->info(), e->type(), e->keyData(),
                      itemGeneration(*e), 0);
      removalSent(*e);
      forget(out, *e);
    } else {
      bool own = e->type().journalOffset != 0;
      if (!visible(*e)) continue;
      if (feed.comparing || wants(*e)) {
        uint32_t fields = itemFields(*e);
        encodeItem(out, *e, 0);
        sent(*e, fields);
      }
      if (own && !publishes(*e->childJournal())) publish(*e, 0, true);
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

void Publisher::encodeFields(Encoder& out, const Entity& e, uint32_t fields, bool skipDefaults) {
  for (const FieldInfo& f : e.type().fields) {
    if (!(fields >> f.index & 1) || (f.marks & kLocal)) continue;
    const void* value = e.at(f.offset);
    if (skipDefaults && f.kind->isDefault(value)) continue;
    out.varint((uint64_t{f.index} + 1) << 1 | static_cast<uint64_t>(f.kind->wire));
    f.kind->encode(out, value);
  }
  out.u8(0);
}

void Publisher::encodeRoot(Encoder& out, const Entity& root, uint32_t handle, uint8_t flags,
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
  if (flags & kItemMade) {
    out.u8(0);
    return;
  }
  encodeFields(out, e, flags & kItemWhole ? ~0u : itemFields(e),
               flags & (kItemWhole | kItemCreate));
}

// The number of a container that the peer knows, or is told here and now.
uint32_t Publisher::containerHandle(Encoder& out, Entity& container) {
  if (&container == lastContainer_) return lastHandle_;
  auto at = handles_.find(&container);
  if (at == handles_.end()) {
    at = handles_.emplace(&container, Numbered{Ref<Entity>(&container), newHandle()}).first;
    uint32_t handle = at->second.handle;
    uint32_t fields = itemFields(container);
    encodeItem(out, container, kItemHandle);
    if (wants(container)) sent(container, fields);
    lastContainer_ = &container;
    return lastHandle_ = handle;
  }
  lastContainer_ = &container;
  return lastHandle_ = at->second.handle;
}

void Publisher::forget(Encoder& out, const Entity& container) {
  auto at = handles_.find(&container);
  if (at != handles_.end()) {
    out.u8(static_cast<uint8_t>(Op::forget));
    out.varint(at->second.handle);
    if (lastContainer_ == &container) lastContainer_ = nullptr;
    handles_.erase(at);
  }
  if (uint16_t own = container.type().journalOffset) {
    auto feed = feeds_.find(static_cast<const Journal*>(container.at(own)));
    if (feed == feeds_.end()) return;
    if (feed->second->starting) --starting_;
    if (feed->second->queued)
      active_.erase(std::find(active_.begin(), active_.end(), feed->second.get()));
    feeds_.erase(feed);
  }
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

void Publisher::encodeMade(Encoder& out, Entity& e) {
  encodeItem(out, e, kItemMade);
}

void Publisher::encodeForcedRoot(Encoder& out, Entity& root) {
  if (root.dead()) return;
  encodeRoot(out, root, containerHandle(out, root), kItemWhole | kItemForced, ~0u);
}

void Publisher::encodeForced(Encoder& out, Entity& e, bool withChildren) {
  if (!e.alive() || !e.parent() || !visible(e)) return;
  encodeItem(out, e, kItemWhole | kItemForced);
  if (!withChildren) return;
  for (const CollectionInfo& c : e.type().collections)
    for (CollectionIterator it(e.collection(c)); it; it.next()) encodeForced(out, *it.get(), true);
}

}  // namespace ryx::platform
