// The two switches that every tool of the suite answers before anything else.
#ifndef ORV_COMMON_SELFTEST_H_
#define ORV_COMMON_SELFTEST_H_

#include <span>

#include "common/options.h"

namespace orv {

// Checks SHA-256, CRC-32C and the compressors against known answers. 0; -1 with the first failure.
[[nodiscard]] int selftest(std::span<char> err);

// Answers --version (which wins) or --selftest on standard output. -1 when neither is there and the
// caller goes on; else the exit status.
[[nodiscard]] int version_and_selftest(const ArgList& args, const char* program);

}  // namespace orv

#endif  // ORV_COMMON_SELFTEST_H_
