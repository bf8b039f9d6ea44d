// A queue file of any content: it loads or is refused, its records can be asked about and brought
// in line with a configuration, and what is then saved reads back.
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "common/files.h"
#include "common/scoped_fd.h"
#include "config/config.h"
#include "fuzz/targets.h"
#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace orv::fuzz {
namespace {

constexpr std::int64_t kNow = 1800000000;
constexpr std::string_view kConfig =
    "[a]\nschedule=0 1 * * *\n[b]\nafter=a\n[c]\nonce=1900000000\n[d]\nenabled=no\n";

std::unique_ptr<Config> make_config() {
  auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> message{};
  require(config_parse(kConfig, "fuzz.cfg", *config, message) == 0);
  return config;
}

}  // namespace

void queue(std::string_view input) {
  static const std::unique_ptr<const Config> config = make_config();
  const ScopedFd file(::memfd_create("queue", MFD_CLOEXEC));
  require(file.valid() && write_all(file.get(), input) == ErrorCode::Ok);
  const std::string path = "/proc/self/fd/" + std::to_string(file.get());
  QueueState state;
  if (queue_load_readonly(state, path.c_str()) != ErrorCode::Ok) return;
  require(state.records().size() == input.size() / kRecordSize);
  for (const QueueRecord& record : state.records()) {
    const QueueRecord* const found = queue_find(state, record_name(record));
    require(found != nullptr && record_name(*found) == record_name(record));
    require(state_name(record_state(record)) != nullptr);
  }
  queue_view_with_config(state, *config, kNow);
  for (const Job& job : config->jobs) {
    std::int64_t stamp = 0;
    require(queue_find(state, job.name.view()) != nullptr);
    if (queue_job_due(state, job, kNow, stamp)) require(job.enabled);
  }
}

}  // namespace orv::fuzz
