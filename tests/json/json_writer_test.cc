#include "json/json_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace orv {
namespace {

TEST(JsonWriter, EscapesWhatIsNotPlainValidText) {
  const std::string valid = "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xed\x9f\xbf \xf4\x8f\xbf\xbf";
  const std::pair<std::string, std::string> cases[] = {
      {"\"\\\n\r\t/", R"(\"\\\n\r\t/)"},
      {std::string("\x00\x1f\b\x7f", 4), R"(\u0000\u001f\u0008\u007f)"},
      {valid, valid},
      {"\xc1\xbf", R"(\ufffd\ufffd)"},            // overlong
      {"\xed\xa0\x80", R"(\ufffd\ufffd\ufffd)"},  // a surrogate
      {"\xe2\x82", R"(\ufffd\ufffd)"},            // cut short
      {"\xc3(", R"(\ufffd()"}};
  for (const auto& [text, written] : cases) {
    char buffer[64];
    JsonWriter json(buffer);
    json.string(text);
    EXPECT_EQ(json.text(), '"' + written + '"');
  }
}

TEST(JsonWriter, WritesTheSmallestInteger) {
  char buffer[32];
  JsonWriter json(buffer);
  json.integer(INT64_MIN);
  EXPECT_EQ(json.text(), "-9223372036854775808");
}

TEST(JsonWriter, OverflowSticksAndKeepsTheBufferTerminated) {
  char buffer[10];
  JsonWriter json(buffer);
  json.string("1234567");  // 9 bytes and the terminator
  EXPECT_FALSE(json.overflow());
  json.raw("x");
  EXPECT_TRUE(json.overflow());
  json.raw("");
  EXPECT_STREQ(buffer, "\"1234567\"");
  json.reset();
  json.string("12345678");
  EXPECT_TRUE(json.overflow());
}

TEST(JsonWriter, ALimitedStringStopsBeforeThePieceThatDoesNotFit) {
  const struct {
    std::string text;
    std::size_t limit, capacity, covered;
    const char* written;
  } cases[] = {{"abcdef", 6, 64, 6, R"("abcdef")"},  {"abcdef", 3, 64, 3, R"("abc")"},
               {"abcdef", 0, 64, 0, R"("")"},        {"a\nb", 2, 64, 1, R"("a")"},
               {"a\x01z", 7, 64, 2, R"("a\u0001")"}, {"a\xe2\x82\xac", 3, 64, 1, R"("a")"},
               {"abcdef", 60, 7, 4, R"("abcd")"},    {"abc\"", 60, 7, 3, R"("abc")"}};
  for (const auto& c : cases) {
    std::string buffer(c.capacity, '#');
    JsonWriter json(buffer);
    EXPECT_EQ(json.string_limited(c.text, c.limit), c.covered);
    EXPECT_EQ(json.text(), c.written);
    EXPECT_FALSE(json.overflow());
  }
}

}  // namespace
}  // namespace orv
