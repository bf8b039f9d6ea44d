// The program orv_api against stand-in servers: several at once, changes that others get in between
// of, runs that are followed, and what a server may not do to a terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "client/lying_server.h"
#include "client/server_list.h"

namespace orv::test {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

// An API of fixed replies by "METHOD path?query"; a body that begins with {"error" has status 409.
// What is missing is 404.
class Script {
 public:
  using Replies = std::map<std::string, std::vector<std::string>>;  // one after another, last stays
  explicit Script(Replies replies) : replies_(std::move(replies)) {}

  LyingServer::Answer answer() {
    return [this](const SeenRequest& request) {
      const std::lock_guard lock(mutex_);
      const std::string line = request.text.substr(0, request.text.find(" HTTP/1.1"));
      const std::string asked =
          line.substr(0, line.find(' ') + 1) + line.substr(line.find("/v1/") + 4);
      seen_ += asked + "\n";
      bodies_ += request.text.substr(request.text.find("\r\n\r\n") + 4) + "\n";
      const auto found = replies_.find(asked);
      if (found == replies_.end()) {
        return LyingServer::signed_reply(request, 404,
                                         R"({"error":{"code":"not_found","message":"no such"}})");
      }
      const std::string body = found->second.front();
      if (found->second.size() > 1) found->second.erase(found->second.begin());
      const bool refused = body.starts_with("{\"error\"");
      const int status = !refused ? 200 : body.find("precondition") != body.npos ? 412 : 409;
      return LyingServer::signed_reply(request, status, body);
    };
  }
  [[nodiscard]] const std::string& seen() const { return seen_; }
  [[nodiscard]] auto requests() const { return std::count(seen_.begin(), seen_.end(), '\n'); }
  [[nodiscard]] const std::string& bodies() const { return bodies_; }

 private:
  std::mutex mutex_;
  Replies replies_;
  std::string seen_, bodies_;
};

const std::string kInfo =
    R"({"version":"9","host":"h","time":5000,"running_job":"b","config_etag":"\"1\""})";
const std::string kJobs =
    R"({"config_etag":"\"1\"","total":3,"offset":0,"next_offset":null,"jobs":[
        {"name":"a","command":"agent","after":[],"state":{"status":"FAILED","next_run":90000}},
        {"name":"b","command":"agent","after":["a"],"state":{"status":"RUNNING","last_run":1275}},
        {"name":"c","command":"verify","after":[],"state":null}]})";
const std::string kFirstPage = "GET jobs?offset=0&limit=50";

class OrvApi : public ::testing::Test {
 protected:
  OrvApi() { home_.write("token", "admin." + std::string(43, 's'), 0600); }

  void list(const std::string& name, const ServerAddress& address, const Sha256Digest& fingerprint,
            const std::string& token = "token") {
    list_ += "[" + name + "]\nserver = " + address.text() +
             "\nfingerprint = " + fingerprint_text(fingerprint) +
             "\ntoken-file = " + home_.file(token) + "\n";
    home_.write("orv/servers", list_);
  }
  [[nodiscard]] std::map<std::string, std::string> env() const {
    return {{"XDG_CONFIG_HOME", home_.path()}, {"TZ", "UTC"}, {"ORV_API_SERVER", "wrong.invalid"}};
  }
  ProgramResult api(Words words, std::string_view input = {}) {
    words.insert(words.begin(), ORV_API_PROGRAM);
    return run_program(words, env(), input);
  }
  // A server "s" of that script in the list.
  ProgramResult ask(Script& script, Words words) {
    const LyingServer server(script.answer());
    list_.clear();
    list("s", server.address(), server.fingerprint());
    words.insert(words.end(), {"--on", "s"});
    return api(words);
  }

  TempDir home_;
  std::string list_;
};

TEST_F(OrvApi, AsksSeveralServersAndLetsNoneHarmTheOthers) {
  Script script({{"GET info", {kInfo}}, {kFirstPage, {kJobs}}});
  const LyingServer good(script.answer());
  const LyingServer other([](const SeenRequest&) { return LyingServer::kSayNothing; });
  home_.write("open", "admin." + std::string(43, 's'), 0644);
  list("good", good.address(), good.fingerprint());
  list("down", {"127.0.0.1", 1}, good.fingerprint());
  list("other", other.address(), good.fingerprint());
  list("open", good.address(), good.fingerprint(), "open");
  list("again", good.address(), good.fingerprint());

  const ProgramResult all = api({"--all", "info"});
  EXPECT_EQ(all.status, 3) << "the first that is not 0";
  EXPECT_THAT(all.out, AllOf(StartsWith("good:\nversion: "), HasSubstr("\ndown:\nother:\nopen:\n"),
                             HasSubstr("\nagain:\nversion: ")));
  EXPECT_THAT(all.err, AllOf(HasSubstr("orv_api: down: no answer from the server: Connection"),
                             HasSubstr("orv_api: other: the server's certificate is another one"),
                             HasSubstr("orv_api: open: the token file ")));
  const ProgramResult json = api({"info", "--json", "--on", "again,open,good"});
  EXPECT_EQ(json.status, 2);
  EXPECT_THAT(json.out,
              AllOf(StartsWith("[{\"name\": \"good\", \"reply\": {\"version\": \"9\", "),
                    HasSubstr("\n {\"name\": \"open\", \"error\": {\"code\": \"bad_token\""),
                    HasSubstr("\n {\"name\": \"again\", \"reply\": {")));
  const ProgramResult status = api({"status", "--on", "good,down"});
  EXPECT_EQ(status.status, 3);
  EXPECT_EQ(status.out,
            "SERVER  REACHABLE  VERSION  RUNNING  FOR      FAILED  NEXT-RUN\n"
            "good    yes        9        b        1:02:05  1 (a)   1970-01-02 01:00:00 a\n"
            "down    no         -        -        -        -       -\n");
}

TEST_F(OrvApi, RefusesAWrongChoiceBeforeAnythingIsSent) {
  Script script({});
  const LyingServer server(script.answer());
  list("good", server.address(), server.fingerprint());
  const std::string pin = fingerprint_text(server.fingerprint());
  // clang-format off
  const struct { Words words; const char* err; } cases[] = {
      {{"info", "--on", "god"},                           "no server 'god' is listed in "},
      {{"info", "--on", "god"},                           " (did you mean 'good'?)"},
      {{"info", "--on", ","},                             "'--on' needs the name of a server"},
      {{"info", "--on", "good", "--server", "h"},         "'--server' cannot be given with servers of the"},
      {{"info", "--all", "--token-file", "/x"},           "'--token-file' cannot be given with servers of"},
      {{"info", "--all", "--on", "good"},                 "'--on' and '--all' exclude each other"},
      {{"info", "--all", "--servers", "/nonexistent"},    "no servers are listed in /nonexistent"},
      {{"log", "a", "--follow", "--all"},                 "'--follow' follows one server"},
      {{"run", "a", "--wait", "--all"},                   "'--wait' follows one server"},
      {{"info"},                                          "fingerprint is needed"},
      {{"info", "--fingerprint", "AA:BB"},                "fingerprint is needed"},
      {{"info", "--server", "127.0.0.1/x"},               "is not <host>[:<port>]"},
      {{"info", "--fingerprint", pin},                    "a token <name>.<secret> is needed"},
      {{"info", "--fingerprint", pin, "--token-file", "/x"}, "cannot read the token"},
  };
  // clang-format on
  for (const auto& c : cases) {
    const ProgramResult got = api(c.words);
    EXPECT_EQ(got.status, 2) << got.err;
    EXPECT_THAT(got.err, HasSubstr(c.err));
  }
  home_.write("orv/servers", list_ + "[b]\nport=1\n");
  const ProgramResult faulty = api({"info", "--on", "good"});
  EXPECT_EQ(faulty.status, 2);
  EXPECT_EQ(faulty.err, "orv_api: " + home_.file("orv/servers") + ":6: unknown key 'port'\n");
  EXPECT_EQ(script.seen(), "");
}

TEST_F(OrvApi, ChangesOneSettingAndTriesAgainWhenOthersWereFaster) {
  const std::string conflict = R"({"error":{"code":"precondition_failed","message":"changed"}})";
  const auto mail = [](const char* tag) {
    return std::string(R"({"config_etag":"\")") + tag +
           R"(\"","mail":{"smtp_host":"m","smtp_port":25,"from":"a@b","to":["c@d","e@f"]}})";
  };
  Script script({{"GET settings/mail", {mail("1"), mail("2")}},
                 {"PUT settings/mail", {conflict, R"({"config_etag":"\"3\""})"}}});
  const ProgramResult got = ask(script, {"mail", "set", "from=x@y"});
  EXPECT_EQ(got.out, "the [mail] settings are changed\n") << got.err;
  EXPECT_EQ(script.seen(),
            "GET settings/mail\nPUT settings/mail\nGET settings/mail\nPUT settings/mail\n");
  EXPECT_THAT(script.bodies(),
              HasSubstr(R"({"mail":{"from":"x@y","smtp_host":"m","to":["c@d", "e@f"]}})"));

  Script never({{"GET info", {kInfo}}, {"PUT jobs/a%2Fb", {conflict}}});
  const ProgramResult lost = ask(never, {"job", "put", "a/b", "profile=x"});
  EXPECT_EQ(lost.status, 1);
  EXPECT_EQ(lost.err, "orv_api: 412 precondition_failed: changed\n");
  EXPECT_THAT(never.bodies(), HasSubstr("{\"profile\":\"x\"}"));
  EXPECT_EQ(never.requests(), 6) << "three attempts";
  Script tagged({{"GET info", {kInfo}}, {"DELETE jobs/a", {conflict}}});
  const ProgramResult refused =
      ask(tagged, {"job", "delete", "a", "--if-match", "\"0\"", "--json"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out,
            "{\"error\": {\"code\": \"precondition_failed\", \"message\": \"changed\"}}\n");
  EXPECT_EQ(tagged.requests(), 2);
}

TEST_F(OrvApi, CollectsPagesAndBeginsAnewWhenTheConfigurationChanges) {
  const auto page = [](const char* tag, const char* name, const char* next) {
    return std::string(R"({"config_etag":")") + tag + R"(","next_offset":)" + next +
           R"(,"jobs":[{"name":")" + name + R"(","after":[],"state":null}]})";
  };
  Script script({{kFirstPage, {R"({"error":{"code":"internal","message":"response too large"}})"}},
                 {"GET jobs?offset=0&limit=25", {page("1", "old", "25"), page("2", "a", "25")}},
                 {"GET jobs?offset=25&limit=25", {page("2", "b", "null")}}});
  const ProgramResult got = ask(script, {"jobs"});
  EXPECT_THAT(got.out, AllOf(HasSubstr("\na "), HasSubstr("\nb "), Not(HasSubstr("old"))))
      << got.err;
  // One that counts backwards is not asked for ever.
  Script circle(Script::Replies{{kFirstPage, {page("1", "a", "0")}}});
  EXPECT_EQ(ask(circle, {"jobs"}).status, 0);
}

TEST_F(OrvApi, FollowsARunAndExitsByItsOutcome) {
  // A server where job "a" has run before; once it is asked to run, `entry` is what its new run is
  // listed as, and `status` the job's. An empty entry: it never starts.
  const auto server_with = [](const std::string& entry, const std::string& status, bool log_ends) {
    const std::string old = R"({"id":"20260101T000000Z","finished":true,"exit_code":0}]})";
    const std::string run =
        R"({"runs":[{"id":"20260102T000000Z","start":5,"finished":)" + entry + "},";
    const std::string log = R"({"offset":0,"size":4,"data":"log\n","next_offset":4,"finished":)";
    return Script::Replies{
        {"GET jobs/a/runs", {R"({"runs":[)" + old, (entry.empty() ? R"({"runs":[)" : run) + old}},
        {"POST jobs/a/run",
         {R"({"queued":true,"already_queued":false,"position":1,"running_job":"b"})"}},
        {"GET jobs/a",
         {R"({"job":{"name":"a","state":{"status":")" + status + R"(","run_requested":false}}})"}},
        {"GET jobs/a/runs/20260102T000000Z/log?offset=0", {log + (log_ends ? "true}" : "false}")}},
        {"GET jobs/a/runs/20260102T000000Z/log?offset=4", {log + "false}"}}};
  };
  // clang-format off
  static constexpr struct { int status; const char *entry, *err; } kCases[] = {
      {0, R"(true,"exit_code":0)",                     ""},
      {6, R"(true,"exit_code":3)",                     "the run of job 'a' failed with exit code 3"},
      {6, "false",                                     "the run of job 'a' was lost: its log has no end"},
      {7, R"(true,"exit_code":-1,"cancelled":true)",   "the run of job 'a' was cancelled"},
      {7, R"(true,"exit_code":-1,"timed_out":true)",   "the run of job 'a' took too long"},
      {7, "",                                          "the run of job 'a' was taken out of the queue"},
      {8, R"(true,"exit_code":75)",                    "the run of job 'a' found its tool busy"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    const std::string_view entry = c.entry;
    Script script(server_with(c.entry, "DONE", entry != "false"));
    const ProgramResult got = ask(script, {"run", "a", "--wait"});
    EXPECT_EQ(got.status, c.status) << got.err;
    EXPECT_THAT(got.err, HasSubstr(c.err));
    EXPECT_EQ(got.out, std::string("the run of job 'a' is queued, number 1, after the running job "
                                   "'b'\n") +
                           (entry.empty() ? "" : "log\n"));
  }
  Script going_on(server_with("false", "RUNNING", false));
  const LyingServer server(going_on.answer());
  list_.clear();
  list("s", server.address(), server.fingerprint());
  Program follower({ORV_API_PROGRAM, "run", "a", "--wait", "--on", "s"}, env());
  ASSERT_TRUE(
      wait_until(std::chrono::seconds(30), [&] { return contains(follower.out(), "\nlog\n"); }));
  follower.signal(SIGINT);
  EXPECT_EQ(follower.wait(), 130);
  EXPECT_EQ(follower.err(), "orv_api: the run of job 'a' goes on\n");
  // Nor does it go on in vain when nothing can be written.
  const ProgramResult full = run_program(
      {"sh", "-c", ORV_API_PROGRAM " log a 20260102T000000Z --follow --on s >/dev/full"}, env());
  EXPECT_EQ(full.status, 3);
  EXPECT_EQ(full.err, "orv_api: cannot write: No space left on device\n");
}

TEST_F(OrvApi, ShowsTextsOfAServerAsTextsOnly) {
  const std::string evil = R"(\u001b]0;x\u0007\u009b31m\u202e\n<b>)";
  Script script({{"GET info", {R"({"host":")" + evil + R"(","version":{"deep":[[["x"]]]}})"}},
                 {"GET jobs/a", {R"({"error":{"code":"no","message":")" + evil + "\"}}"}},
                 {kFirstPage,
                  {R"({"jobs":[{"name":")" + evil + R"(","after":")" + evil +
                   R"(","state":[]}, 5, null]})"}}});
  for (const Words& words : {Words{"info"},
                             {"job", "get", "a"},
                             {"jobs"},
                             {"info", "--json"},
                             {"job", "get", "a", "--json"},
                             {"status"}}) {
    const ProgramResult got = ask(script, words);
    for (const std::string& text : {got.out, got.err}) {
      EXPECT_EQ(text.find_first_of("\x1b\x07\x9b"), std::string::npos) << words[0];
      EXPECT_EQ(text.find("\xe2\x80\xae"), std::string::npos) << words[0];
    }
  }
  EXPECT_EQ(ask(script, {"job", "get", "a"}).err,
            "orv_api: 409 no: ?]0;x?"
            "?31m?"
            "?<b>\n");
  // What is no JSON object at all is no answer.
  for (const char* body : {"[]", "nonsense", "{\"a\":1,\"a\":2}"}) {
    Script odd(Script::Replies{{"GET info", {body}}});
    EXPECT_EQ(ask(odd, {"info"}).status, 3) << body;
  }
}

TEST_F(OrvApi, PinsOnlyOnYes) {
  const LyingServer server([](const SeenRequest&) { return LyingServer::kHangUp; });
  Words pin = {"pin", server.address().text(), "--name",
               "new", "--token-file",          home_.file("token")};
  const std::string shown = fingerprint_text(server.fingerprint());
  for (const char* answer : {"", "y\n", "Yes\n", "no\n", " yes\n"}) {
    const ProgramResult got = api(pin, answer);
    EXPECT_EQ(got.status, 1) << answer;
    EXPECT_THAT(got.out, HasSubstr(shown));
    EXPECT_FALSE(exists(home_.file("orv/servers")));
  }
  EXPECT_EQ(api(pin, "yes\n").status, 0);
  EXPECT_THAT(read_file(home_.file("orv/servers")), HasSubstr("fingerprint = " + shown + "\n"));
  EXPECT_THAT(api(pin, "yes\n").out, HasSubstr("[new] is listed already"));

  const LyingServer impostor([](const SeenRequest&) { return LyingServer::kHangUp; });
  list("new", impostor.address(), server.fingerprint());
  pin[1] = impostor.address().text();
  const ProgramResult changed = api(pin, "yes\n");
  EXPECT_EQ(changed.status, 4);
  EXPECT_THAT(changed.out,
              AllOf(HasSubstr(fingerprint_text(impostor.fingerprint())), HasSubstr(shown)));
  EXPECT_EQ(read_file(home_.file("orv/servers")), list_);
  EXPECT_EQ(api({"pin", "x", "--name", "a b", "--token-file", "/x"}).status, 2);
  EXPECT_EQ(api({"pin", "x", "--name", "ab", "--token-file", "/nonexistent"}).status, 2);
  EXPECT_EQ(server.requests() + impostor.requests(), 0);
}

}  // namespace
}  // namespace orv::test
