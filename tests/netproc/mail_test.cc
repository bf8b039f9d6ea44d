// Mails through the whole network process to a real SMTP server, and the queue by itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <semaphore>

#include "netproc/mail_queue.h"
#include "netproc/net_driver.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::MailOutcome;
using ::testing::HasSubstr;

constexpr std::uint32_t kNone = 0, kStarttls = 1, kSmtps = 2;

class Mail : public ::testing::Test {
 protected:
  void SetUp() override {
    if (test::run_program({"/usr/bin/python3", "-c", "import aiosmtpd"}).status != 0) {
      GTEST_SKIP() << "no SMTP server to test with (python3-aiosmtpd)";
    }
    own_ = test::make_certificate(dir_, "127.0.0.1");
    other_ = test::make_certificate(dir_, "mail.example.org");
  }

  std::uint32_t start_server(const std::string& mode, const test::KeyPair& pair) {
    server_.emplace(std::vector<std::string>{"/usr/bin/python3", ORV_SMTP_SERVER, mode,
                                             pair.certificate, pair.key, dir_.path()});
    EXPECT_TRUE(test::wait_until(20s, [&] { return test::exists(dir_.file("port")); }))
        << server_->err();
    const auto port = std::stoul(test::read_file(dir_.file("port")));
    EXPECT_EQ(::unlink(dir_.file("port").c_str()), 0);
    return static_cast<std::uint32_t>(port);
  }

  void configure(std::uint32_t port, std::uint32_t tls_mode, const std::string& ca_file,
                 const char* password = "", const char* to = "root@example.org") {
    IpcMailConfig config;
    EXPECT_TRUE(config.host.set("127.0.0.1") && config.ca_file.set(ca_file));
    EXPECT_TRUE(config.from.set("backup@example.org") && config.password.set(password));
    EXPECT_TRUE(config.user.set(config.password.empty() ? "" : "u"));
    config.recipients.resize(1);
    EXPECT_TRUE(config.recipients[0].set(to));
    for (const char* more : more_recipients_) config.recipients.emplace_back().set_truncated(more);
    config.port = port;
    config.tls_mode = tls_mode;
    config.timeout_s = timeout_s_;
    const auto out = std::make_unique<IpcMessage>();
    ASSERT_EQ(ipc_encode_mail_config(*out, 1, config), 0);
    driver_->send(*out);
  }

  MailOutcome mail(std::string_view body = "hello\n") {
    driver_->send_mail(++last_id_, "Subject", body);
    return driver_->mail_result(last_id_);
  }

  test::TempDir dir_;
  std::optional<test::NetDriver> driver_{std::in_place};
  std::optional<test::Program> server_;
  test::KeyPair own_, other_;
  std::uint32_t last_id_ = 0;
  std::uint32_t timeout_s_ = 20;
  std::vector<const char*> more_recipients_;
};

TEST_F(Mail, ArrivesInEveryTlsMode) {
  EXPECT_THAT(mail().error, HasSubstr("no [mail] settings"));
  configure(start_server("none", own_), kNone, "");
  EXPECT_EQ(mail(".\n..two\nfrom\n").error, "");
  const std::string plain = test::read_file(dir_.file("1.eml"));
  EXPECT_THAT(plain, HasSubstr("backup@example.org root@example.org None\nDate: "));
  EXPECT_THAT(plain, HasSubstr("\r\n\r\n.\r\n..two\r\nfrom\r\n"));
  for (const auto& [mode, tls] : {std::pair{"starttls", kStarttls}, {"smtps", kSmtps}}) {
    SCOPED_TRACE(mode);
    configure(start_server(mode, own_), tls, own_.certificate, "p");
    EXPECT_EQ(mail().error, "");
    EXPECT_THAT(test::read_file(dir_.file("1.eml")), HasSubstr("root@example.org True\n"));
  }
}

TEST_F(Mail, FailsWithAReasonThatNamesTheStep) {
  const std::uint32_t tls_port = start_server("starttls", own_);
  const auto expect_failure = [&](const char* a, const char* b) {
    const std::string error = mail().error;
    EXPECT_THAT(error, HasSubstr(a));
    EXPECT_THAT(error, HasSubstr(b));
  };
  configure(tls_port, kStarttls, own_.certificate, "wrong");
  expect_failure("the login was refused at login (AUTH)", "535");
  configure(tls_port, kStarttls, other_.certificate, "p");
  expect_failure("certificate is not accepted at STARTTLS", "certificate");
  configure(tls_port, kStarttls, "");
  expect_failure("certificate is not accepted", "certificate");
  configure(tls_port, kStarttls, dir_.file("missing.crt"));
  expect_failure("the ca-file cannot be used", "missing.crt");
  configure(tls_port, kNone, "", "p");
  expect_failure("clear text", "");
  configure(tls_port, kStarttls, own_.certificate, "p", "refused@example.org");
  expect_failure("no recipient was accepted", "refused@example.org (550 5.1.1 no such user here)");
  more_recipients_ = {"refused2@example.org"};
  configure(tls_port, kStarttls, own_.certificate, "p");
  expect_failure("sent to 1 of 2 recipients only", "refused2@example.org (550 5.1.1");
  more_recipients_.clear();
  configure(start_server("smtps", other_), kSmtps, other_.certificate, "p");
  expect_failure("certificate is not accepted", "127.0.0.1");  // it names another host
  const std::uint32_t plain_port = start_server("none", own_);
  configure(plain_port, kStarttls, own_.certificate);
  expect_failure("STARTTLS is required", "");
  EXPECT_FALSE(test::exists(dir_.file("2.eml")));  // only the mail to the one of two recipients
  server_.reset();
  configure(plain_port, kNone, "");
  expect_failure("cannot connect", "onnection refused");
}

// Servers that answer what the protocol has no place for, or stop answering.
TEST_F(Mail, TellsWhatTheServerSaidAndKeepsItsTimeLimit) {
  // clang-format off
  const struct { const char* script; std::string error; } cases[] = {  // empty: sent
      {"GREETING=silence", "the time limit was reached at greeting: 2 s"},
      {"EHLO=hangup", "the connection was lost at EHLO"},
      {"MAIL=553_not_you", "refused at sender (MAIL FROM), the server said: 553 not you"},
      {"MAIL=553_not_you QUIT=hangup", "refused at sender (MAIL FROM), the server said: 553 not you"},
      {"DATA=550_no", "refused at DATA, the server said: 550 no"},
      {"END=552-too\\r\\n552_much", "refused at end of the message, the server said: 552 too much"},
      {"END=550_no QUIT=221_bye\\r\\n250_ok", "refused at end of the message, the server said: 550 no"},
      {"END=silence", "the time limit was reached at end of the message: 2 s"},
      {"END=250_ok QUIT=silence", ""},
      {"QUIT=hangup", ""},
      {"RCPT=silence", "the time limit was reached at recipient (RCPT TO): 2 s"},
      {"EHLO=500_what HELO=250_hm", ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    timeout_s_ = test::contains(c.script, "silence") ? 2 : 20;  // a busy machine is slow, too
    const std::uint32_t port = start_server(std::string("script ") + c.script, own_);
    configure(port, kNone, "");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(mail().error,
              c.error.empty() ? "" : "127.0.0.1:" + std::to_string(port) + ": " + c.error);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s);
  }
}

TEST_F(Mail, NeedsALoginWhereAUserIsSetAndUtf8ForAddressesBeyondAscii) {
  configure(start_server("script EHLO=250-h\\r\\n250_SIZE", own_), kStarttls, own_.certificate,
            "p");
  EXPECT_THAT(mail().error, HasSubstr("STARTTLS is required"));
  configure(start_server("script TLS=yes", own_), kSmtps, own_.certificate, "p");
  EXPECT_THAT(mail().error, HasSubstr("smtp-user is set, but the server offers no login (AUTH)"));

  const std::uint32_t plain = start_server("script", own_);
  configure(plain, kNone, "", "",
            "root@b\xC3\xBC"
            "cher.example");
  EXPECT_EQ(mail().error, "");
  EXPECT_THAT(test::read_file(dir_.file("heard")),
              HasSubstr("RCPT TO:<root@xn--bcher-kva.example>\r\n"));
  configure(plain, kNone, "", "", "j\xC3\xB6rg@example.org");
  EXPECT_THAT(mail().error,
              HasSubstr("an address is not ASCII, and the server does not offer SMTPUTF8"));
  EXPECT_THAT(test::read_file(dir_.file("heard")), ::testing::Not(HasSubstr("j\xC3\xB6rg")));
  more_recipients_ = {"ops@example.org"};
  configure(plain, kNone, "", "", "j\xC3\xB6rg@example.org");
  EXPECT_THAT(mail().error, HasSubstr("SMTPUTF8; sent without j\xC3\xB6rg@example.org"));
  EXPECT_THAT(test::read_file(dir_.file("heard")), HasSubstr("RCPT TO:<ops@example.org>\r\n"));

  more_recipients_.clear();
  configure(start_server("none", own_), kNone, "", "", "j\xC3\xB6rg@example.org");
  EXPECT_EQ(mail().error, "");
}

TEST_F(Mail, EndsWithTheSchedulerEvenWhileAServerIsSilent) {
  timeout_s_ = 3600;
  configure(start_server("script GREETING=silence", own_), kNone, "");
  driver_->send_mail(99, "never", "sent");
  driver_.reset();
}

TEST_F(Mail, SendsWhatItWasGivenAlsoWhenTheSchedulerHasGone) {
  configure(start_server("none", own_), kNone, "");
  driver_->send_mail(1, "last", "words\n");
  driver_.reset();  // the end of the socket and of the process
  EXPECT_THAT(test::read_file(dir_.file("1.eml")), HasSubstr("Subject: last"));
}

TEST(MailQueue, SendsInOrderAndRefusesWhatDoesNotFit) {
  std::binary_semaphore begun(0), go_on(0);
  std::vector<std::uint32_t> sent, refused;
  {
    MailQueue queue(
        [&](const IpcMailConfig&, const QueuedMail& mail, const std::atomic<bool>&) {
          if (mail.id == 1) {
            begun.release();
            go_on.acquire();
          }
          sent.push_back(mail.id);
          return SmtpOutcome{};
        },
        [&](std::uint32_t id, const SmtpOutcome& outcome) {
          if (outcome.status != 0) refused.push_back(id);
        });
    queue.set_settings(std::make_shared<IpcMailConfig>(), "");
    queue.submit({1, "", ""});
    begun.acquire();
    for (std::uint32_t id = 2; id <= kMaxQueuedMails + 3; ++id) queue.submit({id, "", ""});
    EXPECT_THAT(refused, ::testing::ElementsAre(kMaxQueuedMails + 2, kMaxQueuedMails + 3));
    go_on.release();
    EXPECT_TRUE(test::wait_until(10s, [&] { return !queue.busy(); }));
  }
  EXPECT_EQ(sent.size(), kMaxQueuedMails + 1);
  EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end()));
}

}  // namespace
}  // namespace orv
