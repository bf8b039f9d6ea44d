#include "config/job_argv.h"

#include <new>
#include <string>

#include "common/message.h"
#include "config/job_command.h"

namespace orv {

bool build_argv(const Job& job, bool background, std::vector<const char*>& out,
                std::span<char> err) {
  const JobCommandRow* row = find_command_row(job.command);
  if (row == nullptr) {
    return refuse(err, "internal error: unknown command enum %d", static_cast<int>(job.command));
  }
  // The job's own arguments come last: they may end the options with "--".
  try {
    std::vector<const char*> argv;
    argv.reserve(job.args.size() + 10);  // what can stand before the job's own, and the null
    argv.push_back(row->tool);
    if (row->subcommand != nullptr) argv.push_back(row->subcommand);
    if (!job.profile.empty()) argv.insert(argv.end(), {"--name", job.profile.c_str()});
    if (background && row->takes_background) argv.push_back("--background");
    if (!job.retention.empty() && row->takes_retention) {
      argv.insert(argv.end(), {"--retention", job.retention.c_str()});
      if (!job.retention_class.empty()) {
        argv.insert(argv.end(), {"--retention-class", job.retention_class.c_str()});
      }
    }
    for (const std::string& arg : job.args) argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    out.swap(argv);
    return true;
  } catch (const std::bad_alloc&) {
    return refuse(err, "out of memory");
  }
}

}  // namespace orv
