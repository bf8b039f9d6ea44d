// Result mails, from the run of a job to the network process, whose part the stand-in plays.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "common/scoped_fd.h"
#include "e2e/daemon_fixture.h"

namespace orv::test {
namespace {

using namespace std::chrono_literals;

// A system without syslog gets one for the time of a test, so that the programs have a connection
// to it: its descriptor is where a careless start of the network process would go wrong.
class Syslog {
 public:
  Syslog() {
    sockaddr_un at{AF_UNIX, "/dev/log"};
    fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    bound_ = ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 &&
             ::chmod(at.sun_path, 0666) == 0;
  }
  ~Syslog() {
    if (bound_) ::unlink("/dev/log");
  }
  Syslog(const Syslog&) = delete;
  Syslog& operator=(const Syslog&) = delete;
  [[nodiscard]] bool bound() const { return bound_; }
  // All lines so far. Who logs waits when nobody reads.
  const std::string& read() {
    char line[2048];
    ssize_t got = 0;
    while (bound_ && (got = ::recv(fd_.get(), line, sizeof line, 0)) > 0) {
      text_.append(line, static_cast<std::size_t>(got)) += '\n';
    }
    return text_;
  }

 private:
  ScopedFd fd_;
  bool bound_ = false;
  std::string text_;
};

class ResultMail : public DaemonFixture {
 protected:
  ResultMail() {
    home_.write("go", "");
    tool("orv_agent",
         "echo working; until [ -e " + home_.file("go") + " ]; do sleep 0.05; done; exit 3");
    configure(
        "[mail]\nsmtp-host=mail.example.org\nfrom=backup@example.org\nto=root@example.org\n"
        "notify=failed\n[nightly]\nprofile=p\nonce=1\n");
  }
  std::unique_ptr<Program> launch(const std::string& command, const std::vector<std::string>& words,
                                  bool with_syslog) {
    std::vector<std::string> argv = command_line(command, words);
    if (with_syslog) std::erase(argv, "--no-syslog");
    Env environment = env();
    environment["ORV_SCHED_NET_BIN"] =
        home_.script("net", "ORV_FAKE_NET_LOG=" + home_.file("net.log") + " exec " +
                                home_.file("orv_fake_net") + " \"$@\"\n");
    return std::make_unique<Program>(as_user(argv, ORV_FAKE_NET_PROGRAM), environment);
  }
  // The whole mail, down to the end of the job log.
  [[nodiscard]] bool mail_arrives() {
    return wait_until(30s, [&] {
      (void)syslog_.read();
      const std::string net = file("net.log");
      const std::size_t mail = net.find(": job nightly FAILED\nJob:       nightly\n");
      return mail != std::string::npos && contains(net, "\nExit code: 3\nCommand:   orv_agent ") &&
             contains(net, "\n--- last lines of the job log ---\n") &&
             contains(net, "\nworking\n\n--- end ---\n") && contains(net, "\ntimed_out: 0\n");
    });
  }

  Syslog syslog_;
};

TEST_F(ResultMail, ComesFromTheDaemon) {
  daemon_ = launch("daemon", {}, true);
  EXPECT_TRUE(mail_arrives()) << daemon_->err();
  EXPECT_TRUE(daemon_says("INFO  orv_sched: mail #2 sent\n"));
  EXPECT_EQ(stop_daemon(), 0);
  EXPECT_TRUE(contains(file("net.log"), "\nend\n")) << "left by itself";
}

TEST_F(ResultMail, IsNotLostWhenTheDaemonIsToldToStopDuringTheRun) {
  std::filesystem::remove(home_.file("go"));
  daemon_ = launch("daemon", {}, false);
  ASSERT_TRUE(reaches("nightly", JobState::Running)) << daemon_->err();
  daemon_->signal(SIGTERM);
  EXPECT_TRUE(daemon_says("stopping after job 'nightly'"));
  home_.write("go", "");
  EXPECT_TRUE(mail_arrives()) << daemon_->err();
  EXPECT_EQ(daemon_->wait(), 0);
  EXPECT_TRUE(contains(daemon_->err(), "INFO  orv_sched: mail #2 sent\n")) << daemon_->err();
}

TEST_F(ResultMail, ComesFromARunOnDemandWithSyslogOrWithout) {
  for (const char* command : {"run", "start"}) {
    for (const bool with_syslog : {false, true}) {
      SCOPED_TRACE(std::string(command) + (with_syslog ? " with syslog" : " without syslog"));
      home_.write("net.log", "");
      const auto program = launch(command, {"nightly"}, with_syslog);
      EXPECT_TRUE(mail_arrives()) << file("net.log") << program->err();
      EXPECT_TRUE(contains(file("net.log"), " fds= 0 1 2 3\n")) << file("net.log");
      EXPECT_TRUE(wait_until(30s, [&] { return contains(file("net.log"), "\nend\n"); }));
      const char* told = "orv_sched: notification mail for job 'nightly' sent\n";
      if (std::string(command) == "run") {
        EXPECT_EQ(program->wait(), 1);
        EXPECT_TRUE(contains(program->err(), told)) << program->err();
      } else if (with_syslog && syslog_.bound()) {
        EXPECT_TRUE(wait_until(30s, [&] { return contains(syslog_.read(), told); }));
      }
    }
  }
}

}  // namespace
}  // namespace orv::test
