// Mail: its settings, queueing, waiting for an outcome, and the one mail sent on its own.
#include <stdint.h>

#include <string>
#include <utility>

#include "common/clock.h"
#include "common/log.h"
#include "common/message.h"
#include "net/supervisor_parts.h"

namespace orv {
namespace {

using namespace net;

constexpr std::uint32_t kAnswerMargin = 15;  // seconds beyond the mail server's own time limit
constexpr int kResultStepMs = 500;
constexpr const char* kNoOutcome = "the network process exited before reporting a result";

// Ids of mails are never 0, which stands for a mail that was not handed over.
std::uint32_t next_mail_id(NetSupervisor& sup) {
  if (sup.child.next_id == 0) sup.child.next_id = 1;
  return sup.child.next_id++;
}

// Ends a private supervisor, whatever became of its mail.
struct Shutdown {
  explicit Shutdown(NetSupervisor& sup) : sup_(sup) {}
  Shutdown(const Shutdown&) = delete;
  Shutdown& operator=(const Shutdown&) = delete;
  ~Shutdown() { net_shutdown(sup_); }

 private:
  NetSupervisor& sup_;
};

}  // namespace

void net::store_mail_settings(NetSupervisor& sup, const MailSection& mail) {
  sup.mail.settings.wipe();
  if (!mail.present) return;
  // The fields are as long as those of the configuration: nothing is cut.
  sup.mail.settings.host.set_truncated(mail.smtp_host.view());
  sup.mail.settings.port = mail.smtp_port;
  sup.mail.settings.tls_mode = static_cast<std::uint32_t>(mail.tls);
  sup.mail.settings.user.set_truncated(mail.smtp_user.view());
  (void)sup.mail.settings.password.set(mail.smtp_password.view());
  sup.mail.settings.from.set_truncated(mail.from.view());
  sup.mail.settings.recipients = mail.to;
  sup.mail.settings.ca_file.set_truncated(mail.ca_file.view());
  sup.mail.settings.timeout_s = mail.timeout_s;
  sup.mail.settings.valid = true;
}

void net::send_mail_config(NetSupervisor& sup) {
  OutgoingRecord record;
  const int encoded =
      ipc_encode_mail_config(record.message(), sup.child.next_id++, sup.mail.settings);
  if (hand_over(sup, encoded, record.message()) == nullptr) return;
  log_msg(LogLevel::Warn, "orv_sched: could not hand the [mail] settings to orv_sched_net");
}

void net::give_up_mails(NetSupervisor& sup) {
  // Taken out first: the callback may queue another mail, which must not be given up with these.
  for (const std::uint32_t id : std::exchange(sup.mail.unanswered, {})) {
    log_msg(LogLevel::Warn, "orv_sched: mail #%u: %s", id, kNoOutcome);
    if (sup.on_mail_result != nullptr) {
      sup.on_mail_result(sup.on_mail_result_context, id, 1, kNoOutcome);
    }
  }
}

void net::finish_mails(NetSupervisor& sup) {
  // Inside the pump nothing would be received, and a child that has gone answers nothing.
  const std::int64_t deadline = monotonic_ms() + kMailGrace * std::int64_t{1000};
  for (std::int64_t left = kMailGrace * std::int64_t{1000};
       left > 0 && !sup.mail.unanswered.empty() && sup.child.fd.valid() && !sup.child.in_pump;
       left = deadline - monotonic_ms()) {
    net_wait(sup, static_cast<int>(left));
  }
  for (const std::uint32_t id : std::exchange(sup.mail.unanswered, {})) {
    log_msg(LogLevel::Warn, "orv_sched: mail #%u: no outcome within %d s, it may be lost", id,
            kMailGrace);
  }
}

void net_set_mail(NetSupervisor& sup, const MailSection& mail) {
  store_mail_settings(sup, mail);
  if (!sup.mail.settings.valid) return;
  // A new child gets the settings when it starts, a running one now; a child that is wanted and
  // waits for its restart gets them then.
  if (!sup.child.wanted) {
    sup.child.wanted = true;
    sup.child.next_restart = 0;
    net_pump(sup);
  } else if (sup.child.fd.valid()) {
    send_mail_config(sup);
  }
}

std::uint32_t net_queue_mail(NetSupervisor& sup, std::string_view subject, std::string_view body) {
  net_pump(sup);                    // a child that is due is started, one that died is noticed
  const std::string name(subject);  // for printf
  if (!sup.child.fd.valid()) {
    log_msg(LogLevel::Error, "orv_sched: mail \"%s\" not sent: the network process is not running",
            name.c_str());
    return 0;
  }
  const std::uint32_t id = next_mail_id(sup);
  OutgoingRecord record;
  const int encoded = ipc_encode_mail_send(record.message(), id, subject, body);
  const char* failure = hand_over(sup, encoded, record.message());
  if (failure != nullptr) {
    log_msg(LogLevel::Error,
            "orv_sched: mail \"%s\" not sent: cannot hand it to the network process (%s)",
            name.c_str(), failure);
    return 0;
  }
  log_msg(LogLevel::Info, "orv_sched: mail #%u queued: %s", id, name.c_str());
  sup.mail.unanswered.push_back(id);
  return id;
}

int net_wait_mail_result(NetSupervisor& sup, std::uint32_t mail_id, std::uint32_t timeout_s,
                         std::span<char> err) {
  sup.mail.last_mail_id = 0;
  // In steps, so that a child that has gone is noticed also when its socket says nothing.
  const std::int64_t deadline = monotonic_ms() + std::int64_t{timeout_s} * 1000;
  while (sup.mail.last_mail_id != mail_id) {
    const std::int64_t left = deadline - monotonic_ms();
    if (left <= 0) return fail(err, "no answer from the network process within %u s", timeout_s);
    if (!sup.child.fd.valid()) return fail(err, "%s", kNoOutcome);
    net_wait(sup, left < kResultStepMs ? static_cast<int>(left) : kResultStepMs);
  }
  if (sup.mail.last_mail_status == 0) return 0;
  return fail(
      err, "%s",
      sup.mail.last_mail_error.empty() ? "unknown error" : sup.mail.last_mail_error.c_str());
}

int net_send_mail_now(const MailSection& mail, std::string_view subject, std::string_view body,
                      std::span<char> err) {
  if (!mail.present) return fail(err, "no [mail] section in the configuration");
  NetSupervisor sup;
  const Shutdown at_the_end(sup);
  // Not wanted: should this child die, no other one takes its place.
  store_mail_settings(sup, mail);
  if (!start_child(sup)) {
    return fail(err, "cannot start the network process orv_sched_net (see the log)");
  }
  const std::uint32_t id = net_queue_mail(sup, subject, body);
  if (id == 0) return fail(err, "cannot hand the mail to the network process");
  sup.mail.unanswered.clear();  // the caller learns the outcome from `err`, not from the log
  const std::uint32_t limit =
      mail.timeout_s > UINT32_MAX - kAnswerMargin ? UINT32_MAX : mail.timeout_s + kAnswerMargin;
  return net_wait_mail_result(sup, id, limit, err);
}

}  // namespace orv
