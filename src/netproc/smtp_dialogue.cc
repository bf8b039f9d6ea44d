#include "netproc/smtp_dialogue.h"

#include <strings.h>

#include <algorithm>

#include "common/text.h"

namespace orv {
namespace {

// An answer begins with three digits; "-" after them says that more lines follow.
constexpr std::size_t kCodeSize = 3;

bool has_code(std::string_view line) {
  return line.size() >= kCodeSize && is_digit(line[0]) && is_digit(line[1]) && is_digit(line[2]);
}

bool is_keyword(std::string_view text, std::string_view keyword) {
  const std::string_view word = text.substr(0, text.find_first_of(" ="));
  return word.size() == keyword.size() &&
         ::strncasecmp(word.data(), keyword.data(), keyword.size()) == 0;
}

}  // namespace

void SmtpDialogue::sent(std::string_view line) {
  struct Verb {
    std::string_view name;
    At at;
    const char* step;
  };
  static constexpr Verb kVerbs[] = {
      {"EHLO", At::Ehlo, "EHLO"},
      {"HELO", At::Ehlo, "HELO"},
      {"STARTTLS", At::Starttls, "STARTTLS"},
      {"AUTH", At::Other, "login (AUTH)"},
      {"MAIL", At::Other, "sender (MAIL FROM)"},
      {"RCPT", At::Recipient, "recipient (RCPT TO)"},
      {"DATA", At::Other, "DATA"},
  };
  const std::string_view word = line.substr(0, line.find_first_of(" :\r\n"));
  // The answer to QUIT is about nothing: step and answer stay those that say what happened.
  if (word == "QUIT") at_ = At::Quit;
  const Verb* verb = std::ranges::find(kVerbs, word, &Verb::name);
  if (verb == std::end(kVerbs) || at_ == At::Quit) return;
  at_ = verb->at;
  step_ = verb->step;
  answer_.clear();
  if (at_ == At::Recipient) ++recipients_;
  // What was offered in clear text does not count once TLS has begun.
  if (at_ == At::Ehlo) greeted_ = offers_auth_ = offers_utf8_ = false;
}

void SmtpDialogue::message_sent() {
  at_ = At::End;
  step_ = "end of the message";
  answer_.clear();
}

void SmtpDialogue::received(std::string_view line) {
  line = trim_right(line);
  if (at_ == At::Quit || !has_code(line)) return;
  const std::string_view text = line.substr(std::min(line.size(), kCodeSize + 1));
  if (at_ == At::Ehlo) note_offer(text);

  // A line joins the one before only when that announced it and the code is the same: whatever else
  // comes is an answer of its own.
  const bool continued = answer_.size() > kCodeSize && answer_[kCodeSize] == '-' &&
                         answer_.compare(0, kCodeSize, line, 0, kCodeSize) == 0;
  if (continued) {
    if (!text.empty()) answer_.append(" ").append(text);
  } else {
    answer_ = line;
  }
  if (answer_.size() > kMaxSmtpAnswer) answer_.resize(kMaxSmtpAnswer);
  std::ranges::replace_if(
      answer_, [](char c) { return (c >= 0 && c < 0x20) || c == 0x7F; }, ' ');
  const bool last = line.size() == kCodeSize || line[kCodeSize] != '-';
  if (last) note_last_line();
}

void SmtpDialogue::note_offer(std::string_view text) {
  if (is_keyword(text, "AUTH")) offers_auth_ = true;
  if (is_keyword(text, "SMTPUTF8")) offers_utf8_ = true;
}

void SmtpDialogue::note_last_line() {
  if (answer_.size() > kCodeSize) answer_[kCodeSize] = ' ';
  const bool agreed = answer_[0] == '2';
  if (at_ == At::Ehlo) greeted_ = agreed;
  // From the server's consent on, the greeting counts only when it is said again inside TLS.
  if (at_ == At::Starttls && agreed) {
    tls_ = true;
    greeted_ = false;
  }
  if (at_ == At::Recipient && refused() && refusals_++ == 0) {
    first_refused_ = recipients_ - 1;
    first_refusal_ = answer_;
  }
  if (at_ == At::End && agreed) taken_ = true;
  if (at_ == At::Recipient || at_ == At::End) at_ = At::Other;  // one answer to each
}

}  // namespace orv
