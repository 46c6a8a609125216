#include "platform/mirra/table.h"

#include <algorithm>
#include <cstring>

#include "platform/base/check.h"
#include "platform/trace/trace.h"

namespace ryx::platform::mirra {
namespace {

TraceFacility& trace() {
  static TraceFacility& facility = TraceFacility::named("RyxMirra");
  return facility;
}

}  // namespace

ReadOnlyError::~ReadOnlyError() = default;

// --- TableBase ----------------------------------------------------------------------------------

TableBase::TableBase(Exchange& exchange, std::string_view name, const RowType& type, Mode mode)
    : Task("MirraTable"), exchange_(exchange), name_(name), type_(type), mode_(mode) {
  if (mode_ == Mode::write) {
    std::string why;
    memory_ = Memory::create(type, &why);
    if (!memory_) throw std::runtime_error("the table " + name_ + ": " + why);
    writer_ = std::make_unique<RowWriter>(memory_);
    reader_ = std::make_shared<RowReader>(memory_);
    status_ = MountStatus::success;
    return;
  }
  attachedIs(true);
}

TableBase::~TableBase() {
  for (Follower* follower : followers_) follower->table_ = nullptr;
  attachedIs(false);
  if (isOffered_) exchange_.withdraw(name_, incarnation());
}

void TableBase::attachedIs(bool attached) {
  if (mode_ == Mode::write || isAttached_ == attached) return;
  isAttached_ = attached;
  isStale_ = attached;
  reader_.reset();
  attached ? exchange_.attach(name_, *this) : exchange_.detach(name_, *this);
  wake();
}

void TableBase::tableChanged() {
  isStale_ = true;
  wake();
}

void TableBase::tableRang() {
  for (Follower* follower : followers_) follower->wake();
}

bool TableBase::run(Slice&) {
  if (mode_ == Mode::write) {
    if (isOffered_) exchange_.ring(name_, incarnation());
    tableRang();
    return false;
  }
  if (std::exchange(isStale_, false)) mount();
  tableRang();
  return false;
}

void TableBase::mount() {
  status_ = MountStatus::success;
  fault_.clear();
  const Offered* offered = exchange_.offered(name_);
  if (!offered) return reader_.reset();
  if (reader_ && reader_->incarnation() == offered->incarnation) return;
  reader_.reset();
  if (offered->typeName != type_.name) {
    status_ = MountStatus::wrongType;
    fault_ = "it is of type " + offered->typeName + ", not " + type_.name;
  } else if (!offered->file) {
    fault_ = "it is to be had on its own machine alone, over the server's Unix socket";
  } else if (const auto memory =
                 Memory::attach(offered->file, type_, offered->incarnation, &fault_)) {
    reader_ = std::make_shared<RowReader>(memory);
  }
  if (!reader_) RYX_TRACE(trace(), 0, "cannot read the table " << name_ << ": " << fault_);
}

void TableBase::mustWrite(const char* otherwise) const {
  if (mode_ != Mode::write) throw ReadOnlyError(otherwise);
}

void TableBase::offer() {
  mustWrite("write to read-only Mirra table");
  isOffered_ = true;
  exchange_.offer(name_, {type_.name, incarnation(), memory_->file()});
}

bool TableBase::write(const void* row, const void* list, size_t count) {
  mustWrite("write to read-only Mirra table");
  const RowWriter::Result result = writer_->write(row, list, count);
  if (result == RowWriter::Result::full) {
    if (reader_->refused() == 1)
      RYX_TRACE(trace(), 0,
                "the table " << name_ << " is full: it has " << size() << " rows, and takes "
                             << type_.maxRows);
    return false;
  }
  if (result == RowWriter::Result::written) wake();
  return true;
}

bool TableBase::remove(const void* key) {
  mustWrite("remove to read-only Mirra table");
  if (!writer_->remove(key)) return false;
  wake();
  return true;
}

void TableBase::cleanup() {
  mustWrite("cleanup to read-only Mirra table");
  std::vector<std::byte> row(type_.bytes);
  for (uint32_t n = 0; n < reader_->rows(); ++n)
    if (reader_->read(n, row.data(), nullptr, nullptr) == RowReader::State::live)
      remove(row.data());
}

std::string TableBase::validate() const {
  mustWrite("validate to read-only Mirra table");
  std::vector<std::byte> row(type_.bytes), found(type_.bytes);
  List list;
  uint32_t live = 0;
  for (uint32_t n = 0; n < reader_->rows(); ++n) {
    uint64_t version = 0;
    const RowReader::State state = reader_->read(n, row.data(), &list, &version);
    const std::string which = "row " + std::to_string(n);
    if (state == RowReader::State::unreadable) return which + " cannot be read";
    if (version > reader_->version()) return which + " is newer than the table";
    if (state == RowReader::State::dead) continue;
    ++live;
    uint32_t number = 0;
    if (!reader_->find(row.data(), found.data(), nullptr, &number, nullptr))
      return which + " is not found by its key";
    if (number != n) return which + " and row " + std::to_string(number) + " have the same key";
  }
  return live == size() ? ""
                        : "it says that it has " + std::to_string(size()) + " rows, and has " +
                              std::to_string(live);
}

std::string TableBase::validateFiles() const {
  mustWrite("validateFiles to read-only Mirra table");
  return memory_->fault();
}

// --- Follower -----------------------------------------------------------------------------------

Follower::Follower(const char* name, TableBase& table)
    : Task(name),
      table_(&table),
      type_(table.type_),
      known_(type_),
      nextKnown_(type_),
      row_(table.type_.bytes),
      other_(table.type_.bytes) {
  check(table.mode() != Mode::read, "a table that reactors follow is mounted to notify");
  table.followers_.push_back(this);
  wake();
}

Follower::~Follower() {
  if (destroyed_) *destroyed_ = true;
  if (table_) std::erase(table_->followers_, this);
}

namespace {

// Notes whether the object that `slot` is in was destroyed in this scope, for outer scopes too.
class Alive {
 public:
  explicit Alive(bool*& slot) : slot_(slot), outer_(slot) { slot = &gone_; }
  ~Alive() {
    if (!gone_)
      slot_ = outer_;
    else if (outer_)
      *outer_ = true;
  }
  Alive(const Alive&) = delete;
  explicit operator bool() const { return !gone_; }

 private:
  bool*& slot_;
  bool* const outer_;
  bool gone_ = false;
};

}  // namespace

bool Follower::run(Slice& slice) {
  const Alive alive(destroyed_);
  while (step()) {
    if (!alive) return false;
    if (slice.spent()) return true;
  }
  return false;
}

// One row. False: there is nothing to do.
bool Follower::step() {
  if (!table_) return false;
  if (again_ != kNone) return look(std::exchange(again_, kNone)), true;
  switch (phase_) {
    case Phase::follow:
      return followOne();
    case Phase::scan:
      if (at_ < now_->rows()) return look(at_++), true;
      cursor_ = goal_;
      phase_ = Phase::follow;
      return true;
    case Phase::compare:
      if (next_ && at_ < next_->rows()) return compareOne(at_++), true;
      at_ = 0;
      phase_ = Phase::leave;
      return true;
    case Phase::leave:
      if (at_ < known_.rows()) {
        if (const uint32_t row = at_++; known_.has(row))
          settle(known_.take(row), nextKnown_, next_.get());
        return true;
      }
      now_ = std::exchange(next_, nullptr);
      known_ = std::exchange(nextKnown_, KnownKeys(type_));
      cursor_ = goal_;
      phase_ = Phase::follow;
      return true;
  }
  return false;
}

bool Follower::followOne() {
  if (table_->reader() != now_) return moveOver(), true;
  const uint64_t version = now_ ? now_->version() : 0;
  if (cursor_ >= version) return false;
  if (uint32_t row = 0; now_->logged(cursor_ + 1, &row)) {
    ++cursor_;
    return look(row), true;
  }
  phase_ = Phase::scan;
  goal_ = version;
  at_ = 0;
  return true;
}

void Follower::moveOver() {
  next_ = table_->reader();
  goal_ = next_ ? next_->version() : 0;
  at_ = 0;
  phase_ = Phase::compare;
}

// To tell is the last thing that is done, and noted before: whoever is told may run the loop,
// throw, or destroy this.
void Follower::look(uint32_t row) {
  uint64_t version = 0;
  const RowReader::State state = now_->read(row, row_.data(), &list_, &version);
  if (state == RowReader::State::unreadable) return;
  const bool lives = state == RowReader::State::live;
  if (known_.has(row)) {
    if (!lives || !type_.sameKey(known_.key(row), row_.data())) {
      if (lives) again_ = row;
      return settle(known_.take(row), known_, now_.get());
    }
    if (known_.version(row) == version) return;
  }
  if (!lives) return;
  known_.set(row, version, row_.data());
  wake();
  onLive(row_.data(), list_);
}

// The key was told, and stands no more where it stood. In the table by now it may stand in another
// row, which is going to be looked at; whichever key was told of that row is in the same case.
void Follower::settle(std::vector<std::byte> key, KnownKeys& known, const RowReader* reader) {
  uint32_t row = 0;
  while (reader && reader->find(key.data(), other_.data(), nullptr, &row, nullptr)) {
    std::vector<std::byte> displaced;
    if (known.has(row)) displaced = known.take(row);
    known.set(row, KnownKeys::kOther, key.data());
    if (displaced.empty()) return;
    key = std::move(displaced);
  }
  wake();
  onGone(key.data());
}

// Whether a row of the next table is as it was told of this one; its key is known there from now
// on.
bool Follower::wasTold(const void* row) {
  const uint32_t before = known_.find(row);
  if (before == kNone) return false;
  const uint64_t told = known_.version(before);
  known_.clear(before);
  uint64_t version = 0;
  return now_->read(before, other_.data(), &otherList_, &version) == RowReader::State::live &&
         version == told && list_.count == otherList_.count &&
         type_.same(row, other_.data(), list_.data(), otherList_.data(), list_.count);
}

void Follower::compareOne(uint32_t row) {
  uint64_t version = 0;
  if (next_->read(row, row_.data(), &list_, &version) != RowReader::State::live) return;
  const bool told = wasTold(row_.data());
  nextKnown_.set(row, version, row_.data());
  if (told) return;
  wake();
  onLive(row_.data(), list_);
}

}  // namespace ryx::platform::mirra
