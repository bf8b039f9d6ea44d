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

  // `mode` is that of smtp_server.py. What an earlier server heard is forgotten.
  void start_server(const std::string& mode, const test::KeyPair& pair) {
    (void)::unlink(dir_.file("heard").c_str());
    server_.emplace(std::vector<std::string>{"/usr/bin/python3", ORV_SMTP_SERVER, mode,
                                             pair.certificate, pair.key, dir_.path()});
    EXPECT_TRUE(test::wait_until(20s, [&] { return test::exists(dir_.file("port")); }))
        << server_->err();
    port_ = static_cast<std::uint32_t>(std::stoul(test::read_file(dir_.file("port"))));
    EXPECT_EQ(::unlink(dir_.file("port").c_str()), 0);
  }

  // `to`: recipients with a blank after each.
  void configure(std::uint32_t tls_mode, const std::string& ca_file = "",
                 const std::string& password = "", std::string_view to = "root@example.org ",
                 std::uint32_t timeout_s = 20) {
    IpcMailConfig config;
    EXPECT_TRUE(config.host.set("127.0.0.1") && config.ca_file.set(ca_file));
    EXPECT_TRUE(config.from.set("backup@example.org") && config.password.set(password));
    EXPECT_TRUE(config.user.set(config.password.empty() ? "" : "u"));
    for (; !to.empty(); to.remove_prefix(to.find(' ') + 1)) {
      EXPECT_TRUE(config.recipients.emplace_back().set(to.substr(0, to.find(' '))));
    }
    config.port = port_;
    config.tls_mode = tls_mode;
    config.timeout_s = timeout_s;
    const auto out = std::make_unique<IpcMessage>();
    ASSERT_EQ(ipc_encode_mail_config(*out, 1, config), 0);
    driver_->send(*out);
  }

  MailOutcome mail(std::string_view body = "hello\n") {
    driver_->send_mail(++last_id_, "Subject", body);
    return driver_->mail_result(last_id_);
  }

  [[nodiscard]] std::string heard() const { return test::read_file(dir_.file("heard")); }
  // What a message says after the server's name.
  [[nodiscard]] std::string named(const std::string& error) const {
    return error.empty() ? "" : "127.0.0.1:" + std::to_string(port_) + ": " + error;
  }

  test::TempDir dir_;
  std::optional<test::NetDriver> driver_{std::in_place};
  std::optional<test::Program> server_;
  test::KeyPair own_, other_;
  std::uint32_t last_id_ = 0, port_ = 0;
};

TEST_F(Mail, ArrivesAsItWasWritten) {
  EXPECT_THAT(mail().error, HasSubstr("no [mail] settings"));
  start_server("none", own_);
  configure(kNone);
  EXPECT_EQ(mail(".\n..two\nfrom\n").error, "");
  EXPECT_THAT(heard(), HasSubstr("backup@example.org root@example.org None\nDate: "));
  EXPECT_THAT(heard(), HasSubstr("\r\n\r\n.\r\n..two\r\nfrom\r\n"));
  server_.reset();
  EXPECT_EQ(mail().error, named("cannot connect: Connection refused"));
}

TEST_F(Mail, IsSentOrFailsWithAReasonThatNamesTheStep) {
  const std::string root = "root@example.org ", joerg = "j\xC3\xB6rg@example.org ";
  const std::string own = own_.certificate, no = dir_.file("missing.crt");
  const struct {
    const char* server;
    std::uint32_t tls;
    std::string ca, password, to;
    std::string error, heard;  // parts of them; no error: sent; nothing heard: no mail went out
  } cases[] = {
      // clang-format off
      {"starttls", kStarttls, own, "p", root, "", "root@example.org True\n"},
      {"smtps", kSmtps, own, "p", root, "", "root@example.org True\n"},
      {"starttls", kStarttls, own, "wrong", root, "the login was refused at login (AUTH), the server said: 535", ""},
      {"starttls", kStarttls, other_.certificate, "p", root, "certificate is not accepted at STARTTLS", ""},
      {"starttls", kStarttls, "", "", root, "certificate is not accepted at STARTTLS", ""},
      {"starttls", kStarttls, no, "", root, "the ca-file cannot be used at STARTTLS", ""},
      {"starttls", kNone, "", "p", root, "login without TLS would send the password in clear text", ""},
      {"none", kStarttls, own, "", root, "STARTTLS is required and the server does not do it", ""},
      {"script EHLO=250-h\\r\\n250_SIZE", kStarttls, own, "p", root, "STARTTLS is required", ""},
      {"script TLS=yes", kSmtps, own, "p", root, "smtp-user is set, but the server offers no login (AUTH)", ""},
      {"none", kNone, "", "", "refused@example.org ", "no recipient was accepted: refused@example.org (550 5.1.1 no such user here)", ""},
      {"none", kNone, "", "", root + "refused@a ", "sent to 1 of 2 recipients only, refused: refused@a (550", "root@example.org None\n"},
      {"none", kNone, "", "", joerg, "", joerg + "None\n"},
      {"script", kNone, "", "", "root@b\xC3\xBC" "cher.example ", "", "RCPT TO:<root@xn--bcher-kva.example>\r\n"},
      {"script", kNone, "", "", joerg, "an address is not ASCII, and the server does not offer SMTPUTF8", ""},
      {"script", kNone, "", "", joerg + root, "offer SMTPUTF8; sent without j\xC3\xB6rg@example.org", "RCPT TO:<root@example.org>\r\n"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.server) + " " + c.ca + " " + c.password + " to " + c.to);
    start_server(c.server, own_);
    configure(c.tls, c.ca, c.password, c.to);
    const std::string error = mail().error;
    EXPECT_THAT(error, HasSubstr(c.error));
    EXPECT_EQ(error.empty(), c.error.empty());
    EXPECT_THAT(heard(), HasSubstr(c.heard));
    EXPECT_EQ(test::contains(heard(), "Subject:") || test::contains(heard(), "RCPT TO:"),
              !c.heard.empty());
  }
  start_server("smtps", other_);  // its certificate names another host
  configure(kSmtps, other_.certificate, "p");
  EXPECT_THAT(mail().error, HasSubstr("certificate is not accepted at connection"));
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
    start_server(std::string("script ") + c.script, own_);
    const bool waits = test::contains(c.script, "silence");  // a busy machine is slow, too
    configure(kNone, "", "", "root@example.org ", waits ? 2 : 20);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(mail().error, named(c.error));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s);
  }
}

TEST_F(Mail, EndsWithTheSchedulerEvenWhileAServerIsSilent) {
  start_server("script GREETING=silence", own_);
  configure(kNone, "", "", "root@example.org ", 3600);
  driver_->send_mail(99, "never", "sent");
  driver_.reset();
}

TEST_F(Mail, SendsWhatItWasGivenAlsoWhenTheSchedulerHasGone) {
  start_server("none", own_);
  configure(kNone);
  driver_->send_mail(1, "last", "words\n");
  driver_.reset();  // the end of the socket and of the process
  EXPECT_THAT(heard(), HasSubstr("Subject: last"));
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
