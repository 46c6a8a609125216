#include "switch/hub/tables.h"

#include <charconv>
#include <set>
#include <string>
#include <vector>

#include "platform/model/statehub.h"

namespace ryx::hub {

using namespace platform;

namespace {

std::string hexadecimal(uint64_t number) {
  char text[16];
  return std::string(text, std::to_chars(text, text + sizeof text, number, 16).ptr);
}

}  // namespace

Tables::Tables(Tree& tree) : Task("Tables"), tree_(tree) {
  tree_.ownTables().onChangeIs([this] { wake(); });
  wake();
}

bool Tables::run(Slice&) {
  DirEntries& tables = tree_.find<Dir>("statehub/table")->entry;
  std::set<std::string> there;
  for (auto& [name, offered] : tree_.ownTables().all()) {
    const std::string key = hexadecimal(offered.incarnation);
    there.insert(key);
    auto* table = tables.create<Statehub::Table>(key);
    table->name.set(name);
    table->type.set(offered.typeName);
    table->writer.set(offered.writer);
    table->readers.set(static_cast<uint32_t>(tree_.ownTables().readers(name)));
  }
  std::vector<Name> gone;
  for (CollectionIterator it(tables); it; it.next()) {
    const Name& key = static_cast<Statehub::Table*>(it.get())->key();
    if (!there.count(std::string(key.view()))) gone.push_back(key);
  }
  for (const Name& key : gone) tables.erase(key);
  return false;
}

}  // namespace ryx::hub
