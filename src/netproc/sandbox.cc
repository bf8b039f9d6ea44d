#include "netproc/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

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
    "sendmsg", "sendmmsg", "close", "lseek", "fcntl", "ioctl", "dup", "pipe2", "eventfd2",
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
    "mmap", "munmap", "mprotect", "mremap", "madvise", "brk", "futex", "set_robust_list",
    "get_robust_list", "rseq", "membarrier", "sched_yield", "sched_getaffinity", "sigaltstack",
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "tgkill", "exit", "exit_group",
    // looking around
    "getpid", "gettid", "getppid", "getuid", "geteuid", "getgid", "getegid", "uname", "sysinfo",
    "clock_gettime", "clock_getres", "gettimeofday", "time", "getrandom", "getrlimit", "prlimit64",
    "prctl", "getrusage", "times",
};
// clang-format on

// Nothing here has a reason to call these: whoever does has taken the process over.
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

bool add_argument_rules(scmp_filter_ctx filter) {
  constexpr auto kWriting = static_cast<scmp_datum_t>(O_ACCMODE | O_CREAT | O_TRUNC);
  bool ok = seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(openat), 1,
                             scmp_arg_cmp{2, SCMP_CMP_MASKED_EQ, kWriting, O_RDONLY}) == 0;
  ok = ok && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(clone), 1,
                              scmp_arg_cmp{0, SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD}) == 0;
  for (const int family : {AF_INET, AF_INET6, AF_UNIX, AF_NETLINK}) {
    ok = ok &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(socket), 1,
                          scmp_arg_cmp{0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(family), 0}) == 0;
  }
  return ok;
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

}  // namespace

void sandbox_enter() {
  const struct rlimit none {};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    log_msg(LogLevel::Warn, "cannot forbid new privileges: %s", ::strerror(errno));
  }
  if (::setrlimit(RLIMIT_CORE, &none) != 0) {
    log_msg(LogLevel::Warn, "cannot forbid core dumps: %s", ::strerror(errno));
  }
  if (kInstrumented) return;
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
    log_msg(LogLevel::Warn, "cannot forbid debuggers: %s", ::strerror(errno));
  }
  install_filter();
}

}  // namespace orv
