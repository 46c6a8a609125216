// Commands that look at the Mirra tables.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/mirra/table.h"
#include "platform/model/statehub.h"
#include "platform/model/tables.h"
#include "switch/operator/commands.h"
#include "switch/operator/table.h"

namespace ryx::operators {

using namespace platform;
using nlohmann::ordered_json;

namespace {

std::unique_ptr<mirra::TableBase> attach(Session& session, const std::string& name,
                                         const std::string& typeName) {
  const mirra::RowType* type = mirra::RowType::named(typeName);
  if (!type) throw Failure(kFailed, "rows of type " + typeName + " are not known to this command");
  auto table =
      std::make_unique<mirra::TableBase>(session.tree().tables(), name, *type, mirra::Mode::read);
  session.wait([&] { return table->exists() || !table->fault().empty(); });
  if (!table->exists())
    throw Failure(kFailed, "the table " + name + " cannot be read: " +
                               (table->fault().empty() ? "it does not come" : table->fault()));
  return table;
}

std::vector<const Statehub::Table*> offered(Session& session) {
  std::vector<const Statehub::Table*> all;
  for (CollectionIterator it(session.directory("statehub/table")); it; it.next())
    if (const auto* table = it.get()->as<Statehub::Table>()) all.push_back(table);
  std::sort(all.begin(), all.end(), [](auto* a, auto* b) { return a->name() < b->name(); });
  return all;
}

// Each row as JSON, in the order of the table.
template <class F>
void forEachRow(const mirra::RowReader& reader, F&& each) {
  std::vector<std::byte> row(reader.type().bytes);
  mirra::List list;
  for (uint32_t n = 0; n < reader.rows(); ++n) {
    if (reader.read(n, row.data(), &list, nullptr) != mirra::RowReader::State::live) continue;
    JsonWriter w;
    reader.type().dump(w, row.data(), list.data(), list.count);
    each(w.text());
  }
}

// A row's members, those of structures in it as its own: their names and their values.
struct Members {
  std::vector<std::string> names, values;
};
Members membersOf(const std::string& text) {
  Members all;
  const auto add = [&](auto& self, const ordered_json& of) -> void {
    for (auto& [name, value] : of.items()) {
      if (value.is_object()) {
        self(self, value);
        continue;
      }
      all.names.push_back(name);
      all.values.push_back(value.is_string() ? value.template get<std::string>() : value.dump());
    }
  };
  add(add, ordered_json::parse(text));
  return all;
}

// As wide as all rows need it, without keeping them: there may be millions.
void printRows(const mirra::RowReader& reader, const Output& to) {
  Columns columns;
  std::vector<std::string> titles;
  forEachRow(reader, [&](const std::string& text) {
    Members row = membersOf(text);
    columns.measure(row.values);
    if (titles.empty()) titles = std::move(row.names);
  });
  if (titles.empty()) return;
  columns.measure(titles);
  columns.fit(to.width);
  columns.print(to.out, titles);
  forEachRow(reader,
             [&](const std::string& text) { columns.print(to.out, membersOf(text).values); });
}

void listTables(Session& session, const Output& to) {
  Table table({"name", "type", "writer", "readers", "rows", "writes", "refused"});
  ordered_json array = ordered_json::array();
  for (const Statehub::Table* one : offered(session)) {
    ordered_json entry = {{"name", one->name()},
                          {"type", one->type()},
                          {"writer", one->writer()},
                          {"readers", one->readers()},
                          {"incarnation", std::string(one->key().view())}};
    std::vector<std::string> row = {one->name(), one->type(), one->writer(),
                                    std::to_string(one->readers())};
    try {
      const auto there = attach(session, one->name(), one->type());
      entry.update({{"rows", there->size()},
                    {"writes", there->version()},
                    {"refused", there->reader()->refused()}});
      for (const uint64_t n :
           {uint64_t{there->size()}, there->version(), there->reader()->refused()})
        row.push_back(std::to_string(n));
    } catch (const Failure& why) {
      entry["fault"] = why.what();
      row.insert(row.end(), {"-", "-", "-"});
    }
    table.add(std::move(row));
    array.push_back(std::move(entry));
  }
  if (to.json) {
    to.out << array.dump(2) << "\n";
  } else {
    table.print(to.out, to.width);
  }
}

}  // namespace

void mirraTables(Session& session, const std::string& name, const Output& to) {
  registerTables();
  if (name.empty()) return listTables(session, to);
  const auto all = offered(session);
  const auto at =
      std::find_if(all.begin(), all.end(), [&](auto* table) { return table->name() == name; });
  if (at == all.end())
    throw Failure(kFailed, "there is no table " + name + "; ryx mirra lists those that there are");
  const auto table = attach(session, name, (*at)->type());
  if (!to.json) return printRows(*table->reader(), to);
  const char* before = "[";
  forEachRow(*table->reader(), [&](const std::string& text) {
    to.out << std::exchange(before, ",") << "\n  " << text;
  });
  to.out << (*before == '[' ? "[]\n" : "\n]\n");
}

}  // namespace ryx::operators
