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
#include "e2e/network/network_fixture.h"
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

// One afternoon with the API. What it refuses, and why, is tested below the process.
TEST_F(ApiDaemon, ChangesRunsFollowsAndCancels) {
  tool("orv_verifier", "echo verified");
  tool("orv_agent", "echo begin; " + up_until_go() + "; echo end");
  const std::string yearly = "schedule = 0 0 1 1 *\r\n";
  configure_api("allowed-commands = agent,verify\n[a]\r\nenabled = yes  # mine\r\n" + yearly +
                "[b]\n" + yearly + kPatient);
  start_api_daemon();
  const std::string before = file("sched.cfg");
  EXPECT_THAT(done({"info"}), AllOf(HasSubstr("\n  role: admin\n"), HasSubstr("server:")));

  // What is put takes effect at once, and changes no byte besides.
  EXPECT_THAT(done({"job", "put", "now", "command=verify", "once=1", "--json"}),
              HasSubstr("\"once_unix\": 1,"));
  EXPECT_EQ(file("sched.cfg"), before + "\n[now]\ncommand=verify\nonce=1\n");
  EXPECT_TRUE(becomes("DONE", "now"));
  EXPECT_EQ(read_file(fs::directory_iterator(home_.file("cfg-history"))->path()), before);
  done({"job", "put", "--file", "-", "a"}, R"({"enabled": true, "timeout_seconds": 600})");
  EXPECT_THAT(file("sched.cfg"), HasSubstr("[a]\r\nenabled=yes  # mine\r\n"));
  EXPECT_THAT(done({"job", "get", "a"}), HasSubstr("\ntimeout_seconds:  600\n"));
  EXPECT_EQ(done({"validate", "new", "schedule=0 1 * * *"}), "valid\n");
  const ProgramResult invalid = client({"validate", "new", "schedule=0 25 * * *"});
  EXPECT_EQ(invalid.status, 5);
  EXPECT_THAT(invalid.out, AllOf(StartsWith("not valid: "), HasSubstr("hour")));
  EXPECT_EQ(done({"mail", "get"}), "there is no [mail] section\n");

  expect(1, {"log", "a"}, "job 'a' has no runs");
  EXPECT_THAT(done({"run", "a"}), StartsWith("the run of job 'a' is queued, number 1"));
  ASSERT_TRUE(appears("up"));
  const Program follower(client_line({"log", "a", "--follow"}), client_env());
  const auto follows = [&](const char* text) {
    return wait_until(std::chrono::seconds(30), [&] { return contains(follower.out(), text); });
  };
  EXPECT_THAT(done({"run", "b"}), EndsWith("number 1, after the running job 'a'\n"));
  Program waiting(client_line({"log", "b", "--follow"}), client_env());
  EXPECT_THAT(curl_info(file("read")),
              AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("\"running_job\":\"a\"")));
  EXPECT_EQ(done({"cancel", "b"}), "the run of job 'b' is taken out of the queue\n");
  EXPECT_EQ(waiting.wait(), 7);
  ASSERT_TRUE(follows("begin\n"));
  EXPECT_FALSE(contains(follower.out(), "end\n"));
  home_.write("go", "");
  EXPECT_TRUE(follows("\nend\n"));
  EXPECT_TRUE(becomes("DONE", "a"));

  for (const char* name : {"up", "go"}) fs::remove(home_.file(name));
  done({"run", "a"});
  ASSERT_TRUE(appears("up"));
  EXPECT_EQ(done({"cancel", "a"}), "the running job 'a' is told to stop\n");
  EXPECT_TRUE(becomes("FAILED", "a"));
  EXPECT_THAT(done({"runs", "a"}), HasSubstr("  cancelled  "));
  EXPECT_EQ(done({"job", "delete", "a"}), "job 'a' is deleted\n");
  EXPECT_EQ(stop_daemon(), 0);
}

TEST_F(ApiDaemon, LetsNobodyInWithoutTheRightPinAndToken) {
  configure_api("[a]\nschedule = 0 0 1 1 *\n");
  start_api_daemon();
  const std::string wrong = home_.write("wrong", "read." + file("admin").substr(6), 0600);
  std::string other = fingerprint_;
  other[0] = other[0] == 'A' ? 'B' : 'A';
  const Words change = {"job", "put", "a", "enabled=no"};
  expect(4, change, "certificate is another one, nothing was sent",
         {{"ORV_API_FINGERPRINT", other}});
  expect(1, change, "401 unauthorized: wrong secret or signature (reply not signed)",
         {{"ORV_API_TOKEN_FILE", wrong}});
  expect(1, change, "403 forbidden: this needs an admin token",
         {{"ORV_API_TOKEN_FILE", home_.file("read")}});
  EXPECT_FALSE(contains(file("sched.cfg"), "enabled=no\n"));
  EXPECT_THAT(curl_info(file("admin")),
              AllOf(StartsWith("HTTP/1.1 401 "), HasSubstr("must sign their requests")));
  EXPECT_THAT(curl_info(file("read") + "x"), StartsWith("HTTP/1.1 401 "));
  // The program for authors of other clients.
  const ProgramResult got =
      run_program({kPython, ORV_SOURCE_DIR "/examples/orv_api", "GET", "/api/v1/jobs", "offset=0"},
                  client_env());
  EXPECT_THAT(got.out, StartsWith("200 {\"config_etag\":")) << got.err;
  EXPECT_EQ(stop_daemon(), 0);
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
