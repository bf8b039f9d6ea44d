// orv_sched: the daemon and the operator's commands.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "cli/commands.h"
#include "cli/console.h"
#include "cli/scanner.h"
#include "cli/usage.h"
#include "common/log.h"
#include "common/options.h"
#include "common/selftest.h"
#include "common/suggestion.h"
#include "common/version.h"
#include "config/config.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

// A warning goes to the terminal and to the record of the program's runs.
void warn(const std::string& warning) {
  log_msg(LogLevel::Warn, "%s", warning.c_str());
  runlog_msg(kRunlogBasic, "%s", warning.c_str());
}

// Started without standard streams, the program must not write its messages into the first files
// that it opens, the queue among them.
void occupy_standard_streams() {
  int fd = 0;
  do {
    fd = ::open("/dev/null", O_RDWR);  // takes the lowest free number
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) (void)::close(fd);
}

// What started the program may have left signals blocked. A daemon that no SIGTERM reaches could
// not be stopped, and a tool would inherit the same deafness.
void unblock_signals() {
  sigset_t none;
  (void)::sigemptyset(&none);  // neither call can fail
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Where there is no memory even for the exception that says so, nothing is thrown and the program
// ends here. Whatever else comes here is a fault of the program.
[[noreturn]] void end_without_memory() {
  if (std::current_exception() != nullptr) std::abort();
  constexpr std::string_view kMessage = "error: out of memory\n";
  (void)!::write(STDERR_FILENO, kMessage.data(), kMessage.size());
  ::_exit(kExitFailed);
}

// A result that could not be written is a failure. A reader that has closed its pipe gets no
// message about it.
int deliver_results(int status) {
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  if (status != kExitOk) return status;
  return errno == EPIPE ? kExitFailed : complain("cannot write to standard output");
}

int run_command(const ArgList& args) {
  // Both logs come first: from here on every way out is recorded, wrong usage included.
  log_init(kProgramName, LogLevel::Info);
  runlog_init(args, kProgramName);
  if (args.size() >= 2 && option_present(args, "--help", "-h")) {
    print_usage();
    return kExitOk;
  }
  if (args.size() < 2) return usage_error("a command is required");
  const CommandRow* const command = find_command(args[1]);
  if (command == nullptr) {
    std::vector<std::string_view> names;
    for (const CommandRow& row : command_table()) names.push_back(row.name);
    return usage_error("unknown command '" + std::string(args[1]) + "'" +
                       did_you_mean(args[1], names));
  }
  scan_command_line(args, *command, warn);
  return command->run({option_value(args, "--config", kDefaultConfigPath),
                       option_value(args, "--queue", kDefaultQueuePath), args});
}

int run_program(const ArgList& args) {
  if (const int status = version_and_selftest(args, kProgramName); status >= 0) return status;
  try {
    return run_command(args);
  } catch (const std::bad_alloc&) {
    return complain("out of memory");
  }
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  (void)std::set_terminate(orv::end_without_memory);
  orv::occupy_standard_streams();
  orv::unblock_signals();
  // The reader of our messages may go away, and a file may reach its size limit. Writing
  // then fails, but a running job is brought to its end.
  (void)::signal(SIGPIPE, SIG_IGN);
  (void)::signal(SIGXFSZ, SIG_IGN);
  return orv::deliver_results(orv::run_program(orv::ArgList(argv, static_cast<std::size_t>(argc))));
}
