// Commands that look at the state: ls, show, watch, clients, service.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>

#include "platform/activity/activity.h"
#include "platform/model/agent.h"
#include "platform/model/statehub.h"
#include "platform/qel/reactor.h"
#include "switch/base/stop_signals.h"
#include "switch/operator/commands.h"
#include "switch/operator/state.h"
#include "switch/operator/table.h"

namespace ryx::operators {

using namespace platform;
using nlohmann::json;

namespace {

json dumpOf(const Entity& e) {
  JsonWriter w;
  e.dump(w);
  return json::parse(w.text());
}

void print(const json& what, const Output& to) {
  to.out << what.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

// The entity at a path. Throws when there is none, with what there is on the way.
Entity& at(Session& session, const std::string& path) {
  session.mount(path);
  Entity* deepest = nullptr;
  if (Entity* e = findPath(session.tree(), path, &deepest)) return *e;
  std::string there;
  int count = 0;
  for (const CollectionInfo& c : deepest->type().collections)
    for (CollectionIterator it(deepest->collection(c)); it && count < 8; it.next(), ++count)
      there += (count == 0 ? "" : ", ") + keyText(*it.get());
  throw Failure(kFailed, "nothing stands at " + path + "; " + deepest->path() +
                             (count == 0 ? " has nothing below it"
                                         : " has " + there + (count == 8 ? ", ..." : "")));
}

size_t childrenOf(const Entity& e) {
  size_t n = 0;
  for (const CollectionInfo& c : e.type().collections)
    n += const_cast<Entity&>(e).collection(c).size();
  return n;
}

// Rows of one type each, their keys first, then what is not at its default in all of them.
void printRows(const std::vector<Entity*>& rows, const Output& to) {
  std::vector<size_t> columns;
  const auto first = attributesOf(*rows[0]);
  for (size_t i = 0; i < first.size(); ++i)
    if (std::any_of(rows.begin(), rows.end(),
                    [i](Entity* e) { return !attributesOf(*e)[i].isDefault; }))
      columns.push_back(i);
  std::vector<std::string> titles = {"key"};
  for (const size_t i : columns) titles.push_back(first[i].name);
  Table table(titles);
  for (Entity* e : rows) {
    const auto attributes = attributesOf(*e);
    std::vector<std::string> row = {keyText(*e)};
    for (const size_t i : columns) row.push_back(attributes[i].text);
    table.add(std::move(row));
  }
  table.print(to.out, to.width);
}

void printBelow(Entity& e, const Output& to, bool* isFirst) {
  const auto attributes = attributesOf(e);
  std::vector<Entity*> outer;
  bool said = false;
  const auto title = [&] {
    if (std::exchange(said, true)) return;
    to.out << (std::exchange(*isFirst, false) ? "" : "\n") << e.path() << "  (" << e.type().name
           << ")\n";
  };
  if (!attributes.empty() || e.type().collections.empty()) title();
  for (const Shown& a : attributes) to.out << "  " << a.name << ": " << a.text << "\n";
  for (const CollectionInfo& c : e.type().collections) {
    if (c.marks & (kSecret | kLocal)) continue;
    std::map<uint16_t, std::vector<Entity*>> leaves;
    for (CollectionIterator it(e.collection(c)); it; it.next())
      if (it.get()->type().collections.empty())
        leaves[it.get()->type().id].push_back(it.get());
      else
        outer.push_back(it.get());
    for (auto& [type, rows] : leaves) {
      title();
      if (e.type().collections.size() > 1) to.out << c.name << ":\n";
      printRows(rows, to);
    }
  }
  for (Entity* below : outer) printBelow(*below, to, isFirst);
}

std::string timeOfDay() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  char text[32];
  std::strftime(text, sizeof text, "%H:%M:%S", std::localtime(&seconds));
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  char all[48];
  std::snprintf(all, sizeof all, "%s.%03d", text, static_cast<int>(milliseconds));
  return all;
}

// Tells of every change at and below a path.
class Watcher final : private JournalReactor {
 public:
  Watcher(Entity& root, std::string path, const Output& to)
      : JournalReactor("ryx watch"), path_(std::move(path)), to_(to) {
    follow(*root.childJournal(), true);
  }

 private:
  bool isWatched(const std::string& path) const {
    return path_ == "/" || path == path_ || path.starts_with(path_ + "/");
  }
  void onEntity(Entity& e, Change change) override {
    const std::string path = e.path();
    if (!isWatched(path)) return;
    if (change == Change::deleted) {
      known_.erase(path);
      return tell(path, "deleted", e, {});
    }
    const auto now = attributesOf(e);
    std::vector<Difference> differences;
    auto& before = known_[path];
    for (size_t i = 0; i < now.size(); ++i) {
      const bool known = i < before.size();
      if (known ? before[i].text != now[i].text : !now[i].isDefault)
        differences.push_back({now[i].name, known ? before[i].text : "", now[i].text, known});
    }
    before = now;
    if (change == Change::changed && differences.empty()) return;
    tell(path, change == Change::created ? "created" : "changed", e, differences);
  }
  void onRootChanged(Entity& e) override { onEntity(e, Change::changed); }

  struct Difference {
    std::string name, before, now;
    bool isKnown;
  };
  void tell(const std::string& path, const char* what, const Entity& e,
            const std::vector<Difference>& differences) {
    if (to_.json) {
      json line = {{"time", timeOfDay()}, {"path", path}, {"change", what}};
      if (std::string_view(what) != "deleted") line["entity"] = dumpOf(e);
      to_.out << line.dump(-1, ' ', false, json::error_handler_t::replace) << std::endl;
      return;
    }
    to_.out << timeOfDay() << " " << what << " " << path;
    for (const Difference& d : differences)
      to_.out << " " << d.name << "=" << (d.isKnown ? d.before + " -> " : "") << d.now;
    to_.out << std::endl;
  }

  const std::string path_;
  const Output to_;
  std::map<std::string, std::vector<Shown>> known_;
};

std::string withoutEndSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path.starts_with("/") ? path : "/" + path;
}

}  // namespace

void list(Session& session, const std::string& path, const Output& to) {
  Entity& e = at(session, path);
  Table table({"name", "type", "below"});
  json all = json::array();
  const auto add = [&](const std::string& name, const std::string& type, size_t below) {
    table.add({name, type, std::to_string(below)});
    all.push_back({{"name", name}, {"type", type}, {"below", below}});
  };
  for (const CollectionInfo& c : e.type().collections) {
    if (c.marks & (kSecret | kLocal)) continue;
    const std::string prefix = e.type().collections.size() > 1 ? std::string(c.name) + "/" : "";
    for (CollectionIterator it(e.collection(c)); it; it.next())
      add(prefix + keyText(*it.get()), it.get()->type().name, childrenOf(*it.get()));
  }
  if (to.json) return print(all, to);
  if (table.size() != 0) table.print(to.out, to.width);
}

void show(Session& session, const std::string& path, const Output& to) {
  Entity& e = at(session, path);
  if (to.json) return print(dumpOf(e), to);
  bool isFirst = true;
  printBelow(e, to, &isFirst);
  if (isFirst) to.out << e.path() << "  (" << e.type().name << ") has nothing below it\n";
}

void watch(Session& session, const ConnectionSettings& settings, const std::string& path,
           const Output& to) {
  const StopSignals signals([] { activity().executionTimeIs(0); });
  Entity& root = session.mount(path);
  const Watcher watcher(root, withoutEndSlash(path), to);
  const Reconnection reconnection(session.connection(), settings);
  activity().run(std::numeric_limits<double>::infinity());
}

void clients(Session& session, const Output& to) {
  DirEntries& all = session.directory("statehub/client");
  std::vector<Statehub::Client*> sorted;
  json array = json::array();
  for (CollectionIterator it(all); it; it.next())
    if (auto* client = it.get()->as<Statehub::Client>()) {
      sorted.push_back(client);
      array.push_back(dumpOf(*client));
    }
  if (to.json) return print(array, to);
  std::sort(sorted.begin(), sorted.end(), [](auto* a, auto* b) {
    return std::stoull(std::string(a->key().view())) < std::stoull(std::string(b->key().view()));
  });
  Table table({"no", "role", "name", "pid", "user", "mounts", "sent", "received", "unsent",
               "clogged s", "refused", "past limits", "silent"});
  for (const auto* c : sorted)
    table.add({std::string(c->key().view()), c->role(), c->name(), std::to_string(c->pid()),
               c->user(), std::to_string(c->mount().size()), std::to_string(c->bytesSent()),
               std::to_string(c->bytesReceived()), std::to_string(c->unsent()),
               std::to_string(c->secondsClogged()), std::to_string(c->refusals()),
               std::to_string(c->pastLimits()), c->silent() ? "yes" : "no"});
  table.print(to.out, to.width);
}

void services(Session& session, const Output& to) {
  DirEntries& processes = session.directory("daemon/service/process");
  DirEntries& statuses = session.directory("daemon/service/status");
  Table table({"name", "state", "serves", "pid", "restarts", "note"});
  json array = json::array();
  for (CollectionIterator it(processes); it; it.next()) {
    auto* process = it.get()->as<GenericAgent::Process>();
    if (!process) continue;
    const bool serves = statuses.find(process->key()) != nullptr;
    array.push_back(dumpOf(*process));
    array.back()["serves"] = serves;
    table.add({std::string(process->key().view()), process->state(), serves ? "yes" : "no",
               std::to_string(process->pid()), std::to_string(process->restarts()),
               process->note()});
  }
  if (to.json) return print(array, to);
  table.print(to.out, to.width);
}

}  // namespace ryx::operators
