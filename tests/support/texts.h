// Shorthand for tests of managers: values from their texts, and texts of what they give.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "ryx/ip.h"
#include "ryx/ip_route.h"
#include "ryx/panic.h"

namespace ryx::testing {

inline ip_prefix_t prefixOf(const std::string& text) {
  ip_prefix_t result;
  EXPECT_TRUE(parse_ip_prefix(text.c_str(), &result)) << text;
  return result;
}
inline ip_addr_t addrOf(const std::string& text) {
  ip_addr_t result;
  EXPECT_TRUE(parse_ip_addr(text.c_str(), &result)) << text;
  return result;
}
inline ip_route_key_t keyOf(const std::string& text, uint8_t preference = 1) {
  return {prefixOf(text), preference};
}

// What an iterator shows, in order, a line each.
template <class Iter>
std::string allOf(Iter iter) {
  std::set<std::string> texts;
  for (; iter; ++iter) texts.insert(iter->to_string());
  std::string text;
  for (const std::string& one : texts) text += one + "\n";
  return text;
}

// The error of a call, its class by `Error`.
template <class Error, class Call>
std::string errorOf(Call&& call) {
  try {
    call();
  } catch (const Error& e) {
    return e.what();
  } catch (const error& e) {
    return std::string("of another class: ") + e.what();
  }
  return "no error";
}

}  // namespace ryx::testing
