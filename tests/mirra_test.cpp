// Mirra tables in one process and over a hub: handles, reactors, restarts of the writer, bounds,
// and memory that a broken writer left. Across processes: mirra_process_test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <fstream>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "platform/activity/activity.h"
#include "platform/model/tables.h"
#include "platform/model/wellknown.h"
#include "platform/qel/dir.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"
#include "tests/support/mirra_cells.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::platform::mirra {
namespace {

using ryx::testing::settle;
using test::Cell;
using test::CellMirror;
using test::Cells;
using test::cellsOf;
using test::put;

constexpr const char* kName = "test/cells";

// A writer's exchange and a reader's: one, or the two ends of a hub.
class Ends {
 public:
  explicit Ends(bool linked) {
    makeWellKnown(*tree_);
    if (!linked) return;
    hubStarts();
    writer = EntityManager::overSocket(socket(), Participant(Role::service, "writer"));
    reader = EntityManager::overSocket(socket(), "reader");
    settle();
  }
  Exchange& writers() { return writer ? writer->tree().tables() : tree_->tables(); }
  Exchange& readers() { return reader ? reader->tree().tables() : tree_->tables(); }
  int socket() {
    int fds[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    hub->accept(fds[0]);
    return fds[1];
  }
  // A hub that knows nothing of another one.
  void hubStarts() {
    hub.reset();
    tree_.emplace();
    makeWellKnown(*tree_);
    hub = std::make_unique<Hub>(*tree_);
  }

 private:
  std::optional<Tree> tree_{std::in_place};

 public:
  std::unique_ptr<Hub> hub;
  std::unique_ptr<EntityManager> writer, reader;
};

class MirraTest : public ::testing::TestWithParam<bool> {
 protected:
  Ends ends{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Ends, MirraTest, ::testing::Bool(), [](auto& linked) {
  return std::string(linked.param ? "OverAHub" : "InOneProcess");
});

TEST_P(MirraTest, AReaderIsThereBeforeDuringAndAfterItsWriter) {
  Table<Cell> reader(ends.readers(), kName, Mode::notify);
  CellMirror mirror(reader);
  EXPECT_EQ(MountStatus::pending, reader.status());
  settle();
  EXPECT_EQ(MountStatus::success, reader.status());
  EXPECT_FALSE(reader.exists());
  EXPECT_EQ(0u, reader.size());
  EXPECT_FALSE(reader.iterator());

  auto first = std::make_unique<Table<Cell>>(ends.writers(), kName, Mode::write);
  for (uint64_t key = 0; key < 100; ++key) EXPECT_TRUE(put(*first, key, key));
  settle();
  EXPECT_FALSE(reader.exists()) << "it is offered when it is filled";
  first->offer();
  settle();
  ASSERT_TRUE(reader.exists());
  EXPECT_EQ(100u, reader.size());
  EXPECT_EQ(cellsOf(*first), cellsOf(reader));
  EXPECT_EQ(cellsOf(*first), mirror.cells);
  Cell cell;
  std::vector<test::Part> parts;
  ASSERT_TRUE(reader.find(99, &cell, &parts));
  EXPECT_TRUE(test::isWhole(cell, parts));
  EXPECT_EQ(4u, parts.size());
  EXPECT_FALSE(reader.contains(100));

  // A change is heard without a look at the rest.
  const uint64_t told = mirror.told;
  EXPECT_TRUE(put(*first, 7, 1000));
  EXPECT_TRUE(first->remove(8));
  EXPECT_FALSE(first->remove(8));
  settle();
  EXPECT_EQ(told + 1, mirror.told);
  EXPECT_EQ(1u, mirror.gone);
  EXPECT_EQ(cellsOf(*first), mirror.cells);
  // To write what is there changes nothing.
  const uint64_t version = first->version();
  EXPECT_TRUE(put(*first, 7, 1000));
  EXPECT_EQ(version, first->version());

  // A restarted writer: what is as it was is not told again.
  const auto held = reader.iterator();
  Table<Cell> second(ends.writers(), kName, Mode::write);
  for (uint64_t key = 99; key > 0; --key)
    EXPECT_TRUE(key == 8 || put(second, key, key == 7 ? 1000 : key));
  EXPECT_TRUE(put(second, 50, 51));
  second.offer();
  settle();
  EXPECT_EQ(second.incarnation(), reader.incarnation());
  EXPECT_EQ(told + 2, mirror.told);
  EXPECT_EQ(2u, mirror.gone) << "the key 0";
  EXPECT_EQ(cellsOf(second), mirror.cells);
  EXPECT_EQ(0u, held.row().key) << "an iterator goes on where it began";
  // Its forerunner's end is nobody's loss then.
  first.reset();
  settle();
  EXPECT_TRUE(reader.exists());
  EXPECT_EQ("", second.validate());
  EXPECT_EQ("", second.validateFiles());
  second.cleanup();
  settle();
  EXPECT_EQ(Cells{}, mirror.cells);
  EXPECT_TRUE(reader.exists());
}

TEST_P(MirraTest, ATableThatIsWithdrawnIsGone) {
  Table<Cell> reader(ends.readers(), kName, Mode::notify);
  std::optional<CellMirror> mirror(reader);
  std::optional<Table<Cell>> writer;
  writer.emplace(ends.writers(), kName, Mode::write);
  put(*writer, 1, 1);
  writer->offer();
  settle();
  EXPECT_EQ(1u, mirror->cells.size());
  writer.reset();
  settle();
  EXPECT_FALSE(reader.exists());
  EXPECT_EQ(Cells{}, mirror->cells);
  mirror.reset();

  // Another type under that name is none to read, until it goes.
  std::optional<Table<Fib::RouteStatus>> other;
  other.emplace(ends.writers(), kName, Mode::write);
  other->offer();
  settle();
  EXPECT_EQ(MountStatus::wrongType, reader.status());
  EXPECT_FALSE(reader.exists());
  other.reset();
  settle();
  EXPECT_EQ(MountStatus::success, reader.status());
}

TEST_P(MirraTest, OneWhoSleptEndsEqual) {
  Table<Cell> writer(ends.writers(), kName, Mode::write);
  writer.offer();
  for (uint64_t key = 0; key < 1000; ++key) put(writer, key, key);
  Table<Cell> reader(ends.readers(), kName, Mode::notify);
  CellMirror mirror(reader);
  settle();
  EXPECT_EQ(1000u, mirror.cells.size());
  // The log has moved on many times: keys that changed, that moved to other rows, that are gone,
  // and a million that came and went.
  std::mt19937_64 random(1);
  for (uint64_t n = 0; n < 1'000'000; ++n) {
    put(writer, 1'000'000 + n, n);
    if (n >= 500) writer.remove(1'000'000 + n - 500);
    const uint64_t key = random() % 1000;
    if (random() % 2)
      put(writer, key, random());
    else
      writer.remove(key);
  }
  settle();
  EXPECT_EQ(cellsOf(writer), mirror.cells);
  EXPECT_EQ("", writer.validate());
  EXPECT_GT(10'000u, mirror.told) << "what came and went is not told";
}

// Random writes, rests, slices and restarts: a reactor that is told of differences alone ends equal
// each time, whatever it was in the middle of.
TEST_P(MirraTest, RandomWritesAndRestarts) {
  uint64_t operations = 0;
  test::randomRuns(20, [&](std::mt19937& random) {
    const std::string name = "random/" + std::to_string(random());
    auto writer = std::make_unique<Table<Cell>>(ends.writers(), name, Mode::write);
    writer->offer();
    Table<Cell> reader(ends.readers(), name, Mode::notify);
    CellMirror mirror(reader);
    Cells model;
    const uint64_t keys = random() % 2 ? 40 : 4000;
    for (int round = 0; round < 60; ++round) {
      if (random() % 8 == 0) {
        auto next = std::make_unique<Table<Cell>>(ends.writers(), name, Mode::write);
        for (auto& [key, value] : model)
          if (random() % 16 != 0) put(*next, key, value);
        model = cellsOf(*next);
        next->offer();
        writer = std::move(next);
      }
      for (uint32_t n = random() % (random() % 4 == 0 ? 3000 : 30); n != 0; --n, ++operations) {
        const uint64_t key = random() % keys;
        if (random() % 3 == 0) {
          EXPECT_EQ(model.erase(key) == 1, writer->remove(key));
        } else {
          model[key] = random() % 50;
          EXPECT_TRUE(put(*writer, key, model[key]));
        }
      }
      if (random() % 3 == 0) continue;
      settle();
      ASSERT_EQ(model, mirror.cells);
      ASSERT_EQ(model, cellsOf(reader));
    }
    settle();
    EXPECT_EQ(model, mirror.cells);
    EXPECT_EQ("", writer->validate());
  });
  test::tellOperations(operations);
}

TEST_P(MirraTest, WhoeverIsToldMayDoAsItLikes) {
  struct Unruly final : RowReactor<Cell> {
    Unruly(Table<Cell>& table, std::function<void()> w)
        : RowReactor("Unruly", table), what(std::move(w)) {}
    void onRow(const Cell& cell, std::span<const test::Part>) override {
      last = cell.key;
      what();
    }
    void onRowGone(const uint64_t&) override { what(); }
    uint64_t last = 0;
    std::function<void()> what;
  };
  Table<Cell> writer(ends.writers(), kName, Mode::write);
  writer.offer();
  for (uint64_t key = 0; key < 10; ++key) put(writer, key, key);
  std::optional<Table<Cell>> reader(std::in_place, ends.readers(), kName, Mode::notify);
  std::unique_ptr<Unruly> unruly;
  // It throws once: the rest comes.
  int calls = 0;
  unruly = std::make_unique<Unruly>(*reader, [&] {
    if (++calls == 3) throw std::runtime_error("once");
  });
  EXPECT_THROW(settle(), std::runtime_error);
  settle();
  EXPECT_EQ(10, calls);
  // It runs the loop, in which the rest is told.
  calls = 0;
  unruly->what = [&] {
    if (++calls == 1) settle();
  };
  for (uint64_t key = 0; key < 10; ++key) put(writer, key, key + 1);
  settle();
  EXPECT_EQ(10, calls);
  // It destroys itself, in a loop of its own.
  unruly->what = [&] {
    unruly->what = [&] { unruly.reset(); };
    settle();
  };
  for (uint64_t key = 0; key < 10; ++key) writer.remove(key);
  settle();
  EXPECT_EQ(nullptr, unruly);
  // The handle goes first.
  unruly = std::make_unique<Unruly>(*reader, [] {});
  reader.reset();
  put(writer, 1, 1);
  settle();
}

TEST_P(MirraTest, AReadersHandleRefusesWrites) {
  Table<Cell> writer(ends.writers(), kName, Mode::write);
  writer.offer();
  put(writer, 1, 1);
  for (const Mode mode : {Mode::read, Mode::notify}) {
    Table<Cell> reader(ends.readers(), kName, mode);
    settle();
    ASSERT_EQ(1u, reader.size());
    const auto told = [&](const std::function<void()>& call) -> std::string {
      try {
        call();
      } catch (const ReadOnlyError& e) {
        return e.what();
      }
      return "";
    };
    EXPECT_EQ("write to read-only Mirra table", told([&] { put(reader, 2, 2); }));
    EXPECT_EQ("write to read-only Mirra table", told([&] { reader.offer(); }));
    EXPECT_EQ("remove to read-only Mirra table", told([&] { reader.remove(1); }));
    EXPECT_EQ("cleanup to read-only Mirra table", told([&] { reader.cleanup(); }));
    EXPECT_EQ("validateFiles to read-only Mirra table",
              told([&] { static_cast<void>(reader.validateFiles()); }));
    EXPECT_EQ("validate to read-only Mirra table",
              told([&] { static_cast<void>(reader.validate()); }));
    EXPECT_EQ(1u, writer.size());
  }
  // What a reader is given cannot be written by other means either.
  const int fd = ends.readers().offered(kName) ? ends.readers().offered(kName)->file.fd() : -1;
  if (fd < 0) return;  // nobody reads any more
  EXPECT_EQ(MAP_FAILED, ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  EXPECT_EQ(-1, ::pwrite(fd, "x", 1, 0));
  EXPECT_EQ(-1, ::ftruncate(fd, 0));
  void* at = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
  ASSERT_NE(MAP_FAILED, at);
  EXPECT_EQ(-1, ::mprotect(at, 4096, PROT_READ | PROT_WRITE));
  ::munmap(at, 4096);
}

struct alignas(8) Few {
  static constexpr const char* kTypeName = "MirraTest::Few";
  static constexpr uint32_t kMaxRows = 64;
  using Element = test::Part;
  static constexpr const char* kListName = "part";
  static constexpr uint64_t kMaxListBytes = uint64_t{3} << 19;
  uint64_t key = 0;
  Fib::RouteType type = Fib::RouteType::bgp;
  static constexpr auto members() {
    return described(member("key", &Few::key), member("type", &Few::type));
  }
};

TEST(MirraBoundsTest, AFullTableSaysSoAndStaysWhole) {
  Tree tree;
  Table<Few> table(tree.tables(), kName, Mode::write);
  for (uint64_t key = 0; key < 64; ++key) EXPECT_TRUE(table.write({key}));
  EXPECT_FALSE(table.write({64}));
  EXPECT_TRUE(table.write({63, Fib::RouteType::ibgp})) << "what is there can be changed";
  EXPECT_TRUE(table.remove(5));
  EXPECT_TRUE(table.write({64}));
  EXPECT_FALSE(table.write({65}));
  EXPECT_EQ(64u, table.size());
  EXPECT_EQ(2u, table.reader()->refused());
  EXPECT_EQ("", table.validate());
  // Lists: the longest there may be, and one more.
  std::vector<test::Part> parts(kMaxElements);
  EXPECT_TRUE(table.write({64}, parts));
  Few few;
  std::vector<test::Part> found;
  EXPECT_TRUE(table.find(64, &few, &found));
  EXPECT_EQ(parts.size(), found.size());
  EXPECT_FALSE(table.write({63}, parts)) << "there is no room for two of those";
  parts.emplace_back();
  EXPECT_FALSE(table.write({64}, parts));
  EXPECT_TRUE(table.find(64, &few, &found));
  EXPECT_EQ(parts.size() - 1, found.size());
  // Rows and blocks are used again, and indexes replaced, for as long as it runs.
  for (uint64_t n = 0; n < 200'000; ++n) {
    ASSERT_TRUE(table.remove(n == 0 ? 64 : 1000 + n - 1));
    ASSERT_TRUE(table.write({1000 + n}, std::span(parts).first(n % 300)));
  }
  EXPECT_EQ("", table.validate());
}

// What a broken writer may leave: each word of the head, of a row and of the index is set to
// whatever; nobody reads past anything, and what is no row is counted and not shown.
TEST(MirraBoundsTest, MemoryOfABrokenWriterIsReadWithCare) {
  Tree tree;
  Table<Few> writer(tree.tables(), kName, Mode::write);
  std::vector<test::Part> parts(3);
  for (uint64_t key = 0; key < 40; ++key) writer.write({key}, parts);
  writer.offer();
  Table<Few> reader(tree.tables(), kName, Mode::notify);
  struct Nothing final : RowReactor<Few> {
    explicit Nothing(Table<Few>& table) : RowReactor("Nothing", table) {}
    void onRow(const Few& few, std::span<const test::Part> list) override {
      EXPECT_TRUE(isValid(few.type));
      EXPECT_GE(kMaxElements, list.size());
    }
    void onRowGone(const uint64_t&) override {}
  };
  Nothing reactor(reader);
  settle();
  ASSERT_EQ(40u, reader.size());
  // The writer's own mapping of it.
  std::ifstream maps("/proc/self/maps");
  uint64_t* memory = nullptr;
  for (std::string line; std::getline(maps, line);)
    if (line.find("MirraTest::Few") != std::string::npos && line.find(" rw-s ") != line.npos)
      memory = reinterpret_cast<uint64_t*>(std::stoull(line, nullptr, 16));
  ASSERT_NE(nullptr, memory);
  // The words that have something in them, in the parts below the lists.
  std::vector<size_t> used;
  for (size_t i = 0; i < (256u << 10); ++i)
    if (memory[i] != 0) used.push_back(i);
  ASSERT_LT(300u, used.size());
  uint64_t unreadable = 0;
  std::set<std::string> faults;  // their numbers left out
  const auto note = [&](std::string fault) {
    std::erase_if(fault, [](unsigned char c) { return std::isdigit(c); });
    faults.insert(fault);
  };
  for (const size_t i : used)
    for (const uint64_t value : {uint64_t{1}, ~uint64_t{0}, memory[i] ^ 1, memory[i] + 2,
                                 memory[i] ^ (uint64_t{1} << 40), uint64_t{1} << 33}) {
      const uint64_t before = std::atomic_ref(memory[i]).exchange(value);
      for (auto it = reader.iterator(); it; it.next()) EXPECT_TRUE(isValid(it.row().type));
      for (uint64_t key = 0; key < 41; ++key) {
        Few few;
        EXPECT_TRUE(!reader.find(key, &few, &parts) || few.key == key);
      }
      note(writer.validate());
      note(writer.validateFiles());
      unreadable = reader.unreadable();
      writer.write({1000, i % 2 ? Fib::RouteType::bgp : Fib::RouteType::ibgp});
      activity().run(0);
      std::atomic_ref(memory[i]).store(before);
    }
  EXPECT_LT(100u, unreadable);
  for (const char* fault :
       {"", "row  cannot be read", "row  is newer than the table", "row  is not found by its key",
        "row  and row  have the same key", "it says that it has  rows, and has ", "it is no table",
        "it is a table of another layout"})
    EXPECT_TRUE(faults.count(fault)) << fault;
}

TEST(MirraBoundsTest, WhatIsNoTableIsRefused) {
  Ends ends(true);
  Table<Cell> reader(ends.readers(), kName, Mode::read);
  settle();
  std::string why;
  const auto memory = [](size_t bytes, int seals) {
    File file(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_EQ(0, ::ftruncate(file.fd(), static_cast<off_t>(bytes)));
    EXPECT_EQ(0, ::fcntl(file.fd(), F_ADD_SEALS, seals));
    return file;
  };
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_FUTURE_WRITE;
  const RowType& type = rowTypeOf<Cell>();
  EXPECT_EQ(nullptr, Memory::attach(File(::open("/dev/null", O_RDWR)), type, 1, &why));
  EXPECT_EQ("expected a memory file", why);
  EXPECT_EQ(nullptr, Memory::attach(memory(4096, F_SEAL_SHRINK), type, 1, &why));
  EXPECT_EQ("expected a memory file that is sealed", why);
  EXPECT_EQ(nullptr, Memory::attach(memory(4096, kSeals), type, 1, &why));
  EXPECT_EQ("its size is not that of a table of MirraTest::Cell of this build", why);
  const auto cells = Memory::create(type, &why);
  ASSERT_NE(nullptr, cells) << why;
  EXPECT_EQ(nullptr, Memory::attach(cells->file(), type, cells->incarnation() + 1, &why));
  EXPECT_EQ("it is another table", why);
  EXPECT_EQ(
      nullptr,
      Memory::attach(memory(static_cast<size_t>(::lseek(cells->file().fd(), 0, SEEK_END)), kSeals),
                     type, 1, &why));
  EXPECT_EQ("it is no table", why);

  // At the hub: of a service, a file that readers could be hurt with; of others, any.
  ends.writers().offer(kName, {Cell::kTypeName, 1, memory(4096, F_SEAL_SHRINK)});
  settle();
  EXPECT_EQ("it broke the protocol: an offer of a table: expected a memory file that is sealed",
            ends.writer->farewell());
  EXPECT_FALSE(ends.writer->connected());
  ends.readers().offer("mine", {Cell::kTypeName, 1, cells->file()});
  settle();
  EXPECT_EQ("it broke the protocol: an offer of a table by who is no service",
            ends.reader->farewell());
  EXPECT_FALSE(reader.exists());
}

TEST(MirraLinkTest, TheTableOutlivesWriterHubAndConnection) {
  Ends ends(true);
  Table<Cell> reader(ends.readers(), kName, Mode::notify);
  CellMirror mirror(reader);
  auto writer = std::make_unique<Table<Cell>>(ends.writers(), kName, Mode::write);
  for (uint64_t key = 0; key < 10; ++key) put(*writer, key, key);
  writer->offer();
  settle();
  ASSERT_EQ(10u, mirror.cells.size());
  // A reader whose connection breaks hears afterwards what it missed.
  ends.hub->dropAll();
  settle();
  put(*writer, 3, 333);
  settle();
  ends.reader->reconnected(ends.socket());
  ends.writer->reconnected(ends.socket());
  settle();
  EXPECT_EQ(cellsOf(*writer), mirror.cells);
  const uint64_t told = mirror.told;
  // The writer's process dies: what it left stays, for those who come later too.
  Cells left = mirror.cells;
  ends.hub->drop(ends.hub->participants().back().number);
  settle();
  ends.writer->tree().tables().withdraw(kName, writer->incarnation());  // nobody hears of it
  Table<Cell> late(ends.readers(), kName, Mode::read);
  settle();
  EXPECT_EQ(left, mirror.cells);
  EXPECT_EQ(left, cellsOf(late));
  // So does it when the hub dies and another one knows of no table yet.
  ends.hubStarts();
  ends.reader->reconnected(ends.socket());
  settle();
  EXPECT_EQ(left, mirror.cells);
  EXPECT_TRUE(reader.exists());
  // The next writer's table takes its place, in silence where it says the same; what it does not
  // have any more goes when it has offered all.
  ends.writer->reconnected(ends.socket());
  auto other = std::make_unique<Table<Cell>>(ends.writers(), "other", Mode::write);
  other->offer();
  settle();
  ends.hub->drop(ends.hub->participants().back().number);
  settle();
  other.reset();  // nobody hears of it
  Table<Cell> otherReader(ends.readers(), "other", Mode::read);
  settle();
  EXPECT_TRUE(otherReader.exists());
  ends.writer->reconnected(ends.socket());
  Table<Cell> next(ends.writers(), kName, Mode::write);
  for (auto& [key, value] : left) put(next, key, value);
  next.offer();
  settle();
  EXPECT_EQ(next.incarnation(), reader.incarnation());
  EXPECT_TRUE(otherReader.exists());
  ends.writers().settle();
  settle();
  EXPECT_FALSE(otherReader.exists());
  EXPECT_TRUE(reader.exists());
  EXPECT_EQ(told, mirror.told);
  EXPECT_EQ(0u, mirror.gone);
  put(next, 4, 444);
  settle();
  EXPECT_EQ(444u, mirror.cells[4]);
}

TEST(MirraLinkTest, AConnectionWithoutDescriptorsSaysSo) {
  Ends ends(true);
  Table<Cell> writer(ends.writers(), kName, Mode::write);
  put(writer, 1, 1);
  writer.offer();
  settle();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, ::listen(listener, 1));
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr*>(&address), size));
  ends.hub->accept(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  ::close(listener);
  const auto far = EntityManager::overSocket(fd, "far");
  const Table<Cell> table(far->tree().tables(), kName, Mode::read);
  for (int i = 0; i < 1000 && table.fault().empty(); ++i) activity().run(0.001);
  EXPECT_FALSE(table.exists());
  EXPECT_EQ(MountStatus::success, table.status());
  EXPECT_EQ("it is to be had on its own machine alone, over the server's Unix socket",
            table.fault());
  EXPECT_TRUE(far->connected());
}

TEST(MirraLinkTest, SoManyTablesAndNoMore) {
  Ends ends(true);
  std::vector<std::unique_ptr<Table<Few>>> tables;
  const auto attach = [&](size_t count) {
    while (tables.size() < count)
      tables.push_back(std::make_unique<Table<Few>>(
          ends.readers(), "t" + std::to_string(tables.size()), Mode::read));
    settle();
  };
  attach(kMaxTables);
  EXPECT_TRUE(ends.reader->connected());
  attach(kMaxTables + 1);
  EXPECT_FALSE(ends.reader->connected());
  EXPECT_EQ("it broke the protocol: too many tables", ends.reader->farewell());
}

// More tables than descriptors fit into a frame, and no descriptor is left behind.
TEST(MirraLinkTest, ManyTables) {
  const auto descriptors = [] {
    int count = 0;
    for (int fd = 0; fd < 4096; ++fd) count += ::fcntl(fd, F_GETFD) != -1;
    return count;
  };
  const int before = descriptors();
  {
    Ends ends(true);
    constexpr uint64_t kTables = 300;
    std::vector<std::unique_ptr<Table<Few>>> writers, readers;
    for (uint64_t n = 0; n < kTables; ++n) {
      const std::string name = "many/" + std::to_string(n);
      writers.push_back(std::make_unique<Table<Few>>(ends.writers(), name, Mode::write));
      writers.back()->write({n});
      readers.push_back(std::make_unique<Table<Few>>(ends.readers(), name, Mode::read));
      if (n % 2) writers.back()->offer();
    }
    settle();
    for (auto& w : writers) w->offer();
    settle();
    for (uint64_t n = 0; n < kTables; ++n) {
      EXPECT_EQ(1u, readers[n]->size());
      EXPECT_TRUE(readers[n]->contains(n)) << "each has its own";
    }
    readers.clear();
    settle();
    const int withWriters = descriptors();
    writers.clear();
    settle();
    EXPECT_LE(2 * static_cast<int>(kTables), withWriters - descriptors());
  }
  EXPECT_EQ(before, descriptors());
}

}  // namespace
}  // namespace ryx::platform::mirra
