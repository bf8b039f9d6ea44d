// orv_sched: the daemon and the operator's commands.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <new>
#include <string>

#include "cli/commands.h"
#include "cli/console.h"
#include "cli/scanner.h"
#include "cli/usage.h"
#include "common/log.h"
#include "common/options.h"
#include "common/selftest.h"
#include "common/version.h"
#include "config/config.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

// A warning goes to whoever looks at the terminal and to the record of the program's runs.
void warn(const std::string& warning) {
  log_msg(LogLevel::Warn, "%s", warning.c_str());
  runlog_msg(kRunlogBasic, "%s", warning.c_str());
}

// Whoever starts the program without standard streams must not see its messages end up in the first
// files that it opens, the queue among them.
void occupy_standard_streams() {
  int fd = 0;
  do {
    fd = ::open("/dev/null", O_RDWR);  // takes the lowest free number
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) (void)::close(fd);
}

// A result that could not be written is none. A reader that has seen enough need not be told.
int deliver_results(int status) {
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  if (status != kExitOk) return status;
  return errno == EPIPE ? kExitFailed : complain("cannot write to standard output");
}

int run_program(const ArgList& args) {
  if (const int status = version_and_selftest(args, kProgramName); status >= 0) return status;
  log_init(kProgramName, LogLevel::Info);
  runlog_init(args, kProgramName);
  if (args.size() < 2) {
    print_usage();
    return kExitUsage;
  }
  if (option_present(args, "--help", "-h")) {
    print_usage();
    return kExitOk;
  }
  const CommandRow* const command = find_command(args[1]);
  if (command == nullptr) {
    print_usage();
    return kExitUsage;
  }
  scan_command_line(args, *command, warn);
  const CommandContext context{option_value(args, "--config", kDefaultConfigPath),
                               option_value(args, "--queue", kDefaultQueuePath), args};
  try {
    return command->run(context);
  } catch (const std::bad_alloc&) {
    return complain("out of memory");
  }
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  orv::occupy_standard_streams();
  // Whoever reads our messages may go away, and a file may reach its size limit. Writing
  // then fails, but a running job is brought to its end.
  (void)::signal(SIGPIPE, SIG_IGN);
  (void)::signal(SIGXFSZ, SIG_IGN);
  return orv::deliver_results(orv::run_program(orv::ArgList(argv, static_cast<std::size_t>(argc))));
}
