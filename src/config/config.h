// The configuration file: the records it is loaded into, and its loader.
//
// A load reads the whole file, stops at the first fault with one message, and proves that the
// result is consistent: a loaded Config need not be checked again. There are no warnings. Messages
// about a line begin "<path>:<line>: ", messages about the whole "[<job>]: " or
// "[mail]: ".
#ifndef ORV_CONFIG_CONFIG_H_
#define ORV_CONFIG_CONFIG_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/fixed_text.h"
#include "common/mail_address.h"
#include "config/cron.h"
#include "config/job_command.h"
#include "config/listen_address.h"
#include "config/once_time.h"
#include "config/retention.h"
#include "config/secret_reference.h"
#include "config/values.h"

namespace orv {

inline constexpr const char* kDefaultConfigPath = "/etc/orv/orv_sched.cfg";

inline constexpr std::size_t kMaxJobs = 256;
inline constexpr std::size_t kMaxJobName = 127;          // bytes
inline constexpr std::size_t kMaxAfter = 16;             // names
inline constexpr std::size_t kMaxPath = 511;             // bytes of a path setting
inline constexpr std::size_t kMaxJobLogDir = 599;        // bytes
inline constexpr std::size_t kMaxSmtpText = 255;         // bytes of host and user
inline constexpr std::size_t kMaxProfile = 127;          // bytes
inline constexpr std::size_t kMaxArgsText = 1023;        // bytes
inline constexpr std::size_t kMaxScheduleText = 127;     // bytes
inline constexpr std::size_t kMaxAfterText = 2047;       // bytes of the whole list
inline constexpr std::size_t kMaxConfigLine = 2046;      // bytes, line end not counted
inline constexpr std::size_t kConfigMessageSize = 2048;  // holds the longest message of a load

using JobName = FixedText<kMaxJobName>;

// What a dependency must have done: ended well, or just ended.
enum class AfterMode : std::uint32_t { Success = 0, Finished = 1 };
// A switch that may be left unset, and then follows the default of the command that asks.
enum class Tristate : std::int32_t { Unset = -1, No = 0, Yes = 1 };

struct Job {
  JobName name;  // never holds "/"
  JobCommand command = JobCommand::Agent;
  FixedText<kMaxProfile> profile;
  std::vector<std::string> args;  // the tokens of args_text
  bool has_schedule = false;
  CronSpec schedule;
  bool has_once = false;
  std::int64_t once = 0;       // Unix seconds
  std::vector<JobName> after;  // as written, at most kMaxAfter
  AfterMode after_mode = AfterMode::Success;
  bool after_mode_given = false;  // the key was written, which needs after=
  bool enabled = true;
  std::uint32_t timeout_s = 0;  // 0: the [sched] time limit
  Notify notify = Notify::Inherit;
  Tristate run_background = Tristate::Unset;
  Tristate start_background = Tristate::Unset;
  FixedText<kMaxRetention> retention;  // as written
  FixedText<kMaxRetentionClass> retention_class;
  FixedText<kMaxScheduleText> schedule_text;  // as written, unquoted; so are the next two
  FixedText<kMaxOnceText> once_text;
  FixedText<kMaxArgsText> args_text;
};

struct SchedSection {  // 0 or empty: not set
  std::uint32_t poll_interval_s = 0;
  std::uint32_t busy_retry_s = 0;   // before a tool that was busy is tried again
  std::uint32_t job_timeout_s = 0;  // of jobs without one of their own
  FixedText<kMaxJobLogDir> job_log_dir;
  std::uint32_t job_log_keep = 0;  // logs of each job that are kept
};

struct MailSection {
  bool present = false;
  FixedText<kMaxSmtpText> smtp_host;
  std::uint32_t smtp_port = 0;  // set after a load, by TLS mode when the file does not say
  TlsMode tls = TlsMode::StartTls;
  FixedText<kMaxSmtpText> smtp_user;
  bool smtp_password_set = false;  // the key was written
  SecretKind smtp_password_kind = SecretKind::Literal;
  FixedSecret<kMaxSecret> smtp_password;  // the secret itself, resolved
  std::string smtp_password_file;         // where it was read, for SecretKind::File
  FixedText<kMaxMailAddress> from;
  std::vector<FixedText<kMaxMailAddress>> to;  // at most kMaxRecipients
  FixedText<kMaxPath> ca_file;
  std::uint32_t timeout_s = 0;  // set after a load, 60 when the file does not say
  Notify notify = Notify::Never;
};

struct ApiSection {
  bool present = false;
  bool enabled = false;
  ListenAddress listen{};  // 0.0.0.0:8447 unless the file says otherwise
  FixedText<kMaxPath> cert;
  FixedText<kMaxPath> key;
  FixedText<kMaxPath> tokens_file;
  bool allow_config_write = true;
  std::uint32_t allowed_commands = kDefaultAllowedCommands;  // bit n: JobCommand n
  bool allow_args = true;
  std::uint32_t max_clients = 16;
  std::uint32_t history_keep = 20;
  bool notify_changes = true;

  ApiSection();  // fills in the default address and paths
};

// Not copyable (it holds the SMTP password); keep it on the heap, it is large.
struct Config {
  SchedSection sched;
  MailSection mail;
  ApiSection api;
  std::vector<Job> jobs;  // in the order of the file, at most kMaxJobs
};

// Loads the file at `path` into `out`, which must be new or released. 0; else one message, `out`
// then partly filled and only good to be released: kConfigUnreadNow when it, or a password file,
// could not be read for a reason that may pass by itself, -1 for any other fault. Give `err`
// kConfigMessageSize bytes.
inline constexpr int kConfigUnreadNow = -2;
[[nodiscard]] int config_load(const char* path, Config& out, std::span<char> err);

// The same for a text in memory; `path` is what the messages name.
[[nodiscard]] int config_parse(std::string_view text, const char* path, Config& out,
                               std::span<char> err);

// Wipes the SMTP password and returns the record to its initial state. The destructor wipes too.
void config_release(Config& config);

// The job of exactly this name, or null. Linear, in file order. Borrowed from `config`.
[[nodiscard]] const Job* find_job(const Config& config, std::string_view name);

}  // namespace orv

#endif  // ORV_CONFIG_CONFIG_H_
