// Dependencies between jobs: the check that their 'after' lists form no circle.
#ifndef ORV_CONFIG_DEPENDENCIES_H_
#define ORV_CONFIG_DEPENDENCIES_H_

#include <cstddef>
#include <span>

#include "config/config.h"

namespace orv {

inline constexpr std::size_t kMaxCycleText = 1023;  // bytes

// True when no job depends on itself, directly or through others; else false and the message
// "cycle in 'after': a -> b -> a" for the first circle that a search in file order meets, the path
// cut at kMaxCycleText bytes. Names without a job are skipped.
[[nodiscard]] bool check_cycles(const Config& config, std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_DEPENDENCIES_H_
