#include "plan/table.h"

#include <algorithm>

#include "common/utf8.h"

namespace orv {

// The sequences of the scheduler's own list of jobs: one colour means one thing in both programs.
const char* tone_sequence(Tone tone) {
  switch (tone) {
    case Tone::Plain: return "";
    case Tone::Good: return "\033[32;107m";
    case Tone::Bad: return "\033[97;41m";
    case Tone::Active: return "\033[97;42m";
    case Tone::Waiting: return "\033[30;107m";
  }
  return "";
}

std::string toned(const std::string& text, Tone tone, bool color) {
  if (!color || tone == Tone::Plain) return text;
  return tone_sequence(tone) + text + "\033[0m";
}

void Table::add(std::vector<std::string> cells, Tone tone) {
  rows_.push_back({std::move(cells), tone});
}

std::string Table::text(bool color) const {
  // As wide as the widest cell; very wide cells do not push all others to the right.
  std::vector<std::size_t> widths = widths_;
  for (const Row& row : rows_) {
    widths.resize(std::max(widths.size(), row.cells.size()));
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      widths[i] = std::clamp(utf8_length(row.cells[i]), widths[i], std::max(widths[i], kWidest));
    }
  }
  std::string out;
  for (const Row& row : rows_) {
    // The last cell ends the line: padding would only make it wrap.
    std::string line;
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      line += row.cells[i];
      if (i + 1 == row.cells.size()) break;
      const std::size_t width = utf8_length(row.cells[i]);
      line.append((widths[i] > width ? widths[i] - width : 0) + gap_, ' ');
    }
    // Empty cells at the end leave no blanks that a colour would show.
    line.erase(line.find_last_not_of(' ') + 1);
    out += toned(line, row.tone, color) + "\n";
  }
  return out;
}

}  // namespace orv
