// Hooks for counting which parts of the SDK an agent uses. In this build they do nothing.
#ifndef RYX_PRINT_PROFILES_H
#define RYX_PRINT_PROFILES_H

#include <ryx/api.h>

namespace ryx {

/// Any thread may call any of these.
class RYX_API print_profiles {
 public:
  /// The agent whose profiles are counted from now on.
  static void set_print_profiles(const char* agent_name);
  /// The agent uses the part of that name.
  static void add_profile(const char* name);
  /// Writes out what was counted.
  static void write_profiles();
};

}  // namespace ryx

#endif  // RYX_PRINT_PROFILES_H
