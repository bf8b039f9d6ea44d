// The argument vector that a job's tool is started with.
#ifndef ORV_CONFIG_JOB_ARGV_H_
#define ORV_CONFIG_JOB_ARGV_H_

#include <span>
#include <vector>

#include "config/config.h"

namespace orv {

// Builds what the job's tool is started with: tool, subcommand, --name <profile>, --background when
// asked for and taken, --retention and --retention-class, then the job's own arguments; ended by a
// null pointer that is part of `out` (argument count = out.size() - 1). The pointers borrow
// from `job` and static storage: the vector must not outlive the job. False with a message.
[[nodiscard]] bool build_argv(const Job& job, bool background, std::vector<const char*>& out,
                              std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_JOB_ARGV_H_
