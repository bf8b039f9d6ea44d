// Any bytes as subject and body of a mail: the first line is the subject. The text has CRLF line
// ends only, no line of more than 998 bytes, only well-formed UTF-8, and no header but those made
// here.
#include <string>

#include "common/utf8.h"
#include "fuzz/targets.h"
#include "netproc/mail_message.h"

namespace orv::fuzz {
namespace {

void check_line(std::string_view line) {
  require(line.size() <= 998);
  while (!line.empty()) {
    const std::size_t length = utf8_sequence(line);
    require(length > 0 && line[0] != '\r' && line[0] != '\n' && line[0] != '\0');
    line.remove_prefix(length);
  }
}

// The headers that there are, each once; folded lines belong to the one before.
void check_header(std::string_view line) {
  static constexpr std::string_view kNames[] = {
      "Date: ",         "From: ",           "To: ",
      "Subject: ",      "Message-ID: ",     "MIME-Version: ",
      "Content-Type: ", "Auto-Submitted: ", "Content-Transfer-Encoding: "};
  bool known = line.starts_with(' ');
  for (const std::string_view name : kNames) known = known || line.starts_with(name);
  require(known);
}

}  // namespace

void mail(std::string_view input) {
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string recipients[] = {"root@example.org", "ops@example.org"};
  const std::string text = mail_message_text({.from = "backup@example.org",
                                              .recipients = recipients,
                                              .subject = input.substr(0, end),
                                              .body = input.substr(std::min(end + 1, input.size())),
                                              .unique_id = "1.2.3",
                                              .now = 1700000000});
  bool in_header = true;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t line_end = rest.find("\r\n");
    require(line_end != std::string_view::npos);
    const std::string_view line = rest.substr(0, line_end);
    in_header = in_header && !line.empty();
    check_line(line);
    if (in_header) check_header(line);
    rest.remove_prefix(line_end + 2);
  }
}

}  // namespace orv::fuzz
