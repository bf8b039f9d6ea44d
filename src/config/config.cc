#include "config/config.h"

#include <memory>

namespace orv {

ApiSection::ApiSection() {
  listen.host.set_truncated("0.0.0.0");
  listen.port = 8447;
  cert.set_truncated("/etc/orv/orv_sched_api.crt");
  key.set_truncated("/etc/orv/orv_sched_api.key");
  tokens_file.set_truncated("/etc/orv/orv_sched_api_tokens");
}

void config_release(Config& config) {
  std::destroy_at(&config);  // its secret wipes itself
  std::construct_at(&config);
}

const Job* find_job(const Config& config, std::string_view name) {
  for (const Job& job : config.jobs) {
    if (job.name == name) return &job;
  }
  return nullptr;
}

}  // namespace orv
