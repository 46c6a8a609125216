// Whether a text is one JSON value (RFC 8259), UTF-8 (RFC 3629) throughout and with no name twice
// in an object: a strict check that shares no code with the writer.
#pragma once

#include <cctype>
#include <set>
#include <string>
#include <string_view>

namespace ryx::test {

class JsonCheck {
 public:
  static bool isValid(std::string_view text) {
    JsonCheck c(text);
    return c.value() && c.at_ == text.size();
  }

 private:
  explicit JsonCheck(std::string_view text) : text_(text) {}

  int peek() const { return at_ < text_.size() ? static_cast<unsigned char>(text_[at_]) : -1; }
  bool take(char c) {
    if (peek() != static_cast<unsigned char>(c)) return false;
    ++at_;
    return true;
  }
  bool takeWord(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }
  size_t digits() {
    size_t n = 0;
    for (; std::isdigit(peek()); ++n) ++at_;
    return n;
  }

  bool value() {
    switch (peek()) {
      case '{':
        return object();
      case '[':
        return array();
      case '"':
        return string(nullptr);
      case 't':
        return takeWord("true");
      case 'f':
        return takeWord("false");
      case 'n':
        return takeWord("null");
      default:
        return number();
    }
  }
  bool number() {
    take('-');
    if (!take('0') && digits() == 0) return false;
    if (take('.') && digits() == 0) return false;
    if (!take('e') && !take('E')) return true;
    if (!take('+')) take('-');
    return digits() != 0;
  }
  bool object() {
    std::set<std::string> names;
    take('{');
    if (take('}')) return true;
    do {
      std::string name;
      if (!string(&name) || !names.insert(name).second || !take(':') || !value()) return false;
    } while (take(','));
    return take('}');
  }
  bool array() {
    take('[');
    if (take(']')) return true;
    do {
      if (!value()) return false;
    } while (take(','));
    return take(']');
  }
  bool string(std::string* raw) {
    size_t from = at_ + 1;
    if (!take('"')) return false;
    while (peek() != '"')
      if (!(peek() == '\\' ? escape() : character())) return false;
    if (raw) *raw = text_.substr(from, at_ - from);
    return take('"');
  }
  bool escape() {
    ++at_;
    if (!take('u')) return std::string_view("\"\\/bfnrt").find(text_[at_++]) != text_.npos;
    for (int i = 0; i < 4; ++i, ++at_)
      if (!std::isxdigit(peek())) return false;
    return true;
  }
  // One code point, by its value: no overlong form, no surrogate, nothing past U+10FFFF.
  bool character() {
    int first = peek();
    if (first < 0x20) return false;
    ++at_;
    if (first < 0x80) return true;
    int more = first >= 0xf0 ? 3 : first >= 0xe0 ? 2 : 1;
    if (first < 0xc0 || first >= 0xf8) return false;
    unsigned code = static_cast<unsigned>(first) & (0x3fu >> more);
    for (int i = 0; i < more; ++i, ++at_) {
      if (peek() < 0 || (peek() & 0xc0) != 0x80) return false;
      code = code << 6 | (static_cast<unsigned>(peek()) & 0x3f);
    }
    constexpr unsigned kLeast[] = {0, 0x80, 0x800, 0x10000};
    return code >= kLeast[more] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
  }

  std::string_view text_;
  size_t at_ = 0;
};

}  // namespace ryx::test
