// The mail that reports a finished run.
#ifndef ORV_SCHED_RESULT_MAIL_H_
#define ORV_SCHED_RESULT_MAIL_H_

#include <string_view>

#include "config/config.h"
#include "net/supervisor.h"
#include "sched/job_run.h"

namespace orv {

// When the job's runs are mailed: its own 'notify', else that of [mail].
[[nodiscard]] inline Notify effective_notify(const Job& job, const MailSection& mail) {
  return job.notify == Notify::Inherit ? mail.notify : job.notify;
}

// Sends the mail when the job's notify policy (or [mail]'s, when the job has none) asks for one:
// through `supervisor` when there is one, else with a network process of its own, waiting for the
// outcome. Failures are logged and change nothing else. A busy run never mails.
void send_result_mail(const Config& config, std::string_view job_name, const JobRunResult& result,
                      NetSupervisor* supervisor);

}  // namespace orv

#endif  // ORV_SCHED_RESULT_MAIL_H_
