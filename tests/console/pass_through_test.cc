#include "console/pass_through.h"

#include <gtest/gtest.h>

#include "console/options.h"

namespace orv {
namespace {

TEST(PassTarget, TakesAPathApartAndPassesNoTrickOn) {
  enum class Is { Good, Malformed, NotOurs };
  struct Case {
    const char* target;
    Is is;
    const char* server = "";
    const char* path = "";
    const char* query = "";
  };
  static constexpr Case kCases[] = {
      {"/api/servers/berlin/v1/info", Is::Good, "berlin", "/api/v1/info"},
      {"/api/servers/b%65rlin/v1/jobs?offset=50&limit=50", Is::Good, "berlin", "/api/v1/jobs",
       "offset=50&limit=50"},
      {"/api/servers/b/v1/jobs/a%20b%3Cc%3E/run", Is::Good, "b", "/api/v1/jobs/a%20b%3Cc%3E/run"},
      {"/api/servers/b/v1/jobs/...", Is::Good, "b", "/api/v1/jobs/..."},
      {"/api/servers", Is::NotOurs},
      {"/api/servers/b", Is::NotOurs},
      {"/api/servers/b/v2/info", Is::NotOurs},
      {"/other/b/v1/info", Is::NotOurs},
      {"/api/servers//v1/info", Is::Malformed},
      {"/api/servers/../v1/info", Is::Malformed},
      {"/api/servers/b/v1/", Is::Malformed},
      {"/api/servers/b/v1/../../other", Is::Malformed},
      {"/api/servers/b/v1/jobs/%2e%2E/x", Is::Malformed},
      {"/api/servers/b/v1/jobs//x", Is::Malformed},
      {"/api/servers/b/v1/jobs/a%2fb", Is::Malformed},
      {"/api/servers/b/v1/jobs/a%5cb", Is::Malformed},
      {"/api/servers/b/v1/jobs/a%00", Is::Malformed},
      {"/api/servers/b/v1/jobs/a%0d%0aX: y", Is::Malformed},
      {"/api/servers/b/v1/jobs/a%4", Is::Malformed},
      {"/api/servers/b/v1/jobs/a%zz", Is::Malformed},
      {"/api/servers/b/v1/info#x", Is::Malformed},
      {"/api/servers/b/v1/jobs/\xC3\xA4", Is::Malformed},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.target);
    PassTarget out;
    bool malformed = false;
    EXPECT_EQ(pass_target_parse(c.target, out, malformed), c.is != Is::NotOurs);
    EXPECT_EQ(malformed, c.is == Is::Malformed);
    if (c.is != Is::Good) continue;
    EXPECT_EQ(out.server, c.server);
    EXPECT_EQ(out.path, c.path);
    EXPECT_EQ(out.query, c.query);
  }
}

TEST(PassRefusal, ReadOnlyLeavesReadsAndTheCheckOfADefinition) {
  struct Case {
    const char* method;
    const char* path;
    unsigned usual;  // 0: passed on
    unsigned read_only;
  };
  static constexpr Case kCases[] = {
      {"GET", "/api/v1/jobs", 0, 0},
      {"POST", "/api/v1/validate/job", 0, 0},
      {"POST", "/api/v1/validate/job/x", 0, 403},
      {"PUT", "/api/v1/validate/job", 0, 403},
      {"POST", "/api/v1/jobs/a/run", 0, 403},
      {"DELETE", "/api/v1/jobs/a", 0, 403},
      {"HEAD", "/api/v1/jobs", 405, 405},
      {"PATCH", "/api/v1/jobs/a", 405, 405},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.method);
    const PassTarget target{.server = "b", .path = c.path, .query = {}};
    const LocalError* usual = pass_refusal(c.method, target, false);
    const LocalError* read_only = pass_refusal(c.method, target, true);
    EXPECT_EQ(usual == nullptr ? 0 : usual->status, c.usual);
    EXPECT_EQ(read_only == nullptr ? 0 : read_only->status, c.read_only);
  }
}

TEST(PassReply, SaysWhatCanBeBelieved) {
  struct Case {
    ReplyKind kind;
    int status;
    const char* body;
    unsigned shown;
    const char* etag;
  };
  static constexpr Case kCases[] = {
      {ReplyKind::Signed, 200, R"({"config_etag":"\"ab\""})", 200, "\"ab\""},
      {ReplyKind::Signed, 412, R"({"error":{}})", 412, ""},
      {ReplyKind::Signed, 200, R"({"config_etag":"a\r\nSet-Cookie: x"})", 200, ""},
      {ReplyKind::Unsigned, 429, R"({"config_etag":"x"})", 429, ""},
      {ReplyKind::Unreachable, 0, R"({"error":{"code":"unreachable","message":"gone \"x\""}})", 502,
       ""},
      {ReplyKind::NotTrusted, 0, R"({"error":{"code":"not_trusted","message":"gone \"x\""}})", 502,
       ""},
  };
  for (const Case& c : kCases) {
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
  struct Case {
    const char* value;
    const char* address;  // empty: refused
    unsigned port;
  };
  static constexpr Case kCases[] = {
      {"127.0.0.1:8448", "127.0.0.1", 8448},
      {"127.9.8.7:1", "127.9.8.7", 1},
      {"[::1]:65535", "::1", 65535},
      {"localhost:0", "127.0.0.1", 0},
      {"9000", "127.0.0.1", 9000},
      {"::1:8448", "", 0},
      {"0.0.0.0:8448", "", 0},
      {"[::]:8448", "", 0},
      {"192.168.0.1:8448", "", 0},
      {"[::ffff:127.0.0.1]:1", "", 0},
      {"127.1:8448", "", 0},
      {"host.example:1", "", 0},
      {"127.0.0.1:65536", "", 0},
      {"127.0.0.1:", "", 0},
      {":8448", "", 0},
      {"", "", 0},
  };
  for (const Case& c : kCases) {
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
