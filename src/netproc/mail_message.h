// The text of a mail as it goes to the SMTP server: RFC 5322 headers with RFC 2047 subjects and a
// MIME text body. Pure; whatever the inputs hold, the result has CRLF line ends, no line above 998
// bytes, only well-formed UTF-8 and no header but the ones made here.
#ifndef ORV_NETPROC_MAIL_MESSAGE_H_
#define ORV_NETPROC_MAIL_MESSAGE_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace orv {

struct MailMessage {
  std::string_view from;                    // plain addresses, already checked
  std::span<const std::string> recipients;  // 1 or more
  std::string_view subject;
  std::string_view body;       // any line ends
  std::string_view unique_id;  // left half of the Message-ID: letters, digits and dots
  std::int64_t now = 0;        // Unix seconds; shown as local time with its offset
};

[[nodiscard]] std::string mail_message_text(const MailMessage& mail);

}  // namespace orv

#endif  // ORV_NETPROC_MAIL_MESSAGE_H_
