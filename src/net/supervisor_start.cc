// Starting the network process: everything that can be prepared is prepared before the fork; the
// child then gives up descriptors, limits and privileges in a fixed order and executes the program.
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/log.h"
#include "common/privileges.h"
#include "common/version.h"
#include "net/supervisor_parts.h"

namespace orv::net {
namespace {

constexpr std::size_t kMaxBinaryPath = 4095;  // bytes
constexpr int kSendBuffer = 1048576;          // bytes; absorbs bursts while the child is busy
constexpr rlim_t kSpareDescriptors = 64;      // for the child, besides one for each client
constexpr rlim_t kMaxClosedOneByOne = 65536;

// Where the child finds its descriptors; its command line says the same.
constexpr int kIpcFd = 3;
constexpr int kListenFd = 4;
// Descriptors are moved above both first, lest one overwrites the other.
constexpr int kScratchFd = 10;

constexpr int kSetupFailed = 126;
constexpr int kExecFailed = 127;

// All that the child needs between fork and exec.
struct ChildPlan {
  std::string binary;
  pid_t parent = -1;
  int parent_end = -1;
  int child_end = -1;
  int listen_fd = -1;  // -1: no API
  rlim_t descriptors = 0;
  bool drop = false;
  const char* argv[6] = {};  // NULL-terminated
  std::vector<std::string> environment;
  std::vector<char*> envp;  // of `environment`, NULL-terminated
};

// Beside our own program, unless the environment names another. Empty when neither can be found.
std::string binary_path() {
  const char* named = ::getenv("ORV_SCHED_NET_BIN");
  if (named != nullptr && *named != '\0') return named;
  std::string self(kMaxBinaryPath, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", self.data(), self.size());
  if (length < 0) return {};
  self.resize(static_cast<std::size_t>(length));
  const std::size_t slash = self.rfind('/');
  if (slash == std::string::npos) return {};
  return self.substr(0, slash + 1) + kNetProgramName;
}

bool locate_binary(std::string& path) {
  path = binary_path();
  if (!path.empty() && path.size() <= kMaxBinaryPath && ::access(path.c_str(), X_OK) == 0) {
    return true;
  }
  log_msg(LogLevel::Error, "orv_sched: network process binary %s not found: no mail, no API",
          path.empty() ? kNetProgramName : path.c_str());
  return false;
}

bool account_exists() {
  if (::getpwnam(kNetAccount) != nullptr) return true;
  log_msg(LogLevel::Error,
          "orv_sched: the '%s' account does not exist (run 'orv_setup --repair'): no mail, no API",
          kNetAccount);
  return false;
}

// The scheduler's own environment is not for the child: variables there make libraries log TLS
// keys, load modules or use proxies. Dates need the time zone, texts the character set, and
// messages that go to the journal their priority.
void choose_environment(ChildPlan& plan) {
  for (const char* name : {"TZ", "LANG", "JOURNAL_STREAM"}) {
    const char* value = ::getenv(name);
    if (value != nullptr) plan.environment.push_back(std::string(name) + "=" + value);
  }
  // It comes along with libcurl, is not used, and would take half a megabyte to get ready.
  plan.environment.emplace_back("GNUTLS_NO_IMPLICIT_INIT=1");
  for (std::string& entry : plan.environment) plan.envp.push_back(entry.data());
  plan.envp.push_back(nullptr);
}

bool move_fd(int from, int& scratch) {
  scratch = ::fcntl(from, F_DUPFD_CLOEXEC, kScratchFd);
  ::close(from);
  return scratch >= 0;
}

bool place_descriptors(const ChildPlan& plan) {
  // Out of the way first: each may stand on the number that the other is to get.
  int ipc = -1;
  int listener = -1;
  if (!move_fd(plan.child_end, ipc)) return false;
  if (plan.listen_fd >= 0 && !move_fd(plan.listen_fd, listener)) return false;
  if (::dup2(ipc, kIpcFd) < 0) return false;
  if (listener >= 0 && ::dup2(listener, kListenFd) < 0) return false;
  const int first = listener >= 0 ? kListenFd + 1 : kListenFd;
  if (::close_range(static_cast<unsigned>(first), ~0U, 0) == 0) return true;
  // A kernel before 5.9, or a filter, knows no close_range(2).
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  const int end = static_cast<int>(std::min(limit.rlim_cur, kMaxClosedOneByOne));
  for (int fd = first; fd < end; ++fd) ::close(fd);
  return true;
}

bool limit_resources(rlim_t descriptors) {
  const rlimit no_core = {0, 0};
  const rlimit files = {descriptors, descriptors};
  return ::setrlimit(RLIMIT_CORE, &no_core) == 0 && ::setrlimit(RLIMIT_NOFILE, &files) == 0;
}

bool empty_input() {
  const int null = ::open("/dev/null", O_RDONLY);
  if (null <= STDIN_FILENO) return null == STDIN_FILENO;
  if (::dup2(null, STDIN_FILENO) < 0) return false;
  ::close(null);
  return true;
}

bool restore_signals() {
  sigset_t none;
  ::sigemptyset(&none);
  return ::signal(SIGPIPE, SIG_DFL) != SIG_ERR && ::sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

// With no capability left to gain, nothing that is executed later leads back to root. A container
// may have taken away what this call needs, and with it what it guards against.
void empty_bounding_set() {
  unsigned long capability = 0;
  while (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0) ++capability;
}

// The parent-death signal comes after the change of user, which clears it.
bool prepare_child(const ChildPlan& plan) {
  ::close(plan.parent_end);
  if (::chdir("/") != 0) return false;
  if (plan.drop) empty_bounding_set();
  if (!place_descriptors(plan) || !limit_resources(plan.descriptors) || !empty_input())
    return false;
  if (plan.drop && drop_privileges(kNetAccount) != 0) return false;
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
  if (::getppid() != plan.parent) return false;  // it died before the line above
  return restore_signals();
}

[[noreturn]] void run_child(const ChildPlan& plan) {
  // The log's connection to syslog may sit on the very descriptor that the records are to use: it
  // is closed before anything moves, and what is logged from here on goes to standard error only.
  log_set_syslog(false);
  ::closelog();
  if (!prepare_child(plan)) ::_exit(kSetupFailed);
  ::execve(plan.binary.c_str(), const_cast<char* const*>(plan.argv), plan.envp.data());
  ::_exit(kExecFailed);
}

void send_api_config(NetSupervisor& sup) {
  OutgoingRecord record;
  const int encoded = ipc_encode_api_config(record.message(), sup.child.next_id++, sup.api.config);
  if (hand_over(sup, encoded, record.message()) == nullptr) return;
  log_msg(LogLevel::Warn, "orv_sched: could not hand the API certificate to orv_sched_net");
}

// The parent's side of a successful fork.
void adopt_child(NetSupervisor& sup, pid_t pid, ScopedFd socket, bool dropped) {
  sup.child.pid = pid;
  sup.child.fd = std::move(socket);
  sup.child.started_at = sup.clock();
  log_msg(LogLevel::Info, "orv_sched: started network process orv_sched_net pid=%d as %s%s%s", pid,
          dropped ? kNetAccount : "the current user (not root)", sup.api.enabled ? ", API on " : "",
          sup.api.enabled ? sup.api.listen_label.c_str() : "");
  if (sup.mail.settings.valid) send_mail_config(sup);
  if (sup.api.enabled) send_api_config(sup);
}

void set_send_buffer(int fd) {
  // Beyond the system's limit only root may go; without it the buffer is as large as that allows.
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) == 0) return;
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
}

// Records carry bytes only. The C library's headers may be older than the option, and the kernel
// too: there, descriptors that the child sends are dropped with the record that brought them.
void refuse_descriptors(int fd) {
#ifdef SO_PASSRIGHTS
  constexpr int kPassRights = SO_PASSRIGHTS;
#else
  constexpr int kPassRights = 83;
#endif
  const int off = 0;
  (void)::setsockopt(fd, SOL_SOCKET, kPassRights, &off, sizeof off);
}

}  // namespace

bool start_child(NetSupervisor& sup) {
  ChildPlan plan;
  if (!locate_binary(plan.binary)) return false;
  plan.drop = ::geteuid() == 0;
  if (plan.drop && !account_exists()) return false;

  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    log_msg(LogLevel::Error, "orv_sched: socketpair failed: %s", ::strerror(errno));
    return false;
  }
  ScopedFd ours(ends[0]);
  const ScopedFd theirs(ends[1]);
  set_send_buffer(ours.get());
  refuse_descriptors(ours.get());

  // All that the child needs is worked out here: between fork and exec only async-signal-safe calls
  // are allowed (signal-safety(7)).
  plan.parent_end = ours.get();
  plan.child_end = theirs.get();
  plan.listen_fd = sup.api.enabled ? sup.api.listen_fd.get() : -1;
  plan.descriptors = kSpareDescriptors + (sup.api.enabled ? sup.api.config.max_clients : 0);
  const char** arg = plan.argv;
  for (const char* text : {kNetProgramName, "--ipc-fd", "3"}) *arg++ = text;
  if (sup.api.enabled) {
    for (const char* text : {"--listen-fd", "4"}) *arg++ = text;
  }
  choose_environment(plan);
  plan.parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) run_child(plan);
  if (pid < 0) {
    log_msg(LogLevel::Error, "orv_sched: fork failed: %s", ::strerror(errno));
    return false;
  }
  adopt_child(sup, pid, std::move(ours), plan.drop);
  return true;
}

}  // namespace orv::net
