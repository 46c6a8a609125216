// A hub that does not move while an agent sets a whole routing table, several times over: what
// waits is one working copy a route, and what comes to stand there in the end is what was set last.
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/nexthop_group.h"
#include "platform/model/routing.h"
#include "platform/model/wellknown.h"
#include "platform/qel/dir.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "ryx/ip_route.h"
#include "ryx/sdk.h"

namespace ryx {
namespace {

using platform::activity;
using platform::EntityManager;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kRoutes = 40'000;
#else
constexpr uint32_t kRoutes = 1'000'000;
#endif

void serve(int first, int second) {
  platform::Tree tree;
  platform::makeWellKnown(tree);
  platform::Hub hub(tree);
  hub.accept(first);
  hub.accept(second);
  for (;;) activity().run(1);
}

bool until(const std::function<bool()>& done) {
  const double end = platform::clock().now() + 120;
  while (!done()) {
    if (platform::clock().now() > end) return false;
    activity().run(0.001);
  }
  return true;
}

size_t residentMiB() {
  malloc_trim(0);
  unsigned long size = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  EXPECT_EQ(2, std::fscanf(f, "%lu %lu", &size, &resident));
  std::fclose(f);
  return resident * 4096 >> 20;
}

ip_addr_t v4(uint32_t n) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16),
                            static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return {AF_IPV4, bytes};
}

void setAll(ip_route_mgr* mgr, uint32_t tag) {
  for (uint32_t n = 0; n < kRoutes; ++n) {
    const ip_route_key_t key({v4(0x01000000 + (n << 8)), 24}, 1);
    ip_route_t route(key);
    route.tag_is(tag);
    mgr->ip_route_set(route);
    ip_route_via_t via(key);
    via.hop_is(v4(0xc0a80001));
    mgr->ip_route_via_set(via);
    if (n % 65536 == 0) activity().run(0);  // the agent's loop goes on meanwhile
  }
}

TEST(SlowHub, KeepsWhatWaitsInBoundsAndLosesNothing) {
  int own[2], others[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, own));
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, others));
  const pid_t hub = fork();
  if (hub == 0) serve(own[0], others[0]);
  struct End {
    pid_t pid;
    ~End() {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  } end{hub};

  // Managers live as long as the process: so do these.
  auto* em = EntityManager::overSocket(own[1], "burst").release();
  auto* sdk = new ryx::sdk("burst", em);
  ip_route_mgr* mgr = sdk->get_ip_route_mgr();
  sdk->initialize_context();
  const char* const kInput = "routing/vrf/input/default/RyxSdk-burst";
  ASSERT_TRUE(until([&] { return em->find(kInput) != nullptr && em->drained(); }));

  ASSERT_EQ(0, kill(hub, SIGSTOP));
  setAll(mgr, 1);
  activity().run(0.05);
  const size_t once = residentMiB();
  EXPECT_GT(mgr->uncommitted(), kRoutes / 2);
  EXPECT_LT(em->unsentBytes(), 4 * EntityManager::kCloggedBytes);
  for (uint32_t tag = 2; tag <= 4; ++tag) setAll(mgr, tag);
  activity().run(0.05);
  EXPECT_LT(residentMiB(), once + once / 5 + 16) << "MiB; " << once << " when all was set once";
  EXPECT_LT(em->unsentBytes(), 4 * EntityManager::kCloggedBytes);
  mgr->ip_route_del({{v4(0x01000000), 24}, 1});

  ASSERT_EQ(0, kill(hub, SIGCONT));
  ASSERT_TRUE(until([&] { return mgr->uncommitted() == 0 && em->drained(); }));

  // Somebody else looks at what stands at the hub now.
  auto reader = EntityManager::overSocket(others[1], "");
  auto group = reader->mountGroup();
  bool isMounted = false;
  group->add("routing/vrf/input", "Qel::Dir", "r");
  group->close([&](platform::MountStatus) { isMounted = true; });
  ASSERT_TRUE(until([&] { return isMounted; }));
  auto* input = reader->find<platform::Routing::RouteInput>(kInput);
  ASSERT_TRUE(input);
  EXPECT_EQ(kRoutes - 1, input->route.size());
  size_t wrong = 0;
  for (auto it = input->route.iterator(); it; it.next()) {
    const bool isLast = it->tag() == 4 && it->via().size() == 1 && it->dynamic();
    wrong += isLast ? 0 : 1;
  }
  EXPECT_EQ(0u, wrong);
}

}  // namespace
}  // namespace ryx
