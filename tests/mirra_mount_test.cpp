// The mount facility of the Mirra tables, within one process.
#include <gtest/gtest.h>

#include <optional>

#include "platform/activity/activity.h"
#include "platform/mirra/mount.h"

namespace ryx::platform::mirra {
namespace {

struct Numbers : Table {
  int value = 0;
};

TEST(MirraMountTest, AReaderIsAttachedBeforeDuringAndAfterItsWriter) {
  Mount mount("routes", "Mirra::Fib::RouteStatus");
  int calls = 0;
  mount.onChangeIs([&] { ++calls; });
  EXPECT_EQ(MountStatus::pending, mount.status());
  activity().run(0);
  EXPECT_EQ(MountStatus::success, mount.status());
  EXPECT_EQ(1, calls);
  EXPECT_EQ(nullptr, mount.table());
  EXPECT_EQ(0u, mount.incarnation());

  auto table = std::make_shared<Numbers>();
  table->value = 7;
  std::optional<Offer> first;
  first.emplace("routes", "Mirra::Fib::RouteStatus", table);
  EXPECT_EQ(1, calls);  // told by the loop, not by the offer
  activity().run(0);
  EXPECT_EQ(2, calls);
  std::shared_ptr<const Table> held = mount.table();
  EXPECT_EQ(7, static_cast<const Numbers&>(*held).value);
  uint64_t before = mount.incarnation();

  // A restarted writer takes over; the old one's end changes nothing then. One call for both.
  Offer second("routes", "Mirra::Fib::RouteStatus", std::make_shared<Numbers>());
  first.reset();
  activity().run(0);
  EXPECT_EQ(3, calls);
  EXPECT_NE(before, mount.incarnation());
  EXPECT_NE(held, mount.table());
  EXPECT_EQ(7, static_cast<const Numbers&>(*held).value);
}

TEST(MirraMountTest, ATableOfAnotherTypeFailsTheMountUntilItGoes) {
  std::optional<Offer> wrong;
  wrong.emplace("arp", "Arp::Table::Config", std::make_shared<Numbers>());
  std::optional<Mount> mount;
  mount.emplace("arp", "Arp::Table::Status");
  activity().run(0);
  EXPECT_EQ(MountStatus::wrongType, mount->status());
  EXPECT_EQ(nullptr, mount->table());
  wrong.reset();
  Offer right("arp", "Arp::Table::Status", std::make_shared<Numbers>());
  activity().run(0);
  EXPECT_EQ(MountStatus::success, mount->status());
  EXPECT_NE(nullptr, mount->table());
  // Gone with its change not told yet, and by its own callback.
  mount->onChangeIs([&] { mount.reset(); });
  Offer replaced("arp", "Arp::Table::Status", std::make_shared<Numbers>());
  activity().run(0);
  EXPECT_FALSE(mount.has_value());
}

}  // namespace
}  // namespace ryx::platform::mirra
