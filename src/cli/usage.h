// The usage text.
#ifndef ORV_CLI_USAGE_H_
#define ORV_CLI_USAGE_H_

namespace orv {

// Prints it, always the same, on standard output.
void print_usage();

}  // namespace orv

#endif  // ORV_CLI_USAGE_H_
