// UTF-8: which bytes form a valid sequence.
#ifndef ORV_COMMON_UTF8_H_
#define ORV_COMMON_UTF8_H_

#include <cstddef>
#include <string_view>

namespace orv {

// Length of the valid sequence of two to four bytes at the front of `text`, which is not empty; 0
// when there is none.
[[nodiscard]] std::size_t utf8_sequence(std::string_view text);

// Whether the whole of `text`, which is not empty, begins a valid sequence without completing it.
[[nodiscard]] bool utf8_begins(std::string_view text);

}  // namespace orv

#endif  // ORV_COMMON_UTF8_H_
