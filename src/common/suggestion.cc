#include "common/suggestion.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

namespace orv {
namespace {

constexpr std::size_t kLongestWord = 64;  // bytes; nothing that is known is longer

// Optimal string alignment: insertions, deletions, substitutions and swaps of neighbours cost one
// each. Three rows of the table are enough, because a swap reaches back by two.
std::size_t changes_between(std::string_view from, std::string_view to) {
  std::vector<std::size_t> two_up(to.size() + 1);
  std::vector<std::size_t> one_up(to.size() + 1);
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= from.size(); ++i) {
    std::swap(two_up, one_up);
    std::swap(one_up, row);
    row[0] = i;
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t substituted = one_up[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      row[j] = std::min({substituted, one_up[j] + 1, row[j - 1] + 1});
      const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (swapped) row[j] = std::min(row[j], two_up[j - 2] + 1);
    }
  }
  return row[to.size()];
}

}  // namespace

std::string_view nearest_word(std::string_view word, std::span<const std::string_view> known) {
  if (word.size() > kLongestWord) return {};
  std::size_t fewest = std::max<std::size_t>(word.size() / 3, 1) + 1;
  std::string_view nearest;
  for (const std::string_view candidate : known) {
    // A word that was not written out is as near as one with a slip.
    const bool shortened = word.size() > 1 && candidate.starts_with(word);
    const std::size_t changes = shortened ? 1 : changes_between(word, candidate);
    // A word of one or two letters would be near to every other one.
    if (changes >= fewest || changes >= candidate.size()) continue;
    fewest = changes;
    nearest = candidate;
  }
  return nearest;
}

std::string did_you_mean(std::string_view word, std::span<const std::string_view> known) {
  const std::string_view nearest = nearest_word(word, known);
  if (nearest.empty()) return {};
  return std::string(" (did you mean '").append(nearest).append("'?)");
}

}  // namespace orv
