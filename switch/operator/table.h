// A table of texts for people: columns as wide as they need to be, cut to fit the terminal.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace ryx::operators {

// The same for rows that are gone through twice and not kept: all are measured, then printed.
class Columns {
 public:
  void measure(const std::vector<std::string>& row);
  // Cuts the longest columns until lines of `width` hold them; 0: nothing is cut.
  void fit(size_t width);
  void print(std::ostream& out, const std::vector<std::string>& row) const;

 private:
  std::vector<size_t> widths_;
};

class Table {
 public:
  explicit Table(std::vector<std::string> titles) : rows_{std::move(titles)} {}
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  size_t size() const { return rows_.size() - 1; }
  // Lines longer than `width` are cut at their longest columns; 0: as long as they are.
  void print(std::ostream& out, size_t width) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// Characters of a text in UTF-8, taken to be one column wide each.
size_t columnsOf(const std::string& text);
// The columns of the terminal that standard output is, 0 when it is none.
size_t terminalWidth();

}  // namespace ryx::operators
