#include "netproc/mail_queue.h"

#include <sys/random.h>
#include <time.h>

#include <cstdio>
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

void MailQueue::submit(QueuedMail mail) {
  const std::uint32_t id = mail.id;
  {
    const std::lock_guard lock(mutex_);
    if (mails_.size() < kMaxQueuedMails) {
      mails_.push_back(std::move(mail));
      if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
      wake_.notify_one();
      return;
    }
  }
  done_(id, {.status = 1,
             .error = "the mail queue is full: " + std::to_string(kMaxQueuedMails) +
                      " mails are waiting for the mail server"});
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
    const auto settings = settings_;
    SmtpOutcome outcome{.status = 1, .error = no_settings_reason_};
    delivering_ = true;
    lock.unlock();
    if (settings != nullptr) outcome = deliver_(*settings, mail, stop_);
    done_(mail.id, outcome);
    lock.lock();
    delivering_ = false;
  }
}

SmtpOutcome deliver_mail(const IpcMailConfig& settings, const QueuedMail& mail,
                         const std::atomic<bool>& stop) {
  std::uint64_t random = 0;
  const std::int64_t now = ::time(nullptr);
  if (::getrandom(&random, sizeof random, 0) < 0) random = mail.id;  // unique within this process
  char unique_id[64];
  (void)std::snprintf(unique_id, sizeof unique_id, "%lld.%u.%016llx", static_cast<long long>(now),
                      mail.id, static_cast<unsigned long long>(random));  // always fits
  const std::string message = mail_message_text({.from = settings.from.view(),
                                                 .recipients = settings.recipients,
                                                 .subject = mail.subject,
                                                 .body = mail.body,
                                                 .unique_id = unique_id,
                                                 .now = now});
  return smtp_send(settings, message, stop);
}

}  // namespace orv
