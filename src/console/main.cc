// orv_console: one page for all servers, on the administrator's own machine.
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "client/server_list.h"
#include "common/log.h"
#include "common/options.h"
#include "common/sandbox.h"
#include "common/version.h"
#include "console/console.h"
#include "console/options.h"

namespace orv {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr const char* kProgram = "orv_console";

int complain(int status, const char* message) {
  (void)::fprintf(stderr, "%s: %s\n", kProgram, message);  // nothing else could be told
  return status;
}

// Hands the URL to the desktop. Twice forked, so that the browser is nobody's child and outlives
// the console; what it prints is not for this terminal.
void open_browser(const std::string& url) {
  const pid_t child = ::fork();
  if (child > 0) (void)::waitpid(child, nullptr, 0);  // it ends at once
  if (child != 0) return;
  if (::fork() != 0) ::_exit(0);
  if (::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(1);
  if (::freopen("/dev/null", "w", stderr) == nullptr) ::_exit(1);
  (void)::execlp("xdg-open", "xdg-open", url.c_str(), nullptr);  // returns only when it failed
  ::_exit(1);
}

int load_servers(const ConsoleOptions& options, std::vector<Server>& servers, std::span<char> err) {
  const std::string path =
      options.servers_path.empty() ? default_server_list_path() : options.servers_path;
  if (read_server_list(path, servers, err) != 0) return -1;
  if (servers.empty()) {
    (void)::fprintf(stderr, "%s: no servers in %s yet: 'orv_api pin' adds one\n", kProgram,
                    path.c_str());  // the page says the same by being empty
  }
  return 0;
}

// Two connections to each server, and the browsers': more than the usual soft limit.
void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);  // without it, a long list gets fewer connections
}

int serve(const ConsoleOptions& options) {
  std::array<char, kClientMessageSize> err{};
  std::vector<Server> servers;
  if (load_servers(options, servers, err) != 0) return complain(kExitUsage, err.data());
  raise_descriptor_limit();
  boost::asio::io_context loop{1};
  Console console(loop, options, std::move(servers));
  if (console.listen(err) != 0) return complain(kExitFailed, err.data());
  if (::printf("%s\n", console.guard().url().c_str()) < 0 || ::fflush(stdout) != 0) {
    return complain(kExitFailed, "cannot print the URL");
  }
  // After the printing, so that the URL is there also when no browser comes up.
  if (options.open) open_browser(console.guard().url_once());
  boost::asio::signal_set signals(loop, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code&, int) {
    console.stop();
    loop.stop();
  });
  // From here on nothing can be started or written; what is listened on and opened so far stays.
  sandbox_enter();
  console.start();
  loop.run();
  return 0;
}

int run(const ArgList& args) {
  if (option_present(args, "--help", "-h")) return ::printf("%s", kConsoleUsage) < 0 ? 1 : 0;
  if (option_present(args, "--version")) return ::printf("%s %s\n", kProgram, kVersion) < 0 ? 1 : 0;
  std::array<char, kClientMessageSize> err{};
  ConsoleOptions options;
  if (console_options_parse(args, options, err) != 0) return complain(kExitUsage, err.data());
  log_init(kProgram, LogLevel::Warn);
  (void)::signal(SIGPIPE, SIG_IGN);  // a browser that goes away is an error of one write
  return serve(options);
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  try {
    return orv::run(orv::ArgList(argv, static_cast<std::size_t>(argc)));
  } catch (const std::exception& fault) {  // out of memory, or of descriptors for the loop
    return orv::complain(orv::kExitFailed, fault.what());
  }
}
