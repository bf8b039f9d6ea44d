// The names that a job's after= lists.
#ifndef ORV_CONFIG_AFTER_LIST_H_
#define ORV_CONFIG_AFTER_LIST_H_

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config/config.h"

namespace orv {

// Reads an 'after' value: job names between commas, white space around them left out.
// False, with a message, when a name is empty or too long, or there are none, or more than
// kMaxAfter.
[[nodiscard]] bool parse_after(std::string_view text, std::vector<JobName>& out,
                               std::span<char> err);

// The list as people read it: "a,b", with " (finished)" after it when that is the mode; empty when
// the job waits for nothing.
[[nodiscard]] std::string after_text(const Job& job);

}  // namespace orv

#endif  // ORV_CONFIG_AFTER_LIST_H_
