// The configuration loader over any bytes: it ends with a usable configuration or one message, and
// does the same again; every job that it lets through has an argument vector.
#include <array>
#include <memory>
#include <string_view>
#include <vector>

#include "config/config.h"
#include "config/job_argv.h"
#include "fuzz/targets.h"

namespace orv::fuzz {
namespace {

using Message = std::array<char, kConfigMessageSize>;

void check_jobs(const Config& config) {
  require(config.jobs.size() <= kMaxJobs);
  for (const Job& job : config.jobs) {
    require(job.name.view().find('/') == std::string_view::npos);
    require(find_job(config, job.name.view()) == &job);
    for (const JobName& name : job.after) {
      require(find_job(config, name.view()) != nullptr);
    }
    std::vector<const char*> argv;
    require(build_argv(job, true, argv, {}));
    require(argv.size() > job.args.size() + 1 && argv.back() == nullptr);
  }
}

}  // namespace

void config(std::string_view text) {
  const auto config = std::make_unique<Config>();
  Message message{};
  const int rc = config_parse(text, "fuzz.cfg", *config, message);
  require((rc == 0) == (message.front() == '\0'));
  if (rc == 0) check_jobs(*config);

  config_release(*config);
  Message again{};
  require(config_parse(text, "fuzz.cfg", *config, again) == rc);
  require(message == again);
}

}  // namespace orv::fuzz
