#include "switch/operator/state.h"

#include <charconv>

namespace ryx::operators {

using namespace platform;

std::string valueText(const Kind& kind, const void* value) {
  JsonWriter w;
  kind.dump(w, value);
  const std::string& text = w.text();
  const bool quoted = text.size() >= 2 && text.front() == '"';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

std::string keyText(const Entity& e) {
  return e.type().keyKind ? valueText(*e.type().keyKind, e.keyData()) : "";
}

namespace {

// Takes `step` and the slash behind it off the path, when it begins with them.
bool takeStep(std::string_view* path, std::string_view step) {
  if (!path->starts_with(step)) return false;
  const std::string_view rest = path->substr(step.size());
  if (!rest.empty() && rest.front() != '/') return false;
  *path = rest.substr(std::min<size_t>(1, rest.size()));
  return true;
}

Entity* childAt(Entity& at, std::string_view* path) {
  const auto& collections = at.type().collections;
  for (const CollectionInfo& c : collections) {
    std::string_view rest = *path;
    if (collections.size() > 1 && !takeStep(&rest, c.name)) continue;
    if (Dir* dir = at.as<Dir>()) {
      const std::string_view name = rest.substr(0, rest.find('/'));
      Entity* e = dir->entry.find(Name(name));
      if (e && takeStep(&rest, name)) return *path = rest, e;
      continue;
    }
    // Keys may have slashes of their own: the longest one that fits.
    Entity* found = nullptr;
    std::string_view after;
    for (CollectionIterator it(at.collection(c)); it; it.next()) {
      std::string_view left = rest;
      if (takeStep(&left, keyText(*it.get())) && (!found || left.size() < after.size())) {
        found = it.get();
        after = left;
      }
    }
    if (found) return *path = after, found;
  }
  return nullptr;
}

}  // namespace

Entity* findPath(Tree& tree, std::string_view path, Entity** deepest) {
  Entity* at = &tree.root();
  for (;;) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    *deepest = at;
    if (path.empty()) return at;
    at = childAt(*at, &path);
    if (!at) return nullptr;
  }
}

std::vector<Shown> attributesOf(const Entity& e) {
  std::vector<Shown> all;
  for (const FieldInfo& f : e.type().fields) {
    if (f.marks & (kSecret | kLocal)) continue;
    all.push_back({f.name, valueText(*f.kind, e.at(f.offset)), f.kind->isDefault(e.at(f.offset))});
  }
  return all;
}

std::string setFromText(Entity& e, std::string_view attribute, std::string_view text) {
  const FieldInfo* f = e.type().field(attribute);
  if (!f) {
    std::string names;
    for (const FieldInfo& one : e.type().fields)
      names += (names.empty() ? "" : ", ") + std::string(one.name);
    return "a " + e.type().name + " has no attribute \"" + std::string(attribute) +
           "\"; expected one of: " + (names.empty() ? "none, it has no attributes" : names);
  }
  const std::string what = std::string(attribute) + ": \"" + std::string(text) + "\"";
  if (f->marks & kConstructor) return what + ": it is fixed when its entity is made";
  const std::string_view kind = f->kind->name;
  Encoder out;
  const char* end = text.data() + text.size();
  if (kind == "bool") {
    if (text != "true" && text != "false") return what + "; expected true or false";
    out.varint(text == "true");
  } else if (kind == "uint" || kind == "enum") {
    uint64_t n = 0;
    auto [at, error] = std::from_chars(text.data(), end, n);
    if (error != std::errc() || at != end || text.empty()) return what + "; expected a number";
    out.varint(n);
  } else if (kind == "int") {
    int64_t n = 0;
    auto [at, error] = std::from_chars(text.data(), end, n);
    if (error != std::errc() || at != end || text.empty()) return what + "; expected a number";
    out.zigzag(n);
  } else if (kind == "text" || kind == "name") {
    out.text(text);
  } else {
    return std::string(attribute) + ": it is a " + std::string(kind) +
           "; expected an attribute that is a number, true or false, or a text";
  }
  Decoder d(out.view());
  if (!f->kind->decode(d, e.at(f->offset))) return what + ": it is out of its range";
  return "";
}

}  // namespace ryx::operators
