// Any lines as an SMTP server's answers, with the client's steps in between: a line that begins
// with
// ">" is a command, "!" the end of the message. What is shown is short and has no control
// characters, refusals are never more than recipients, and nothing counts after QUIT.
#include <algorithm>
#include <string>

#include "fuzz/targets.h"
#include "netproc/smtp_dialogue.h"

void orv::fuzz::smtp(std::string_view input) {
  SmtpDialogue dialogue;
  std::size_t recipients = 0;
  bool quit = false;
  std::string last_answer;
  while (!input.empty()) {
    const std::size_t end = std::min(input.find('\n'), input.size() - 1);
    const std::string_view line = input.substr(0, end + 1);
    input.remove_prefix(line.size());
    if (line[0] == '>') {
      dialogue.sent(line.substr(1));
      if (line.substr(1).starts_with("RCPT")) ++recipients;
      quit = quit || line == ">QUIT" || line.starts_with(">QUIT\n") || line.starts_with(">QUIT\r");
    } else if (line[0] == '!' && !quit) {
      dialogue.message_sent();
    } else {
      dialogue.received(line);
    }
    if (quit && !last_answer.empty()) require(dialogue.answer() == last_answer);
    last_answer = quit ? dialogue.answer() : "";
    require(dialogue.answer().size() <= kMaxSmtpAnswer);
    require(std::ranges::none_of(dialogue.answer(),
                                 [](char c) { return (c >= 0 && c < ' ') || c == 0x7F; }));
    require(dialogue.refusals() <= recipients && dialogue.first_refused() <= recipients);
    require(!dialogue.refused() || !dialogue.answer().empty());
  }
}
