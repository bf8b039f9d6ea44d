#include "sched/process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

#include "common/files.h"
#include "common/version.h"

namespace orv {
namespace {

constexpr std::size_t kMaxComm = 31;        // bytes read of a process's name
constexpr std::size_t kBootNameLength = 8;  // of the 32 digits; enough to tell two boots apart

// The beginning of a file of /proc, which comes in one piece; nothing when it cannot be read.
std::optional<std::string> read_start(const std::string& path, std::size_t most) {
  const ScopedFd fd = open_file(path.c_str(), O_RDONLY);
  if (!fd.valid()) return std::nullopt;
  std::string text(most, '\0');
  ssize_t got = -1;
  do {
    got = ::read(fd.get(), text.data(), text.size());
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return std::nullopt;
  text.resize(static_cast<std::size_t>(got));
  return text;
}

std::string proc_path(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

struct Stat {
  bool ended = false;
  std::uint64_t start = 0;
};

// The fields of proc(5)'s stat that count here. The name stands in parentheses and may hold some
// itself, so that fields are counted from the last one.
std::optional<Stat> read_stat(pid_t pid) {
  constexpr int kThreads = 20;  // numbers of fields as in the manual; 3 follows the name
  constexpr int kStart = 22;
  const std::optional<std::string> text = read_start(proc_path(pid, "stat"), 1024);
  const std::size_t name_end = text ? text->rfind(')') : std::string::npos;
  if (name_end == std::string::npos || name_end + 2 >= text->size()) return std::nullopt;
  const char state = (*text)[name_end + 2];
  std::uint64_t threads = 0;
  Stat stat;
  const char* at = text->data() + name_end + 3;
  const char* const end = text->data() + text->size();
  for (int field = 4; field <= kStart && at < end; ++field) {
    ++at;  // the blank
    std::uint64_t value = 0;
    if (field == kThreads || field == kStart) (void)std::from_chars(at, end, value);
    if (field == kThreads) threads = value;
    if (field == kStart) stat.start = value;
    while (at < end && *at != ' ') ++at;
  }
  // A zombie has ended, but for one whose first thread alone has: the others go on.
  stat.ended = state == 'X' || (state == 'Z' && threads <= 1);
  return stat;
}

}  // namespace

ProcessId process_id(pid_t pid) {
  // A process asks for itself at each run.
  static ProcessId self;
  if (self.start != 0 && self.pid == pid && pid == ::getpid()) return self;
  const std::optional<Stat> stat = read_stat(pid);
  const ProcessId found{pid, stat ? stat->start : 0};
  if (pid == ::getpid()) self = found;
  return found;
}

bool process_lives(const ProcessId& process) {
  if (process.pid <= 0) return false;
  if (::kill(process.pid, 0) != 0 && errno == ESRCH) return false;
  const std::optional<Stat> stat = read_stat(process.pid);
  if (!stat) return ::kill(process.pid, 0) == 0 || errno != ESRCH;  // it may just have gone
  return !stat->ended && (process.start == 0 || stat->start == process.start);
}

bool is_scheduler(pid_t pid) {
  const std::optional<std::string> comm = read_start(proc_path(pid, "comm"), kMaxComm);
  // Exactly: the network process has the scheduler's name as a prefix.
  return comm && std::string_view(*comm).substr(0, comm->find('\n')) == kProgramName;
}

std::string boot_name() {
  static std::string known;  // no process outlives its boot
  if (!known.empty()) return known;
  const std::optional<std::string> id = read_start("/proc/sys/kernel/random/boot_id", 64);
  if (!id || id->size() < kBootNameLength) return kUnknownBoot;
  known = id->substr(0, kBootNameLength);
  return known;
}

}  // namespace orv
