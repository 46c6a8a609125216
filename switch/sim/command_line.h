// One line of the simulated switch's language: words separated by blanks, those with blanks in
// double quotes (where \" and \\ stand for themselves), a comment from a word that begins with #.
// A command says by its usage text what arguments it takes, and gets them parsed:
//
//   "INTF [kernel-name]"     an interface name and, if it is there, a device name
//
// The words of a usage text are the kinds of arguments in command_line.cpp; those in brackets come
// last and may be missing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"

namespace ryx::sim {

// The word, and what it means by its kind.
struct Argument {
  std::string text;
  platform::IntfId intf;
  platform::IpAddr ip;
  platform::MacAddr mac;
  uint32_t number = 0;
};
using Arguments = std::vector<Argument>;

// Takes the words of a line one by one.
class Words {
 public:
  explicit Words(std::string_view line) : rest_(line) {}

  // False at the end of the line, where a comment is the end, and when the line is malformed.
  bool next(std::string* word);
  // What is wrong with the line; empty: nothing so far.
  const std::string& error() const { return error_; }

 private:
  bool quoted(std::string* word);

  std::string_view rest_;
  std::string error_;
};

// The arguments of a usage text from the words that are left. Returns an empty text, or what is
// wrong.
std::string parseArguments(std::string_view usage, Words& words, Arguments* result);

// The word in double quotes, fit for a message: cut when it is long, with control characters and
// other bytes that are no ASCII as \xHH.
std::string inQuotes(std::string_view word);

}  // namespace ryx::sim
