// The command line of orv_api: words, options and fields.
#include "client/arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "client/server_list.h"
#include "support/support.h"

namespace orv {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

UsageError parse(std::vector<const char*> words, Arguments& out) {
  words.insert(words.begin(), "orv_api");
  return parse_arguments({words.data(), words.size()}, out);
}

TEST(Arguments, AreTakenWhereverOptionsStand) {
  Arguments given;
  ASSERT_EQ(parse({"--json", "job", "--server", "h", "put", "n", "--timeout=1.5", "enabled=no",
                   "--if-match", "\"t\"", "--", "args=-v", "profile="},
                  given)
                .message,
            "");
  EXPECT_EQ(given.command->name, "job");
  EXPECT_EQ(given.words, (std::vector<std::string>{"put", "n"}));
  EXPECT_EQ(given.value("--server"), "h");
  EXPECT_EQ(given.value("--if-match"), "\"t\"");
  EXPECT_TRUE(given.has("--json"));
  EXPECT_EQ(given.timeout, std::chrono::milliseconds(1500));
  EXPECT_EQ(object_text(given.members), R"({"enabled":false,"args":"-v","profile":null})");
}

TEST(Arguments, AreRefusedByTheWordAtFault) {
  // clang-format off
  const struct { std::vector<const char*> words; const char* message; } cases[] = {
      {{}, "a command is needed"},
      {{"jobz"}, "unknown command 'jobz' (did you mean 'jobs'?)"},
      {{"job"}, "'job' needs get|put|delete NAME"},
      {{"job", "got", "n"}, "unknown action 'got' (did you mean 'get'?)"},
      {{"job", "get"}, "'job' needs get|put|delete NAME"},
      {{"job", "get", "n", "enabled=no"}, "'job get' takes no fields"},
      {{"run", "n", "m"}, "unexpected argument 'm'"},
      {{"info", "--jso"}, "unknown option '--jso' (did you mean '--json'?)"},
      {{"--wait", "run", "n"}, "unknown option '--wait'"},
      {{"info", "--server"}, "'--server' needs a value"},
      {{"info", "--json=yes"}, "unknown option '--json'"},
      {{"info", "--on=a", "--on", "b"}, "'--on' is given twice"},
      {{"info", "--timeout", "0"}, "'--timeout' must be a number of seconds above 0"},
      {{"info", "--timeout", "nan"}, "'--timeout' must be a number of seconds above 0"},
      {{"mail-test", "--wait", "-1"}, "'--wait' must be a number of seconds above 0"},
      {{"job", "put", "n", "enabled=maybe"}, "'enabled' must be yes or no"},
      {{"job", "put", "n", "timeout_seconds=-1"}, "'timeout_seconds' must be a number, 0 or more"},
      {{"job", "put", "n", "enabled"}, "'enabled' is not <field>=<value>"},
      {{"job", "put", "n", "=x"}, "'=x' is not <field>=<value>"},
      {{"job", "put", "n", "\xff=1"}, "the arguments are not UTF-8"},
      {{"validate", "n", "--file", "/nonexistent"}, "cannot read /nonexistent: No such file"},
  };
  // clang-format on
  for (const auto& c : cases) {
    Arguments given;
    EXPECT_THAT(parse(c.words, given).message, HasSubstr(c.message));
  }
}

TEST(Arguments, RepeatNoSecret) {
  for (const char* word : {"smtp_password=hush", "smtp-password=hush", "password=hush"}) {
    Arguments given;
    const std::string message = parse({"mail", "set", word}, given).message;
    EXPECT_THAT(message, HasSubstr("a command line is for everybody's eyes"));
    EXPECT_THAT(message, Not(HasSubstr("hush")));
  }
  Arguments given;
  EXPECT_THAT(parse({"info", "--token=a.hush"}, given).message, Not(HasSubstr("hush")));
  Arguments removing;
  EXPECT_EQ(parse({"mail", "set", "smtp_password="}, removing).message, "");
}

TEST(Documents, KnowEveryCommandAndOptionOfOrvApi) {
  const std::string top = ORV_SOURCE_DIR;
  const std::string page = test::read_file(top + "/docs/orv_api.1");
  const std::string completion = test::read_file(top + "/packaging/completion/orv_api");
  const std::string usage = usage_text();
  const auto everywhere = [&](std::string_view word) {
    for (const std::string* text : {&page, &completion, &usage}) {
      EXPECT_THAT(*text, HasSubstr(word)) << text->substr(0, 40);
    }
  };
  for (const OptionRow& option : common_api_options()) everywhere(option.name);
  for (const ApiCommand& command : api_commands()) {
    everywhere(command.name);
    for (const OptionRow& option : command.options) everywhere(option.name);
    for (const std::string_view action : command.actions) everywhere(action);
  }
}

TEST(Members, AreThoseOfTheFileUnderThoseOfTheWords) {
  const test::TempDir dir;
  const std::string file = dir.write(
      "body",
      R"({"enabled": true, "after": ["a"], "smtp_password": "h\u00e4sh", "unknown": {"x": 1}})");
  const std::vector<std::string> words = {"after=b, c",     "to=",           "timeout_seconds=007",
                                          "job_log_keep=0", "enabled=false", "args=a=b \"c\""};
  BodyMembers members;
  std::array<char, kClientMessageSize> err{};
  ASSERT_EQ(read_members(words, file, members, err), 0) << err.data();
  EXPECT_EQ(object_text(members),
            "{\"enabled\":false,\"after\":[\"b\",\"c\"],\"smtp_password\":\"h\xc3\xa4sh\","
            "\"unknown\":{\"x\": 1},\"to\":[],\"timeout_seconds\":7,\"job_log_keep\":0,"
            "\"args\":\"a=b \\\"c\\\"\"}");
  for (const char* bad : {"[1]", "{\"a\":1,\"a\":2}", "{"}) {
    EXPECT_EQ(read_members({}, dir.write("bad", bad), members, err), -1) << bad;
  }
}

}  // namespace
}  // namespace orv
