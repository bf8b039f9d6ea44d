#include "sched/result_mail.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <string>

#include "common/files.h"
#include "common/log.h"
#include "common/times.h"

namespace orv {
namespace {

constexpr std::size_t kMaxSubject = 511;    // bytes
constexpr std::size_t kMaxBody = 40959;     // bytes
constexpr std::size_t kTailWindow = 16384;  // bytes at the end of a log that are read
constexpr int kTailLines = 40;
constexpr std::size_t kMailMessageSize = 512;

bool mail_wanted(const Config& config, std::string_view job_name, RunResult result) {
  if (result == RunResult::Busy || !config.mail.present) return false;
  // A job that is no longer configured has nothing of its own to say.
  const Job* const job = find_job(config, job_name);
  const Notify notify = job != nullptr ? effective_notify(*job, config.mail) : config.mail.notify;
  return notify == Notify::Always || (notify == Notify::Failed && result == RunResult::Failed);
}

std::string local_time(std::int64_t seconds) {
  const std::string text = format_local(seconds, "%Y-%m-%d %H:%M:%S %Z");
  return text.empty() ? std::to_string(seconds) : text;
}

std::string duration_text(std::int64_t seconds) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%" PRId64 "h %02" PRId64 "m %02" PRId64 "s",
                seconds / 3600, seconds / 60 % 60, seconds % 60);
  return text.data();
}

// Where the last kTailLines lines of `text` begin; a newline at its very end closes the last of
// them.
std::size_t tail_start(std::string_view text) {
  int newlines = 0;
  const std::size_t end = text.ends_with('\n') ? text.size() - 1 : text.size();
  for (std::size_t at = end; at > 0; --at) {
    if (text[at - 1] == '\n' && ++newlines == kTailLines) return at;
  }
  return 0;
}

std::string log_tail(const char* path) {
  const ScopedFd file = open_file(path, O_RDONLY);
  struct stat st {};
  if (!file.valid() || ::fstat(file.get(), &st) != 0 || st.st_size <= 0) return {};
  const auto size = static_cast<std::uint64_t>(st.st_size);
  std::string text(std::min<std::uint64_t>(size, kTailWindow), '\0');
  std::size_t got = 0;
  if (read_at(file.get(), size - text.size(), text, got) != ErrorCode::Ok) return {};
  text.resize(got);
  std::replace(text.begin(), text.end(), '\0', ' ');
  text.erase(0, tail_start(text));
  return text;
}

struct MailText {
  std::string subject;
  std::string body;
};

MailText compose(std::string_view job_name, const JobRunResult& result) {
  std::array<char, kMaxHostName + 1> buffer{};
  const std::string host(host_name(buffer));
  const std::string job(job_name);
  const std::string word = result.result == RunResult::Failed ? "FAILED" : "DONE";
  // A clock that was set back during the run is no reason for a negative duration.
  const std::int64_t seconds = std::max<std::int64_t>(result.finished - result.started, 0);
  MailText mail;
  mail.subject = "[tarnwell] " + host + ": job " + job + " " + word;
  mail.body =
      "Job:       " + job + "\nHost:      " + host + "\nResult:    " + word +
      "\nExit code: " + std::to_string(result.exit_code) +
      (result.timed_out ? " (timed out)" : "") +
      "\nCommand:   " + std::string(result.command.view()) +
      "\nStarted:   " + local_time(result.started) + "\nFinished:  " + local_time(result.finished) +
      "\nDuration:  " + duration_text(seconds) +
      "\nJob log:   " + (result.log_path.empty() ? "(none)" : result.log_path.c_str()) + "\n";
  if (!result.log_path.empty()) {
    mail.body += "\n--- last lines of the job log ---\n" + log_tail(result.log_path.c_str());
  }
  // A job's name may have a carriage return in it, a mail's subject may not.
  std::replace(mail.subject.begin(), mail.subject.end(), '\r', ' ');
  if (mail.subject.size() > kMaxSubject) mail.subject.resize(kMaxSubject);
  if (mail.body.size() > kMaxBody) mail.body.resize(kMaxBody);
  return mail;
}

}  // namespace

void send_result_mail(const Config& config, std::string_view job_name, const JobRunResult& result,
                      NetSupervisor* supervisor) {
  if (!mail_wanted(config, job_name, result.result)) return;
  const MailText mail = compose(job_name, result);
  if (supervisor != nullptr) {
    (void)net_queue_mail(*supervisor, mail.subject, mail.body);  // logs either outcome itself
    return;
  }
  const std::string job(job_name);
  std::array<char, kMailMessageSize> reason{};
  if (net_send_mail_now(config.mail, mail.subject, mail.body, reason) == 0) {
    log_msg(LogLevel::Info, "orv_sched: notification mail for job '%s' sent", job.c_str());
  } else {
    log_msg(LogLevel::Error, "orv_sched: notification mail for job '%s' not sent: %s", job.c_str(),
            reason.data());
  }
}

}  // namespace orv
