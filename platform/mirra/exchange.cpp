#include "platform/mirra/exchange.h"

namespace ryx::platform::mirra {

template <class F>
void LocalExchange::tell(const std::string& name, F&& call) {
  if (auto at = listeners_.find(name); at != listeners_.end())
    for (Listener* listener : at->second) call(*listener);
}

void LocalExchange::offer(const std::string& name, const Offered& table) {
  offered_.insert_or_assign(name, table);
  tell(name, [](Listener& l) { l.tableChanged(); });
  changed();
}

void LocalExchange::withdraw(const std::string& name, uint64_t incarnation) {
  auto at = offered_.find(name);
  if (at == offered_.end() || at->second.incarnation != incarnation) return;
  offered_.erase(at);
  tell(name, [](Listener& l) { l.tableChanged(); });
  changed();
}

void LocalExchange::ring(const std::string& name, uint64_t incarnation) {
  auto at = offered_.find(name);
  if (at != offered_.end() && at->second.incarnation == incarnation)
    tell(name, [](Listener& l) { l.tableRang(); });
}

void LocalExchange::attach(const std::string& name, Listener& listener) {
  listeners_[name].insert(&listener);
  changed();
}

void LocalExchange::detach(const std::string& name, Listener& listener) {
  auto at = listeners_.find(name);
  if (at == listeners_.end()) return;
  at->second.erase(&listener);
  if (at->second.empty()) listeners_.erase(at);
  changed();
}

const Offered* LocalExchange::offered(const std::string& name) const {
  auto at = offered_.find(name);
  return at == offered_.end() ? nullptr : &at->second;
}

size_t LocalExchange::readers(const std::string& name) const {
  auto at = listeners_.find(name);
  return at == listeners_.end() ? 0 : at->second.size();
}

}  // namespace ryx::platform::mirra
