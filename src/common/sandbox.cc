#include "common/sandbox.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#ifdef ORV_HAVE_SECCOMP
#include <seccomp.h>
#endif

#include "common/log.h"

namespace orv {
namespace {

// The sanitizers' leak check forks a tracer at exit, which is what the layers below forbid.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

#ifdef ORV_HAVE_SECCOMP

// What Asio, OpenSSL, libcurl and the C library's resolver call. Everything else answers "no such
// call", which is also what makes the C library fall back from clone3() to the filtered clone().
// clang-format off
constexpr const char* kAllowed[] = {
    // input and output on descriptors
    "read", "write", "readv", "writev", "pread64", "recvfrom", "recvmsg", "recvmmsg", "sendto",
    "sendmsg", "sendmmsg", "close", "lseek", "fcntl", "dup", "pipe2", "eventfd2",
    // waiting
    "epoll_create1", "epoll_ctl", "epoll_wait", "epoll_pwait", "epoll_pwait2", "poll", "ppoll",
    "select", "pselect6", "timerfd_create", "timerfd_settime", "timerfd_gettime", "nanosleep",
    "clock_nanosleep", "restart_syscall",
    // sockets; there is no listen() among them
    "accept", "accept4", "connect", "bind", "shutdown", "socketpair", "getsockname", "getpeername",
    "getsockopt", "setsockopt",
    // reading files: certificates, resolver settings, time zones
    "stat", "fstat", "lstat", "newfstatat", "statx", "access", "faccessat", "faccessat2",
    "readlink", "readlinkat", "getdents64", "getcwd", "statfs", "fstatfs", "fadvise64",
    // memory, threads, signals
    "munmap", "mremap", "madvise", "brk", "futex", "set_robust_list",
    "get_robust_list", "rseq", "membarrier", "sched_yield", "sched_getaffinity", "sigaltstack",
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "exit", "exit_group",
    // looking around
    "getpid", "gettid", "getppid", "getuid", "geteuid", "getgid", "getegid", "uname", "sysinfo",
    "clock_gettime", "clock_getres", "gettimeofday", "time", "getrandom", "getrlimit",
    "getrusage", "times",
};
// clang-format on

// Nothing here has a reason to call these: a process that does has been taken over.
// clang-format off
constexpr const char* kDeadly[] = {
    "execve", "execveat", "fork", "vfork", "ptrace", "process_vm_readv", "process_vm_writev",
    "listen", "setuid", "setresuid", "mount", "unshare", "setns", "bpf", "init_module",
    "finit_module", "kexec_load", "keyctl", "io_uring_setup", "userfaultfd",
};
// clang-format on

void add(scmp_filter_ctx filter, std::uint32_t action, const char* name) {
  const int number = seccomp_syscall_resolve_name(name);
  // A call that this architecture does not have needs no rule.
  if (number >= 0) (void)seccomp_rule_add(filter, action, number, 0);
}

// Calls that are allowed with these arguments only: every rule of a call is one more way it may be
// made, and the conditions within a rule hold together.
struct ArgumentRule {
  const char* name;
  std::vector<scmp_arg_cmp> conditions;
};

scmp_arg_cmp is(unsigned argument, scmp_datum_t value) { return {argument, SCMP_CMP_EQ, value, 0}; }
scmp_arg_cmp bits(unsigned argument, scmp_datum_t mask, scmp_datum_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

std::vector<ArgumentRule> argument_rules() {
  constexpr scmp_datum_t kWriting = O_ACCMODE | O_CREAT | O_TRUNC;
  constexpr scmp_datum_t kInt = 0xFFFFFFFF;  // what of a register an int argument fills
  const auto own_pid = static_cast<scmp_datum_t>(::getpid());
  // clang-format off
  std::vector<ArgumentRule> rules = {
      {"openat",    {bits(2, kWriting, O_RDONLY)}},
      {"clone",     {bits(0, CLONE_THREAD, CLONE_THREAD)}},
      {"mmap",      {bits(2, PROT_EXEC, 0)}},  // no code that was not there at the start
      {"mprotect",  {bits(2, PROT_EXEC, 0)}},
      {"tgkill",    {is(0, own_pid)}},         // abort()
      {"prlimit64", {is(0, 0), is(2, 0)}},     // reads a limit of our own
      {"prctl",     {bits(0, kInt, PR_SET_NAME)}},
  };
  // clang-format on
  for (const int family : {AF_INET, AF_INET6, AF_UNIX, AF_NETLINK}) {
    rules.push_back({"socket", {bits(0, kInt, static_cast<scmp_datum_t>(family))}});
  }
  for (const int request : {FIONBIO, FIONREAD, TCGETS, SIOCGIFINDEX}) {
    rules.push_back({"ioctl", {bits(1, kInt, static_cast<scmp_datum_t>(request))}});
  }
  return rules;
}

bool add_argument_rules(scmp_filter_ctx filter) {
  for (const ArgumentRule& rule : argument_rules()) {
    const int number = seccomp_syscall_resolve_name(rule.name);
    if (number < 0) continue;  // this architecture does without it
    if (seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, number,
                               static_cast<unsigned>(rule.conditions.size()),
                               rule.conditions.data()) != 0) {
      return false;
    }
  }
  return true;
}

void install_filter() {
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(ENOSYS));
  bool ok = filter != nullptr && add_argument_rules(filter);
  if (ok) {
    // A binary tree instead of one long list; an older library keeps the list.
    (void)seccomp_attr_set(filter, SCMP_FLTATR_CTL_OPTIMIZE, 2);
    for (const char* name : kAllowed) add(filter, SCMP_ACT_ALLOW, name);
    for (const char* name : kDeadly) add(filter, SCMP_ACT_KILL_PROCESS, name);
    ok = seccomp_load(filter) == 0;
  }
  if (filter != nullptr) seccomp_release(filter);
  if (!ok) log_msg(LogLevel::Warn, "the kernel takes no system call filter: running without it");
}

#else

void install_filter() {
  log_msg(LogLevel::Warn, "built without libseccomp: running without a system call filter");
}

#endif

// The kernel's own list of what files and signals are for (landlock(7)); newer than the C library's
// headers, so that its numbers stand here. Whatever is handled and not allowed by a rule is denied,
// and there are no rules. Reading stays: certificates may lie anywhere.
void enter_landlock() {
  struct Ruleset {
    std::uint64_t files = 0;
    std::uint64_t network = 0;
    std::uint64_t scopes = 0;
  };
  constexpr std::uint64_t kReading = 1U << 2 | 1U << 3;  // files, directories
  // The bits that each version of the interface knows, the first one first.
  constexpr unsigned kFileBits[] = {13, 14, 15, 15, 16};
  const long version = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, 1U /* ask for it */);
  if (version < 1) {
    log_msg(LogLevel::Info, "the kernel has no Landlock: running without it");
    return;
  }
  Ruleset rules;
  const auto known = std::min<std::size_t>(static_cast<std::size_t>(version), std::size(kFileBits));
  rules.files = ((std::uint64_t{1} << kFileBits[known - 1]) - 1) & ~kReading;
  if (version >= 4) rules.network = 1;  // binding a TCP socket
  if (version >= 6) rules.scopes = 3;   // abstract sockets and signals of other processes
  // A kernel takes the fields that it knows, and more only when they are zero.
  const int fd = static_cast<int>(::syscall(SYS_landlock_create_ruleset, &rules, sizeof rules, 0U));
  if (fd < 0 || ::syscall(SYS_landlock_restrict_self, fd, 0U) != 0) {
    log_msg(LogLevel::Warn, "Landlock cannot be used: %s", ::strerror(errno));
  }
  if (fd >= 0) (void)::close(fd);
}

// The resolver loads the modules that /etc/nsswitch.conf names when it needs them first, which the
// filter forbids: what it may need is loaded now. "files" and "dns" are part of the C library.
void load_resolver_modules() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/etc/nsswitch.conf", "re"),
                                                   std::fclose);
  char line[512];
  while (file && std::fgets(line, sizeof line, file.get()) != nullptr) {
    if (::strncmp(line, "hosts:", 6) != 0) continue;
    char* rest = nullptr;
    for (const char* word = ::strtok_r(line + 6, " \t\n", &rest); word != nullptr;
         word = ::strtok_r(nullptr, " \t\n", &rest)) {
      const bool name = *word != '[' && *word != '!' && ::strchr(word, '/') == nullptr;
      if (!name || ::strcmp(word, "files") == 0 || ::strcmp(word, "dns") == 0) continue;
      (void)::dlopen(("libnss_" + std::string(word) + ".so.2").c_str(), RTLD_NOW);  // or do without
    }
  }
}

}  // namespace

void sandbox_enter() {
  const struct rlimit none {};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    log_msg(LogLevel::Warn, "cannot forbid new privileges: %s", ::strerror(errno));
  }
  if (::setrlimit(RLIMIT_CORE, &none) != 0) {
    log_msg(LogLevel::Warn, "cannot forbid core dumps: %s", ::strerror(errno));
  }
  // Sanitizers need what the steps below forbid.
  if (kInstrumented) return;
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
    log_msg(LogLevel::Warn, "cannot forbid debuggers: %s", ::strerror(errno));
  }
  load_resolver_modules();
  enter_landlock();
  install_filter();
}

}  // namespace orv
