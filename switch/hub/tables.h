// Tells of the Mirra tables that are offered at the hub: "statehub/table".
#pragma once

#include "platform/activity/task.h"
#include "platform/mirra/exchange.h"
#include "platform/qel/dir.h"

namespace ryx::hub {

class Tables final : private platform::Task {
 public:
  // Of that tree, which outlives it.
  explicit Tables(platform::Tree& tree);
  ~Tables() override { tree_.ownTables().onChangeIs(nullptr); }

 private:
  bool run(platform::Slice&) override;

  platform::Tree& tree_;
};

}  // namespace ryx::hub
