// The program's logging: the diagnostic log and the run log, one instance of each per process.
//
// The diagnostic log takes levelled lines to standard error and, when the mirror is on, to syslog.
// The run log records in the program's own logfile and in syslog that it started and stopped, and
// the command line's warnings; the operator filters it with the options below. Nothing here ever
// fails the program: whatever goes wrong is a warning on standard error and less logging.
#ifndef ORV_COMMON_LOG_H_
#define ORV_COMMON_LOG_H_

#include <cstdint>
#include <string_view>

#include "common/options.h"

namespace orv {

enum class LogLevel : std::uint32_t { Debug = 0, Info = 1, Warn = 2, Error = 3 };

// Sets the name shown in diagnostic lines (cut at 63 bytes) and the lowest level that is written.
void log_init(std::string_view name, LogLevel minimum);

// What a line of the level begins with on standard error: "<3>" and the like (sd-daemon(3)) when
// that is the journal, which takes it off again and files the line by it; else nothing.
[[nodiscard]] const char* journal_prefix(LogLevel level);

// One line: "<UTC time> [<name>] <LEVEL> <message>", after the prefix for the journal. The format
// takes no line end.
[[gnu::format(printf, 2, 3)]] void log_msg(LogLevel level, const char* format, ...);

// Switches the syslog mirror of the diagnostic log; syslog is opened when the run log has not.
void log_set_syslog(bool on);

inline constexpr const char* kDefaultLogPath = "/var/log/orv/";
inline constexpr std::uint32_t kRunlogBasic = 1;  // bit 0: start, stop and command-line warnings

// The run log's own command-line options, accepted by every command: --no-syslog, --no-log,
// --syslog, --log, --log-path.
extern const OptionTable kRunlogOptions;

// Reads those options from the command line, opens syslog and, made with mode 0644 whatever the
// umask, the logfile
// "<log path>/<tool without a leading orv_>.log", registers the exit handler that records "stopped"
// with the exit status, and records "started".
void runlog_init(const ArgList& args, std::string_view tool);

// One message (cut at 511 bytes) to the logfile and to syslog, each when its mask has one of
// `bits`.
[[gnu::format(printf, 2, 3)]] void runlog_msg(std::uint32_t bits, const char* format, ...);

[[nodiscard]] bool runlog_active();

}  // namespace orv

#endif  // ORV_COMMON_LOG_H_
