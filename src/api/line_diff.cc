#include "api/line_diff.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <unordered_map>
#include <vector>

#include "common/text.h"

namespace orv {
namespace {

using Lines = std::vector<std::string_view>;

Lines split_lines(std::string_view text) {
  Lines lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.push_back(line);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// Equal lines as equal numbers, so that the comparisons below cost the same for lines of any
// length.
class LineNumbers {
 public:
  std::vector<std::uint32_t> of(const Lines& lines) {
    std::vector<std::uint32_t> numbers;
    numbers.reserve(lines.size());
    for (const std::string_view line : lines) {
      const auto next = static_cast<std::uint32_t>(known_.size());
      numbers.push_back(known_.emplace(line, next).first->second);
    }
    return numbers;
  }

 private:
  std::unordered_map<std::string_view, std::uint32_t> known_;
};

// Lengths of the longest common subsequences of all pairs of tails of two number rows.
class TailTable {
 public:
  TailTable(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b)
      : width_(b.size() + 1), lengths_((a.size() + 1) * width_) {
    for (std::size_t i = a.size(); i-- > 0;) {
      std::uint16_t* const row = &lengths_[i * width_];
      const std::uint16_t* const below = row + width_;
      for (std::size_t j = b.size(); j-- > 0;) {
        row[j] = a[i] == b[j] ? static_cast<std::uint16_t>(below[j + 1] + 1)
                              : std::max(below[j], row[j + 1]);
      }
    }
  }
  [[nodiscard]] std::uint16_t at(std::size_t i, std::size_t j) const {
    return lengths_[i * width_ + j];
  }

 private:
  std::size_t width_;
  std::vector<std::uint16_t> lengths_;  // at most kMaxDiffLines fits
};
static_assert(kMaxDiffLines <= UINT16_MAX);

// Also the line of a password that was commented out: it may be in use again tomorrow.
std::string masked(std::string_view line) {
  constexpr std::string_view kPasswordKey = "smtp-password";
  const std::size_t key_start = std::min(line.find_first_not_of("#; \t\v\f\r"), line.size());
  const std::string_view setting = line.substr(key_start);
  const std::size_t equals = setting.find('=');
  if (equals == std::string_view::npos) return std::string(line);
  if (trim_right(setting.substr(0, equals)) != kPasswordKey) return std::string(line);
  std::string shown(trim(line.substr(0, key_start)));  // the sign of a comment
  return shown.append(kPasswordKey).append("=***");
}

std::string differences(const Lines& old_lines, const Lines& new_lines) {
  LineNumbers numbers;
  std::vector<std::uint32_t> a = numbers.of(old_lines);
  std::vector<std::uint32_t> b = numbers.of(new_lines);
  // What both begin and end with needs no table, and in nearly every change that is nearly all.
  const auto front = static_cast<std::size_t>(
      std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
  a.erase(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(front));
  b.erase(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(front));
  while (!a.empty() && !b.empty() && a.back() == b.back()) {
    a.pop_back();
    b.pop_back();
  }
  // At most 2,000 by 2,000 numbers of 16 bits: 8 MB, for the moment of a mail.
  const TailTable tails(a, b);
  std::string out;
  std::size_t i = 0;
  std::size_t j = 0;
  // Of equally long ways the one that removes first: old lines stand before what replaces them.
  while ((i < a.size() || j < b.size()) && out.size() < kMaxDiffSize) {
    if (i < a.size() && j < b.size() && a[i] == b[j]) {
      ++i;
      ++j;
    } else if (i < a.size() && (j == b.size() || tails.at(i + 1, j) >= tails.at(i, j + 1))) {
      out.append("-    ").append(masked(old_lines[front + i++])).append("\n");
    } else {
      out.append("+").append(std::to_string(front + j + 1)).append(": ");
      out.append(masked(new_lines[front + j++])).append("\n");
    }
  }
  if (out.size() > kMaxDiffSize) out.resize(kMaxDiffSize);
  return out;
}

}  // namespace

std::string line_diff(std::string_view old_text, std::string_view new_text) {
  try {
    const Lines old_lines = split_lines(old_text);
    const Lines new_lines = split_lines(new_text);
    if (std::max(old_lines.size(), new_lines.size()) > kMaxDiffLines) {
      return "(file too long for a line diff)";
    }
    return differences(old_lines, new_lines);
  } catch (const std::bad_alloc&) {
    return "(no memory for a diff)";
  }
}

}  // namespace orv
