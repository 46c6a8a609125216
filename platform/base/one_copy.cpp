// One process holds one copy of the platform. A second one (a renamed libryx.so, or platform
// objects linked into a program or a module beside it) would bring a second loop, a second activity
// lock and a second tree, and each half of the process would see its own. So each copy carries a
// note, and whichever copy starts second finds two and ends the process, before its other
// constructors run.
#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "platform/base/check.h"

// An ELF note and not a symbol: it is found whatever the visibility, version or scope of a copy.
// Its name is "Ryx", its type 1, and it has no content.
asm(R"(
  .pushsection .note.ryx, "a", %note
  .balign 4
  .long 4, 0, 1
  .asciz "Ryx"
  .popsection
)");

namespace ryx::platform {
namespace {

constexpr char kNoteName[] = "Ryx";
constexpr ElfW(Word) kNoteType = 1;

constexpr size_t aligned(size_t size, size_t alignment) {
  return (size + alignment - 1) / alignment * alignment;
}

bool hasNote(const char* notes, size_t size, size_t alignment) {
  ElfW(Nhdr) note;
  for (size_t at = 0; at + sizeof note <= size;) {
    std::memcpy(&note, notes + at, sizeof note);
    if (note.n_type == kNoteType && note.n_namesz == sizeof kNoteName &&
        std::memcmp(notes + at + sizeof note, kNoteName, sizeof kNoteName) == 0)
      return true;
    at = aligned(aligned(at + sizeof note + note.n_namesz, alignment) + note.n_descsz, alignment);
  }
  return false;
}

bool holdsPlatform(const dl_phdr_info& object) {
  for (int i = 0; i < object.dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object.dlpi_phdr[i];
    if (segment.p_type == PT_NOTE &&
        hasNote(reinterpret_cast<const char*>(object.dlpi_addr + segment.p_vaddr), segment.p_memsz,
                segment.p_align == 8 ? 8 : 4))
      return true;
  }
  return false;
}

struct Copies {
  int count = 0;
  const char* names[2] = {};
};

int addCopy(dl_phdr_info* object, size_t, void* result) {
  auto& copies = *static_cast<Copies*>(result);
  if (!holdsPlatform(*object)) return 0;
  copies.names[copies.count++] = object->dlpi_name[0] ? object->dlpi_name : "the program itself";
  return copies.count == 2;
}

// 101 is the first priority that is not the compiler's own.
__attribute__((constructor(101))) void requireOneCopy() {
  Copies copies;
  dl_iterate_phdr(addCopy, &copies);
  if (copies.count < 2) return;
  char text[1024];
  std::snprintf(text, sizeof text,
                "one process holds one copy of libryx.so, but here are two: %s and %s",
                copies.names[0], copies.names[1]);
  check(false, text);
}

}  // namespace
}  // namespace ryx::platform
