// The platform's values from their texts; a text that is none fails the test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/types/intf.h"
#include "platform/types/ip.h"

namespace ryx::test {

template <class T>
T parsed(const std::string& text) {
  T value;
  EXPECT_TRUE(platform::parse(text, &value)) << text;
  return value;
}

inline platform::IntfId id(const std::string& name) {
  return parsed<platform::IntfId>(name);
}

}  // namespace ryx::test
