#include <array>
#include <cstdio>
#include <memory>
#include <vector>

#include "cli/commands.h"
#include "cli/console.h"
#include "config/config.h"
#include "config/job_argv.h"

namespace orv {

int command_validate(const CommandContext& context) {
  const std::unique_ptr<Config> config = load_config(context);
  if (config == nullptr) return kExitFailed;
  std::array<char, kConfigMessageSize> err{};
  std::vector<const char*> argv;
  // A dry run of what every start of a job does first.
  for (const Job& job : config->jobs) {
    if (!build_argv(job, false, argv, err)) {
      return complain("[%s]: %s", job.name.c_str(), err.data());
    }
  }
  std::printf("OK: %zu job(s)\n", config->jobs.size());
  return kExitOk;
}

}  // namespace orv
