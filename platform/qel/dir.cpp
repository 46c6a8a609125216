#include "platform/qel/dir.h"

#include "platform/mirra/exchange.h"

namespace ryx::platform {
namespace {

// Takes the next step of a path, empty at its end.
std::string_view step(std::string_view* path) {
  while (!path->empty() && path->front() == '/') path->remove_prefix(1);
  std::string_view s = path->substr(0, path->find('/'));
  path->remove_prefix(s.size());
  return s;
}

}  // namespace

Entity* DirEntries::create(const TypeInfo& type, const Name& name) {
  if (Entity* there = find(name)) return there->type().is(type) ? there : nullptr;
  if (!type.keyedByName) return nullptr;
  Ref<Entity> child = EntityOps::make(type);
  *static_cast<Name*>(child->at(type.keyOffset)) = name;
  return addHashed(child, name.hash());
}

Tree::Tree()
    : root_(::ryx::platform::make<Dir>()),
      ownTables_(std::make_unique<mirra::LocalExchange>()),
      tables_(ownTables_.get()) {
  root_->journal.bind(&clock_, root_.get());
  root_->entry.enterJournal(&root_->journal);
}

Tree::~Tree() {
  // Followers may live longer than what they follow: every journal lets its own go first.
  auto detach = [](auto& self, Entity& e) -> void {
    if (uint16_t own = e.type().journalOffset) static_cast<Journal*>(e.at(own))->detachAll();
    for (const CollectionInfo& c : e.type().collections)
      for (CollectionIterator it(e.collection(c)); it; it.next()) self(self, *it.get());
  };
  detach(detach, *root_);
  clock_.openGate();
  root_->entry.removeAll();
  root_->entry.enterJournal(nullptr);
  root_->journal.bind(nullptr, root_.get());
}

Entity* Tree::find(std::string_view path) {
  Entity* at = root_.get();
  for (std::string_view s = step(&path); !s.empty(); s = step(&path)) {
    Dir* dir = at->as<Dir>();
    at = dir ? dir->entry.find(Name(s)) : nullptr;
    if (!at) return nullptr;
  }
  return at;
}

Entity* Tree::make(std::string_view path, const TypeInfo& type) {
  Entity* at = root_.get();
  if (!type.keyedByName) return nullptr;
  for (std::string_view s = step(&path); !s.empty();) {
    Dir* dir = at->as<Dir>();
    if (!dir) return nullptr;
    std::string_view following = step(&path);
    at = dir->entry.create(following.empty() ? type : typeOf<Dir>(), Name(s));
    if (!at) return nullptr;
    s = following;
  }
  return at->type().is(type) ? at : nullptr;
}

}  // namespace ryx::platform
