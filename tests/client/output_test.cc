// What orv_api shows: hostile texts, tables, lists and JSON.
#include "client/output.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "support/support.h"

namespace orv {
namespace {

std::unique_ptr<JsonValue> parsed(std::string_view text) {
  std::unique_ptr<JsonValue> root;
  std::array<char, 256> err{};
  EXPECT_EQ(json_parse(text, JsonLimits(), root, err), 0) << err.data();
  return root;
}

TEST(Printable, LeavesNothingThatSteersATerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain \xc3\xa4 \xf0\x9f\x98\x80", "plain \xc3\xa4 \xf0\x9f\x98\x80"},
      {"\x1b[31mred\x1b]0;title\x07", "?[31mred?]0;title?"},
      {"a\tb\r\nc\x7f", "a?b??c?"},
      {"\u009b31m \u0080", "?31m ?"},
      {"\u202egpj.exe \u2066", "?gpj.exe ?"},
      {"\xff\xc3 \xed\xa0\x80", "?? ???"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(printable(text), shown);
  EXPECT_EQ(printable("a\tb\r\nc\x1b", Lines::Keep), "a\tb?\nc?");
}

TEST(Table, CountsCharactersAndKeepsItsRows) {
  EXPECT_EQ(table_text({{"NAME", "X"}, {"\xc3\xa4\xc3\xb6", "1"}, {"two\nrows", "\x1b"}}),
            "NAME      X\n\xc3\xa4\xc3\xb6        1\ntwo?rows  ?\n");
}

TEST(Pairs, AreReadable) {
  const test::ScopedTimeZone zone("UTC");
  const auto object = parsed(
      R"({"time":86400,"last_run":0,"on":true,"off":false,"list":["a","b"],"none":[],"text":"",
          "null":null,"number":-5,"half":0.5,"left_out":1,
          "inner":{"e\u001bvil":"x\ny","deeper":{"n":1}}})");
  EXPECT_EQ(pairs_text(object.get(), "left_out"),
            "time:     1970-01-02 00:00:00\nlast_run: -\non:       yes\noff:      no\n"
            "list:     a, b\nnone:     -\ntext:     -\nnull:     -\nnumber:   -5\nhalf:     0.5\n"
            "inner:\n  e?vil: x?y\n  deeper:\n    n: 1\n");
}

TEST(JsonText, IsTheSameValueAgain) {
  const char* const text =
      R"({"a":[],"b":{"c":[1,true,null,-9223372036854775808,"x\"\\\n"]},"d":{}})";
  EXPECT_EQ(json_text(parsed(text).get(), Layout::Indented),
            "{\n  \"a\": [],\n  \"b\": {\n    \"c\": [\n      1,\n      true,\n      null,\n"
            "      -9223372036854775808,\n      \"x\\\"\\\\\\n\"\n    ]\n  },\n  \"d\": {}\n}");
  const SecretString line = json_text(parsed(text).get(), Layout::OneLine);
  EXPECT_EQ(line,
            R"({"a": [], "b": {"c": [1, true, null, -9223372036854775808, "x\"\\\n"]}, "d": {}})");
  EXPECT_EQ(json_text(parsed(line).get(), Layout::OneLine), line);
  EXPECT_EQ(json_quoted("\x01\x7f\xc2\x9b\xe2\x80\xae\xff\xc3\xa4"),
            "\"\\u0001\\u007f\\u009b\\u202e\\ufffd\xc3\xa4\"");
}

}  // namespace
}  // namespace orv
