#include "json/json.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace orv {
namespace {

struct Parsed {
  explicit Parsed(std::string_view text, const JsonLimits& limits = {}) {
    char err[256];
    rc = json_parse(text, limits, root, err);
    message = err;
  }
  std::unique_ptr<JsonValue> root;
  int rc;
  std::string message;
};

TEST(JsonReader, RefusesWithTheReasonAndTheOffset) {
  using namespace std::string_view_literals;
  // clang-format off
  const struct {
    const char* reason;
    std::vector<std::pair<std::string_view, int>> texts;  // and the offset
  } cases[] = {
      {"unexpected end",         {{"", 0}, {"   ", 3}, {"[", 1}, {R"({"a":)", 5}}},
      {"unexpected character",   {{"\f1", 0}, {"\xef\xbb\xbf{}", 0}, {"\0"sv, 0}, {"+1", 0}, {".5", 0},
                                  {"NaN", 0}, {"tru", 0}, {"fals", 0}, {"[nul]", 1}, {"[1,]", 3},
                                  {"[,1]", 1}}},
      {"expected a string key",  {{"{", 1}, {"{1:2}", 1}, {"{'a':1}", 1}, {R"({"a":1,})", 7}}},
      {"expected :",             {{R"({"a" 1})", 5}, {R"({"a")", 4}}},
      {"duplicate key",          {{R"({"a":1,"a":2})", 12}, {R"({"a":1,"\u0061":[] })", 18}}},
      {"unterminated object",    {{R"({"a":1)", 6}}},
      {"expected , or }",        {{R"({"a":1 "b":2})", 7}}},
      {"unterminated array",     {{"[1", 2}}},
      {"expected , or ]",        {{"[1 2]", 3}, {"[1}", 2}}},
      {"unterminated string",    {{"\"abc", 4}}},
      {"control character in string", {{"\"a\tb\"", 2}, {"\"a\0\""sv, 2}}},
      {"bad escape",             {{R"("a\)", 3}, {R"("\x41")", 3}}},
      {"bad \\u escape",         {{R"("\u)", 3}, {R"("\u12")", 3}, {R"("\u00g0")", 3}}},
      {"bad surrogate pair",     {{R"("\uD800x")", 7}, {R"("\uD800\u0041")", 7}, {R"("\uD800\uD)", 7}}},
      {"lone surrogate",         {{R"("\uDC00")", 7}}},
      {"NUL in string",          {{R"("\u0000")", 7}}},
      {"bad number",             {{"-", 0}, {" -a", 1}, {"[1.]", 1}, {"1e", 0}, {"1e+", 0}}},
      {"leading zero in number", {{"01", 0}, {"-00", 0}}},
      {"number too long",        {{"11111111112222222222333333333344444444445", 0}}},
      {"number out of range",    {{"1e309", 0}, {"[-1e309]", 1}, {"1e-400", 0}}},
      {"unexpected data after the document", {{"true false", 5}, {"nullx", 4}, {"{}}", 2}, {"0x1", 1},
                                              {"1\0"sv, 1}}},
  };
  // clang-format on
  for (const auto& c : cases) {
    for (const auto& [text, offset] : c.texts) {
      const Parsed got(text);
      EXPECT_EQ(got.rc, -1);
      EXPECT_EQ(got.root, nullptr);
      EXPECT_EQ(got.message, std::string(c.reason) + " at byte " + std::to_string(offset)) << text;
    }
  }
  std::unique_ptr<JsonValue> root;
  EXPECT_EQ(json_parse("[", {}, root, {}), -1);  // no buffer: only the result tells
}

TEST(JsonReader, TellsIntegersFromOtherNumbers) {
  // clang-format off
  const struct { const char* text; std::optional<std::int64_t> whole; double number; } cases[] = {
      {"-0",                   0,         0},
      {"9223372036854775807",  INT64_MAX, 9223372036854775807.0},
      {"-9223372036854775808", INT64_MIN, -9223372036854775808.0},
      {"9223372036854775808",  {},        9223372036854775808.0},
      {"1.0",                  {},        1},
      {"-1.5E-2",              {},        -0.015},
      {"1111111111222222222233333333334444444444", {}, 1111111111222222222e21},
  };
  // clang-format on
  for (const auto& c : cases) {
    const Parsed got(c.text);
    ASSERT_EQ(got.rc, 0) << got.message;
    EXPECT_EQ(json_integer(got.root.get()), c.whole) << c.text;
    EXPECT_DOUBLE_EQ(got.root->number, c.number);
  }
}

TEST(JsonReader, DecodesStrings) {
  const std::pair<const char*, const char*> cases[] = {
      {R"("a\"\\\/\b\f\n\r\tz")", "a\"\\/\b\f\n\r\tz"},
      {R"("\u0041\u00e9\u20AC\uD83D\uDE00")", "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
      {R"("\uDBFF\udfff\uFFFF")", "\xf4\x8f\xbf\xbf\xef\xbf\xbf"},
      {"\"\x7f\x80\xc0\xff\"", "\x7f\x80\xc0\xff"}};
  for (const auto& [text, decoded] : cases) {
    const Parsed got(text);
    ASSERT_EQ(got.rc, 0) << got.message;
    EXPECT_EQ(*json_string(got.root.get()), decoded);
  }
}

TEST(JsonReader, KeepsItsLimits) {
  const auto quoted = [](std::size_t n) { return '"' + std::string(n, 'a') + '"'; };
  std::string array_of_511 = "[1";
  for (int i = 1; i < 511; ++i) array_of_511 += ",1";
  const std::string deep(32, '[');
  const struct {
    std::string text;
    JsonLimits limits;
    std::string message;  // empty: accepted
  } cases[] = {{deep + std::string(32, ']'), {}, ""},
               {"[" + deep, {}, "nesting too deep at byte 32"},
               {"[[[[]], [{}]]]", kJsonRequestLimits, ""},
               {"[[[[ {}]]]]", kJsonRequestLimits, "nesting too deep at byte 5"},
               {array_of_511 + "]", kJsonRequestLimits, ""},
               {array_of_511 + ",1]", kJsonRequestLimits, "too many values at byte 1023"},
               {R"(["a", "b)", {100, 4, 2}, "too many values at byte 6"},
               {std::string(32766, ' ') + "12", kJsonRequestLimits, ""},
               {std::string(32767, ' ') + "12", kJsonRequestLimits, "document too large"},
               {quoted(65535), {}, ""},
               {quoted(65536), {}, "string too long at byte 65536"}};
  for (const auto& c : cases) {
    const Parsed got(c.text, c.limits);
    EXPECT_EQ(got.message, c.message);
    EXPECT_EQ(got.rc, c.message.empty() ? 0 : -1);
  }
}

}  // namespace
}  // namespace orv
