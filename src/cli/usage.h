// The usage text.
#ifndef ORV_CLI_USAGE_H_
#define ORV_CLI_USAGE_H_

#include <string>

namespace orv {

// Prints it, always the same, on standard output.
void print_usage();

// The same, and on standard error one line about the word at fault. Returns kExitUsage.
[[nodiscard]] int usage_error(const std::string& reason);

}  // namespace orv

#endif  // ORV_CLI_USAGE_H_
