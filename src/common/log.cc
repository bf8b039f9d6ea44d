#include "common/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "common/files.h"
#include "common/fixed_text.h"
#include "common/scoped_fd.h"
#include "common/text.h"

namespace orv {
namespace {

constexpr std::size_t kMaxLogName = 63;         // bytes
constexpr std::size_t kMaxLogfilePath = 1199;   // bytes
constexpr std::size_t kMaxRunlogMessage = 511;  // bytes
constexpr mode_t kLogfileMode = 0644;
constexpr const char* kUnnamed = "orv";  // before a name is set
constexpr std::uint64_t kDefaultMask = kRunlogBasic;

// Whether standard error goes to the journal: its socket is the one that JOURNAL_STREAM names by
// "<device>:<inode>" (systemd.exec(5)). A redirection keeps the variable, so the socket is
// compared, too.
bool stderr_is_journal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat st {};
  if (stream == nullptr || ::fstat(STDERR_FILENO, &st) != 0) return false;
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) == stream;
}

struct DiagnosticLog {
  FixedText<kMaxLogName> name;
  LogLevel minimum = LogLevel::Info;
  bool mirror = false;
  bool journal = stderr_is_journal();
  std::unique_ptr<std::mutex> lock;  // made by the first log_init()
};

struct RunLog {
  FixedText<kMaxLogName> identity;
  bool started = false;
  bool syslog_enabled = true;
  bool syslog_open = false;
  std::uint64_t syslog_mask = kDefaultMask;
  std::uint64_t logfile_mask = kDefaultMask;
  FixedText<kMaxLogfilePath> path;
  ScopedFd logfile;
};

DiagnosticLog& diagnostic() {
  static DiagnosticLog log;
  return log;
}

// The exit handler still needs it: it is made before the handler is registered, and what is made
// first is destroyed last.
RunLog& run_log() {
  static RunLog log;
  return log;
}

struct Level {
  const char* label;   // five columns
  int priority;        // of syslog(3)
  const char* prefix;  // the priority as the journal reads it
};
Level level_of(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return {"DEBUG", LOG_DEBUG, "<7>"};
    case LogLevel::Info: return {"INFO", LOG_INFO, "<6>"};
    case LogLevel::Warn: return {"WARN", LOG_WARNING, "<4>"};
    case LogLevel::Error: return {"ERROR", LOG_ERR, "<3>"};
  }
  return {"?", LOG_ERR, "<3>"};
}

struct UtcText {
  std::array<char, 32> text{};
  UtcText() {
    const time_t now = ::time(nullptr);
    struct tm utc {};
    ::gmtime_r(&now, &utc);
    (void)::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  }
};

// Formats into a string of the message's own length.
[[gnu::format(printf, 1, 0)]] std::string format_message(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  return text;
}

// The one connection to syslog serves both logs, under the same name.
void open_syslog(RunLog& log) {
  if (log.syslog_open) return;
  // syslog keeps the pointer: the names live as long as the process.
  const char* const name = !log.identity.empty()       ? log.identity.c_str()
                           : diagnostic().name.empty() ? kUnnamed
                                                       : diagnostic().name.c_str();
  ::openlog(name, LOG_PID, LOG_DAEMON);
  log.syslog_open = true;
}

// The service and a command in a shell have different umasks. The file must get the same mode from
// both.
ScopedFd open_for_lines(const RunLog& log) {
  // Not blocking: a named pipe that nobody reads must not hold the program up.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK;
  ScopedFd made = open_file(log.path.c_str(), kFlags | O_EXCL, kLogfileMode);
  if (!made.valid()) return open_file(log.path.c_str(), kFlags, kLogfileMode);
  (void)::fchmod(made.get(), kLogfileMode);
  return made;
}

// The logfile may have been rotated away since it was opened: the line belongs in the file that now
// has this name.
void follow_rotation(RunLog& log) {
  struct stat named {};
  struct stat open {};
  const bool same = ::stat(log.path.c_str(), &named) == 0 &&
                    ::fstat(log.logfile.get(), &open) == 0 && named.st_ino == open.st_ino &&
                    named.st_dev == open.st_dev;
  if (same) return;
  ScopedFd fresh = open_for_lines(log);
  if (fresh.valid()) log.logfile = std::move(fresh);
}

void runlog_write(std::uint32_t bits, const char* message) {
  RunLog& log = run_log();
  if (log.logfile.valid() && (static_cast<std::uint32_t>(log.logfile_mask) & bits) != 0) {
    follow_rotation(log);
    std::array<char, kMaxRunlogMessage + 160> line{};
    std::snprintf(line.data(), line.size(), "%s [%.*s] pid=%ld %s\n", UtcText().text.data(),
                  static_cast<int>(log.identity.size()), log.identity.c_str(),
                  static_cast<long>(::getpid()), message);
    // A full disk must not stop the program that has backups to run.
    (void)write_all(log.logfile.get(), std::string_view(line.data()));
  }
  if (log.syslog_enabled && (static_cast<std::uint32_t>(log.syslog_mask) & bits) != 0) {
    ::syslog(LOG_INFO, "%s", message);
  }
}

void on_exit_record_stop(int status, void* /*unused*/) {
  RunLog& log = run_log();
  std::array<char, 64> message{};
  if (status >= 0) {
    std::snprintf(message.data(), message.size(), "stopped exit=%d", status);
  } else {
    std::snprintf(message.data(), message.size(), "stopped");
  }
  runlog_write(kRunlogBasic, message.data());
  log.logfile.reset();
  if (log.syslog_enabled) ::closelog();
}

// The bit mask of an option in C notation; anything but a whole number is warned about.
std::uint64_t read_mask(const ArgList& args, const char* option) {
  const char* const text = option_value(args, option, "");
  if (*text == '\0') return kDefaultMask;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 0);
  const bool signed_number = text[0] == '-' || text[0] == '+' || is_space(text[0]);
  if (end != text && *end == '\0' && errno == 0 && !signed_number) return value;
  std::fprintf(stderr, "warning: orv_runlog: invalid %s value '%s' -- using default 1\n", option,
               text);
  return kDefaultMask;
}

// Without its log file the program goes on: that is no reason to miss a backup.
void open_logfile(RunLog& log, std::string_view directory, std::string_view tool) {
  const std::string dir(directory);
  if (make_directories(directory) != ErrorCode::Ok) {
    std::fprintf(stderr,
                 "warning: orv_runlog: could not create log directory '%s' -- continuing without "
                 "logfile\n",
                 dir.c_str());
    return;
  }
  if (tool.starts_with("orv_")) tool.remove_prefix(4);
  const char* const slash = dir.ends_with('/') ? "" : "/";
  log.path.set_truncated(dir + slash + std::string(tool) + ".log");
  log.logfile = open_for_lines(log);
  if (log.logfile.valid()) return;
  std::fprintf(stderr,
               "warning: orv_runlog: could not open logfile '%s' -- continuing without logfile\n",
               log.path.c_str());
}

constexpr std::array<OptionRow, 5> kOptionRows = {{
    {"--no-syslog", "", false},
    {"--no-log", "", false},
    {"--syslog", "", true},
    {"--log", "", true},
    {"--log-path", "", true},
}};

}  // namespace

constinit const OptionTable kRunlogOptions{kOptionRows};

void log_init(std::string_view name, LogLevel minimum) {
  DiagnosticLog& log = diagnostic();
  log.name.set_truncated(name);
  log.minimum = minimum;
  if (!log.lock) log.lock = std::make_unique<std::mutex>();
}

const char* journal_prefix(LogLevel level) {
  return diagnostic().journal ? level_of(level).prefix : "";
}

void log_msg(LogLevel level, const char* format, ...) {
  DiagnosticLog& log = diagnostic();
  if (static_cast<std::uint32_t>(level) < static_cast<std::uint32_t>(log.minimum)) return;
  va_list args;
  va_start(args, format);
  const std::string message = format_message(format, args);
  va_end(args);
  const Level row = level_of(level);
  std::unique_lock<std::mutex> hold;
  if (log.lock) hold = std::unique_lock(*log.lock);
  // One call and thus one write: standard error is unbuffered, and lines of other processes that
  // share it must not come in between.
  std::array<char, 128> lead{};
  std::snprintf(lead.data(), lead.size(), "%s%s [%s] %-5s ", journal_prefix(level),
                UtcText().text.data(), log.name.empty() ? kUnnamed : log.name.c_str(), row.label);
  (void)write_all(STDERR_FILENO, lead.data() + message + "\n");
  if (log.mirror) ::syslog(row.priority, "%s", message.c_str());
}

void log_set_syslog(bool on) {
  if (on) open_syslog(run_log());
  diagnostic().mirror = on;
}

void runlog_init(const ArgList& args, std::string_view tool) {
  RunLog& log = run_log();
  log.started = true;
  log.identity.set_truncated(tool);
  const bool no_syslog = option_present(args, "--no-syslog");
  const bool no_log = option_present(args, "--no-log");
  const char* const directory = option_value(args, "--log-path", kDefaultLogPath);
  log.syslog_mask = read_mask(args, "--syslog");
  log.logfile_mask = read_mask(args, "--log");
  log.syslog_enabled = !no_syslog;
  if (log.syslog_enabled) open_syslog(log);
  if (!no_log) open_logfile(log, directory, tool);
  // Not atexit(3): the last line names the exit status.
  (void)::on_exit(on_exit_record_stop, nullptr);
  runlog_write(kRunlogBasic, "started");
}

void runlog_msg(std::uint32_t bits, const char* format, ...) {
  std::array<char, kMaxRunlogMessage + 1> message{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(message.data(), message.size(), format, args);
  va_end(args);
  runlog_write(bits, message.data());
}

bool runlog_active() { return run_log().started; }

}  // namespace orv
