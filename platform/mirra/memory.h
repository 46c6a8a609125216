// The shared memory of a Mirra table: rows that one process writes and any number read, without a
// lock. These are the raw halves; table.h has what one works with.
//
// The memory is a file without a name, as large as the table may ever become (what was not touched
// takes no memory), sealed: its size is fixed, and nobody but the writer's own mapping can write
// it. Everything in it is an atomic 64-bit word, stored with release and loaded with acquire; there
// are offsets and numbers and no pointers. What only the writer needs (free rows, free blocks) is
// in its own memory: a table is never taken over. A writer that starts makes a new one, with an
// incarnation of its own, and readers move over.
//
// A row is
//
//   [sequence] [version and whether it lives] [the row's bytes ...] [list: elements, place]
//
// The sequence is odd while the row is being written. Before that its words are copied to the one
// undo record of the table, which has a sequence too: who meets an odd row reads what it was from
// there. So a row can be read at any moment, and after its writer died at any.
//
// Lists stand in blocks that are written before a row refers to them and given back after it does
// so no more: a row's sequence tells for its list too.
//
// The index is a table of row numbers by hash, in lines of one cache line as in the store
// (qel/hash.h), with a seed of the table's own. Rows stay where they are; an index that becomes too
// small is replaced as a whole, and who found nothing looks whether that has happened meanwhile. A
// row is entered into the index before it lives and taken out after it died: its version word alone
// decides whether it is there.
//
// Each write has a version. The log, a ring, has the row of each of the last kLog versions.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/api.h"
#include "platform/base/file.h"
#include "platform/mirra/row.h"

namespace ryx::platform::mirra {

using Word = std::atomic<uint64_t>;
static_assert(sizeof(Word) == 8 && Word::is_always_lock_free);

// Named bounds.
inline constexpr uint32_t kLog = 65536;  // versions that the log has
inline constexpr int kMaxTries = 1000;   // of reading one row

class RYX_PRIVATE Memory {
 public:
  // New, with an incarnation of its own. Null, with `why` set, when the system gives none.
  static std::shared_ptr<Memory> create(const RowType& type, std::string* why);
  // What another one created. Null, with `why` set, when it is not such a file, not sealed, or not
  // laid out as this type; or when there is no room to map it.
  static std::shared_ptr<Memory> attach(const File& file, const RowType& type, uint64_t incarnation,
                                        std::string* why);
  ~Memory();
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  const RowType& type() const { return type_; }
  const File& file() const { return file_; }
  uint64_t incarnation() const;

  // Whether that can be handed to a reader: a sealed memory file. Empty, or what is wrong.
  static std::string faultOf(const File& file);
  // The same of the file and its head, as the writer left them.
  std::string fault() const;

 private:
  friend class RowReader;
  friend class RowWriter;
  // Where what stands, in words.
  struct Places {
    uint64_t stride;  // of a row
    uint64_t log, index, rows, lists, end;
    unsigned maxIndexBits;
    // Of an index of that size in one of the two areas.
    uint64_t indexAt(unsigned bits, unsigned area) const {
      return index + (uint64_t{area} << (maxIndexBits + 1)) + (uint64_t{1} << bits);
    }
  };
  static Places placesOf(const RowType& type);

  Memory(const RowType& type, File file, Word* at);

  const RowType& type_;
  const Places places_;
  const File file_;
  Word* const at_;
};

// What is read of a row besides its bytes.
struct List {
  std::vector<std::byte> bytes;
  size_t count = 0;
  const void* data() const { return bytes.data(); }
};

// Any thread; each function at any moment, whatever the writer does.
class RYX_PRIVATE RowReader {
 public:
  enum class State : uint8_t {
    live,
    dead,
    // It could not be read in kMaxTries, or what was read is no row: counted.
    unreadable,
  };

  explicit RowReader(std::shared_ptr<const Memory> memory);

  const RowType& type() const { return memory_->type(); }
  uint64_t incarnation() const { return memory_->incarnation(); }
  const Memory& memory() const { return *memory_; }

  // The row of that key, to `row` and, where there is one, `list`; `number` is its place.
  bool find(const void* key, void* row, List* list, uint32_t* number, uint64_t* version) const;
  // The row at that place, below rows(). What is dead has a version alone.
  State read(uint32_t number, void* row, List* list, uint64_t* version) const;
  uint32_t rows() const;
  uint32_t size() const;     // those that live
  uint64_t version() const;  // of the last write
  uint64_t refused() const;  // writes that found no room
  // The row that was written with that version; false when the log has it no more.
  bool logged(uint64_t version, uint32_t* row) const;
  uint64_t unreadable() const { return unreadable_.load(std::memory_order_relaxed); }

 private:
  bool copyList(const Word* row, List* list) const;

  const std::shared_ptr<const Memory> memory_;
  const Memory::Places& places_;
  const Word* const head_;
  const uint32_t rowWords_;
  mutable std::atomic<uint64_t> unreadable_{0};
};

// One thread at a time.
class RYX_PRIVATE RowWriter {
 public:
  enum class Result : uint8_t { unchanged, written, full };

  // In memory that it has created.
  explicit RowWriter(std::shared_ptr<Memory> memory);

  Result write(const void* row, const void* list, size_t count);
  bool remove(const void* key);

 private:
  static constexpr uint32_t kNone = ~0u;

  uint32_t find(const void* key, uint64_t hash, uint64_t* slot);
  Result refuses();
  uint32_t newRow();
  void enter(uint64_t hash, uint32_t number);
  void leave(uint64_t slot);
  void growIndex();
  // Where a list stands, and its length.
  struct Block {
    uint64_t place = 0;
    uint64_t words = 0;
  };
  Block blockOf(uint32_t number) const;
  bool allocate(Block* block);
  void release(const Block& block);
  void store(uint32_t number, uint64_t version, const void* row, uint64_t count, uint64_t place);
  bool isSame(uint32_t number, const void* row, const void* list, size_t count);
  void logs(uint64_t version, uint32_t number);
  void published(uint64_t version);

  const std::shared_ptr<Memory> memory_;
  const RowReader reader_;
  const Memory::Places& places_;
  Word* const head_;
  Word* slots_ = nullptr;  // the index in use
  uint64_t mask_ = 0;
  uint64_t used_ = 0;  // slots that are not empty
  uint64_t version_ = 0;
  uint32_t live_ = 0;
  uint32_t rows_ = 0;
  std::vector<uint32_t> freeRows_;
  std::vector<std::vector<uint64_t>> freeBlocks_;  // by the power of two of their words
  uint64_t blocks_ = 0;                            // words of the lists' part in use, ever
  std::vector<std::byte> image_;
  List list_;
};

}  // namespace ryx::platform::mirra
