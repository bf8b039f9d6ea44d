#include "netproc/mail_queue.h"

#include <sys/random.h>
#include <time.h>

#include <cstdio>
#include <system_error>
#include <utility>

#include "netproc/mail_message.h"

namespace orv {

MailQueue::~MailQueue() {
  stop_ = true;
  {
    const std::lock_guard lock(mutex_);  // else the thread could miss the call below
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void MailQueue::set_settings(std::shared_ptr<const IpcMailConfig> settings, std::string reason) {
  const std::lock_guard lock(mutex_);
  settings_ = std::move(settings);
  no_settings_reason_ = std::move(reason);
}

// What keeps the mail from being queued; empty when it was. Needs the lock.
std::string MailQueue::enqueue(QueuedMail mail) {
  if (mails_.size() >= kMaxQueuedMails) {
    return "the mail queue is full: " + std::to_string(kMaxQueuedMails) +
           " mails are waiting for the mail server";
  }
  try {
    // Only with the first mail: a process that serves the API alone needs no second thread.
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& failure) {
    return std::string("no thread can be started for it: ") + failure.what();
  }
  mails_.push_back(std::move(mail));
  wake_.notify_one();
  return {};
}

void MailQueue::submit(QueuedMail mail) {
  const std::uint32_t id = mail.id;
  std::string refusal;
  {
    const std::lock_guard lock(mutex_);
    refusal = enqueue(std::move(mail));
  }
  // Without the lock: what takes the outcome may submit or ask.
  if (!refusal.empty()) done_(id, {.status = 1, .error = refusal});
}

bool MailQueue::busy() const {
  const std::lock_guard lock(mutex_);
  return delivering_ || !mails_.empty();
}

void MailQueue::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stop_ || !mails_.empty(); });
    if (stop_) return;
    const QueuedMail mail = std::move(mails_.front());
    mails_.pop_front();
    const auto settings = settings_;  // a copy: they may be replaced while this mail is under way
    SmtpOutcome outcome{.status = 1, .error = no_settings_reason_};
    delivering_ = true;
    lock.unlock();
    if (settings != nullptr) outcome = deliver_(*settings, mail, stop_);
    lock.lock();
    delivering_ = false;
    // Not busy any more when the outcome is reported: who waits for the last mail asks then.
    lock.unlock();
    done_(mail.id, outcome);
    lock.lock();
  }
}

namespace {

SmtpOutcome deliver(const IpcMailConfig& settings, const MailEnvelope& envelope,
                    const QueuedMail& mail, std::string_view unique_id, std::int64_t now,
                    const std::atomic<bool>& stop) {
  const std::string message = mail_message_text({.from = envelope.from,
                                                 .recipients = envelope.recipients,
                                                 .subject = mail.subject,
                                                 .body = mail.body,
                                                 .unique_id = unique_id,
                                                 .now = now});
  return smtp_send(settings, envelope, message, stop);
}

}  // namespace

SmtpOutcome deliver_mail(const IpcMailConfig& settings, const QueuedMail& mail,
                         const std::atomic<bool>& stop) {
  std::uint64_t random = 0;
  const std::int64_t now = ::time(nullptr);
  if (::getrandom(&random, sizeof random, 0) < 0) random = mail.id;  // unique within this process
  char unique_id[64];
  (void)std::snprintf(unique_id, sizeof unique_id, "%lld.%u.%016llx", static_cast<long long>(now),
                      mail.id, static_cast<unsigned long long>(random));  // always fits

  const Utf8Locale locale;
  MailEnvelope envelope;
  char err[kMaxMailAddress + 100];
  if (make_envelope(settings, envelope, err) != 0) return {.status = 1, .error = err};
  SmtpOutcome outcome = deliver(settings, envelope, mail, unique_id, now, stop);
  if (!outcome.lacks_utf8 || needs_utf8(envelope.from)) return outcome;
  const std::vector<std::string> left_out = remove_utf8_recipients(envelope);
  if (envelope.recipients.empty()) return outcome;
  const SmtpOutcome rest = deliver(settings, envelope, mail, unique_id, now, stop);
  outcome.error = rest.status != 0 ? rest.error : outcome.error + "; sent without " + left_out[0];
  return outcome;
}

}  // namespace orv
