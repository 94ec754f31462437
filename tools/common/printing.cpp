// Numbers, tables, and output that does not get lost silently.
#include "common/printing.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/failure.h"

namespace ravu::tools {

std::string printable(std::string_view text) {
  std::string result(text);
  const auto is_control = [](char c) { return (c >= 0 && c < ' ') || c == 0x7F; };
  std::replace_if(result.begin(), result.end(), is_control, '?');
  return result;
}

std::string fixed(double value, int digits) {
  // The greatest double has 309 digits before the point.
  char text[352];
  std::snprintf(text, sizeof text, "%.*f", std::min(digits, 20), value);
  return text;
}

std::string rounded(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g", value);
  return text;
}

std::string dims_text(const std::array<std::uint32_t, 4>& dims) {
  std::string text;
  for (const std::uint32_t dim : dims) text += (text.empty() ? "" : "x") + std::to_string(dim);
  return text;
}

Table::Table(std::vector<Column> columns) : columns_(std::move(columns)) {
  std::vector<std::string> titles;
  for (const Column& column : columns_) titles.push_back(column.title);
  rows_.push_back(std::move(titles));
}

void Table::add_row(std::vector<std::string> cells) {
  rows_.push_back(std::move(cells));
}

std::string Table::text() const {
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string result;
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - row[i].size(), ' ');
      if (i > 0) line += "  ";
      line += columns_[i].align == Align::kLeft ? row[i] + padding : padding + row[i];
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + '\n';
  }
  return result;
}

void print(std::string_view text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (written && std::fflush(stdout) == 0) return;
  throw Failure(std::string("cannot write the results: ") + std::strerror(errno));
}

}  // namespace ravu::tools
