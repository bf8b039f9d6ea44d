// The scheduler with the real network process: the API over TLS, and mail to a real SMTP server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/scoped_fd.h"
#include "e2e/daemon_fixture.h"

namespace orv::test {
namespace {

using ::testing::HasSubstr;

constexpr const char* kPython = "/usr/bin/python3";

std::string free_port() {
  const ScopedFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  socklen_t size = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  EXPECT_EQ(::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  return std::to_string(ntohs(address.sin_port));
}

class Network : public DaemonFixture {
 protected:
  [[nodiscard]] std::vector<std::string> as_user(std::vector<std::string> argv) const {
    return DaemonFixture::as_user(std::move(argv), ORV_SCHED_NET_PROGRAM);
  }
  ProgramResult sched_as_user(const std::string& command,
                              const std::vector<std::string>& words = {}) {
    return run_program(as_user(command_line(command, words)), env());
  }
  // Gives the token's role and keeps it in the file of that name.
  void add_token(const std::string& role) {
    const std::string out = sched_as_user("api-token", {"add", role, "--role", role}).out;
    const std::size_t at = out.find(role + ".");
    ASSERT_NE(at, std::string::npos) << out;
    home_.write(role, out.substr(at, out.find('\n', at) - at), 0600);
  }
};

TEST_F(Network, ServesTheApiToCurlOpensslAndItsOwnClient) {
  const std::string port = free_port(), at = "127.0.0.1:" + port;
  configure("[api]\nenabled = yes\nlisten = " + at + "\ncert = " + home_.file("api.crt") +
            "\nkey = " + home_.file("api.key") + "\ntokens-file = " + home_.file("tokens") +
            "\n[nightly]\ncommand = agent\nprofile = nightly\nschedule = 30 2 * * *\n");
  const std::string made = sched_as_user("api-init", {"--cn", "localhost"}).out;
  const std::string fingerprint = made.substr(made.find("fingerprint: ") + 13, 95);
  add_token("read");
  add_token("admin");
  daemon_ = std::make_unique<Program>(as_user(command_line("daemon")), env());
  ASSERT_TRUE(daemon_says("API on " + at)) << daemon_->err();

  const std::string url = "https://localhost:" + port + "/api/v1/info";
  const auto curl = [&](const std::string& token) {
    return run_program({"curl", "-si", "--cacert", home_.file("api.crt"), "--resolve",
                        "localhost:" + port + ":127.0.0.1", "-H", "Authorization: Bearer " + token,
                        url})
        .out;
  };
  EXPECT_THAT(curl(file("read")), HasSubstr("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(curl(file("read") + "x"), HasSubstr("HTTP/1.1 401 Unauthorized\r\n"));
  const auto shown = run_program({"openssl", "s_client", "-connect", at, "-ign_eof"}, {},
                                 "GET /nowhere HTTP/1.0\r\n\r\n");
  EXPECT_THAT(shown.out, HasSubstr("HTTP/1.1 401"));
  const auto client = [&](const std::vector<std::string>& words) {
    std::vector<std::string> argv = {kPython, ORV_API_CLIENT};
    argv.insert(argv.end(), words.begin(), words.end());
    return run_program(argv, {{"ORV_API_SERVER", at},
                              {"ORV_API_FINGERPRINT", fingerprint},
                              {"ORV_API_TOKEN_FILE", home_.file("admin")}});
  };
  const ProgramResult jobs = client({"jobs"});
  EXPECT_EQ(jobs.status, 0) << jobs.err;
  EXPECT_THAT(jobs.out, HasSubstr("nightly"));
  EXPECT_EQ(client({"job", "delete", "nightly"}).status, 0);
  EXPECT_FALSE(contains(file("sched.cfg"), "nightly"));
  EXPECT_EQ(stop_daemon(), 0);
}

TEST_F(Network, DeliversTheTestMailOrSaysWhyNot) {
  if (run_program({kPython, "-c", "import aiosmtpd"}).status != 0) {
    GTEST_SKIP() << "no SMTP server to test with (python3-aiosmtpd)";
  }
  const std::string crt = home_.file("l.crt"), key = home_.file("l.key");
  const auto made =
      run_program({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                   "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-keyout", key, "-out", crt,
                   "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost"});
  ASSERT_EQ(made.status, 0) << made.err;
  const Program server({kPython, ORV_SMTP_SERVER, "starttls", crt, key, home_.path()});
  ASSERT_TRUE(wait_until(std::chrono::seconds(30), [&] { return exists(home_.file("port")); }));
  const auto mail_test = [&](const std::string& password) {
    configure("[mail]\nsmtp-host = localhost\nsmtp-port = " + file("port") + "\nca-file = " + crt +
              "\nsmtp-user = u\nsmtp-password = " + password +
              "\nfrom = backup@example.org\nto = root@example.org\n");
    return sched_as_user("mail-test");
  };
  const ProgramResult refused = mail_test("wrong");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err,
              HasSubstr("the login was refused at login (AUTH), the server said: 535"));
  EXPECT_EQ(mail_test("p").status, 0);
  EXPECT_THAT(file("1.eml"), HasSubstr("backup@example.org root@example.org True\n"));
}

TEST_F(Network, ProcessIsNotStartedByHandOrAsRoot) {
  const auto by_hand = run_program({ORV_SCHED_NET_PROGRAM});
  EXPECT_EQ(by_hand.status, 2);
  EXPECT_EQ(by_hand.err, "orv_sched_net: this program is started by orv_sched and not by hand\n");
  const auto no_socket = run_program(as_user({ORV_SCHED_NET_PROGRAM, "--ipc-fd", "3"}));
  EXPECT_EQ(no_socket.status, 2);
  EXPECT_THAT(no_socket.err, HasSubstr("is not the socket that orv_sched hands over\n"));
  if (::geteuid() != 0) GTEST_SKIP() << "the refusal of root needs root";
  EXPECT_THAT(run_program({ORV_SCHED_NET_PROGRAM, "--ipc-fd", "3"}).err,
              HasSubstr("refusing to run as root"));
}

}  // namespace
}  // namespace orv::test
