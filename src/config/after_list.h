// The names that a job's after= lists.
#ifndef ORV_CONFIG_AFTER_LIST_H_
#define ORV_CONFIG_AFTER_LIST_H_

#include <span>
#include <string_view>
#include <vector>

#include "config/config.h"

namespace orv {

// Reads an 'after' value: job names between commas, white space around them left out.
// False, with a message, when a name is empty or too long, or there are none, or more than
// kMaxAfter.
[[nodiscard]] bool parse_after(std::string_view text, std::vector<JobName>& out,
                               std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_AFTER_LIST_H_
