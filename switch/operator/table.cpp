#include "switch/operator/table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

namespace ryx::operators {
namespace {

constexpr size_t kNarrowest = 8;  // what a column is never cut below
constexpr const char* kCut = "\u2026";

bool startsCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
}

std::string cut(const std::string& text, size_t width) {
  if (columnsOf(text) <= width) return text;
  std::string shorter;
  size_t columns = 0;
  for (const char c : text) {
    if (startsCharacter(c) && ++columns == width) break;
    shorter += c;
  }
  return shorter + kCut;
}

}  // namespace

size_t columnsOf(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), startsCharacter));
}

size_t terminalWidth() {
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void Columns::measure(const std::vector<std::string>& row) {
  widths_.resize(std::max(widths_.size(), row.size()));
  for (size_t i = 0; i < row.size(); ++i) widths_[i] = std::max(widths_[i], columnsOf(row[i]));
}

void Columns::fit(size_t width) {
  const auto total = [&] {
    return std::accumulate(widths_.begin(), widths_.end(), 2 * (widths_.size() - 1));
  };
  while (width != 0 && total() > width) {
    auto longest = std::max_element(widths_.begin(), widths_.end());
    if (*longest <= kNarrowest) break;
    --*longest;
  }
}

void Columns::print(std::ostream& out, const std::vector<std::string>& row) const {
  std::string line;
  for (size_t i = 0; i < row.size(); ++i) {
    const std::string text = cut(row[i], widths_[i]);
    line += text;
    if (i + 1 < row.size()) line.append(widths_[i] + 2 - columnsOf(text), ' ');
  }
  out << line.substr(0, line.find_last_not_of(' ') + 1) << "\n";
}

void Table::print(std::ostream& out, size_t width) const {
  Columns columns;
  for (const auto& row : rows_) columns.measure(row);
  columns.fit(width);
  for (const auto& row : rows_) columns.print(out, row);
}

}  // namespace ryx::operators
