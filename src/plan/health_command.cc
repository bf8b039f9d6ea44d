#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "common/replacement_file.h"
#include "plan/commands.h"
#include "plan/describe.h"
#include "plan/health_report.h"

namespace orv {
namespace {

constexpr int kPluginUnknown = 3;

// The file is read by another user's program, which ignores the temporary name for its ending.
int write_metrics(const std::string& text, const std::string& path) {
  const mode_t umask_before = ::umask(0);  // the mode is 0644 whatever the caller's umask
  const ErrorCode rc = replace_file(path, path + ".tmp." + std::to_string(::getpid()), text, 0644,
                                    DirectoryFlush::No);
  const int error = errno;
  (void)::umask(umask_before);
  if (rc == ErrorCode::Ok) return kExitOk;
  std::fprintf(stderr, "error: cannot write %s: %s\n", path.c_str(), ::strerror(error));
  return kExitFailed;
}

int unknown_job(const HealthOptions& options) {
  const std::string name = printable(options.job);
  if (options.format != HealthFormat::Nagios) {
    std::fprintf(stderr, "error: unknown job '%s'\n", name.c_str());
    return kExitFailed;
  }
  print("ORV_SCHED UNKNOWN - unknown job '" + name + "'\n");
  return kPluginUnknown;
}

}  // namespace

int health_command(const Plan& plan, const HealthOptions& options) {
  const Job* only = nullptr;
  // A refused file names no jobs: then the scheduler's line is the answer.
  if (options.job != nullptr && plan.config_message.empty()) {
    only = find_job(plan.config, options.job);
    if (only == nullptr) return unknown_job(options);
  }
  const HealthReport report = make_health_report(
      plan, find_daemon(plan.config_path, plan.queue_path), options.max_age, only);
  int status = health_wrong(report) ? kExitFailed : kExitOk;
  switch (options.format) {
    case HealthFormat::Text: print(health_text(report, plan.color)); break;
    case HealthFormat::Json: print(health_json(report)); break;
    case HealthFormat::Nagios: print(health_nagios(report, status)); break;
    case HealthFormat::Prometheus:
      if (options.output != nullptr) {
        return write_metrics(health_prometheus(report), options.output);
      }
      print(health_prometheus(report));
      return kExitOk;
  }
  return status;
}

}  // namespace orv
