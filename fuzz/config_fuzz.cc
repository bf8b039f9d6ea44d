// The configuration loader over any bytes: it ends with a usable configuration or one message, and
// does the same again; every job that it lets through has an argument vector.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Message = std::array<char, orv::kConfigMessageSize>;

void require(bool holds) {
  if (!holds) std::abort();
}

void check_jobs(const orv::Config& config) {
  require(config.jobs.size() <= orv::kMaxJobs);
  for (const orv::Job& job : config.jobs) {
    require(job.name.view().find('/') == std::string_view::npos);
    require(orv::find_job(config, job.name.view()) == &job);
    for (const orv::JobName& name : job.after) {
      require(orv::find_job(config, name.view()) != nullptr);
    }
    std::vector<const char*> argv;
    require(orv::build_argv(job, true, argv, {}) == 0);
    require(argv.size() > job.args.size() + 1 && argv.back() == nullptr);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto config = std::make_unique<orv::Config>();
  Message message{};
  const int rc = orv::config_parse(text, "fuzz.cfg", *config, message);
  require((rc == 0) == (message.front() == '\0'));
  if (rc == 0) check_jobs(*config);

  orv::config_release(*config);
  Message again{};
  require(orv::config_parse(text, "fuzz.cfg", *config, again) == rc);
  require(message == again);
  return 0;
}
