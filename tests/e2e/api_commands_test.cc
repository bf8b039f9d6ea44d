// api-token, api-init and api-info, run as an administrator runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "e2e/daemon_fixture.h"

namespace orv {
namespace {

using test::ProgramResult;
using testing::HasSubstr;

class ApiCommands : public test::DaemonFixture {
 protected:
  void SetUp() override { configure_api(""); }
  void configure_api(const std::string& more) {
    configure("[api]\ncert=" + cert_ + "\nkey=" + key_ + "\ntokens-file=" + tokens_ + "\n" + more);
  }
  [[nodiscard]] ProgramResult run(const std::vector<std::string>& words) const {
    return sched(words.front(), {words.begin() + 1, words.end()});
  }
  void expect_error(const std::vector<std::string>& words, const std::string& message) const {
    const ProgramResult got = run(words);
    EXPECT_EQ(got.status, 1);
    EXPECT_THAT(got.err, HasSubstr("error: " + message + "\n"));
  }

  std::string cert_ = home_.file("api.crt"), key_ = home_.file("api.key");
  std::string tokens_ = home_.file("tokens");
};

TEST_F(ApiCommands, TokensAreAddedListedAndRemoved) {
  const ProgramResult boss = run({"api-token", "add", "boss", "--role", "admin"});
  EXPECT_EQ(boss.status, 0) << boss.err;
  EXPECT_TRUE(std::regex_match(
      boss.out, std::regex(R"(token \(shown only now, keep it secret\): boss\.[A-Za-z0-9_-]{43}
role: admin \(the client must sign its requests, see sched-api\.txt\)
)"))) << boss.out;
  EXPECT_THAT(run({"api-token", "add", "watch", "--role=read"}).out,
              testing::EndsWith("\nrole: read\n"));
  expect_error({"api-token", "add", "boss", "--role", "read"},
               "a token named 'boss' exists already");
  const std::string secret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8\n";
  home_.write("tokens",
              "old read 86399 " + secret + test::read_file(tokens_) + "xold read 0 " + secret,
              0600);
  EXPECT_EQ(run({"api-token", "remove", "boss"}).out, "removed token 'boss'\n");
  const ProgramResult list = run({"api-token", "list"});
  EXPECT_TRUE(std::regex_match(list.out, std::regex(R"(NAME {29}ROLE   CREATED
old {30}read   1970-01-01 23:59:59
watch {28}read   \d{4}-\d\d-\d\d \d\d:\d\d:\d\d
xold {29}read   -
)"))) << list.out;
  struct stat st {};
  EXPECT_TRUE(::stat(tokens_.c_str(), &st) == 0 && (st.st_mode & 0777U) == 0600U);
}

TEST_F(ApiCommands, FaultsComeInTheirOrder) {
  const std::string no_name = "a token name ([A-Za-z0-9_-], 1..64 characters) is required";
  expect_error({"api-token", "add", "--role", "read"}, no_name);
  expect_error({"api-token", "add", "a.b"}, no_name);
  expect_error({"api-token", "remove", "-a"}, no_name);
  expect_error({"api-token", "remove", "a"}, "no token named 'a'");
  expect_error({"api-token", "add", "a", "--role", "root"}, "--role read|admin is required");
  EXPECT_FALSE(test::exists(tokens_));
  EXPECT_EQ(run({"api-token", "show"}).status, 2);
  home_.write("tokens", "x\n", 0600);  // found before the wrong sub-command is
  expect_error({"api-token"}, tokens_ + ":1: expected '<name> <role> <created> <secret>'");
  EXPECT_THAT(run({"api-info"}).out,
              HasSubstr("tokens:             (error: " + tokens_ + ":1: expected "));
  std::string many;
  for (int i = 0; i < 256; ++i)
    many += "n" + std::to_string(i) + " read 1 AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8\n";
  home_.write("tokens", many, 0600);
  expect_error({"api-token", "add", "a", "--role", "read"}, "too many tokens");
  configure_api("nonsense\n");
  for (const char* command : {"api-token", "api-init", "api-info"})
    expect_error({command}, home_.file("sched.cfg") + ":5: expected key=value");
}

TEST_F(ApiCommands, ACertificateIsMadeOnceAndReplacedByForce) {
  const ProgramResult made = run({"api-init", "--cn", "192.0.2.10"});
  EXPECT_EQ(made.status, 0) << made.err;
  const std::string first =
      "created " + cert_ + " and " + key_ + " (CN=192.0.2.10, valid 10 years)\n";
  const std::string label = "SHA-256 fingerprint: ";
  const std::string fingerprint = made.out.substr(first.size() + label.size(), 96);  // with its end
  const std::string rest =
      label + fingerprint + "next: enabled=yes in [api]; a running daemon then starts the API\n";
  EXPECT_EQ(made.out, first + rest);
  EXPECT_THAT(run({"api-info"}).out, HasSubstr("fingerprint:        " + fingerprint));
  EXPECT_EQ(run({"api-init", "--cn", "other"}).out,
            "certificate exists, kept: " + cert_ + " (use --force to replace it)\n" + rest);
  // The first word after --cn is the name, and a switch all the same.
  EXPECT_THAT(run({"api-init", "--cn", "--force"}).out,
              HasSubstr("(CN=--force, valid 10 years)\n"));
  EXPECT_THAT(run({"api-info"}).out, testing::Not(HasSubstr(fingerprint)));

  // A certificate without its key is no pair to keep.
  ASSERT_EQ(::unlink(key_.c_str()), 0);
  expect_error({"api-init"}, "cannot read " + key_ +
                                 ": No such file or directory (use --force to make a new pair)");
  EXPECT_EQ(run({"api-init", "--force"}).status, 0);

  const std::string umlauts = "\xc3\xa4";
  std::string longest;
  for (int i = 0; i < 64; ++i) longest += umlauts;
  EXPECT_EQ(run({"api-init", "--force", "--cn", longest}).status, 0) << "64 characters, 128 bytes";
  key_ = home_.file("missing/api.key");
  cert_ = home_.file("new.crt");
  configure_api("");
  expect_error({"api-init"},
               "cannot create " + cert_ + " / " + key_ + " (I/O error: No such file or directory)");
  cert_ = home_.file("api.new");
  key_ = home_.file("key.new");
  configure_api("");
  expect_error(
      {"api-init", "--cn", longest + umlauts},
      "cannot create " + cert_ + " / " + key_ + " (the common name must have 1..64 characters)");
}

TEST_F(ApiCommands, InfoShowsTheWholeSection) {
  configure_api(
      "enabled=yes\nlisten=[::1]:9000\nallow-args=no\nallowed-commands=verify,agent\n"
      "max-clients=3\nhistory-keep=0\n");
  // clang-format off
  EXPECT_EQ(run({"api-info"}).out, R"(enabled:            yes
listen:             [::1]:9000
certificate:        )" + cert_ + R"(
fingerprint:        (no certificate -- run 'orv_sched api-init')
tokens-file:        )" + tokens_ + R"(
tokens:             0
allow-config-write: yes
allow-args:         no
allowed-commands:   agent,verify
max-clients:        3
history-keep:       0
notify-changes:     yes
)");
  // clang-format on
}

}  // namespace
}  // namespace orv
