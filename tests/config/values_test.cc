#include "config/values.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "config/listen_address.h"
#include "config/once_time.h"
#include "config/retention.h"
#include "config/secret_reference.h"
#include "support/support.h"

namespace orv {
namespace {

using test::ScopedTimeZone;
using test::TempDir;

TEST(ListenSetting, TakesAnAddressAndPortOrAPortAlone) {
  // clang-format off
  static constexpr struct {
    const char *value, *host;
    std::uint32_t port;  // 0: refused
  } kCases[] = {
      {"8443", "0.0.0.0", 8443}, {"[::1]:65535", "::1", 65535}, {"10.0.0.7:1", "10.0.0.7", 1},
      {"[10.0.0.7]:9", "10.0.0.7", 9}, {"::1:8443", "", 0}, {"localhost:8443", "", 0}, {"0", "", 0},
      {"65536", "", 0}, {"4294967297", "", 0}, {"-1", "", 0}, {"+80", "", 0}, {":80", "", 0},
      {"[]:80", "", 0}, {"[::1]80", "", 0}, {"[::1]", "", 0}, {"1.2.3.4:", "", 0},
      {"1.2.3.4: 80", "", 0}, {"010.1:80", "", 0}, {"", "", 0}};
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.value);
    ListenAddress at;
    EXPECT_EQ(parse_listen(c.value, at), c.port != 0);
    EXPECT_STREQ(at.host.c_str(), c.host);
    EXPECT_EQ(at.port, c.port);
  }
}

TEST(YesNo, IgnoresTheCaseOfWords) {
  for (const std::string text : {"yes", "TRUE", "1", "No", "fAlse", "0"}) {
    const bool yes = text == "yes" || text == "TRUE" || text == "1";
    bool flag = !yes;
    EXPECT_TRUE(parse_yes_no(text, flag)) << text;
    EXPECT_EQ(flag, yes);
  }
  bool flag = false;
  for (const char* text : {"", "y", "on", "10", "yes "}) EXPECT_FALSE(parse_yes_no(text, flag));
}

TEST(RetentionSetting, IsACountAndAUnitWithinAHundredYears) {
  for (const char* text : {"1d", "36500d", "5200w", "1200m", "100y", "forever"}) {
    Retention retention;
    EXPECT_TRUE(parse_retention(text, retention)) << text;
  }
  for (const char* text :
       {"0d", "01d", "37000d", "5201w", "1201m", "101y", "1D", "1", "d", "", "-1d", "1d ", "1dd",
        "4294967297d", "Forever", "99999999999999999999y"}) {
    Retention retention{RetentionUnit::Days, 7};
    EXPECT_FALSE(parse_retention(text, retention)) << text;
    EXPECT_EQ(retention.count, 7U);
  }
}

TEST(AddRetention, MovesTheCivilDateAndClampsTheDay) {
  constexpr std::int64_t kJan31 = 1706659200;  // 2024-01-31T00:00:00Z
  constexpr std::int64_t kDay = 86400;
  const ScopedTimeZone zone("America/New_York");  // the local zone must not matter
  EXPECT_EQ(add_retention(kJan31 + 5, {RetentionUnit::Months, 1}), kJan31 + 29 * kDay + 5);
  EXPECT_EQ(add_retention(kJan31 + 366 * kDay, {RetentionUnit::Months, 1}),
            kJan31 + (366 + 28) * kDay);
  EXPECT_EQ(add_retention(kJan31 + 29 * kDay, {RetentionUnit::Years, 1}),
            kJan31 + (29 + 365) * kDay);
  EXPECT_EQ(add_retention(kJan31, {RetentionUnit::Weeks, 2}), kJan31 + 14 * kDay);
  EXPECT_EQ(add_retention(kJan31, {RetentionUnit::Forever, 0}), INT64_MAX);
  EXPECT_EQ(add_retention(INT64_MAX - 1, {RetentionUnit::Days, 1}), INT64_MAX);
  EXPECT_EQ(add_retention(INT64_MAX - 1, {RetentionUnit::Years, 1}), INT64_MAX);
}

TEST(OnceSetting, TakesUnixSecondsOrLocalTime) {
  const ScopedTimeZone zone("Europe/Berlin");
  static constexpr std::pair<const char*, std::int64_t> kCases[] = {
      {"0", 0},
      {"1700000000", 1700000000},
      {"9223372036854775807", INT64_MAX},
      {"2026-01-02T03:04:05", 1767319445},
      {"2026-01-02t03:04", 1767319440},
      {"2026-1-2  3:4", 1767319440},
      {"2026-02-30T00:00", 1772406000},  // 2 March
  };
  for (const auto& [text, expected] : kCases) {
    std::int64_t time = -7;
    EXPECT_TRUE(parse_once(text, time));
    EXPECT_EQ(time, expected) << text;
  }
  for (const char* text :
       {"", "2026-01-02T03:04:05Z", "2026-01-02T03:04:05z", "2026-01-02T03:04:05+01:00",
        "2026-01-02T03:04:05-05:00", "2026-01-02T03:04 EST", "2026-01-02T03:04pm", "2026-01-02T03",
        "2026-01-02", "-5", "1x", "2026--1-02T03:04", "9223372036854775808",
        "2026-01-02T03:04:4294967297", "99999999999-01-02T03:04",
        "2026-01-02T03:04                                                 "}) {
    std::int64_t time = -7;
    EXPECT_FALSE(parse_once(text, time)) << text;
    EXPECT_EQ(time, -7);
  }
}

TEST(OnceSetting, MeansTheFirstPassOfARepeatedHourAtEveryLoad) {
  const ScopedTimeZone zone("Europe/Berlin");
  for (const char* before : {"2026-07-01T12:00", "2026-12-01T12:00"}) {
    std::int64_t time = 0;
    ASSERT_TRUE(parse_once(before, time));
    ASSERT_TRUE(parse_once("2026-10-25T02:30", time));
    EXPECT_EQ(time, 1792888200);  // 00:30 UTC
  }
}

TEST(Secret, IsALiteralOrTheFirstBytesOfAFile) {
  const TempDir dir;
  const std::pair<std::string, std::string_view> kCases[] = {
      // no secret: refused
      {"pass word \t\r\n\n", "pass word"},
      {" x", " x"},
      {"p" + std::string(126, ' ') + "behind the first 127 bytes", "p"},
      {"p" + std::string(125, ' ') + "b", ""},
      {std::string(65, 'a'), ""},
      {"  \n", ""},
      {"", ""},
      {std::string("a\0b", 3), ""}};
  for (const auto& [content, expected] : kCases) {
    SCOPED_TRACE(content);
    const std::string text = "file:" + dir.write("secret", content);
    SecretReference reference;
    ASSERT_TRUE(parse_secret_reference(text, false, reference, {}));
    FixedSecret<kMaxSecret> secret;
    EXPECT_EQ(read_secret(reference, secret), !expected.empty());
    EXPECT_EQ(secret.view(), expected);
  }
  FixedSecret<kMaxSecret> secret;
  EXPECT_FALSE(read_secret({SecretKind::File, dir.path()}, secret));
  EXPECT_FALSE(read_secret({SecretKind::File, dir.file("missing")}, secret));
  EXPECT_TRUE(read_secret({SecretKind::Literal, std::string(64, 'x')}, secret));
  EXPECT_FALSE(read_secret({SecretKind::Literal, std::string(65, 'x')}, secret));
  EXPECT_FALSE(read_secret({SecretKind::Kms, "https://keys"}, secret));
}

TEST(SecretReference, RefusesALiteralWhereNoneMayStand) {
  SecretReference reference;
  std::array<char, 128> err{};
  EXPECT_FALSE(parse_secret_reference("hunter2", false, reference, err));
  EXPECT_STREQ(err.data(),
               "a literal value is not accepted here (visible via /proc/ps) -- use file:<path> or "
               "kms:<url>");
}

}  // namespace
}  // namespace orv
