// The lines that differ between two versions of the configuration file, as the change mail shows
// them.
#ifndef ORV_API_LINE_DIFF_H_
#define ORV_API_LINE_DIFF_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace orv {

inline constexpr std::size_t kMaxDiffLines = 1999;  // of either text
inline constexpr std::size_t kMaxDiffSize = 40960;  // bytes

// "+<number in the new text>: <line>\n" for an added line and "-    <line>\n" for a removed one, in
// the order of the texts, by a longest common subsequence of lines; cut at kMaxDiffSize. Line ends
// do not count. A line that sets smtp-password, also one in a comment, shows no value. Texts of
// more than kMaxDiffLines lines, or a lack of memory, give a remark in brackets in place of the
// lines.
[[nodiscard]] std::string line_diff(std::string_view old_text, std::string_view new_text);

}  // namespace orv

#endif  // ORV_API_LINE_DIFF_H_
