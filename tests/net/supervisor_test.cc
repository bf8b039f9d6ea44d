#include "net/supervisor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "common/log.h"
#include "net/certificate.h"
#include "support/network.h"
#include "support/parsed.h"
#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using namespace std::chrono_literals;

std::int64_t fake_now = 1000;

// The stand-in for the network process, where an ordinary user can execute it. Root starts the
// child under an account that a test machine does not have: these tests run as nobody then.
const std::string& fake_program() {
  static const test::TempDir dir;
  static const std::string path = [] {
    std::string copy = dir.file("orv_fake_net");
    std::filesystem::copy_file(ORV_FAKE_NET, copy);
    if (::geteuid() == 0) {
      EXPECT_EQ(::chown(dir.path().c_str(), test::kNobody, test::kNobody), 0);
      EXPECT_EQ(::setresgid(test::kNobody, test::kNobody, test::kNobody), 0);
      EXPECT_EQ(::setresuid(test::kNobody, test::kNobody, test::kNobody), 0);
      ::prctl(PR_SET_DUMPABLE, 1);  // the leak checker attaches to its own process
    }
    return copy;
  }();
  return path;
}

class Net : public ::testing::Test {
 protected:
  Net() : fake_(fake_program()) {
    stderr_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const ScopedFd file(::open(dir_.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644));
    EXPECT_EQ(::dup2(file.get(), STDERR_FILENO), STDERR_FILENO);
    make_pair();
    sup_.on_mail_result_context = &outcomes_;
    sup_.on_mail_result = [](void* context, std::uint32_t id, std::uint32_t status,
                             std::string_view error) {
      *static_cast<std::string*>(context) +=
          std::to_string(id) + "=" + std::to_string(status) + " " + std::string(error) + ";";
    };
  }
  ~Net() override {
    net_shutdown(sup_);
    ::dup2(stderr_, STDERR_FILENO);
    ::close(stderr_);
  }

  // The child has an environment of its own: a script passes on what the stand-in is to know.
  void manner(const std::string& name) {
    const std::string body = "ORV_FAKE_NET=" + name + " ORV_FAKE_NET_LOG=" + dir_.file("notes") +
                             " exec " + fake_ + " \"$@\"\n";
    binary_.emplace("ORV_SCHED_NET_BIN", dir_.script("orv_sched_net-" + name, body));
  }
  void make_pair() {
    EXPECT_EQ(cert_create(api_.cert.c_str(), api_.key.c_str(), "h", 1, true), ErrorCode::Ok);
  }
  [[nodiscard]] std::string log() const { return test::read_file(dir_.file("log")); }
  [[nodiscard]] std::string notes() const { return test::read_file(dir_.file("notes")); }
  bool pump_until(const std::function<bool()>& condition) { return pump_until(sup_, condition); }
  static bool pump_until(NetSupervisor& sup, const std::function<bool()>& condition) {
    return test::wait_until(20s, [&] {
      net_wait(sup, 20);
      return condition();
    });
  }
  bool logs(const std::string& line) {
    return pump_until([&] { return contains(log(), line); });
  }
  bool noted(const std::string& line) {
    return pump_until([&] { return contains(notes(), line); });
  }
  // Listens on the API's port, which must be free.
  [[nodiscard]] test::Listener take_port() const {
    return test::listen_on_loopback(static_cast<std::uint16_t>(api_.listen.port));
  }

  static void ok_handler(void* context, const ApiRequest& request, ApiResponse& response) {
    *static_cast<std::string*>(context) = request.path.view();
    response.status = 200;
    response.body = "{}";
  }

  std::string fake_;  // first: what follows belongs to the user that it makes us
  test::TempDir dir_;
  std::optional<test::ScopedEnv> binary_;
  int stderr_ = -1;
  std::unique_ptr<Config> config_ = test::parsed(
      "[mail]\nsmtp-host=mail.example.com\nsmtp-port=25\nsmtp-user=u\n"
      "smtp-password=hunter2\nfrom=a@b\nto=c@d\n[api]\nenabled=yes\ncert=" +
      dir_.file("cert") + "\nkey=" + dir_.file("key") +
      "\nlisten=127.0.0.1:" + std::to_string(test::free_port()));
  MailSection& mail_ = config_->mail;
  ApiSection& api_ = config_->api;
  std::string seen_path_, outcomes_;
  NetSupervisor sup_;
};

TEST(NetAsRoot, NeedsTheServiceAccount) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  if (test::run_program({"id", "tarnwell-api"}).status == 0) GTEST_SKIP() << "the account exists";
  const test::ScopedEnv binary("ORV_SCHED_NET_BIN", ORV_FAKE_NET);
  MailSection mail;
  mail.present = true;
  NetSupervisor sup;
  EXPECT_TRUE(contains(test::stderr_of([&] { net_set_mail(sup, mail); }),
                       "orv_sched: the 'tarnwell-api' account does not exist (run 'orv_setup "
                       "--repair'): no mail, no API"));
  EXPECT_EQ(sup.child.pid, -1);
  EXPECT_EQ(sup.child.backoff, 10U);
}

TEST_F(Net, ChildIsHardenedAndGivenItsSettings) {
  const test::ScopedEnv zone("TZ", "UTC"), key_log("SSLKEYLOGFILE", dir_.file("keys"));
  manner("good");
  net_set_mail(sup_, mail_);
  ASSERT_TRUE(
      noted("mail-config id=1 host=mail.example.com port=25 tls=1 user=u password=hunter2 "
            "to=1 timeout=60"));
  EXPECT_TRUE(contains(notes(), "args= --ipc-fd 3\n"));
  EXPECT_TRUE(contains(notes(), "at / with TZ\n")) << notes();
  EXPECT_TRUE(
      contains(notes(), "limits core=0 files=64/64 no-new-privs=1 pdeathsig=9 fds= 0 1 2 3\n"));
  EXPECT_TRUE(contains(
      log(), "pid=" + std::to_string(sup_.child.pid) + " as the current user (not root)\n"));

  mail_.smtp_port = 587;
  net_set_mail(sup_, mail_);  // told, not restarted
  ASSERT_TRUE(noted("mail-config id=2 host=mail.example.com port=587"));

  const pid_t first = sup_.child.pid;
  net_set_api(sup_, api_, ok_handler, &seen_path_);
  ASSERT_TRUE(noted("api-config id=4 cert="));
  EXPECT_TRUE(contains(notes(), " max-clients=16\n"));
  EXPECT_NE(sup_.child.pid, first);
  EXPECT_TRUE(contains(notes(), "args= --ipc-fd 3 --listen-fd 4\n"));
  EXPECT_TRUE(contains(notes(), "files=80/80 no-new-privs=1 pdeathsig=9 fds= 0 1 2 3 4\n"));
  EXPECT_FALSE(contains(log(), "WARN")) << log();
}

TEST_F(Net, MailIsQueuedAndItsOutcomeReported) {
  manner("good");
  EXPECT_EQ(net_queue_mail(sup_, "100%s", "b"), 0U);
  EXPECT_TRUE(logs("ERROR orv_sched: mail \"100%s\" not sent: the network process is not running"));
  net_set_mail(sup_, mail_);
  sup_.child.next_id = 0;
  EXPECT_EQ(net_queue_mail(sup_, "100%s", "body"), 1U);
  EXPECT_EQ(sup_.child.next_id, 2U);
  EXPECT_TRUE(logs("INFO  orv_sched: mail #1 sent"));
  EXPECT_TRUE(contains(log(), "orv_sched: mail #1 queued: 100%s\n"));
  EXPECT_EQ(outcomes_, "1=0 ;");
  EXPECT_TRUE(contains(notes(), "mail id=1 subject=100%s\nbody\n"));
  EXPECT_EQ(net_queue_mail(sup_, "large", std::string(65536, 'b')), 0U);
  EXPECT_TRUE(logs("cannot hand it to the network process (message too large or socket error)"));
}

TEST_F(Net, MailSentOnItsOwnTellsWhyItFailed) {
  const std::pair<const char*, const char*> cases[] = {
      // no reason: sent
      {"slow", ""},
      {"reject", "550 no such user %s%n"},
      {"escape", "550   [2J  no\xc3\x9f"},
      {"quit-on-mail", "the network process exited before reporting a result"},
  };
  for (const auto& [name, reason] : cases) {
    SCOPED_TRACE(name);
    manner(name);
    char err[512] = "";
    EXPECT_EQ(net_send_mail_now(mail_, "s", "b", err), *reason == '\0' ? 0 : -1);
    EXPECT_STREQ(err, reason);
  }
  manner("mute");
  net_set_mail(sup_, mail_);
  char err[512] = "";
  EXPECT_EQ(net_wait_mail_result(sup_, net_queue_mail(sup_, "s", "b"), 0, err), -1);
  EXPECT_STREQ(err, "no answer from the network process within 0 s");
  sup_.mail.unanswered.clear();  // nothing to wait for at the end

  const test::ScopedEnv nowhere("ORV_SCHED_NET_BIN", "/nowhere/orv_sched_net");
  EXPECT_EQ(net_send_mail_now(mail_, "s", "b", err), -1);
  EXPECT_STREQ(err, "cannot start the network process orv_sched_net (see the log)");
  EXPECT_TRUE(contains(log(), "network process binary /nowhere/orv_sched_net not found: no mail"));
}

TEST_F(Net, EveryViolationEndsTheChildAndBacksOffOnce) {
  const std::pair<const char*, const char*> cases[] = {
      {"malformed", "sent a malformed message: killed"},
      {"empty", "closed the connection"},
      {"oversized", "sent an oversized message: killed"},
      {"bad-hello", "sent a bad HELLO: killed"},
      {"bad-result", "sent a bad MAIL_RESULT: killed"},
      {"bad-request", "sent a bad API_REQUEST: killed"},
      {"forbidden", "sent a message type it may not send: killed"},
      {"unknown", "sent a message type it may not send: killed"},
      {"exit", "closed the connection"},
  };
  for (const auto& [name, reason] : cases) {
    SCOPED_TRACE(name);
    manner(name);
    NetSupervisor sup;
    sup.clock = [] { return fake_now; };
    net_set_mail(sup, mail_);
    const std::string line =
        " orv_sched: network process pid=" + std::to_string(sup.child.pid) + " ";
    EXPECT_TRUE(pump_until(sup, [&] { return sup.child.pid == -1; }));
    EXPECT_FALSE(sup.child.fd.valid());
    EXPECT_EQ(sup.child.next_restart, fake_now + 5);
    EXPECT_EQ(sup.child.backoff, 10U);
    const std::string text = log();
    const std::size_t at = text.find("WARN " + line + reason + "\n");
    EXPECT_NE(at, std::string::npos) << text;
    EXPECT_EQ(text.find(line, at + 10), std::string::npos) << text;  // told once
    net_shutdown(sup);
  }
  EXPECT_TRUE(contains(log(), "WARN  orv_sched: API_REQUEST: incomplete\n"));
}

TEST_F(Net, BackOffDoublesAndStartsAnewAfterAStableRun) {
  manner("mute");
  sup_.clock = [] { return fake_now; };
  sup_.child.wanted = true;
  const auto lose_after = [&](std::int64_t seconds) {
    fake_now += seconds;
    ::kill(sup_.child.pid, SIGKILL);
    return pump_until([&] { return sup_.child.pid == -1; });
  };
  for (const std::uint32_t wait : {5U, 10U, 20U, 40U, 80U, 160U, 300U, 300U}) {
    net_pump(sup_);
    ASSERT_GT(sup_.child.pid, 0);
    ASSERT_TRUE(lose_after(10));
    EXPECT_EQ(sup_.child.next_restart - fake_now, wait);
    fake_now += wait - 1;
    net_pump(sup_);
    EXPECT_EQ(sup_.child.pid, -1);  // not yet
    ++fake_now;
  }
  net_pump(sup_);
  ASSERT_TRUE(lose_after(60));
  EXPECT_EQ(sup_.child.next_restart - fake_now, 5);
  EXPECT_EQ(sup_.child.backoff, 10U);

  fake_now -= 100000;  // a clock set back does not keep the child away
  net_pump(sup_);
  EXPECT_GT(sup_.child.pid, 0);
}

TEST_F(Net, RequestsAreAnsweredByTheHandlerOrRefused) {
  manner("request");
  net_set_api(sup_, api_, ok_handler, &seen_path_);
  ASSERT_TRUE(noted("response id=1 status=200 auth-failed=0"));
  EXPECT_EQ(seen_path_, "/api/v1/info");

  net_set_mail(sup_, mail_);
  net_stop_api(sup_);
  EXPECT_TRUE(contains(log(), "orv_sched: API stopped\n"));
  ASSERT_TRUE(noted("response id=1 status=503"));
  EXPECT_TRUE(
      contains(notes(), R"({"error":{"code":"unavailable","message":"the API is disabled"}})"));
  (void)take_port();  // free again
}

TEST_F(Net, AChildThatDoesNotReadOrNeverStopsTalkingCannotHoldUpAPump) {
  static int answered;
  answered = 0;
  manner("flood");
  net_set_api(
      sup_, api_,
      [](void*, const ApiRequest&, ApiResponse& response) {
        static const std::string large(kIpcMaxResponseBody, 'x');
        ++answered;
        response.status = 200;
        response.body = large;
      },
      nullptr);
  int most = 0;
  EXPECT_TRUE(pump_until([&] {
    const int before = answered;
    net_pump(sup_);
    most = std::max(most, answered - before);
    return contains(log(),
                    "could not hand an API response to orv_sched_net (it is not keeping up)");
  }));
  EXPECT_LE(most, kNetPumpRecords);
  EXPECT_GT(sup_.child.pid, 0);  // slow is no crime
}

TEST_F(Net, DescriptorsThatTheChildSendsGoNowhere) {
  const auto open_descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = open_descriptors();
  manner("descriptor");
  net_set_mail(sup_, mail_);
  ASSERT_TRUE(noted("descriptor "));
  net_pump(sup_);
  EXPECT_EQ(open_descriptors(), before + 1) << "our end of the socket pair";
}

TEST_F(Net, WrongPidInHelloIsOnlyAWarning) {
  manner("wrong-pid");
  net_set_mail(sup_, mail_);
  EXPECT_TRUE(logs("WARN  orv_sched: network process HELLO names pid 1, expected " +
                   std::to_string(sup_.child.pid) + "\n"));
  EXPECT_TRUE(sup_.child.fd.valid());
}

TEST_F(Net, ApiRestartsTheChildWhenASettingChangedAndOnlyThen) {
  manner("mute");
  const auto apply = [&] {
    const pid_t before = sup_.child.pid;
    net_set_api(sup_, api_, ok_handler, &seen_path_);
    return sup_.child.pid != before;
  };
  EXPECT_TRUE(apply());
  EXPECT_FALSE(apply());
  api_.max_clients = 3;
  EXPECT_TRUE(apply());
  make_pair();  // the same address again: the old child held it
  EXPECT_TRUE(apply());
  manner("holder");
  make_pair();
  EXPECT_TRUE(apply());
  ASSERT_TRUE(noted("fds= 0 1 2 3 4\nheld\n"));
  manner("mute");
  make_pair();  // and what the child left behind holds it still
  EXPECT_TRUE(apply());
  EXPECT_TRUE(sup_.api.enabled) << log();
  (void)api_.listen.host.set("::1");
  EXPECT_TRUE(apply());
  EXPECT_EQ(sup_.api.listen_label, "[::1]:" + std::to_string(api_.listen.port));
  EXPECT_FALSE(contains(log(), "WARN")) << log();

  (void)api_.listen.host.set("127.0.0.1");
  const test::Listener taken = take_port();
  net_set_mail(sup_, mail_);
  EXPECT_TRUE(apply());
  EXPECT_TRUE(sup_.child.fd.valid());  // mail goes on
  EXPECT_FALSE(sup_.api.enabled);
  EXPECT_TRUE(sup_.api.config.cert_pem.empty() && sup_.api.config.key_pem.empty());
}

TEST_F(Net, ApiComesUpWhenItCanAndFollowsAReplacedPair) {
  manner("mute");
  sup_.clock = [] { return fake_now; };
  const auto count = [&](const std::string& line) {
    const std::string text = log();
    int found = 0;
    for (std::size_t at = 0; (at = text.find(line, at)) != std::string::npos; ++at) ++found;
    return found;
  };
  const auto pass = [&](std::int64_t seconds) {
    fake_now += seconds;
    net_pump(sup_);
  };
  const std::string missing = "ERROR orv_sched: API not started: cannot read " + dir_.file("key") +
                              ": No such file or directory (create one with 'orv_sched api-init')";
  ASSERT_EQ(::unlink(dir_.file("key").c_str()), 0);
  net_set_api(sup_, api_, ok_handler, &seen_path_);
  for (int i = 0; i < 10; ++i) pass(60);
  EXPECT_EQ(count(missing), 1);  // once for all the tries

  make_pair();
  const std::string old_key = test::read_file(dir_.file("key"));
  test::Listener taken = take_port();
  pass(60);
  pass(60);
  EXPECT_EQ(count("ERROR orv_sched: API not started: cannot listen on 127.0.0.1:" +
                  std::to_string(api_.listen.port) + ": Address already in use\n"),
            1);
  taken.fd.reset();
  pass(60);
  EXPECT_EQ(count("orv_sched: API enabled on"), 1) << log();
  ASSERT_GT(sup_.child.pid, 0);

  const pid_t first = sup_.child.pid;
  make_pair();
  dir_.write("key", old_key);  // half of a pair: the old one goes on
  pass(60);
  EXPECT_EQ(count("WARN  orv_sched: API keeps the certificate it has: " + dir_.file("key") +
                  " is not the key of " + dir_.file("cert") +
                  " (make a pair with 'orv_sched api-init --force')\n"),
            1)
      << log();
  EXPECT_EQ(sup_.child.pid, first);
  make_pair();
  pass(5);
  EXPECT_EQ(count("orv_sched: API enabled on"), 2) << log();
  EXPECT_NE(sup_.child.pid, first);
}

TEST_F(Net, EveryMailHasAnOutcomeAlsoWhenTheChildEnds) {
  manner("quit-on-mail");
  net_set_mail(sup_, mail_);
  const std::uint32_t lost = net_queue_mail(sup_, "s", "b");
  const std::string why = "the network process exited before reporting a result";
  EXPECT_TRUE(logs("WARN  orv_sched: mail #" + std::to_string(lost) + ": " + why + "\n"));
  EXPECT_EQ(outcomes_, std::to_string(lost) + "=1 " + why + ";");

  manner("slow");
  sup_.child.next_restart = 0;
  ASSERT_TRUE(pump_until([&] { return sup_.child.fd.valid(); }));
  const std::uint32_t late = net_queue_mail(sup_, "s", "b");
  net_shutdown(sup_);
  EXPECT_TRUE(contains(log(), "mail #" + std::to_string(late) + " sent\n")) << log();
}

}  // namespace
}  // namespace orv
