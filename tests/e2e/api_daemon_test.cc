// The API from end to end: orv_api, the network process and the daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/connection.h"
#include "client/token.h"
#include "e2e/network_fixture.h"
#include "json/json.h"

namespace orv::test {
namespace {

namespace asio = boost::asio;
namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

// A poll interval that no test lives to see: what happens, happens because of the API.
constexpr const char* kPatient = "[sched]\npoll-interval = 3600\n";

class ApiDaemon : public Network {
 protected:
  void expect(int status, const Words& words, const std::string& err, const Env& changes = {}) {
    const ProgramResult got = client(words, changes);
    EXPECT_EQ(got.status, status) << words[0] << "\n" << got.out << got.err;
    EXPECT_THAT(got.err, HasSubstr(err)) << words[0];
  }
  std::string done(const Words& words, std::string_view input = {}) {
    const ProgramResult got = client(words, {}, input);
    EXPECT_EQ(got.status, 0) << words[0] << ": " << got.err;
    return got.out;
  }
  [[nodiscard]] bool becomes(const std::string& status, const std::string& job) {
    return wait_until(std::chrono::seconds(30), [&] {
      return contains(client({"job", "get", job, "--json"}).out, "\"status\": \"" + status + "\"");
    });
  }
};

TEST_F(ApiDaemon, ShowsAndChangesTheConfiguration) {
  tool("orv_verifier", "echo verified");
  std::string jobs = "# kept\n";
  for (int i = 1000; i < 1120; ++i)
    jobs += "[j" + std::to_string(i) + "]\r\nenabled = yes  # mine\r\nschedule = 0 0 1 1 *\r\n";
  configure_api("allow-args = no\nallowed-commands = agent,verify\n" + jobs + kPatient);
  start_api_daemon();
  const std::string before = file("sched.cfg");
  EXPECT_THAT(done({"info"}), AllOf(HasSubstr("\n  role: admin\n"), HasSubstr("server:")));
  const std::string all = done({"jobs"});
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 121) << "three pages\n" << all;
  EXPECT_THAT(all, AllOf(StartsWith("NAME "), HasSubstr("\nj1000 "), HasSubstr("\nj1119 ")));

  // What is put takes effect at once, and changes no byte besides.
  EXPECT_THAT(done({"job", "put", "now", "command=verify", "once=1", "--json"}),
              HasSubstr("\"once_unix\": 1,"));
  EXPECT_TRUE(file("sched.cfg") == before + "\n[now]\ncommand=verify\nonce=1\n");
  EXPECT_TRUE(becomes("DONE", "now"));
  const auto history = fs::directory_iterator(home_.file("cfg-history"));
  EXPECT_EQ(read_file(history->path()), before);
  done({"job", "put", "--file", "-", "j1000"}, R"({"enabled": false, "after": ["j1001"]})");
  EXPECT_THAT(file("sched.cfg"), HasSubstr("[j1000]\r\nenabled=no  # mine\r\n"));
  EXPECT_THAT(done({"job", "get", "j1000"}), HasSubstr("\nafter:            j1001\n"));
  expect(1, {"job", "delete", "j1001"}, "409 job_referenced: job 'j1001' is named in 'after' of");
  EXPECT_EQ(done({"job", "delete", "j1000"}), "job 'j1000' is deleted\n");
  expect(1, {"job", "get", "j1000"}, "404 not_found: no job named 'j1000'");
  expect(1, {"job", "put", "j1001", "args=-x"}, "403 args_not_allowed: ");
  expect(1, {"job", "put", "j1001", "command=maint-prune"}, "403 command_not_allowed: ");
  EXPECT_EQ(done({"validate", "new", "schedule=0 1 * * *"}), "valid\n");
  const ProgramResult invalid = client({"validate", "new", "schedule=0 25 * * *"});
  EXPECT_EQ(invalid.status, 5);
  EXPECT_THAT(invalid.out, AllOf(StartsWith("not valid: "), HasSubstr("hour")));

  done({"sched", "set", "job_log_keep=7"});
  EXPECT_THAT(done({"sched", "get"}), HasSubstr("job_log_keep:        7\n"));
  EXPECT_EQ(done({"mail", "get"}), "there is no [mail] section\n");
  expect(1, {"mail-test"}, "409 mail_not_configured: ");
  const std::string nowhere = std::to_string(free_port());
  done({"mail", "set", "smtp_host=127.0.0.1", "smtp_port=" + nowhere, "from=a@example.org",
        "to=b@example.org,c@example.org", "tls=none"});
  EXPECT_THAT(done({"mail", "get"}), HasSubstr("b@example.org, c@example.org\n"));
  const ProgramResult unsent = client({"mail-test"});
  EXPECT_EQ(unsent.status, 1) << unsent.err;
  EXPECT_THAT(unsent.out, HasSubstr(": failed: 127.0.0.1:" + nowhere));
  EXPECT_EQ(done({"mail", "remove"}), "the [mail] settings are changed\n");
  EXPECT_EQ(stop_daemon(), 0);
  EXPECT_THAT(daemon_->err(), HasSubstr("admin"));
}

TEST_F(ApiDaemon, RunsFollowsAndCancels) {
  tool("orv_agent", "echo begin; echo up >" + home_.file("up") + "; while ! [ -e " +
                        home_.file("go") + " ]; do sleep 0.05; done; echo end");
  configure_api("[a]\nschedule = 0 0 1 1 *\n[b]\nschedule = 0 0 1 1 *\n" + std::string(kPatient));
  start_api_daemon();
  const auto up = [&] {
    return wait_until(std::chrono::seconds(30), [&] { return exists(home_.file("up")); });
  };
  expect(1, {"log", "a"}, "job 'a' has no runs");
  EXPECT_THAT(done({"run", "a"}), StartsWith("the run of job 'a' is queued, number 1"));
  ASSERT_TRUE(up());
  const Program follower(client_line({"log", "a", "--follow"}), client_env());
  EXPECT_THAT(done({"run", "b"}), EndsWith("number 1, after the running job 'a'\n"));
  Program waiting(client_line({"log", "b", "--follow"}), client_env());
  EXPECT_THAT(done({"run", "b"}), HasSubstr("queued already"));
  expect(1, {"run", "a"}, "409 job_running: ");
  expect(1, {"job", "delete", "a"}, "409 job_running: ");
  EXPECT_THAT(curl_info(file("read")),
              AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("\"running_job\":\"a\"")));
  EXPECT_EQ(done({"cancel", "b"}), "the run of job 'b' is taken out of the queue\n");
  EXPECT_EQ(waiting.wait(), 7);
  EXPECT_THAT(waiting.err(), HasSubstr("the run of job 'b' was taken out of the queue"));
  ASSERT_TRUE(
      wait_until(std::chrono::seconds(30), [&] { return contains(follower.out(), "begin\n"); }));
  EXPECT_FALSE(contains(follower.out(), "end\n"));
  home_.write("go", "");
  EXPECT_TRUE(
      wait_until(std::chrono::seconds(30), [&] { return contains(follower.out(), "\nend\n"); }));
  EXPECT_TRUE(becomes("DONE", "a"));

  for (const char* name : {"up", "go"}) fs::remove(home_.file(name));
  done({"run", "a"});
  ASSERT_TRUE(up());
  EXPECT_EQ(done({"cancel", "a"}), "the running job 'a' is told to stop\n");
  EXPECT_TRUE(becomes("FAILED", "a"));
  expect(1, {"cancel", "a"}, "409 not_running: ");
  EXPECT_THAT(done({"log", "a"}), HasSubstr("cancelled"));
  EXPECT_THAT(done({"runs", "a"}), HasSubstr("  cancelled  "));
  EXPECT_EQ(stop_daemon(), 0);
}

TEST_F(ApiDaemon, TellsByItsExitStatusWhatIsWrong) {
  configure_api("[a]\nschedule = 0 0 1 1 *\n");
  start_api_daemon();
  const std::string secret = file("admin").substr(6);
  struct Case {
    int status;
    Words words;
    const char* err;
    Env env{};
  };
  std::string other = fingerprint_;
  other[0] = other[0] == 'A' ? 'B' : 'A';
  const Case cases[] = {
      {4,
       {"info"},
       "certificate is another one, nothing was sent",
       {{"ORV_API_FINGERPRINT", other}}},
      {3,
       {"info"},
       "no answer from the server: ",
       {{"ORV_API_SERVER", "127.0.0.1:" + std::to_string(free_port())}}},
      {1,
       {"info"},
       "401 unauthorized: wrong secret or signature (reply not signed)",
       {{"ORV_API_TOKEN_FILE", home_.write("wrong", "read." + secret, 0600)}}},
      {1,
       {"job", "put", "a", "enabled=no"},
       "403 forbidden: this needs an admin token",
       {{"ORV_API_TOKEN_FILE", home_.file("read")}}},
      {2, {"info"}, "a token <name>.<secret> is needed", {{"ORV_API_TOKEN_FILE", ""}}},
      {2, {"info"}, "cannot read the token", {{"ORV_API_TOKEN_FILE", home_.file("missing")}}},
      {2, {"info"}, "is not <host>[:<port>]", {{"ORV_API_SERVER", "127.0.0.1/x"}}},
      {2, {"info"}, "fingerprint is needed", {{"ORV_API_FINGERPRINT", "AA:BB"}}},
      {2, {"job", "put", "a", "enabled=maybe"}, "'enabled' must be yes or no"},
      {2, {"job", "get", "a", "enabled=yes"}, "'job get' takes no fields"},
      {2, {"mail", "set", "smtp_password=x"}, "a command line is for everybody's eyes"},
      {2, {"job", "put", "a", "\xff=1"}, "the arguments are not UTF-8"},
      {2, {"job", "erase", "a"}, "unknown action 'erase'"},
      {1, {"job", "get", "../a b?%"}, "404 not_found: malformed path"},
      {1, {"job", "put", "a", "enabled=no", "--if-match", "\"0\""}, "412 precondition_failed: "},
  };
  for (const Case& c : cases) expect(c.status, c.words, c.err, c.env);
  EXPECT_FALSE(contains(file("sched.cfg"), "enabled=no\n"));
  EXPECT_THAT(curl_info(file("admin")),
              AllOf(StartsWith("HTTP/1.1 401 "), HasSubstr("must sign their requests")));
  EXPECT_EQ(stop_daemon(), 0);
}

// The program for authors of other clients.
TEST_F(ApiDaemon, AnswersTheExampleClient) {
  configure_api("[a]\nschedule = 0 0 1 1 *\n");
  start_api_daemon();
  const ProgramResult got =
      run_program({kPython, ORV_SOURCE_DIR "/examples/orv_api", "GET", "/api/v1/jobs", "offset=0"},
                  client_env());
  EXPECT_THAT(got.out, StartsWith("200 {\"config_etag\":")) << got.err;
}

// Changes one job as fast as it can until nobody answers; counts what is known to be written.
asio::awaitable<void> change_for_ever(ApiConnection& api, std::atomic<int>& written) {
  const auto deadline = [] { return std::chrono::steady_clock::now() + std::chrono::seconds(30); };
  ClientRequest request;
  request.path = "/api/v1/info";
  ClientReply reply = co_await api.exchange(request, deadline());
  request.method = "PUT";
  request.path = "/api/v1/jobs/j1000";
  while (reply.kind == ReplyKind::Signed && reply.status == 200) {
    std::unique_ptr<JsonValue> root;
    if (json_parse(reply.body, JsonLimits(), root, {}) != 0) break;
    request.if_match = json_string(json_member(root.get(), "config_etag")).value_or("");
    request.body = ("{\"profile\":\"" + std::to_string(written + 1) + "\"}").c_str();
    reply = co_await api.exchange(request, deadline());
    if (reply.kind == ReplyKind::Signed && reply.status == 200) ++written;
  }
}

TEST_F(ApiDaemon, KillingItUnderChangesLosesNoConfiguration) {
  std::string jobs;
  for (int i = 1000; i < 1100; ++i)
    jobs += "[j" + std::to_string(i) + "]\nprofile=0\nschedule = 0 0 1 1 *\n";
  configure_api(jobs + "# the end\n");
  Sha256Digest pin{};
  ServerAddress address;
  ASSERT_TRUE(parse_fingerprint(fingerprint_, pin) && parse_server_address(server_, address));
  std::atomic<int> written = 0;
  for (int round = 0; round < 6; ++round) {
    start_api_daemon();
    asio::io_context io;
    ApiConnection api(io.get_executor(), address, pin, parse_token(file("admin")));
    asio::co_spawn(io, change_for_ever(api, written), asio::detached);
    const int before = written;
    std::thread stream([&] { io.run(); });
    EXPECT_TRUE(wait_until(std::chrono::seconds(30), [&] { return written > before + round; }));
    daemon_->signal(SIGKILL);
    daemon_->wait();
    stream.join();

    const ProgramResult valid = sched_as_user("validate");
    EXPECT_EQ(valid.out, "OK: 100 job(s)\n") << valid.err;
    const std::string text = file("sched.cfg");
    EXPECT_THAT(text, EndsWith("# the end\n"));
    const int found = std::stoi(text.substr(text.find("profile=") + 8));
    EXPECT_TRUE(found == written || found == written + 1)
        << "acknowledged " << written << ", found " << found;
    written = found;
  }
  start_api_daemon();
  done({"job", "put", "j1000", "profile=last"});
  EXPECT_EQ(stop_daemon(), 0);
}

}  // namespace
}  // namespace orv::test
