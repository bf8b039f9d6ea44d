// orv_sched_net: speaks SMTP and HTTPS for orv_sched, which starts it with one end of a socket
// pair.
#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <span>

#include "common/log.h"
#include "common/message.h"
#include "common/options.h"
#include "common/sandbox.h"
#include "common/text.h"
#include "common/version.h"
#include "netproc/net_process.h"
#include "netproc/smtp.h"

namespace orv {
namespace {

constexpr int kUsageExit = 2;

// The descriptor that an option names, which must be a socket of that kind.
int take_descriptor(const ArgList& args, const char* option, int family_a, int family_b, int kind,
                    ScopedFd& out, std::span<char> err) {
  std::uint32_t number = 0;
  const char* text = option_value(args, option, "");
  if (!parse_u32(text, number) || number < 3 || number > 1023) {
    return fail(err, "%s needs a descriptor number of 3 or more", option);
  }
  const int fd = static_cast<int>(number);
  const auto query = [fd](int what) {
    int value = -1;
    socklen_t size = sizeof value;
    return ::getsockopt(fd, SOL_SOCKET, what, &value, &size) == 0 ? value : -1;
  };
  const int family = query(SO_DOMAIN);
  if ((family != family_a && family != family_b) || query(SO_TYPE) != kind ||
      ::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
    return fail(err, "descriptor %d (%s) is not the socket that orv_sched hands over", fd, option);
  }
  out.reset(fd);
  return 0;
}

int take_descriptors(const ArgList& args, ScopedFd& ipc, ScopedFd& listener, std::span<char> err) {
  if (!option_present(args, "--ipc-fd")) {
    return fail(err, "this program is started by orv_sched and not by hand");
  }
  if (::geteuid() == 0 || ::getuid() == 0) {
    return fail(err, "refusing to run as root: orv_sched starts this program as %s", kNetAccount);
  }
  if (take_descriptor(args, "--ipc-fd", AF_UNIX, AF_UNIX, SOCK_SEQPACKET, ipc, err) != 0) return -1;
  if (!option_present(args, "--listen-fd")) return 0;
  return take_descriptor(args, "--listen-fd", AF_INET, AF_INET6, SOCK_STREAM, listener, err);
}

// Gives back what only the start needed: linking some 40 libraries touches more of them than their
// use does. What is needed again comes back from its file; segments that can be written to hold
// more than that, and stay.
void give_back_memory() {
  constexpr auto kDropCode = [](dl_phdr_info* module, std::size_t, void*) {
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    for (const auto& segment : std::span(module->dlpi_phdr, module->dlpi_phnum)) {
      if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
      const std::uintptr_t begin = module->dlpi_addr + segment.p_vaddr;
      const std::uintptr_t first = begin / page * page;
      // NOLINTNEXTLINE(performance-no-int-to-ptr): the linker tells addresses as numbers
      auto* const from = reinterpret_cast<void*>(first);
      (void)::madvise(from, begin + segment.p_memsz - first, MADV_DONTNEED);
    }
    return 0;
  };
  (void)::dl_iterate_phdr(kDropCode, nullptr);
  (void)::malloc_trim(0);
}

// A mail under way would hold up the end for as long as its server likes. What the loop's side
// owned is not wiped one by one then: the memory goes back to the kernel, which zeroes it.
[[noreturn]] void leave_at_once(int result) { ::_exit(result); }

int run(const ArgList& args) {
  if (option_present(args, "--version")) {
    ::printf("%s %s\n", kNetProgramName, kVersion);
    return 0;
  }
  char err[256] = "";
  ScopedFd ipc;
  ScopedFd listener;
  if (take_descriptors(args, ipc, listener, err) != 0) {
    (void)::fprintf(stderr, "%s: %s\n", kNetProgramName, err);  // nothing else could be told
    return kUsageExit;
  }
  log_init(kNetProgramName, LogLevel::Info);
  // A client that goes away is an error of one write. The other signals reach the whole group or
  // service when the scheduler is told to stop: it still has mails for us, and ends us by its
  // socket.
  for (const int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) (void)::signal(number, SIG_IGN);
  // One heap for both threads: the mail thread's own would keep its pages apart for good.
  (void)::mallopt(M_ARENA_MAX, 1);
  smtp_init();
  sandbox_enter();
  give_back_memory();
  return net_process_run(std::move(ipc), std::move(listener), HttpsLimits{}, leave_at_once);
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  return orv::run(orv::ArgList(argv, static_cast<std::size_t>(argc)));
}
