// A Mirra table as one works with it: the writer's and the readers' handles of a table of that name
// and type, and reactors that follow it.
//
//   mirra::Table<RouteStatus> routes(tree.tables(), "routing/vrf/status/default", Mode::write);
//   routes.write(route);      // what there was before of the table is not there: fill it, then
//   routes.offer();           // hand it over; from now on changes are seen as they are written
//
//   mirra::Table<RouteStatus> routes(tree.tables(), "routing/vrf/status/default", Mode::read);
//   RouteStatus route;
//   if (routes.find(prefix, &route)) ...
//   for (auto it = routes.iterator(); it; it.next()) ... it.row() ...
//
// A reader's handle has a table once a writer offers one, keeps it when the writer dies, and takes
// the next one. Rows are copied out whole; an iterator shows what stays in the table exactly once,
// whatever is written meanwhile, and goes on in the table that it began in.
//
// Handles and reactors: under the activity lock. A reactor is told of each row that was written and
// of each key that is gone, of what there is when it begins as well, some time after the fact, and
// never by how many writes: ten before it looked are one. Whatever happened in between (a log that
// has moved on, a writer that started anew), what it was told in the end is what is in the table;
// rows that a new table has as the old one had them are not told again.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/activity/task.h"
#include "platform/base/api.h"
#include "platform/mirra/exchange.h"
#include "platform/mirra/known_keys.h"
#include "platform/mirra/memory.h"

namespace ryx::platform::mirra {

enum class Mode : uint8_t {
  read,
  notify,  // read, and reactors may follow
  write,
};

// How a mount of a table ended; it does so whether there is one yet or not.
enum class MountStatus : uint8_t { pending = 0, wrongType = 2, success = 4 };

// A write through a handle that is not the writer's.
class RYX_PRIVATE ReadOnlyError final : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  ~ReadOnlyError() override;
};

class Follower;

class RYX_PRIVATE TableBase : private Listener, private Task {
 public:
  // The exchange outlives it. Throws std::runtime_error when the system has no memory for a
  // writer's table.
  TableBase(Exchange& exchange, std::string_view name, const RowType& type, Mode mode);
  ~TableBase() override;

  const std::string& name() const { return name_; }
  Mode mode() const { return mode_; }
  // Pending until the loop ran once; wrongType as long as a table of another type has the name.
  MountStatus status() const { return status_; }
  bool exists() const { return reader_ != nullptr; }
  size_t size() const { return reader_ ? reader_->size() : 0; }
  uint64_t version() const { return reader_ ? reader_->version() : 0; }
  uint64_t incarnation() const { return reader_ ? reader_->incarnation() : 0; }
  // Why what is offered cannot be read; empty: it can, or there is none.
  const std::string& fault() const { return fault_; }
  // Rows that this handle could not read, or that were none.
  uint64_t unreadable() const { return reader_ ? reader_->unreadable() : 0; }
  // The table as it is now; it stays readable as long as somebody holds it. Null: there is none.
  const std::shared_ptr<const RowReader>& reader() const { return reader_; }

  // A reader's handle lets go of its table at once, which its followers hear as the end of all that
  // they were told of; or it takes what is offered again.
  void attachedIs(bool attached);

  // --- the writer's; the others throw ReadOnlyError ---
  // Hands the table over, in the place of what has the name.
  void offer();
  // Takes all rows out.
  void cleanup();
  // Empty, or what is wrong: with the rows, the index and the counts; with the memory file.
  [[nodiscard]] std::string validate() const;
  [[nodiscard]] std::string validateFiles() const;

 protected:
  // False when the table is full: told and counted.
  bool write(const void* row, const void* list, size_t count);
  bool remove(const void* key);
  bool find(const void* key, void* row, List* list) const {
    return reader_ && reader_->find(key, row, list, nullptr, nullptr);
  }

 private:
  friend class Follower;

  void tableChanged() override;
  void tableRang() override;
  bool run(Slice& slice) override;
  void mount();
  void mustWrite(const char* otherwise) const;

  Exchange& exchange_;
  const std::string name_;
  const RowType& type_;
  const Mode mode_;
  MountStatus status_ = MountStatus::pending;
  std::string fault_;
  bool isStale_ = true;  // what is offered has to be looked at
  bool isOffered_ = false;
  bool isAttached_ = false;
  std::shared_ptr<Memory> memory_;  // a writer's
  std::unique_ptr<RowWriter> writer_;
  std::shared_ptr<const RowReader> reader_;
  std::vector<Follower*> followers_;
};

class RYX_PRIVATE Follower : public Task {
 public:
  ~Follower() override;

 protected:
  Follower(const char* name, TableBase& table);
  virtual void onLive(const void* row, const List& list) = 0;
  virtual void onGone(const void* key) = 0;
  bool run(Slice& slice) final;

 private:
  friend class TableBase;
  static constexpr uint32_t kNone = ~0u;
  enum class Phase : uint8_t {
    follow,   // by the log
    scan,     // by the rows: the log has moved on
    compare,  // the rows of the next table with what was told
    leave,    // what was told and the next table has not is gone
  };

  bool step();
  bool followOne();
  void moveOver();
  void look(uint32_t row);
  void compareOne(uint32_t row);
  bool wasTold(const void* row);
  void settle(std::vector<std::byte> key, KnownKeys& known, const RowReader* reader);

  TableBase* table_;
  const RowType& type_;
  Phase phase_ = Phase::follow;
  std::shared_ptr<const RowReader> now_, next_;
  KnownKeys known_, nextKnown_;
  uint64_t cursor_ = 0;     // the last version that was looked at
  uint64_t goal_ = 0;       // the version when this phase began
  uint32_t at_ = 0;         // the row that is next
  uint32_t again_ = kNone;  // one that is looked at again before that
  std::vector<std::byte> row_, other_;
  List list_, otherList_;
  bool* destroyed_ = nullptr;
};

template <class Row>
class RowIterator {
 public:
  using Element = typename ListOf<Row>::Element;

  RowIterator() = default;
  explicit RowIterator(std::shared_ptr<const RowReader> reader) : reader_(std::move(reader)) {
    next();
  }
  explicit operator bool() const { return live_; }
  const Row& row() const { return row_; }
  const auto& key() const { return row_.key; }
  std::span<const Element> list() const requires detail::HasList<Row> {
    return detail::elementsAt<Element>(list_.data(), list_.count);
  }
  void next() {
    live_ = false;
    while (!live_ && reader_ && at_ < reader_->rows())
      live_ = reader_->read(at_++, &row_, detail::HasList<Row> ? &list_ : nullptr, nullptr) ==
              RowReader::State::live;
  }

 private:
  std::shared_ptr<const RowReader> reader_;
  uint32_t at_ = 0;
  bool live_ = false;
  Row row_{};
  List list_;
};

template <class Row>
class Table final : public TableBase {
 public:
  using Key = decltype(Row::key);
  using Element = typename ListOf<Row>::Element;
  using Iterator = RowIterator<Row>;

  Table(Exchange& exchange, std::string_view name, Mode mode)
      : TableBase(exchange, name, rowTypeOf<Row>(), mode) {}

  bool find(const Key& key, Row* row) const { return TableBase::find(&key, row, nullptr); }
  bool find(const Key& key, Row* row,
            std::vector<Element>* list) const requires detail::HasList<Row> {
    List bytes;
    if (!TableBase::find(&key, row, &bytes)) return false;
    const auto elements = detail::elementsAt<Element>(bytes.data(), bytes.count);
    list->assign(elements.begin(), elements.end());
    return true;
  }
  bool contains(const Key& key) const {
    Row row;
    return find(key, &row);
  }
  Iterator iterator() const { return Iterator(reader()); }

  bool write(const Row& row) { return TableBase::write(&row, nullptr, 0); }
  bool write(const Row& row, std::span<const Element> list) requires detail::HasList<Row> {
    return TableBase::write(&row, list.data(), list.size());
  }
  // False when there is none.
  bool remove(const Key& key) { return TableBase::remove(&key); }
};

template <class Row>
class RowReactor : public Follower {
 public:
  using Key = decltype(Row::key);
  using Element = typename ListOf<Row>::Element;

 protected:
  // Of a table that is mounted to notify.
  RowReactor(const char* name, Table<Row>& table) : Follower(name, table) {}
  virtual void onRow(const Row& row, std::span<const Element> list) = 0;
  virtual void onRowGone(const Key& key) = 0;

 private:
  void onLive(const void* row, const List& list) final {
    onRow(*static_cast<const Row*>(row), detail::elementsAt<Element>(list.data(), list.count));
  }
  void onGone(const void* key) final { onRowGone(*static_cast<const Key*>(key)); }
};

}  // namespace ryx::platform::mirra
