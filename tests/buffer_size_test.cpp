// internal_connection_buffer_size_is: what it asks of the system for each connection, and each way
// in which that fails. The system's two calls are this program's own here, which may refuse.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/trace/trace.h"
#include "ryx/panic.h"
#include "ryx/sdk.h"
#include "tests/support/statehub_fixture.h"

namespace {

int refused = 0;           // the option that the system refuses to set
bool readRefused = false;  // it refuses to tell
int granted = 0;           // what it tells; 0: the value that was set, doubled

using Asked = std::vector<std::pair<int, int>>;
Asked asked;  // options and values

}  // namespace

extern "C" __attribute__((visibility("default"))) int setsockopt(int fd, int level, int option,
                                                                 const void* value,
                                                                 socklen_t size) {
  if (option != SO_SNDBUFFORCE && option != SO_RCVBUFFORCE)
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, option, value, size));
  EXPECT_EQ(SOL_SOCKET, level);
  EXPECT_EQ(sizeof(int), size);
  asked.emplace_back(option, *static_cast<const int*>(value));
  if (option != refused) return 0;
  errno = EPERM;
  return -1;
}

extern "C" __attribute__((visibility("default"))) int getsockopt(int fd, int level, int option,
                                                                 void* value, socklen_t* size) {
  if (option != SO_SNDBUF)
    return static_cast<int>(::syscall(SYS_getsockopt, fd, level, option, value, size));
  errno = EINVAL;
  if (readRefused) return -1;
  *static_cast<int*>(value) = granted != 0 ? granted : 2 * asked.back().second;
  return 0;
}

namespace ryx {
namespace {

using testing::TestSdk;

class BufferSizeTest : public testing::StatehubTest {
 protected:
  BufferSizeTest() {
    refused = granted = 0;
    readRefused = false;
    asked.clear();
  }
  static std::string raised(uint32_t bytes) {
    try {
      internal_connection_buffer_size_is(bytes);
      return "nothing";
    } catch (const legacy_exception& e) {
      return e.what();
    }
  }
};

class BufferSizeLocalTest : public BufferSizeTest {};
INSTANTIATE_TEST_SUITE_P(Statehub, BufferSizeLocalTest, ::testing::Values(testing::Over::embedded),
                         testing::nameOf);
TEST_P(BufferSizeLocalTest, NeedsAConnection) {
  EXPECT_EQ("No internal socket found! Make sure you call this function from on_initialized()",
            raised(65536));
  TestSdk context(*this, "tester");
  context.start();
  EXPECT_EQ("No internal socket found! Make sure you call this function from on_initialized()",
            raised(65536));
}

class BufferSizeHubTest : public BufferSizeTest {};
INSTANTIATE_TEST_SUITE_P(Statehub, BufferSizeHubTest, ::testing::Values(testing::Over::hub),
                         testing::nameOf);
TEST_P(BufferSizeHubTest, IsAskedForAndEachRefusalTold) {
  TestSdk context(*this, "tester");
  context.start();
  EXPECT_EQ("nothing", raised(1'000'001));
  EXPECT_EQ((Asked{{SO_SNDBUFFORCE, 500'001}, {SO_RCVBUFFORCE, 500'001}}), asked);
  TestSdk other(*this, "other");
  other.start();
  asked.clear();
  EXPECT_EQ("nothing", raised(10));
  EXPECT_EQ(4u, asked.size());  // every connection of the process

  refused = SO_SNDBUFFORCE;
  EXPECT_EQ("Unable to set internal buffer's SO_SNDBUFFORCE. Make sure this is run as root",
            raised(65536));
  refused = SO_RCVBUFFORCE;
  EXPECT_EQ("Unable to set internal buffer's SO_RCVBUFFORCE", raised(65536));
  refused = 0;
  readRefused = true;
  EXPECT_EQ("Unable to check internal buffer size", raised(65536));
  readRefused = false;
  granted = 65535;
  EXPECT_EQ("Unable to set buffer size to requested value", raised(65536));
  EXPECT_EQ("nothing", raised(65535));
  // The largest that can be asked for does not become something small on its way.
  asked.clear();
  EXPECT_EQ("Unable to set buffer size to requested value", raised(0xffffffff));
  EXPECT_EQ(0x7fffffff, asked.at(0).second);
}

TEST_P(BufferSizeHubTest, IsTraced) {
  TestSdk context(*this, "tester");
  context.start();
  auto& facility = platform::TraceFacility::named("RyxSdk");
  facility.enabledIs(7, true);
  ::testing::internal::CaptureStderr();
  granted = 4000;
  internal_connection_buffer_size_is(3001);
  const std::string traced = ::testing::internal::GetCapturedStderr();
  facility.enabledIs(7, false);
  const std::string fd = std::to_string(context.connection().connections().at(0));
  for (const std::string& text : {std::string("Updating the internal socket buffer to 3001\n"),
                                  "Calling setsockopt for fd " + fd + " to buf size 1501\n",
                                  std::string("Buf size is now is now 4000 (requested 3001)\n")})
    EXPECT_NE(std::string::npos, traced.find(text)) << text << traced;
}

}  // namespace
}  // namespace ryx
