#include "platform/mirra/memory.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "platform/base/check.h"

namespace ryx::platform::mirra {
namespace {

constexpr uint64_t kMagic = 0x415252494d585952;  // "RYXMIRRA"
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;

// The head: a line for what never changes, then lines for what does.
enum Head : uint64_t {
  kMagicAt = 0,
  kLayoutAt,
  kIncarnationAt,
  kSeedAt,
  kVersionAt = 8,
  kIndexAt = 16,  // its size (a power of two), its area, and how many there were before
  kRowsAt = 24,
  kLiveAt,
  kRefusedAt,
  kUndoAt = 32,  // sequence, row, the row's sequence, its words
};
enum Undo : uint64_t { kUndoSequence = 0, kUndoRow, kUndoRowSequence, kUndoWords };
enum RowWord : uint64_t { kSequence = 0, kVersion, kBytes };

constexpr uint64_t kLives = 1;  // in a version word, whose version is shifted by one
constexpr unsigned kFirstIndexBits = 6;
constexpr uint32_t kGone = ~0u;  // a slot whose row was taken out
constexpr unsigned kFirstBlockBits = 3;

struct Index {
  unsigned bits;
  unsigned area;
  uint64_t number;
  static Index of(uint64_t word) {
    return {static_cast<unsigned>(word & 0xff), static_cast<unsigned>(word >> 8 & 1), word >> 16};
  }
  uint64_t word() const { return number << 16 | area << 8 | bits; }
};

uint64_t wordsOf(uint64_t bytes) {
  return (bytes + 7) / 8;
}

// The power of two of the words that a block for so many has.
unsigned blockBits(uint64_t words) {
  return std::max(static_cast<unsigned>(std::bit_width(words - 1)), kFirstBlockBits);
}

void put(Word& w, uint64_t value) {
  w.store(value, std::memory_order_release);
}
uint64_t get(const Word& w) {
  return w.load(std::memory_order_acquire);
}
void putAll(Word* to, const void* from, uint64_t words) {
  const char* at = static_cast<const char*>(from);
  for (uint64_t i = 0; i < words; ++i, at += 8) {
    uint64_t value;
    std::memcpy(&value, at, 8);
    put(to[i], value);
  }
}
void getAll(void* to, const Word* from, uint64_t words) {
  char* at = static_cast<char*>(to);
  for (uint64_t i = 0; i < words; ++i, at += 8) {
    const uint64_t value = get(from[i]);
    std::memcpy(at, &value, 8);
  }
}

struct Registry {
  std::mutex mutex;
  std::map<std::string, RowType, std::less<>> types;
};
Registry& registry() {
  static auto* r = new Registry;
  return *r;
}

}  // namespace

// --- types --------------------------------------------------------------------------------------

const RowType* RowType::named(std::string_view name) {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  auto at = r.types.find(name);
  return at == r.types.end() ? nullptr : &at->second;
}

const RowType& registered(RowType type, const std::string& layout) {
  // Whatever moves something in the memory is part of what is told apart.
  const std::string all = layout + " mirra 1 " + std::to_string(type.maxRows) + " " +
                          std::to_string(kLog) + " " + std::to_string(type.listBytes);
  type.layout = hashBytes(all.data(), all.size(), kMagic);
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  const auto [at, isNew] = r.types.emplace(type.name, type);
  check(isNew || at->second.layout == type.layout, "a table's type is declared in one way");
  return at->second;
}

// --- Memory -------------------------------------------------------------------------------------

Memory::Places Memory::placesOf(const RowType& type) {
  const auto upToPage = [](uint64_t words) { return (words + 511) & ~uint64_t{511}; };
  Places p{};
  p.stride = kBytes + wordsOf(type.bytes) + (type.elementBytes != 0 ? 2 : 0);
  p.log = upToPage(uint64_t{kUndoAt} + kUndoWords + p.stride);
  p.index = upToPage(p.log + kLog);
  p.maxIndexBits = static_cast<unsigned>(std::bit_width(uint64_t{type.maxRows} * 2 - 1));
  p.maxIndexBits = std::max(p.maxIndexBits, kFirstIndexBits);
  p.rows = upToPage(p.index + (uint64_t{4} << p.maxIndexBits));
  p.lists = upToPage(p.rows + p.stride * type.maxRows);
  p.end = p.lists + wordsOf(type.listBytes);
  return p;
}

Memory::Memory(const RowType& type, File file, Word* at)
    : type_(type), places_(placesOf(type)), file_(std::move(file)), at_(at) {}

Memory::~Memory() {
  ::munmap(at_, places_.end * 8);
}

std::shared_ptr<Memory> Memory::create(const RowType& type, std::string* why) {
  const uint64_t words = placesOf(type).end;
  const auto fault = [&](const char* what) {
    *why = std::string(what) + ": " + std::strerror(errno);
    return nullptr;
  };
  const File file(::memfd_create(type.name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (file.fd() < 0) return fault("no memory file");
  if (::ftruncate(file.fd(), static_cast<off_t>(words * 8)) != 0)
    return fault("a memory file cannot become that large");
  void* at =
      ::mmap(nullptr, words * 8, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, file.fd(), 0);
  if (at == MAP_FAILED) return fault("no room to map a table");
  ::madvise(at, words * 8, MADV_DONTDUMP);
  std::shared_ptr<Memory> made(new Memory(type, file, static_cast<Word*>(at)));
  if (::fcntl(file.fd(), F_ADD_SEALS, kSeals) != 0)
    return fault("memory files cannot be sealed here (Linux 5.1 can)");
  uint64_t random[2];
  if (::getrandom(random, sizeof random, 0) != sizeof random) return fault("no random numbers");
  Word* head = made->at_;
  put(head[kLayoutAt], type.layout);
  put(head[kIncarnationAt], random[0] | 1);
  put(head[kSeedAt], random[1]);
  put(head[kIndexAt], Index{kFirstIndexBits, 0, 0}.word());
  put(head[kMagicAt], kMagic);
  return made;
}

std::string Memory::faultOf(const File& file) {
  const int seals = file ? ::fcntl(file.fd(), F_GET_SEALS) : -1;
  if (seals < 0) return "expected a memory file";
  constexpr int kNeeded = F_SEAL_SHRINK | F_SEAL_FUTURE_WRITE;
  return (seals & kNeeded) == kNeeded ? "" : "expected a memory file that is sealed";
}

std::shared_ptr<Memory> Memory::attach(const File& file, const RowType& type, uint64_t incarnation,
                                       std::string* why) {
  if (*why = faultOf(file); !why->empty()) return nullptr;
  const uint64_t words = placesOf(type).end;
  struct stat status {};
  if (::fstat(file.fd(), &status) != 0 || static_cast<uint64_t>(status.st_size) != words * 8) {
    *why = "its size is not that of a table of " + type.name + " of this build";
    return nullptr;
  }
  void* at = ::mmap(nullptr, words * 8, PROT_READ, MAP_SHARED | MAP_NORESERVE, file.fd(), 0);
  if (at == MAP_FAILED) {
    *why = std::string("no room to map a table: ") + std::strerror(errno);
    return nullptr;
  }
  ::madvise(at, words * 8, MADV_DONTDUMP);
  std::shared_ptr<Memory> made(new Memory(type, file, static_cast<Word*>(at)));
  *why = made->fault();
  if (why->empty() && made->incarnation() != incarnation) *why = "it is another table";
  return why->empty() ? made : nullptr;
}

uint64_t Memory::incarnation() const {
  return get(at_[kIncarnationAt]);
}

std::string Memory::fault() const {
  if (std::string what = faultOf(file_); !what.empty()) return what;
  struct stat status {};
  if (::fstat(file_.fd(), &status) != 0 || static_cast<uint64_t>(status.st_size) != places_.end * 8)
    return "its size has changed";
  if (get(at_[kMagicAt]) != kMagic) return "it is no table";
  if (get(at_[kLayoutAt]) != type_.layout) return "it is a table of another layout";
  return "";
}

// --- RowReader ----------------------------------------------------------------------------------

RowReader::RowReader(std::shared_ptr<const Memory> memory)
    : memory_(std::move(memory)),
      places_(memory_->places_),
      head_(memory_->at_),
      rowWords_(static_cast<uint32_t>(wordsOf(memory_->type().bytes))) {}

uint32_t RowReader::rows() const {
  return static_cast<uint32_t>(std::min<uint64_t>(get(head_[kRowsAt]), type().maxRows));
}
uint32_t RowReader::size() const {
  return static_cast<uint32_t>(get(head_[kLiveAt]));
}
uint64_t RowReader::refused() const {
  return get(head_[kRefusedAt]);
}
uint64_t RowReader::version() const {
  return get(head_[kVersionAt]);
}

bool RowReader::logged(uint64_t version, uint32_t* row) const {
  const uint64_t number = get(head_[places_.log + version % kLog]);
  // The writer may have been about to put its next one there.
  if (this->version() + 1 - version >= kLog) return false;
  *row = static_cast<uint32_t>(number);
  return number < rows();
}

bool RowReader::copyList(const Word* words, List* list) const {
  const uint64_t count = get(words[0]), place = get(words[1]);
  const uint64_t length = count * wordsOf(type().elementBytes);
  if (count > kMaxElements || length > wordsOf(type().listBytes) ||
      place > wordsOf(type().listBytes) - length)
    return false;
  list->count = count;
  list->bytes.resize(length * 8);
  getAll(list->bytes.data(), head_ + places_.lists + place, length);
  return true;
}

RowReader::State RowReader::read(uint32_t number, void* row, List* list, uint64_t* version) const {
  const Word* const at = head_ + places_.rows + number * places_.stride;
  const Word* const undo = head_ + kUndoAt;
  for (int tries = 0; tries < kMaxTries; ++tries) {
    if (tries > 32) ::sched_yield();
    const uint64_t sequence = get(at[kSequence]);
    const Word* from = at + kVersion;
    uint64_t undone = 0;
    if (sequence & 1) {
      // It is being written, or its writer died in the middle: what it was is in the undo record,
      // unless it is whole again by now.
      undone = get(undo[kUndoSequence]);
      if ((undone & 1) || get(undo[kUndoRow]) != number ||
          get(undo[kUndoRowSequence]) != sequence - 1)
        continue;
      from = undo + kUndoWords;
    }
    const uint64_t word = get(from[0]);
    const bool lives = word & kLives;
    bool isWhole = true;
    if (lives) {
      getAll(row, from + 1, rowWords_);
      if (list) isWhole = type().elementBytes == 0 || copyList(from + 1 + rowWords_, list);
    }
    if ((sequence & 1) && undo[kUndoSequence].load(std::memory_order_relaxed) != undone) continue;
    if (at[kSequence].load(std::memory_order_relaxed) != sequence) continue;
    if (lives &&
        (!isWhole || !type().isValid(row, list ? list->data() : nullptr, list ? list->count : 0)))
      break;
    if (version) *version = word >> 1;
    return lives ? State::live : State::dead;
  }
  unreadable_.fetch_add(1, std::memory_order_relaxed);
  return State::unreadable;
}

bool RowReader::find(const void* key, void* row, List* list, uint32_t* number,
                     uint64_t* version) const {
  const uint64_t hash = type().hash(key, get(head_[kSeedAt])) >> 32;
  for (int tries = 0; tries < kMaxTries; ++tries) {
    const uint64_t word = get(head_[kIndexAt]);
    const Index index = Index::of(word);
    if (index.bits > places_.maxIndexBits) break;
    const Word* slots = head_ + places_.indexAt(index.bits, index.area);
    const uint64_t mask = (uint64_t{1} << index.bits) - 1;
    uint64_t i = hash & mask;
    for (uint64_t n = 0; n <= mask; ++n, i = (i + 1) & mask) {
      const uint64_t slot = get(slots[i]);
      if (slot == 0) break;
      const auto low = static_cast<uint32_t>(slot);
      if (slot >> 32 != hash || low == 0 || low == kGone || low > type().maxRows) continue;
      if (read(low - 1, row, list, version) != State::live || !type().sameKey(key, row)) continue;
      if (number) *number = low - 1;
      return true;
    }
    if (head_[kIndexAt].load(std::memory_order_relaxed) == word) return false;
  }
  return false;
}

// --- RowWriter ----------------------------------------------------------------------------------

RowWriter::RowWriter(std::shared_ptr<Memory> memory)
    : memory_(std::move(memory)), reader_(memory_), places_(memory_->places_), head_(memory_->at_) {
  const Index index = Index::of(get(head_[kIndexAt]));
  slots_ = head_ + places_.indexAt(index.bits, index.area);
  mask_ = (uint64_t{1} << index.bits) - 1;
  image_.resize(memory_->type().bytes);
}

// The row of that key, and the slot that it stands in.
uint32_t RowWriter::find(const void* key, uint64_t hash, uint64_t* slot) {
  for (uint64_t i = hash & mask_;; i = (i + 1) & mask_) {
    const uint64_t s = slots_[i].load(std::memory_order_relaxed);
    if (s == 0) return kNone;
    const auto low = static_cast<uint32_t>(s);
    if (s >> 32 != hash || low == kGone) continue;
    if (reader_.read(low - 1, image_.data(), nullptr, nullptr) != RowReader::State::live ||
        !memory_->type().sameKey(key, image_.data()))
      continue;
    *slot = i;
    return low - 1;
  }
}

RowWriter::Result RowWriter::write(const void* row, const void* list, size_t count) {
  const RowType& type = memory_->type();
  const uint64_t hash = type.hash(row, get(head_[kSeedAt])) >> 32;
  uint64_t slot = 0;
  uint32_t number = find(row, hash, &slot);
  if (number != kNone && isSame(number, row, list, count)) return Result::unchanged;
  Block block = {.words = count * wordsOf(type.elementBytes)};
  if (count > kMaxElements || !allocate(&block)) return refuses();
  const bool isNew = number == kNone;
  if (isNew && (number = newRow()) == kNone) {
    release(block);
    return refuses();
  }
  putAll(head_ + places_.lists + block.place, list, block.words);
  logs(version_ + 1, number);
  if (isNew) enter(hash, number);
  const Block old = blockOf(number);  // of a row that does not live: none
  store(number, (version_ + 1) << 1 | kLives, row, count, block.place);
  release(old);
  if (isNew) put(head_[kLiveAt], ++live_);
  published(version_ + 1);
  return Result::written;
}

bool RowWriter::remove(const void* key) {
  const RowType& type = memory_->type();
  const uint64_t hash = type.hash(key, get(head_[kSeedAt])) >> 32;
  uint64_t slot = 0;
  const uint32_t number = find(key, hash, &slot);
  if (number == kNone) return false;
  const Block block = blockOf(number);
  logs(version_ + 1, number);
  store(number, (version_ + 1) << 1, nullptr, 0, 0);
  leave(slot);
  release(block);
  freeRows_.push_back(number);
  put(head_[kLiveAt], --live_);
  published(version_ + 1);
  return true;
}

bool RowWriter::isSame(uint32_t number, const void* row, const void* list, size_t count) {
  const RowType& type = memory_->type();
  list_.count = 0;
  reader_.read(number, image_.data(), &list_, nullptr);
  return (type.elementBytes == 0 || list_.count == count) &&
         type.same(row, image_.data(), list, list_.data(), count);
}

RowWriter::Result RowWriter::refuses() {
  put(head_[kRefusedAt], get(head_[kRefusedAt]) + 1);
  return Result::full;
}

uint32_t RowWriter::newRow() {
  if (!freeRows_.empty()) {
    const uint32_t number = freeRows_.back();
    freeRows_.pop_back();
    return number;
  }
  if (rows_ == memory_->type().maxRows) return kNone;
  put(head_[kRowsAt], rows_ + 1);
  return rows_++;
}

void RowWriter::logs(uint64_t version, uint32_t number) {
  put(head_[places_.log + version % kLog], number);
}

void RowWriter::published(uint64_t version) {
  version_ = version;
  put(head_[kVersionAt], version);
}

// The one place where a row changes. `row`: null, its bytes stay as they are.
void RowWriter::store(uint32_t number, uint64_t version, const void* row, uint64_t count,
                      uint64_t place) {
  const RowType& type = memory_->type();
  Word* const at = head_ + places_.rows + number * places_.stride;
  Word* const undo = head_ + kUndoAt;
  const uint64_t sequence = at[kSequence].load(std::memory_order_relaxed);
  const uint64_t undone = undo[kUndoSequence].load(std::memory_order_relaxed);
  put(undo[kUndoSequence], undone + 1);
  put(undo[kUndoRow], number);
  put(undo[kUndoRowSequence], sequence);
  for (uint64_t i = kVersion; i < places_.stride; ++i)
    put(undo[uint64_t{kUndoWords} + i - kVersion], at[i].load(std::memory_order_relaxed));
  put(undo[kUndoSequence], undone + 2);

  put(at[kSequence], sequence + 1);
  put(at[kVersion], version);
  const uint64_t words = wordsOf(type.bytes);
  if (row) putAll(at + kBytes, row, words);
  if (type.elementBytes != 0) {
    put(at[kBytes + words], count);
    put(at[kBytes + words + 1], place);
  }
  put(at[kSequence], sequence + 2);
}

void RowWriter::enter(uint64_t hash, uint32_t number) {
  if ((used_ + 1) * 8 > (mask_ + 1) * 5) growIndex();
  for (uint64_t i = hash & mask_;; i = (i + 1) & mask_) {
    const uint64_t s = slots_[i].load(std::memory_order_relaxed);
    if (s != 0 && static_cast<uint32_t>(s) != kGone) continue;
    if (s == 0) ++used_;
    return put(slots_[i], hash << 32 | (number + 1));
  }
}

// A slot before an empty one can be empty itself: nobody looks past it.
void RowWriter::leave(uint64_t slot) {
  put(slots_[slot], kGone);
  if (slots_[(slot + 1) & mask_].load(std::memory_order_relaxed) != 0) return;
  for (; static_cast<uint32_t>(slots_[slot].load(std::memory_order_relaxed)) == kGone;
       slot = (slot - 1) & mask_) {
    put(slots_[slot], 0);
    --used_;
  }
}

// To a new index, twice as large where what lives fills more than a quarter.
void RowWriter::growIndex() {
  const Index old = Index::of(get(head_[kIndexAt]));
  Index next = {old.bits, old.area ^ 1, old.number + 1};
  if (uint64_t{live_} * 4 > mask_ + 1 && next.bits < places_.maxIndexBits) ++next.bits;
  Word* const slots = head_ + places_.indexAt(next.bits, next.area);
  const uint64_t mask = (uint64_t{1} << next.bits) - 1;
  for (uint64_t i = 0; i <= mask; ++i) put(slots[i], 0);
  used_ = 0;
  for (uint64_t i = 0; i <= mask_; ++i) {
    const uint64_t s = slots_[i].load(std::memory_order_relaxed);
    if (s == 0 || static_cast<uint32_t>(s) == kGone) continue;
    uint64_t to = (s >> 32) & mask;
    while (slots[to].load(std::memory_order_relaxed) != 0) to = (to + 1) & mask;
    put(slots[to], s);
    ++used_;
  }
  slots_ = slots;
  mask_ = mask;
  put(head_[kIndexAt], next.word());
}

RowWriter::Block RowWriter::blockOf(uint32_t number) const {
  const RowType& type = memory_->type();
  if (type.elementBytes == 0) return {};
  const Word* list = head_ + places_.rows + number * places_.stride + kBytes + wordsOf(type.bytes);
  return {get(list[1]), get(list[0]) * wordsOf(type.elementBytes)};
}

bool RowWriter::allocate(Block* block) {
  if (block->words == 0) return true;
  const unsigned bits = blockBits(block->words);
  if (bits < freeBlocks_.size() && !freeBlocks_[bits].empty()) {
    block->place = freeBlocks_[bits].back();
    freeBlocks_[bits].pop_back();
    return true;
  }
  if (blocks_ + (uint64_t{1} << bits) > wordsOf(memory_->type().listBytes)) return false;
  block->place = blocks_;
  blocks_ += uint64_t{1} << bits;
  return true;
}

void RowWriter::release(const Block& block) {
  if (block.words == 0) return;
  const unsigned bits = blockBits(block.words);
  if (freeBlocks_.size() <= bits) freeBlocks_.resize(bits + 1);
  freeBlocks_[bits].push_back(block.place);
}

}  // namespace ryx::platform::mirra
