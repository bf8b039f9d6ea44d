#include "api_fixture.h"

namespace orv::test {
namespace {

class Router : public ApiFixture {};

constexpr const char* kNoPost = "405 method_not_allowed: method POST not allowed here";
constexpr const char* kNoDelete = "405 method_not_allowed: method DELETE not allowed here";
constexpr const char* kUnknown = "404 not_found: unknown path";
constexpr const char* kMalformed = "404 not_found: malformed path";
constexpr const char* kNoQuery = "400 bad_query: this resource takes no query parameters";
constexpr const char* kAdminOnly = "403 forbidden: this needs an admin token";
constexpr const char* kJobsQuery =
    "400 bad_query: allowed query parameters: offset, limit (digits)";

TEST_F(Router, AppliesTheCommonRulesInTheirOrder) {
  load("[a]\nenabled=no\n");
  constexpr TokenRole kRead = TokenRole::Read;
  constexpr TokenRole kAdmin = TokenRole::Admin;
  // clang-format off
  static constexpr struct { const char *method, *path, *body; TokenRole role; const char* verdict; } kCases[] = {
      {"GET", "/api/v2/info", "", kRead, kUnknown},
      {"GET", "/api/v1/", "", kRead, kMalformed},
      {"GET", "jobs//runs", "{}", kRead, kMalformed},
      {"GET", "jobs/a%2Fb", "", kRead, kMalformed},
      {"GET", "jobs/a%0Ab", "", kRead, kMalformed},
      {"GET", "jobs/\xc3\xa4", "", kRead, kMalformed},
      {"GET", "1/2/3/4/5/6/7", "", kRead, kMalformed},
      {"GET", "1/2/3/4", "{}", kRead, "400 bad_request: GET takes no body"},
      {"GET", "%69nfo", "", kRead, "200"},
      {"GET", "info?x=1", "", kRead, kNoQuery},
      {"POST", "info?x=1", "", kRead, kNoPost},
      {"POST", "jobs/a?x=1", "", kRead, kNoQuery},
      {"DELETE", "settings/sched", "", kRead, kNoDelete},
      {"PUT", "jobs/a", "x", kRead, kAdminOnly},
      {"DELETE", "jobs/a", "x", kAdmin, "400 bad_request: DELETE takes no body"},
      {"POST", "jobs/a/run", "{}", kRead, kAdminOnly},
      {"POST", "jobs/a/run", "{}", kAdmin, "400 bad_request: this takes no body"},
      {"GET", "jobs?offset=1&offset=1", "", kRead, kJobsQuery},
      {"GET", "jobs?limit=", "", kRead, kJobsQuery},
      {"GET", "jobs?offset=1&", "", kRead, kJobsQuery},
      {"GET", "jobs?offset=0000000000001", "", kRead, kJobsQuery},
      {"GET", "jobs?offset=999999999999", "", kRead, "200"},
      {"GET", "jobs?limit=0", "", kRead, "400 bad_query: limit must be 1..50"},
      {"GET", "jobs?limit=51", "", kRead, "400 bad_query: limit must be 1..50"},
      {"GET", "jobs/a/runs/x/log?length=0", "", kRead, "400 bad_query: length must be 1..49152"},
      {"GET", "jobs/b/runs/20261005T140000Z/log", "", kRead, "404 not_found: no job named 'b'"},
      {"GET", "jobs/a/runs/20261005T140000Z/log", "", kRead, "404 not_found: no such run"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    EXPECT_EQ(send(c.method, c.path, c.body, {}, c.role).verdict(), c.verdict)
        << c.method << " " << c.path;
  }
}

TEST_F(Router, RefusesChangesWhenThePolicyForbidsThem) {
  load("[api]\nallow-config-write=no\n[a]\nenabled=no\n");
  for (const char* path : {"jobs/a", "settings/sched", "settings/mail"}) {
    EXPECT_EQ(send("PUT", path, "no JSON").verdict(),
              "403 config_write_disabled: configuration changes through the API are disabled "
              "([api] allow-config-write=no)");
  }
}

}  // namespace
}  // namespace orv::test
