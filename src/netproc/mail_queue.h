// The mails that wait to be sent: one at a time, in the order they came, on a thread of their own,
// because a mail server may keep its client waiting for as long as it likes. Every mail handed in
// has exactly one result.
#ifndef ORV_NETPROC_MAIL_QUEUE_H_
#define ORV_NETPROC_MAIL_QUEUE_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "net/ipc.h"
#include "netproc/smtp.h"

namespace orv {

inline constexpr std::size_t kMaxQueuedMails = 64;  // the one under way not counted

struct QueuedMail {
  std::uint32_t id = 0;  // the scheduler's; its result goes back under it
  std::string subject;
  std::string body;
};

class MailQueue {
 public:
  // Delivers one mail; runs on the queue's thread and gives up soon after `stop` is set.
  using Deliver = std::function<SmtpOutcome(const IpcMailConfig& settings, const QueuedMail& mail,
                                            const std::atomic<bool>& stop)>;
  // Takes a result; runs on the queue's thread, or within submit().
  using Done = std::function<void(std::uint32_t id, const SmtpOutcome& outcome)>;

  MailQueue(Deliver deliver, Done done) : deliver_(std::move(deliver)), done_(std::move(done)) {}
  MailQueue(const MailQueue&) = delete;
  MailQueue& operator=(const MailQueue&) = delete;
  ~MailQueue();  // asks the delivery under way to stop and waits for it; the rest is dropped

  // The settings for all mails that are not under way yet. Null: there are none, for the reason.
  void set_settings(std::shared_ptr<const IpcMailConfig> settings, std::string reason);

  // Queues the mail, or reports at once why not: the queue is full, or no thread can be started.
  void submit(QueuedMail mail);

  // True while a mail is waiting or under way.
  [[nodiscard]] bool busy() const;

 private:
  std::string enqueue(QueuedMail mail);
  void run();

  const Deliver deliver_;
  const Done done_;
  mutable std::mutex mutex_;  // guards all below but the flag and the thread
  std::condition_variable wake_;
  std::deque<QueuedMail> mails_;                   // waiting; the oldest first
  std::shared_ptr<const IpcMailConfig> settings_;  // shared with the mail under way
  std::string no_settings_reason_ = "no [mail] settings have been received";
  bool delivering_ = false;        // a mail is under way
  std::atomic<bool> stop_{false};  // read by the delivery without the lock
  std::thread thread_;             // started with the first mail
};

// Makes the message of `mail` and sends it with smtp_send(). When the server does not take
// addresses beyond ASCII, the recipients with plain ones still get it.
[[nodiscard]] SmtpOutcome deliver_mail(const IpcMailConfig& settings, const QueuedMail& mail,
                                       const std::atomic<bool>& stop);

}  // namespace orv

#endif  // ORV_NETPROC_MAIL_QUEUE_H_
