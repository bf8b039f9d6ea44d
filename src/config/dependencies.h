// Dependencies between jobs: the 'after' lists and the check that they form no circle.
#ifndef ORV_CONFIG_DEPENDENCIES_H_
#define ORV_CONFIG_DEPENDENCIES_H_

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "config/config.h"

namespace orv {

inline constexpr std::size_t kMaxCycleText = 1023;  // bytes

// Reads an 'after' value: job names between commas, blanks around them left out. 0; -1 with a
// message when a name is empty or too long, or there are none, or more than kMaxAfter.
[[nodiscard]] int parse_after(std::string_view text, std::vector<JobName>& out,
                              std::span<char> err);

// 0 when no job depends on itself, directly or through others; else -1 and the message
// "cycle in 'after': a -> b -> a" for the first circle that a search in file order meets, the path
// cut at kMaxCycleText bytes. Names without a job are skipped.
[[nodiscard]] int check_cycles(const Config& config, std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_DEPENDENCIES_H_
