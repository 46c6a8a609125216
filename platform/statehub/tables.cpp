#include "platform/statehub/tables.h"

#include <utility>

#include "platform/mirra/memory.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

TraceFacility& trace() {
  static TraceFacility& facility = TraceFacility::named("RyxMirra");
  return facility;
}

// What a hub says of a table.
enum class TableState : uint8_t {
  notYet = 0,     // nobody has offered one yet
  here = 1,       // its descriptor comes with this
  elsewhere = 2,  // there is one, and this connection carries no descriptors
  gone = 3,
};

void encodeOp(Encoder& out, Op op, uint64_t number) {
  out.u8(static_cast<uint8_t>(op));
  out.varint(number);
}

}  // namespace

// --- TableServer --------------------------------------------------------------------------------

struct TableServer::Attachment final : mirra::Listener {
  Attachment(TableServer& s, std::string n) : server(s), name(std::move(n)) {
    server.tables_.attach(name, *this);
  }
  ~Attachment() override { server.tables_.detach(name, *this); }
  void tableChanged() override {
    isDue = true;
    server.owe();
  }
  void tableRang() override {
    rings = true;
    server.owe();
  }

  TableServer& server;
  const std::string name;
  bool isDue = true;
  bool rings = false;
  bool wasThere = false;
};

TableServer::TableServer(mirra::LocalExchange& tables, std::function<void()> wake)
    : tables_(tables), wake_(std::move(wake)) {}
TableServer::~TableServer() = default;

std::string TableServer::take(Op op, Decoder& d, const TakeFile& file) {
  const uint64_t number = d.varint();
  switch (op) {
    case Op::offer: {
      const std::string name(d.text());
      const std::string typeName(d.text());
      const uint64_t incarnation = d.varint();
      if (d.failed() || name.size() > kMaxPath || typeName.size() > kMaxPath)
        return "a malformed offer of a table";
      if (!rights_.offers) return "an offer of a table by who is no service";
      if (offers_.size() >= kMaxTables) return "too many tables";
      const File memory = file();
      if (const std::string fault = mirra::Memory::faultOf(memory); !fault.empty())
        return "an offer of a table: " + fault;
      offers_[number] = {name, incarnation};
      tables_.offer(name, {typeName, incarnation, memory, rights_.name});
      return "";
    }
    case Op::withdraw: {
      const auto at = offers_.find(number);
      if (at == offers_.end()) return "a table that was not offered";
      tables_.withdraw(at->second.name, at->second.incarnation);
      offers_.erase(at);
      return "";
    }
    case Op::ring: {
      const auto at = offers_.find(number);
      if (at == offers_.end()) return "a table that was not offered";
      tables_.ring(at->second.name, at->second.incarnation);
      return "";
    }
    case Op::attach: {
      const std::string name(d.text());
      if (d.failed() || name.size() > kMaxPath) return "a malformed mount of a table";
      if (attachments_.size() >= kMaxTables) return "too many tables";
      attachments_[number] = std::make_unique<Attachment>(*this, name);
      owe();
      return "";
    }
    case Op::detach:
      attachments_.erase(number);
      return "";
    case Op::settle:
      if (rights_.offers) settle();
      return "";
    default:
      return "an unknown operation";
  }
}

void TableServer::settle() {
  std::map<std::string, uint64_t> left;
  for (auto& [name, table] : tables_.all())
    if (table.writer == rights_.name) left[name] = table.incarnation;
  for (auto& [number, offer] : offers_)
    if (auto at = left.find(offer.name); at != left.end() && at->second == offer.incarnation)
      left.erase(at);
  for (auto& [name, incarnation] : left) tables_.withdraw(name, incarnation);
}

void TableServer::encode(Encoder& out, std::vector<File>* files) {
  if (!std::exchange(owes_, false)) return;
  for (auto& [number, a] : attachments_) {
    if (out.size() >= kFrameOfHub || files->size() >= kMaxFilesOfFrame) return owe();
    if (std::exchange(a->isDue, false)) {
      const mirra::Offered* table = tables_.offered(a->name);
      const bool isKnownToBeGone = a->wasThere || rights_.knowsAll;
      const TableState state =
          table ? (table->file && rights_.takesFiles ? TableState::here : TableState::elsewhere)
          : isKnownToBeGone ? TableState::gone
                            : TableState::notYet;
      encodeOp(out, Op::table, number);
      out.u8(static_cast<uint8_t>(state));
      out.varint(table ? table->incarnation : 0);
      out.text(table ? table->typeName : "");
      if (state == TableState::here) files->push_back(table->file);
      a->wasThere = table != nullptr;
      a->rings = false;
    }
    if (std::exchange(a->rings, false)) encodeOp(out, Op::rang, number);
  }
}

// --- TableClient --------------------------------------------------------------------------------

void TableClient::offer(const std::string& name, const mirra::Offered& table) {
  if (const auto at = offers_.find(name); at != offers_.end()) {
    if (at->second.table.incarnation == table.incarnation) return;
    if (at->second.isTold) ended_.emplace_back(Op::withdraw, at->second.number);
  }
  offers_.insert_or_assign(name, Offer{++numbers_, table});
  owe();
}

void TableClient::withdraw(const std::string& name, uint64_t incarnation) {
  const auto at = offers_.find(name);
  if (at == offers_.end() || at->second.table.incarnation != incarnation) return;
  if (at->second.isTold) ended_.emplace_back(Op::withdraw, at->second.number);
  offers_.erase(at);
  owe();
}

void TableClient::ring(const std::string& name, uint64_t incarnation) {
  const auto at = offers_.find(name);
  if (at == offers_.end() || at->second.table.incarnation != incarnation) return;
  at->second.rings = true;
  owe();
}

void TableClient::settle() {
  settles_ = true;
  owe();
}

void TableClient::attach(const std::string& name, mirra::Listener& listener) {
  known_.attach(name, listener);
  if (!attachments_.try_emplace(name, Attachment{numbers_ + 1}).second) return;
  names_[++numbers_] = name;
  owe();
}

void TableClient::detach(const std::string& name, mirra::Listener& listener) {
  known_.detach(name, listener);
  const auto at = attachments_.find(name);
  if (known_.readers(name) != 0 || at == attachments_.end()) return;
  if (at->second.isTold) ended_.emplace_back(Op::detach, at->second.number);
  names_.erase(at->second.number);
  attachments_.erase(at);
  if (const mirra::Offered* table = known_.offered(name)) known_.withdraw(name, table->incarnation);
  owe();
}

void TableClient::restart() {
  isGreeted_ = false;
  ended_.clear();
  for (auto& [name, offer] : offers_) offer.isTold = false;
  for (auto& [name, attachment] : attachments_) attachment.isTold = false;
  owes_ = true;
  wake_();
}

void TableClient::greeted() {
  isGreeted_ = true;
  owes_ = true;
  wake_();
}

std::string TableClient::take(Op op, Decoder& d, const TakeFile& file) {
  const uint64_t number = d.varint();
  const auto at = names_.find(number);  // of one that is detached by now nothing is to be known
  if (op == Op::rang) {
    if (at == names_.end()) return "";
    if (const mirra::Offered* table = known_.offered(at->second))
      known_.ring(at->second, table->incarnation);
    return "";
  }
  const auto state = static_cast<TableState>(d.u8());
  const uint64_t incarnation = d.varint();
  const std::string typeName(d.text());
  if (d.failed() || state > TableState::gone) return "a malformed table";
  const File memory = state == TableState::here ? file() : File();
  if (state == TableState::here && !memory) return "a table without its descriptor";
  if (at == names_.end()) return "";
  const mirra::Offered* before = known_.offered(at->second);
  const bool isNew = !before || before->incarnation != incarnation;
  switch (state) {
    case TableState::notYet:  // until then what an earlier hub had is what there is
      break;
    case TableState::gone:
      if (before) known_.withdraw(at->second, before->incarnation);
      break;
    case TableState::here:
    case TableState::elsewhere:
      if (isNew)
        known_.offer(at->second, {typeName, incarnation, memory});
      else
        known_.ring(at->second, incarnation);  // its notices may have been lost
      break;
  }
  RYX_TRACE(
      trace(), 1,
      "the table " << at->second << ": state " << static_cast<int>(state) << ", " << incarnation);
  return "";
}

void TableClient::encode(Encoder& out, std::vector<File>* files) {
  if (!std::exchange(owes_, false)) return;
  for (auto& [name, attachment] : attachments_) {
    if (out.size() >= kFrameOfParticipant) return owe();
    if (std::exchange(attachment.isTold, true)) continue;
    encodeOp(out, Op::attach, attachment.number);
    out.text(name);
  }
  if (!isGreeted_) return;
  // A new table comes before its forerunner goes: nobody is without one in between.
  for (auto& [name, offer] : offers_) {
    if (out.size() >= kFrameOfParticipant || files->size() >= kMaxFilesOfFrame) return owe();
    if (!std::exchange(offer.isTold, true)) {
      encodeOp(out, Op::offer, offer.number);
      out.text(name);
      out.text(offer.table.typeName);
      out.varint(offer.table.incarnation);
      files->push_back(offer.table.file);
      offer.rings = true;
    }
    if (std::exchange(offer.rings, false)) encodeOp(out, Op::ring, offer.number);
  }
  for (const auto& [op, number] : std::exchange(ended_, {})) encodeOp(out, op, number);
  if (std::exchange(settles_, false)) encodeOp(out, Op::settle, 0);
}

}  // namespace ryx::platform
