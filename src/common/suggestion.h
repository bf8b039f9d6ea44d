// Help for misspelt words of a command line.
#ifndef ORV_COMMON_SUGGESTION_H_
#define ORV_COMMON_SUGGESTION_H_

#include <span>
#include <string>
#include <string_view>

namespace orv {

// The word of `known` that `word` most likely means: one that it begins, or the one that fewest
// changes of a letter, or swaps of two neighbours, turn it into, as long as it takes no more than
// one for every three letters. Empty when none is near. Of equally near ones the first counts.
// Borrowed from `known`.
[[nodiscard]] std::string_view nearest_word(std::string_view word,
                                            std::span<const std::string_view> known);

// The end of a message about a word that is not known: " (did you mean 'list'?)", or empty when
// none is near.
[[nodiscard]] std::string did_you_mean(std::string_view word,
                                       std::span<const std::string_view> known);

}  // namespace orv

#endif  // ORV_COMMON_SUGGESTION_H_
