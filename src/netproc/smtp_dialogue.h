// What an SMTP client says and hears (RFC 5321), followed line by line: the step that the delivery
// has reached, what the server answered to it, what it offers and which recipients it refused.
// Pure. The server is not trusted: its lines may hold any bytes, in any order and number.
#ifndef ORV_NETPROC_SMTP_DIALOGUE_H_
#define ORV_NETPROC_SMTP_DIALOGUE_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace orv {

class SmtpDialogue {
 public:
  // A command as it was sent. Only known verbs count: what follows AUTH is the password, encoded.
  void sent(std::string_view line);

  // The last byte of the message was handed over: the next answer is about the whole mail.
  void message_sent();

  // A line that the server sent. After QUIT nothing counts any more.
  void received(std::string_view line);

  // The step of the last command, for the administrator; empty before the first one.
  [[nodiscard]] const char* step() const { return step_; }

  // The server's last answer to that step: one line, its lines joined, no control characters, at
  // most kMaxSmtpAnswer bytes. Empty while there is none.
  [[nodiscard]] const std::string& answer() const { return answer_; }

  // The answer at hand is a refusal (4xx or 5xx).
  [[nodiscard]] bool refused() const { return !answer_.empty() && answer_[0] >= '4'; }

  // The server has taken the whole mail.
  [[nodiscard]] bool taken() const { return taken_; }

  // The server's offers are known: EHLO was answered whole, after STARTTLS when `tls_first`.
  [[nodiscard]] bool greeted(bool tls_first) const { return greeted_ && (tls_ || !tls_first); }
  [[nodiscard]] bool offers_auth() const { return offers_auth_; }
  [[nodiscard]] bool offers_utf8() const { return offers_utf8_; }

  // How many recipients were refused, and of the first one its place in the order of sending
  // (counting from 0) and the answer.
  [[nodiscard]] std::size_t refusals() const { return refusals_; }
  [[nodiscard]] std::size_t first_refused() const { return first_refused_; }
  [[nodiscard]] const std::string& first_refusal() const { return first_refusal_; }

 private:
  enum class At { Greeting, Ehlo, Starttls, Recipient, Other, End, Quit };

  void note_offer(std::string_view text);
  void note_last_line();

  At at_ = At::Greeting;  // what the next answer is about
  const char* step_ = "";
  std::string answer_;
  std::size_t recipients_ = 0;  // RCPT commands so far
  std::size_t refusals_ = 0;
  std::size_t first_refused_ = 0;
  std::string first_refusal_;
  bool greeted_ = false;  // EHLO was answered whole
  bool tls_ = false;      // STARTTLS was accepted: the offers made before it do not count
  bool offers_auth_ = false;
  bool offers_utf8_ = false;
  bool taken_ = false;
};

inline constexpr std::size_t kMaxSmtpAnswer = 200;  // bytes

}  // namespace orv

#endif  // ORV_NETPROC_SMTP_DIALOGUE_H_
