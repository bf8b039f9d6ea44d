#include "plan/daemon_process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "common/options.h"
#include "common/text.h"
#include "config/config.h"
#include "sched/process.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxText = 65536;  // bytes; a longer command line is none of ours

// A file of /proc, whose size stat() does not know; empty when it cannot be read.
std::string read_proc(const std::string& path, std::size_t most) {
  std::string text(most, '\0');
  std::size_t got = 0;
  const ScopedFd fd = open_file(path.c_str(), O_RDONLY);
  if (!fd.valid() || read_at(fd.get(), 0, text, got) != ErrorCode::Ok) got = 0;
  text.resize(got);
  return text;
}

std::string process_path(std::uint32_t pid, std::string_view file) {
  return "/proc/" + std::to_string(pid) + "/" + std::string(file);
}

// The arguments of the process when it is an 'orv_sched daemon', else empty. `text` holds them.
std::vector<const char*> daemon_arguments(std::uint32_t pid, std::string& text) {
  if (!is_scheduler(static_cast<pid_t>(pid))) return {};
  text = read_proc(process_path(pid, "cmdline"), kMaxText);
  std::vector<const char*> args;
  // One text with a NUL after each argument (proc(5), /proc/pid/cmdline).
  for (std::size_t at = 0; at < text.size(); at = text.find('\0', at) + 1) {
    args.push_back(text.c_str() + at);
    if (text.find('\0', at) == text.npos) break;
  }
  if (args.size() < 2 || std::string_view(args[1]) != "daemon") return {};
  return args;
}

bool same_file(const fs::path& one, const fs::path& other) {
  struct stat a {};
  struct stat b {};
  if (::stat(one.c_str(), &a) == 0 && ::stat(other.c_str(), &b) == 0) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
  }
  return one.lexically_normal() == other.lexically_normal();  // a queue that is not there yet
}

// Whether `path`, as the process `pid` would open it, is our `mine`.
bool means_file(std::uint32_t pid, const char* path, const std::string& mine) {
  std::error_code error;
  const fs::path ours = fs::absolute(mine, error);
  if (path[0] == '/') return same_file(path, ours);
  // Relative to its directory, which only its owner may ask for: else the end of the path decides.
  const fs::path directory = fs::read_symlink(process_path(pid, "cwd"), error);
  if (!error) return same_file(directory / path, ours);
  const std::string end = "/" + fs::path(path).lexically_normal().string();
  return ours.lexically_normal().string().ends_with(end);
}

}  // namespace

DaemonProcess find_daemon(const std::string& config_path, const std::string& queue_path) {
  DaemonProcess found;
  if (::access("/proc/1/comm", R_OK) != 0) return found;  // the processes of others are hidden
  found.running = false;
  for (const std::string& name : directory_names("/proc")) {
    std::uint32_t pid = 0;
    if (!parse_u32(name, pid)) continue;  // no process
    std::string text;
    const std::vector<const char*> words = daemon_arguments(pid, text);
    if (words.empty()) continue;
    const ArgList args(words);
    if (!means_file(pid, option_value(args, "--config", kDefaultConfigPath), config_path) ||
        !means_file(pid, option_value(args, "--queue", kDefaultQueuePath), queue_path)) {
      continue;
    }
    found.running = true;
    found.pid = pid;
    found.since = process_start(pid);
    break;
  }
  return found;
}

bool is_daemon(std::uint32_t pid) {
  std::string text;
  return !daemon_arguments(pid, text).empty();
}

std::optional<std::int64_t> process_start(std::uint32_t pid) {
  // The kernel knows the moment of boot in Unix seconds, and the process's start in clock ticks
  // since then (proc(5)).
  constexpr std::string_view kLabel = "\nbtime ";
  const std::string stat = read_proc("/proc/stat", kMaxText);
  const std::size_t boot = stat.find(kLabel);
  const auto start = static_cast<std::int64_t>(process_id(static_cast<pid_t>(pid)).start);
  const long ticks = ::sysconf(_SC_CLK_TCK);
  if (boot == stat.npos || start == 0 || ticks <= 0) return std::nullopt;
  return std::strtoll(stat.c_str() + boot + kLabel.size(), nullptr, 10) + start / ticks;
}

}  // namespace orv
