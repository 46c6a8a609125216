// Mirra tables between processes: a writer at full speed beside readers that check every row, while
// either side is killed; and a writer that is stopped between any two of its instructions.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/agent/connection.h"
#include "platform/qel/dir.h"
#include "platform/statehub/entity_manager.h"
#include "tests/support/mirra_cells.h"
#include "tests/support/process.h"
#include "tests/support/program.h"
#include "tests/support/random_runs.h"
#include "tests/support/temp_dir.h"

namespace ryx {
namespace {

using namespace platform;
using mirra::Memory;
using mirra::Mode;
using mirra::RowReader;
using mirra::RowWriter;
using mirra::Table;
using test::Cell;
using test::CellMirror;
using test::Cells;
using test::Part;
using test::Process;
using test::Program;
using test::until;

const std::string kRyxd = RYX_BINARY_DIR "/bin/ryxd";
constexpr const char* kName = "test/cells";
constexpr uint64_t kKeys = 3000;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;  // and ten times slower
#else
constexpr bool kIsSanitized = false;
#endif

std::string sumOf(const Cells& cells) {
  uint64_t sum = cells.size();
  for (auto& [key, value] : cells) sum = hashMix(hashMix(sum, key, 1), value, 1);
  return std::to_string(cells.size()) + ":" + std::to_string(sum);
}

std::unique_ptr<EntityManager> connect(const std::string& socket, const Participant& who) {
  ConnectionSettings settings;
  settings.socketName = socket;
  std::string why;
  return EntityManager::overSocket(connectToServer(settings, &why), who);
}

// A service with a table. It begins with some rows of its own, and is to be had when they are
// there.
class Writer final : private Task {
 public:
  Writer(const std::string& socket, unsigned seed)
      : Task("load"),
        random_(seed),
        em_(connect(socket, Participant(Role::service, "cells"))),
        table_(em_->tree().tables(), kName, Mode::write) {
    for (uint64_t key = 0; key < kKeys; key += 1 + random_() % 3) test::put(table_, key, key);
    table_.offer();
    activity().run(0);
  }
  // "load", until "rest"; "burst COUNT": so many that nobody can follow; "sum".
  std::string answer(std::istringstream& question) {
    std::string verb;
    question >> verb;
    if (verb == "load") loads_ = true, wake();
    if (verb == "rest") loads_ = false;
    if (verb == "burst") {
      uint64_t count = 0;
      question >> count;
      for (uint64_t n = 0; n < count; ++n) {
        test::put(table_, kKeys + n, n);
        if (n >= 100) table_.remove(kKeys + n - 100);
      }
    }
    if (verb != "sum") return "done";
    const std::string fault = table_.validate();
    return fault.empty() ? sumOf(test::cellsOf(table_)) : fault;
  }

 private:
  bool run(Slice& slice) override {
    while (loads_ && !slice.spent()) {
      const uint64_t key = random_() % kKeys;
      if (random_() % 4 == 0)
        table_.remove(key);
      else
        test::put(table_, key, random_());
    }
    return loads_;
  }

  std::mt19937_64 random_;
  std::unique_ptr<EntityManager> em_;
  Table<Cell> table_;
  bool loads_ = false;
};

class Reader final : private Task {
 public:
  Reader(const std::string& socket, unsigned seed)
      : Task("reads"),
        random_(seed),
        em_(connect(socket, "reader" + std::to_string(seed))),
        table_(em_->tree().tables(), kName, Mode::notify),
        mirror_(table_) {
    if (!until([this] { return table_.exists(); })) _exit(1);
    wake();
  }
  // "sum SUM": waits until table and mirror have that, and tells what there is. "bad": reads that
  // were not whole, of how many.
  std::string answer(std::istringstream& question) {
    std::string verb, wanted;
    question >> verb >> wanted;
    if (verb == "bad") return std::to_string(bad_) + " of " + std::to_string(reads_ != 0);
    until([&] { return sumOf(mirror_.cells) == wanted; });
    const std::string read = sumOf(test::cellsOf(table_));
    return sumOf(mirror_.cells) + (read == wanted ? "" : " and reads " + read);
  }

 private:
  bool run(Slice&) override {
    for (int n = 0; n < 100; ++n, ++reads_) {
      Cell cell;
      std::vector<Part> parts;
      const uint64_t key = random_() % kKeys;
      if (table_.find(key, &cell, &parts) && (cell.key != key || !test::isWhole(cell, parts)))
        ++bad_;
    }
    uint64_t last = 0;
    for (auto it = table_.iterator(); it; it.next(), ++last)
      bad_ += !test::isWhole(it.row(), it.list());
    reads_ += last;
    bad_ += table_.unreadable();
    return true;
  }

  std::mt19937_64 random_;
  std::unique_ptr<EntityManager> em_;
  Table<Cell> table_;
  CellMirror mirror_;
  uint64_t reads_ = 0, bad_ = 0;
};

template <class T>
Process start(const std::string& socket, unsigned seed) {
  return Process([=] {
    auto one = std::make_shared<T>(socket, seed);
    return [one](std::istringstream& question) { return one->answer(question); };
  });
}

TEST(MirraProcessTest, EveryRowIsWholeWhoeverIsKilled) {
  test::TempDir directory;
  const std::string socket = directory / "statehub";
  Program server(
      {kRyxd, "--statehubsockname=" + socket, "--state=" + (directory / "state").string()});
  server.line("listening");
  std::mt19937 random(test::fromEnvironment("RYX_TEST_SEED", 1));
  unsigned seeds = 0, kills = 0;
  Process writer = start<Writer>(socket, ++seeds);
  std::vector<Process> readers;
  for (int i = 0; i < 4; ++i) readers.push_back(start<Reader>(socket, ++seeds));
  const auto allEqual = [&] {
    EXPECT_EQ("done", writer.ask("rest"));
    const std::string sum = writer.ask("sum");
    for (Process& reader : readers) {
      EXPECT_EQ(sum, reader.ask("sum " + sum));
      EXPECT_EQ("0 of 1", reader.ask("bad"));
    }
  };
  const unsigned rounds = (kIsSanitized ? 3 : 8) * test::testTimes();
  for (unsigned round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    EXPECT_EQ("done", writer.ask("load"));
    for (int n = 0; n < 3; ++n, ++kills) {
      ::usleep(random() % 40'000);
      if (random() % 2) {
        Process& reader = readers[random() % readers.size()];
        reader = start<Reader>(socket, ++seeds);
      } else {
        writer.kill9();
        ::usleep(random() % 10'000);
        writer = start<Writer>(socket, ++seeds);
        EXPECT_EQ("done", writer.ask("load"));
      }
    }
    allEqual();
  }
  // One of them sleeps through a million.
  readers[0].signal(SIGSTOP);
  EXPECT_EQ("done", writer.ask(kIsSanitized ? "burst 200000" : "burst 1000000"));
  readers[0].signal(SIGCONT);
  allEqual();
  EXPECT_EQ(0, server.kill(SIGTERM));
  test::tellOperations(kills);
}

// What a writer does, known beforehand.
struct Operation {
  uint64_t key;
  std::optional<uint64_t> value;  // none: it is removed
};
std::vector<Operation> operations(unsigned count) {
  std::mt19937_64 random(7);
  std::vector<Operation> all;
  // Enough keys that the index grows, then changes and removals and keys in rows that were used.
  for (uint64_t key = 0; key < 45; ++key) all.push_back({key, key});
  while (all.size() < count) {
    const uint64_t key = random() % 60;
    all.push_back({key, random() % 3 ? std::optional(random() % 100) : std::nullopt});
  }
  return all;
}

Cells cellsOf(const RowReader& reader, bool* isWhole) {
  Cells cells;
  for (uint32_t n = 0; n < reader.rows(); ++n) {
    Cell cell;
    mirra::List list;
    const RowReader::State state = reader.read(n, &cell, &list, nullptr);
    if (state == RowReader::State::dead) continue;
    const std::span parts(static_cast<const Part*>(list.data()), list.count);
    if (state != RowReader::State::live || !test::isWhole(cell, parts)) *isWhole = false;
    cells[cell.key] = cell.value;
  }
  return cells;
}

// At each instruction of the writer's the table is that before its operation or that after it, by
// whatever way it is read: so it is for whoever comes after a writer that died there.
TEST(MirraProcessTest, AWriterMayStopBetweenAnyTwoInstructions) {
  if (kIsSanitized) GTEST_SKIP() << "most instructions are the sanitizer's";
  std::string why;
  const auto memory = Memory::create(mirra::rowTypeOf<Cell>(), &why);
  ASSERT_NE(nullptr, memory) << why;
  const std::vector<Operation> all = operations(120);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(2);
    RowWriter writer(memory);
    for (const Operation& o : all) {
      const std::vector<Part> parts = test::partsOf(o.key, o.value.value_or(0));
      const Cell cell = {o.key, o.value.value_or(0), parts.size(),
                         test::sumOf(o.key, o.value.value_or(0), parts)};
      ::raise(SIGUSR1);
      if (o.value)
        writer.write(&cell, parts.data(), parts.size());
      else
        writer.remove(&o.key);
      ::raise(SIGUSR2);
    }
    ::_exit(0);
  }
  const RowReader reader(memory);
  Cells before, after;
  size_t next = 0;
  uint64_t steps = 0, inBetween = 0;
  bool stepping = false;
  for (int status; ::waitpid(child, &status, 0) == child;) {
    if (WIFEXITED(status)) {
      if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "processes cannot be traced here";
      EXPECT_EQ(0, WEXITSTATUS(status));
      break;
    }
    ASSERT_TRUE(WIFSTOPPED(status));
    if (WSTOPSIG(status) == SIGUSR1) {
      const Operation& o = all[next++];
      if (o.value)
        after[o.key] = *o.value;
      else
        after.erase(o.key);
      stepping = true;
    } else if (WSTOPSIG(status) == SIGUSR2) {
      before = after;
      stepping = false;
    }
    bool isWhole = true;
    const Cells there = cellsOf(reader, &isWhole);
    ASSERT_TRUE(isWhole && (there == before || there == after))
        << "operation " << next << ", step " << steps;
    if (stepping) {
      ++steps;
      inBetween += there != before;
      // The operation's own key by the index, and others of those that are there.
      for (const uint64_t key : {all[next - 1].key, steps % 60}) {
        Cell cell;
        const bool found = reader.find(&key, &cell, nullptr, nullptr, nullptr);
        ASSERT_EQ(there.count(key) != 0, found) << "operation " << next << ", step " << steps;
        ASSERT_TRUE(!found || cell.value == there.at(key));
      }
    }
    ::ptrace(stepping ? PTRACE_SINGLESTEP : PTRACE_CONT, child, nullptr, nullptr);
  }
  EXPECT_EQ(0u, reader.unreadable());
  EXPECT_EQ(all.size(), next);
  EXPECT_LT(20 * all.size(), steps);
  EXPECT_LT(all.size(), inBetween) << "it was seen after the change and before its end, too";
}

// Threads, for the sanitizer's sake: it sees one process.
TEST(MirraProcessTest, FourReadersBesideAWriterAtFullSpeed) {
  std::string why;
  const auto memory = Memory::create(mirra::rowTypeOf<Cell>(), &why);
  ASSERT_NE(nullptr, memory) << why;
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> bad{0}, reads{0};
  std::vector<std::thread> readers;
  for (unsigned i = 0; i < 4; ++i)
    readers.emplace_back([&, i] {
      const RowReader reader(memory);
      std::mt19937_64 random(i);
      mirra::List list;
      while (!stop) {
        Cell cell;
        for (int n = 0; n < 200; ++n, ++reads) {
          const uint64_t key = random() % 200;
          if (reader.find(&key, &cell, &list, nullptr, nullptr))
            bad += cell.key != key ||
                   !test::isWhole(cell, {static_cast<const Part*>(list.data()), list.count});
        }
        bool isWhole = true;
        cellsOf(reader, &isWhole);
        bad += !isWhole;
      }
      bad += reader.unreadable();
    });
  RowWriter writer(memory);
  std::mt19937_64 random(9);
  const uint64_t count = kIsSanitized ? 100'000 : 1'000'000;
  for (uint64_t n = 0; n < count || reads < 10'000; ++n) {
    const uint64_t key = random() % 200, value = random();
    const std::vector<Part> parts = test::partsOf(key, value);
    const Cell cell = {key, value, parts.size(), test::sumOf(key, value, parts)};
    if (random() % 3 == 0)
      writer.remove(&key);
    else
      writer.write(&cell, parts.data(), parts.size());
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(0u, bad);
}

}  // namespace
}  // namespace ryx
