#include "netproc/mail_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/support.h"

namespace orv {
namespace {

using ::testing::HasSubstr;

std::string message(std::string_view subject, std::string_view body,
                    std::vector<std::string> to = {"root@example.org"}) {
  return mail_message_text({.from = "backup@example.org",
                            .recipients = to,
                            .subject = subject,
                            .body = body,
                            .unique_id = "1700000000.7.abc",
                            .now = 1700000000});
}

std::string subject_of(const std::string& text) {
  const std::size_t start = text.find("\r\nSubject: ") + 2;
  std::size_t end = text.find("\r\n", start);
  while (text[end + 2] == ' ') end = text.find("\r\n", end + 2);
  return text.substr(start, end - start);
}

std::string body_of(const std::string& text) { return text.substr(text.find("\r\n\r\n") + 4); }

TEST(MailMessage, HasTheHeadersOfAWellFormedMail) {
  const test::ScopedTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(message("done", "all well\n", {"a@example.org", "b@example.org"}),
            "Date: Tue, 14 Nov 2023 23:13:20 +0100\r\n"
            "From: <backup@example.org>\r\n"
            "To: <a@example.org>,\r\n <b@example.org>\r\n"
            "Subject: done\r\n"
            "Message-ID: <1700000000.7.abc@example.org>\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: text/plain; charset=utf-8\r\n"
            "Auto-Submitted: auto-generated\r\n"
            "Content-Transfer-Encoding: 7bit\r\n\r\n"
            "all well\r\n");
}

TEST(MailMessage, EncodesAndFoldsSubjects) {
  const std::pair<std::string, std::string> kCases[] = {
      {"", "Subject: (no subject)"},
      {"Prüfung", "Subject: =?UTF-8?B?UHLDvGZ1bmc=?="},
      {"\xC3(", "Subject: =?UTF-8?B?77+9KA==?="},          // not UTF-8: the replacement character
      {"=?x?Q?y?=", "Subject: =?UTF-8?B?PT94P1E/eT89?="},  // would be decoded otherwise
      {"a\r\nBcc: x@y\x01", "Subject: a  Bcc: x@y"},       // no header of its own
      {std::string(40, 'a') + " " + std::string(40, 'b'),
       "Subject: " + std::string(40, 'a') + "\r\n " + std::string(40, 'b')},
  };
  for (const auto& [subject, expected] : kCases) {
    EXPECT_EQ(subject_of(message(subject, "")), expected);
  }
  std::string umlauts;
  for (int i = 0; i < 250; ++i) umlauts += "ü";
  std::istringstream lines(subject_of(message(umlauts, "")));
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 78U);
    EXPECT_THAT(line, HasSubstr("?="));
  }
  EXPECT_LE(subject_of(message(std::string(5000, 'x'), "")).find("\r\n"), 78U);
}

TEST(MailMessage, KeepsBodiesWithinTheRulesOfTheTransport) {
  const std::pair<std::string, std::string> kCases[] = {
      {"a\nb\r\nc\rd", "a\r\nb\r\nc\r\nd\r\n"},
      {"größer = 1 \n", "gr=C3=B6=C3=9Fer =3D 1=20\r\n"},
      {"\xFF\x1B\n.\n", "=EF=BF=BD=1B\r\n=2E\r\n"},
      {std::string(998, 'x'), std::string(998, 'x') + "\r\n"},
      {std::string(999, '='), ""},
      {std::string(80, 'x') + "ü", std::string(75, 'x') + "=\r\nxxxxx=C3=BC\r\n"},
  };
  for (const auto& [text, expected] : kCases) {
    const std::string body = body_of(message("s", text));
    EXPECT_EQ(body.substr(0, expected.size()), expected);
    std::istringstream lines(body);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 999U);
  }
}

}  // namespace
}  // namespace orv
