#include "sched/run_file.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "common/files.h"
#include "common/log.h"

namespace orv {
namespace {

constexpr const char* kInfix = ".run.";
constexpr const char* kNewSuffix = ".new";  // of a link on its way to replace another

std::string text_of(const ProcessId& process) {
  return std::to_string(process.pid) + "." + std::to_string(process.start);
}

std::string text_of(const RunNote& note) {
  return note.boot + "/" + text_of(note.runner) + "/" + text_of(note.tool) + "/" + note.job + "/" +
         note.log;
}

// Takes what stands before the next slash off `text`; nothing when there is none.
std::optional<std::string_view> take_part(std::string_view& text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view part = text.substr(0, slash);
  text.remove_prefix(slash + 1);
  return part;
}

std::optional<ProcessId> take_process(std::string_view& text) {
  const std::optional<std::string_view> part = take_part(text);
  if (!part) return std::nullopt;
  ProcessId process;
  const char* const end = part->data() + part->size();
  const auto [dot, pid_error] = std::from_chars(part->data(), end, process.pid);
  if (pid_error != std::errc() || dot == end || *dot != '.') return std::nullopt;
  const auto [rest, start_error] = std::from_chars(dot + 1, end, process.start);
  if (start_error != std::errc() || rest != end) return std::nullopt;
  return process;
}

std::optional<RunNote> parse_note(std::string_view text) {
  const std::optional<std::string_view> boot = take_part(text);
  const std::optional<ProcessId> runner = take_process(text);
  const std::optional<ProcessId> tool = take_process(text);
  const std::optional<std::string_view> job = take_part(text);  // a job's name holds no slash
  if (!boot || !runner || !tool || !job) return std::nullopt;
  return RunNote{std::string(*boot), *runner, *tool, std::string(*job), std::string(text)};
}

std::optional<RunNote> read_note(const std::string& path) {
  std::array<char, PATH_MAX> text{};
  const ssize_t length = ::readlink(path.c_str(), text.data(), text.size());
  if (length < 0) return std::nullopt;
  return parse_note({text.data(), static_cast<std::size_t>(length)});
}

// Calls `visit(path, note)` for each run file of the queue. The errno of what could not be read,
// else 0.
template <typename Visit>
int for_each_run_file(const std::string& queue_path, Visit visit) {
  const std::size_t slash = queue_path.rfind('/');
  const std::string directory = slash == std::string::npos ? "./" : queue_path.substr(0, slash + 1);
  const std::string prefix =
      (slash == std::string::npos ? queue_path : queue_path.substr(slash + 1)) + kInfix;
  std::vector<std::string> names;
  int unread = read_directory(directory, names) != ErrorCode::Ok && errno != ENOENT ? errno : 0;
  for (const std::string& name : names) {
    if (!name.starts_with(prefix)) continue;
    const std::string path = directory + name;
    errno = 0;
    if (const std::optional<RunNote> note = read_note(path)) {
      visit(path, *note);
    } else if (errno != 0 && errno != ENOENT && errno != EINVAL) {
      unread = errno;  // neither gone meanwhile nor something else than a link
    }
  }
  return unread;
}

// The name of this process's run file: `path`, or one made from it. A lost run's runner may have
// had the same pid: its file must stay.
std::string own_path(const std::string& path, const ProcessId& self) {
  std::string free = path;
  for (int n = 2;; ++n) {
    const std::optional<RunNote> present = read_note(free);
    if (!present || present->runner == self || run_phase(*present) == RunPhase::Over) return free;
    free = path + "." + std::to_string(n);
  }
}

// Makes the link, replacing the one that is there.
bool put_link(const std::string& text, const std::string& path) {
  const std::string fresh = path + kNewSuffix;
  int rc = ::symlink(text.c_str(), fresh.c_str());
  if (rc != 0 && errno == EEXIST && ::unlink(fresh.c_str()) == 0) {
    rc = ::symlink(text.c_str(), fresh.c_str());  // one was left by a run that was killed in here
  }
  if (rc != 0) return false;
  if (::rename(fresh.c_str(), path.c_str()) == 0) return true;
  const int error = errno;
  (void)::unlink(fresh.c_str());
  errno = error;
  return false;
}

}  // namespace

RunPhase run_phase(const RunNote& note) {
  // The processes of another boot went with it. While a boot cannot be told, the processes decide.
  const std::string boot = boot_name();
  const bool told = boot != kUnknownBoot && note.boot != kUnknownBoot;
  if (told && note.boot != boot) return RunPhase::Over;
  if (process_lives(note.runner)) return RunPhase::Running;
  return process_lives(note.tool) ? RunPhase::Lost : RunPhase::Over;
}

OtherRuns other_runs(const std::string& queue_path) {
  OtherRuns others;
  const auto take = [&others](const std::string&, const RunNote& note) {
    const RunPhase phase = run_phase(note);
    // A file of our own is at most a leftover: asked is what others do.
    const bool own = phase == RunPhase::Running && note.runner.pid == ::getpid();
    if (phase != RunPhase::Over && !own) others.runs.push_back({note, phase});
  };
  others.unread = for_each_run_file(queue_path, take);
  return others;
}

void remove_dead_run_files(const std::string& queue_path) {
  // What cannot be read or removed now is tried again next time.
  (void)for_each_run_file(queue_path, [](const std::string& path, const RunNote& note) {
    if (run_phase(note) == RunPhase::Over) (void)::unlink(path.c_str());
  });
}

RunFile::RunFile(const std::string& queue_path, std::string_view job, std::string_view log_path) {
  note_.boot = boot_name();
  note_.runner = process_id(::getpid());
  note_.job = job;
  note_.log = log_path;
  path_ = queue_path + kInfix + std::to_string(note_.runner.pid);
  // Mostly nothing has the name. Whatever goes wrong is found out again by the steps below.
  if (::symlink(text_of(note_).c_str(), path_.c_str()) == 0) return;
  path_ = own_path(path_, note_.runner);
  write();
}

RunFile::~RunFile() {
  if (!path_.empty()) (void)::unlink(path_.c_str());  // what stays is a leftover, and known as one
}

void RunFile::add_tool(pid_t tool) {
  note_.tool = process_id(tool);
  write();
}

void RunFile::write() {
  if (put_link(text_of(note_), path_)) return;
  // Too long for the file system, or no block left for it: what must be known fits into the inode.
  const RunNote brief{note_.boot, note_.runner, note_.tool, {}, {}};
  if (put_link(text_of(brief), path_)) return;
  log_msg(LogLevel::Error,
          "orv_sched: cannot write down the run of job '%s' in %s: %s -- should this scheduler be "
          "killed, another one will not see that the tool still runs",
          note_.job.c_str(), path_.c_str(), std::strerror(errno));
}

}  // namespace orv
