// Dependencies between jobs: the 'after' lists must not form a circle.
#ifndef ORV_CONFIG_DEPENDENCIES_H_
#define ORV_CONFIG_DEPENDENCIES_H_

#include <span>

#include "config/config.h"

namespace orv {

// 0 when no job depends on itself, directly or through others; else -1 and the message
// "cycle in 'after': a -> b -> a" for the first circle that a search in file order meets, the path
// cut at 1023 bytes. Names without a job are skipped.
[[nodiscard]] int check_cycles(const Config& config, std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_DEPENDENCIES_H_
