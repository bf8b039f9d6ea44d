#include "api/json.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/support.h"

namespace orv {
namespace {

struct Parsed {
  int rc;
  std::unique_ptr<JsonValue> root;
  std::string message;
};
Parsed parse(std::string_view text, const JsonLimits& limits = {}) {
  char err[256];
  Parsed out{};
  out.rc = json_parse(text, limits, out.root, err);
  out.message = err;
  return out;
}

TEST(JsonReader, RefusesWithTheReasonAndTheOffset) {
  using namespace std::string_view_literals;
  struct Case {
    std::string_view text;
    const char* message;
  };
  static constexpr Case kCases[] = {
      {"", "unexpected end at byte 0"},
      {"   ", "unexpected end at byte 3"},
      {"\f1", "unexpected character at byte 0"},
      {"\xef\xbb\xbf{}", "unexpected character at byte 0"},
      {"\0"sv, "unexpected character at byte 0"},
      {"1\0"sv, "unexpected data after the document at byte 1"},
      {"+1", "unexpected character at byte 0"},
      {".5", "unexpected character at byte 0"},
      {"NaN", "unexpected character at byte 0"},
      {"tru", "unexpected character at byte 0"},
      {"fals", "unexpected character at byte 0"},
      {"[nul]", "unexpected character at byte 1"},
      {"True", "unexpected character at byte 0"},
      {"true false", "unexpected data after the document at byte 5"},
      {"nullx", "unexpected data after the document at byte 4"},
      {"{}}", "unexpected data after the document at byte 2"},
      {"{", "expected a string key at byte 1"},
      {"{1:2}", "expected a string key at byte 1"},
      {"{'a':1}", "expected a string key at byte 1"},
      {R"({"a":1,})", "expected a string key at byte 7"},
      {R"({"a" 1})", "expected : at byte 5"},
      {R"({"a")", "expected : at byte 4"},
      {R"({"a":)", "unexpected end at byte 5"},
      {R"({"a":1)", "unterminated object at byte 6"},
      {R"({"a":1 "b":2})", "expected , or } at byte 7"},
      {R"({"a":1,"a":2})", "duplicate key at byte 12"},
      {R"({"a":1,"\u0061":[] })", "duplicate key at byte 18"},
      {"[", "unexpected end at byte 1"},
      {"[1", "unterminated array at byte 2"},
      {"[1,]", "unexpected character at byte 3"},
      {"[,1]", "unexpected character at byte 1"},
      {"[1 2]", "expected , or ] at byte 3"},
      {"[1}", "expected , or ] at byte 2"},
      {"\"abc", "unterminated string at byte 4"},
      {"\"a\tb\"", "control character in string at byte 2"},
      {"\"a\0\""sv, "control character in string at byte 2"},
      {R"("a\)", "bad escape at byte 3"},
      {R"("\x41")", "bad escape at byte 3"},
      {R"("\)", "bad escape at byte 2"},
      {R"("\u)", "bad \\u escape at byte 3"},
      {R"("\u12")", "bad \\u escape at byte 3"},
      {R"("\u00g0")", "bad \\u escape at byte 3"},
      {R"("\u0000")", "NUL in string at byte 7"},
      {R"("\uDC00")", "lone surrogate at byte 7"},
      {R"("\uD800x")", "bad surrogate pair at byte 7"},
      {R"("\uD800\u0041")", "bad surrogate pair at byte 7"},
      {R"("\uD800\uD)", "bad surrogate pair at byte 7"},
      {"-", "bad number at byte 0"},
      {" -a", "bad number at byte 1"},
      {"[1.]", "bad number at byte 1"},
      {"1e", "bad number at byte 0"},
      {"1e+", "bad number at byte 0"},
      {"01", "leading zero in number at byte 0"},
      {"-00", "leading zero in number at byte 0"},
      {"0x1", "unexpected data after the document at byte 1"},
      {"1e309", "number out of range at byte 0"},
      {"[-1e309]", "number out of range at byte 1"},
      {"1e-400", "number out of range at byte 0"},
      {"11111111112222222222333333333344444444445", "number too long at byte 0"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.text));
    const Parsed got = parse(c.text);
    EXPECT_EQ(got.rc, -1);
    EXPECT_EQ(got.root, nullptr);
    EXPECT_EQ(got.message, c.message);
  }
  std::unique_ptr<JsonValue> root;
  EXPECT_EQ(json_parse("[", {}, root, {}), -1);  // no buffer: only the result tells
}

TEST(JsonReader, TellsIntegersFromOtherNumbers) {
  struct Case {
    const char* text;
    bool integer;
    std::int64_t whole;
    double number;
  };
  static constexpr Case kCases[] = {
      {"-0", true, 0, 0},
      {"42", true, 42, 42},
      {"9223372036854775807", true, INT64_MAX, 9223372036854775807.0},
      {"-9223372036854775808", true, INT64_MIN, -9223372036854775808.0},
      {"9223372036854775808", false, 0, 9223372036854775808.0},
      {"1.0", false, 0, 1},
      {"1e3", false, 0, 1000},
      {"-1.5E-2", false, 0, -0.015},
      {"1111111111222222222233333333334444444444", false, 0,
       1111111111222222222233333333334444444444.0},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    const Parsed got = parse(c.text);
    ASSERT_EQ(got.rc, 0) << got.message;
    EXPECT_EQ(got.root->is_integer, c.integer);
    EXPECT_EQ(json_integer(got.root.get()).has_value(), c.integer);
    EXPECT_EQ(json_integer(got.root.get()).value_or(0), c.whole);
    EXPECT_DOUBLE_EQ(got.root->number, c.number);
  }
}

TEST(JsonReader, DecodesStrings) {
  struct Case {
    const char* text;
    const char* decoded;
  };
  static constexpr Case kCases[] = {
      {R"("")", ""},
      {R"("a\"\\\/\b\f\n\r\tz")", "a\"\\/\b\f\n\r\tz"},
      {R"("\u0041\u00e9\u20AC")", "A\xc3\xa9\xe2\x82\xac"},
      {R"("\uD83D\uDE00")", "\xf0\x9f\x98\x80"},
      {R"("\uDBFF\udfff\uFFFF")", "\xf4\x8f\xbf\xbf\xef\xbf\xbf"},
      {"\"\x7f\x80\xc0\xff\"", "\x7f\x80\xc0\xff"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    const Parsed got = parse(c.text);
    ASSERT_EQ(got.rc, 0) << got.message;
    EXPECT_EQ(*json_string(got.root.get()), c.decoded);
  }
}

TEST(JsonReader, KeepsItsLimits) {
  const auto array_of = [](int n) {
    std::string text = "[1";
    for (int i = 1; i < n; ++i) text += ",1";
    return text + "]";
  };
  const auto quoted = [](std::size_t n) { return '"' + std::string(n, 'a') + '"'; };
  const std::string deep(32, '[');
  struct Case {
    std::string text;
    JsonLimits limits;
    std::string message;  // empty: accepted
  };
  const Case cases[] = {
      {deep + std::string(32, ']'), {}, ""},
      {"[" + deep, {}, "nesting too deep at byte 32"},
      {"[[[[]], [{}]]]", kJsonRequestLimits, ""},
      {"[[[[ {}]]]]", kJsonRequestLimits, "nesting too deep at byte 5"},
      {array_of(511), kJsonRequestLimits, ""},
      {array_of(512), kJsonRequestLimits, "too many values at byte 1023"},
      {R"(["a", "b)", {100, 4, 2}, "too many values at byte 6"},
      {"[true]", {100, 4, 1}, "too many values at byte 1"},
      {std::string(32766, ' ') + "12", kJsonRequestLimits, ""},
      {std::string(32767, ' ') + "12", kJsonRequestLimits, "document too large"},
      {quoted(65535), {}, ""},
      {quoted(65536), {}, "string too long at byte 65536"},
      {'"' + std::string(65534, 'a') + R"(\u00e9")", {}, "string too long at byte 65541"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    const Parsed got = parse(c.text, c.limits);
    EXPECT_EQ(got.message, c.message);
    EXPECT_EQ(got.rc, c.message.empty() ? 0 : -1);
  }
}

TEST(JsonReader, AccessorsFindNothingInTheWrongKind) {
  const Parsed got = parse(R"( {"n":null,"b":true,"a":[1,"x"],"":{"k":false}} )");
  ASSERT_EQ(got.rc, 0) << got.message;
  const JsonValue* root = got.root.get();
  EXPECT_EQ(json_size(root), 4U);
  EXPECT_EQ(root->keys[2], "a");
  const JsonValue* array = json_member(root, "a");
  EXPECT_EQ(json_size(array), 2U);
  EXPECT_EQ(json_integer(json_element(array, 0)), 1);
  EXPECT_EQ(*json_string(json_element(array, 1)), "x");
  EXPECT_EQ(json_element(array, 2), nullptr);
  EXPECT_EQ(json_boolean(json_member(json_member(root, ""), "k")), false);
  EXPECT_NE(json_member(root, "n"), nullptr);
  EXPECT_EQ(json_kind(json_member(root, "n")), json_kind(json_member(root, "absent")));
  EXPECT_EQ(json_member(array, "a"), nullptr);
  EXPECT_EQ(json_element(root, 0), nullptr);
  EXPECT_EQ(json_string(array), nullptr);
  EXPECT_FALSE(json_boolean(array).has_value());
  EXPECT_EQ(json_size(json_member(root, "b")), 0U);
}

}  // namespace
}  // namespace orv
