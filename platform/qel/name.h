// Interned text: names that repeat a million times (VRFs, groups, interfaces) are kept once,
// counted, and compared by address. One word a copy; the empty name is a null pointer. To be
// touched under the activity lock alone, like all state.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/base/api.h"

namespace ryx::platform {

class Name {
 public:
  Name() = default;
  Name(std::string_view text) : entry_(text.empty() ? nullptr : intern(text)) {}
  Name(const char* text) : Name(std::string_view(text)) {}
  Name(const std::string& text) : Name(std::string_view(text)) {}
  Name(const Name& other) : entry_(other.entry_) {
    if (entry_) ++entry_->refs;
  }
  Name(Name&& other) noexcept : entry_(other.entry_) { other.entry_ = nullptr; }
  ~Name() {
    if (entry_ && --entry_->refs == 0) drop(entry_);
  }
  Name& operator=(Name other) noexcept {
    Entry* mine = entry_;
    entry_ = other.entry_;
    other.entry_ = mine;
    return *this;
  }

  bool empty() const { return !entry_; }
  std::string_view view() const {
    return entry_ ? std::string_view(entry_->text, entry_->size) : std::string_view();
  }
  operator std::string_view() const { return view(); }
  uint64_t hash() const { return entry_ ? entry_->hash : 0; }
  bool operator==(const Name& other) const { return entry_ == other.entry_; }
  bool operator<(const Name& other) const { return view() < other.view(); }

  // How many names are interned now.
  RYX_PRIVATE static size_t interned();

 private:
  struct Entry {
    Entry* next;  // in its bucket
    uint64_t hash;
    uint32_t refs;
    uint32_t size;
    char text[1];
  };
  friend class NameTable;
  RYX_PRIVATE static Entry* intern(std::string_view text);
  RYX_PRIVATE static void drop(Entry* entry);

  Entry* entry_ = nullptr;
};

}  // namespace ryx::platform

template <>
struct std::hash<ryx::platform::Name> {
  size_t operator()(const ryx::platform::Name& name) const { return name.hash(); }
};
