#include "console/pass_through.h"

#include <gtest/gtest.h>

#include "console/options.h"

namespace orv {
namespace {

TEST(PassTarget, TakesAPathApartAndPassesNoTrickOn) {
  PassTarget out;
  bool malformed = false;
  // clang-format off
  static constexpr struct { const char *target, *server, *path, *query; } kGood[] = {
      {"/api/servers/berlin/v1/info",             "berlin", "/api/v1/info", ""},
      {"/api/servers/b%65rlin/v1/jobs?limit=50",  "berlin", "/api/v1/jobs", "limit=50"},
      {"/api/servers/b/v1/jobs/a%20b%3Cc%3E/run", "b", "/api/v1/jobs/a%20b%3Cc%3E/run", ""},
      {"/api/servers/b/v1/jobs/...",              "b", "/api/v1/jobs/...", ""},
  };
  // clang-format on
  for (const auto& c : kGood) {
    EXPECT_TRUE(pass_target_parse(c.target, out, malformed)) << c.target;
    EXPECT_FALSE(malformed) << c.target;
    EXPECT_EQ(out.server, c.server);
    EXPECT_EQ(out.path, c.path);
    EXPECT_EQ(out.query, c.query);
  }
  for (const char* not_ours :
       {"/api/servers", "/api/servers/b", "/api/servers/b/v2/info", "/other/b/v1/info"}) {
    EXPECT_FALSE(pass_target_parse(not_ours, out, malformed) || malformed) << not_ours;
  }
  for (const char* trick :
       {"/v1/info", "../v1/info", "b/v1/", "b/v1/../../other", "b/v1/jobs/%2e%2E/x", "b/v1/jobs//x",
        "b/v1/jobs/a%2fb", "b/v1/jobs/a%5cb", "b/v1/jobs/a%00", "b/v1/jobs/a%0d%0aX: y",
        "b/v1/jobs/a%4", "b/v1/jobs/a%zz", "b/v1/info#x", "b/v1/jobs/\xC3\xA4"}) {
    EXPECT_TRUE(pass_target_parse(std::string("/api/servers/") + trick, out, malformed)) << trick;
    EXPECT_TRUE(malformed) << trick;
  }
}

TEST(PassRefusal, ReadOnlyLeavesReadsAndTheCheckOfADefinition) {
  // The status of the refusal; 0: passed on.
  // clang-format off
  static constexpr struct { const char *method, *path; unsigned usual, read_only; } kCases[] = {
      {"GET", "/api/v1/jobs", 0, 0},
      {"POST", "/api/v1/validate/job", 0, 0},
      {"POST", "/api/v1/validate/job/x", 0, 403},
      {"PUT", "/api/v1/validate/job", 0, 403},
      {"POST", "/api/v1/jobs/a/run", 0, 403},
      {"DELETE", "/api/v1/jobs/a", 0, 403},
      {"HEAD", "/api/v1/jobs", 405, 405},
      {"PATCH", "/api/v1/jobs/a", 405, 405},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.method);
    const PassTarget target{.server = "b", .path = c.path, .query = {}};
    const LocalError* usual = pass_refusal(c.method, target, false);
    const LocalError* read_only = pass_refusal(c.method, target, true);
    EXPECT_EQ(usual == nullptr ? 0 : usual->status, c.usual);
    EXPECT_EQ(read_only == nullptr ? 0 : read_only->status, c.read_only);
  }
}

TEST(PassReply, SaysWhatCanBeBelieved) {
  // clang-format off
  static constexpr struct { ReplyKind kind; int status; unsigned shown; const char *etag, *body; } kCases[] = {
      {ReplyKind::Signed,      200, 200, "\"ab\"", R"({"config_etag":"\"ab\""})"},
      {ReplyKind::Signed,      412, 412, "",       R"({"error":{}})"},
      {ReplyKind::Signed,      200, 200, "",       R"({"config_etag":"a\r\nSet-Cookie: x"})"},
      {ReplyKind::Unsigned,    429, 429, "",       R"({"config_etag":"x"})"},
      {ReplyKind::Unreachable, 0,   502, "",       R"({"error":{"code":"unreachable","message":"gone \"x\""}})"},
      {ReplyKind::NotTrusted,  0,   502, "",       R"({"error":{"code":"not_trusted","message":"gone \"x\""}})"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.body);
    ClientReply reply;
    reply.kind = c.kind;
    reply.status = c.status;
    reply.body = c.status == 0 ? "" : c.body;
    reply.error = "gone \"x\"";
    reply.retry_after_s = 7;
    const LocalReply out = pass_reply(reply);
    EXPECT_EQ(out.status, c.shown);
    EXPECT_EQ(out.body, c.body);
    EXPECT_EQ(out.etag, c.etag);
    const std::string text = reply_text(out, true, false);
    EXPECT_EQ(text.find("X-ORV-Unsigned: 1\r\n") != std::string::npos,
              c.kind == ReplyKind::Unsigned);
  }
}

TEST(ConsoleOptions, ListensOnLoopbackOnly) {
  // No address: refused.
  // clang-format off
  static constexpr struct { const char *value, *address; unsigned port; } kCases[] = {
      {"127.0.0.1:8448", "127.0.0.1", 8448}, {"127.9.8.7:1",  "127.9.8.7", 1},
      {"[::1]:65535",    "::1",      65535}, {"localhost:0",  "127.0.0.1", 0},
      {"9000",           "127.0.0.1", 9000}, {"::1:8448",         "", 0},
      {"0.0.0.0:8448",   "", 0},             {"[::]:8448",        "", 0},
      {"192.168.0.1:1",  "", 0},             {"[::ffff:127.0.0.1]:1", "", 0},
      {"127.1:8448",     "", 0},             {"host.example:1",   "", 0},
      {"127.0.0.1:65536", "", 0},            {"127.0.0.1:",       "", 0},
      {":8448",          "", 0},             {"",                 "", 0},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.value);
    const char* args[] = {"orv_console", "--read-only", "--listen", c.value};
    ConsoleOptions out;
    char err[256] = "";
    const int rc = console_options_parse(args, out, err);
    ASSERT_EQ(rc, *c.address == '\0' ? -1 : 0);
    EXPECT_EQ(*err != '\0', rc != 0);
    if (rc != 0) continue;
    EXPECT_EQ(out.address, c.address);
    EXPECT_EQ(out.port, c.port);
    EXPECT_TRUE(out.read_only);
  }
}

}  // namespace
}  // namespace orv
