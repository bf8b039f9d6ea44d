#include "sched/run_file.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>

#include "common/files.h"
#include "common/log.h"

namespace orv {
namespace {

constexpr const char* kInfix = ".run.";

std::string text_of(const ProcessId& process) {
  return std::to_string(process.pid) + "." + std::to_string(process.start);
}

std::string text_of(const RunNote& note) {
  return note.boot + "/" + text_of(note.runner) + "/" + note.job + "/" + note.log;
}

// Takes what stands before the next `end` off `text`; nothing when there is none.
std::optional<std::string_view> take_part(std::string_view& text, char end) {
  const std::size_t length = text.find(end);
  if (length == std::string_view::npos) return std::nullopt;
  const std::string_view part = text.substr(0, length);
  text.remove_prefix(length + 1);
  return part;
}

template <typename Number>
bool read_number(std::string_view digits, Number& number) {
  const char* const end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, number);
  return error == std::errc() && rest == end;
}

bool read_process(std::string_view text, ProcessId& process) {
  const std::optional<std::string_view> pid = take_part(text, '.');
  return pid && read_number(*pid, process.pid) && read_number(text, process.start);
}

// What a link says: its text and the end of its name, "<runner pid>" or "<runner pid>.<tool>".
std::optional<RunNote> parse_note(std::string_view text, std::string_view name) {
  const std::optional<std::string_view> boot = take_part(text, '/');
  const std::optional<std::string_view> runner = take_part(text, '/');
  const std::optional<std::string_view> job = take_part(text, '/');  // its name holds no slash
  RunNote note;
  if (!boot || !runner || !job || !read_process(*runner, note.runner)) return std::nullopt;
  if (take_part(name, '.') && !read_process(name, note.tool)) return std::nullopt;
  note.boot = *boot;
  note.job = *job;
  note.log = text;
  return note;
}

std::optional<RunNote> read_note(const std::string& path, std::string_view name) {
  std::array<char, PATH_MAX> text{};
  const ssize_t length = ::readlink(path.c_str(), text.data(), text.size());
  if (length < 0) return std::nullopt;
  return parse_note({text.data(), static_cast<std::size_t>(length)}, name);
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
    const std::string_view own_part = std::string_view(name).substr(prefix.size());
    if (const std::optional<RunNote> note = read_note(path, own_part)) {
      visit(path, *note);
    } else if (errno != 0 && errno != ENOENT && errno != EINVAL) {
      unread = errno;  // neither gone meanwhile nor something else than a link
    }
  }
  return unread;
}

}  // namespace

RunPhase run_phase(const RunNote& note) {
  // The processes of another boot went with it. While a boot cannot be told, the processes decide.
  const std::string boot = boot_name();
  const bool told = boot != kUnknownBoot && note.boot != kUnknownBoot;
  if (told && note.boot != boot) return RunPhase::Over;
  if (note.tool.pid != 0 && !process_lives(note.tool)) return RunPhase::Over;
  if (process_lives(note.runner)) return RunPhase::Running;
  return note.tool.pid != 0 ? RunPhase::Lost : RunPhase::Over;
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
  (void)make(path_);  // what failed is tried again with the tool
}

// What cannot be removed is known as a leftover: the second name because its tool has ended, the
// first one to this process, whose next run takes it.
RunFile::~RunFile() {
  if (!tool_path_.empty()) (void)::unlink(tool_path_.c_str());
  (void)::unlink(path_.c_str());
}

void RunFile::add_tool(pid_t tool) {
  tool_path_ = path_ + "." + text_of(process_id(tool));
  // There may be no first name to link to, and not every file system has links of this kind.
  if (::link(path_.c_str(), tool_path_.c_str()) == 0 || make(tool_path_)) return;
  log_msg(LogLevel::Error,
          "orv_sched: cannot write down the run of job '%s' in %s: %s -- should this scheduler be "
          "killed, another one will not see that the tool still runs",
          note_.job.c_str(), tool_path_.c_str(), std::strerror(errno));
}

bool RunFile::make(const std::string& path) const {
  const auto put = [&path](const RunNote& note) {
    const std::string text = text_of(note);
    if (::symlink(text.c_str(), path.c_str()) == 0) return true;
    // Whoever left this had our pid and no tool, or had our tool, too.
    return errno == EEXIST && ::unlink(path.c_str()) == 0 &&
           ::symlink(text.c_str(), path.c_str()) == 0;
  };
  // Too long for the file system, or no block left for it: what must be known fits into the inode.
  return put(note_) || put({note_.boot, note_.runner, {}, {}, {}});
}

}  // namespace orv
