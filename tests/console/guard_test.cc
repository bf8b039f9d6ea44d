#include "console/guard.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

constexpr std::string_view kHost = "127.0.0.1:8448";
constexpr std::string_view kOrigin = "http://127.0.0.1:8448";

std::string target_of(const std::string& url) { return url.substr(url.find('/', 7)); }
std::string cookie_of(const Guard& guard) {
  return guard.set_cookie().substr(0, guard.set_cookie().find(';'));
}

TEST(Guard, PassesOnlyItsOwnPageWithItsCookie) {
  Guard guard("127.0.0.1", 8448);
  Guard other("127.0.0.1", 8448);
  const std::string good = cookie_of(guard);
  const std::string among = "theme=dark; " + good + "; x";
  const std::string old = cookie_of(other);
  const std::string cut = good.substr(0, good.size() - 1);
  // clang-format off
  const struct { const char* what; GuardedHead head; GuardVerdict verdict; } cases[] = {
      {"a read", {"GET", "/", kHost, "", good}, GuardVerdict::Pass},
      {"a read with its origin", {"GET", "/", kHost, kOrigin, good}, GuardVerdict::Pass},
      {"among other cookies", {"GET", "/", kHost, "", among}, GuardVerdict::Pass},
      {"localhost", {"GET", "/", "LocalHost:8448", "", good}, GuardVerdict::Pass},
      {"a change", {"POST", "/x", kHost, kOrigin, good}, GuardVerdict::Pass},
      {"no cookie", {"GET", "/", kHost, "", ""}, GuardVerdict::Refuse},
      {"a cookie of an earlier console", {"GET", "/", kHost, "", old}, GuardVerdict::Refuse},
      {"a cookie cut short", {"GET", "/", kHost, "", cut}, GuardVerdict::Refuse},
      {"no host", {"GET", "/", "", "", good}, GuardVerdict::Refuse},
      {"a foreign host", {"GET", "/", "evil.example:8448", "", good}, GuardVerdict::Refuse},
      {"another port", {"GET", "/", "127.0.0.1:80", "", good}, GuardVerdict::Refuse},
      {"no port", {"GET", "/", "127.0.0.1", "", good}, GuardVerdict::Refuse},
      {"a foreign origin", {"GET", "/", kHost, "http://evil.example", good}, GuardVerdict::Refuse},
      {"another scheme", {"GET", "/", kHost, "https://127.0.0.1:8448", good}, GuardVerdict::Refuse},
      {"the origin null", {"POST", "/", kHost, "null", good}, GuardVerdict::Refuse},
      {"our other name", {"POST", "/", kHost, "http://localhost:8448", good}, GuardVerdict::Refuse},
      {"a change without origin", {"DELETE", "/", kHost, "", good}, GuardVerdict::Refuse},
      {"a host twice", {"GET", "/", kHost, "", good, true}, GuardVerdict::Refuse},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(guard.judge(c.head), c.verdict);
    EXPECT_EQ(*guard.reason() != '\0' || c.verdict == GuardVerdict::Pass, true);
  }
}

TEST(Guard, ThePrintedKeySignsInAgainAndAgainTheOtherOnce) {
  Guard guard("::1", 8448);
  const std::string url = guard.url();
  EXPECT_TRUE(url.starts_with("http://[::1]:8448/?key="));
  const std::string once = target_of(guard.url_once().substr(0));
  const std::string printed = target_of(url);
  const auto judge = [&](std::string_view target, std::string_view host = "[::1]:8448") {
    return guard.judge({"GET", target, host, "", ""});
  };
  EXPECT_EQ(judge(printed), GuardVerdict::SignIn);
  EXPECT_EQ(judge(printed), GuardVerdict::SignIn);
  EXPECT_EQ(judge(once), GuardVerdict::SignIn);
  EXPECT_EQ(judge(once), GuardVerdict::Refuse);
  EXPECT_EQ(judge("/?key="), GuardVerdict::Refuse);
  EXPECT_EQ(judge(printed + "0"), GuardVerdict::Refuse);
  EXPECT_EQ(judge(printed, "evil.example:8448"), GuardVerdict::Refuse);
  EXPECT_EQ(guard.judge({"POST", printed, "[::1]:8448", "http://[::1]:8448", ""}),
            GuardVerdict::Refuse);
}

TEST(Guard, TheCookieIsForThisPortAndOutOfReachOfScripts) {
  const std::string field = Guard("127.0.0.1", 81).set_cookie();
  EXPECT_TRUE(field.starts_with("orv_console_81="));
  EXPECT_TRUE(field.ends_with("; Path=/; HttpOnly; SameSite=Strict"));
}

}  // namespace
}  // namespace orv
