// The scheduler with the real network process: the API over TLS, and mail to a real SMTP server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "e2e/network/network_fixture.h"

namespace orv::test {
namespace {

using ::testing::HasSubstr;

TEST_F(Network, DeliversTheTestMailOrSaysWhyNot) {
  if (run_program({kPython, "-c", "import aiosmtpd"}).status != 0) {
    GTEST_SKIP() << "no SMTP server to test with (python3-aiosmtpd)";
  }
  const KeyPair pair = make_certificate(home_, "localhost");
  const Program server(
      {kPython, ORV_SMTP_SERVER, "starttls", pair.certificate, pair.key, home_.path()});
  ASSERT_TRUE(appears("port"));
  const auto mail_test = [&](const std::string& password) {
    configure("[mail]\nsmtp-host = localhost\nsmtp-port = " + file("port") +
              "\nca-file = " + pair.certificate + "\nsmtp-user = u\nsmtp-password = " + password +
              "\nfrom = backup@example.org\nto = root@example.org\n");
    return sched_as_user("mail-test");
  };
  const ProgramResult refused = mail_test("wrong");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("the server said: 535"));
  EXPECT_EQ(mail_test("p").status, 0);
  EXPECT_THAT(file("heard"), HasSubstr("backup@example.org root@example.org True\n"));
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
