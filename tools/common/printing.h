// Text for standard output.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ravu::tools {

// The text with control characters (tabs and line ends among them) replaced by "?", so that it can
// never be taken for two fields or two lines.
std::string printable(std::string_view text);

// A number in fixed notation with this many digits behind the point.
std::string fixed(double value, int digits);

// A number in four significant digits, with an exponent where it is very large or very small.
std::string rounded(double value);

// "1x224x224x3"
std::string dims_text(const std::array<std::uint32_t, 4>& dims);

// Columns padded to their widest entry, two spaces between them, one line per row.
class Table {
 public:
  enum class Align { kLeft, kRight };
  struct Column {
    std::string title;
    Align align = Align::kLeft;
  };

  explicit Table(std::vector<Column> columns);
  void add_row(std::vector<std::string> cells);  // one cell per column
  std::string text() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;  // the titles first
};

// Writes the text to standard output. Throws Failure when it cannot be written.
void print(std::string_view text);

}  // namespace ravu::tools
