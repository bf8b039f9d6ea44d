#include "common/line_syntax.h"

#include <gtest/gtest.h>

namespace orv {
namespace {

TEST(ContentLength, CutsCommentsAndRefusesBadQuotes) {
  static constexpr std::pair<std::string_view, const char*> kCases[] = {
      // null: refused
      {"", ""},
      {"#x", ""},
      {" ; x", " "},
      {"key=a#b", "key=a#b"},
      {"key = a #b\r\n", "key = a "},
      {"key=a;b", "key=a;b"},
      {"key=a\t;b", "key=a\t"},
      {"key=#x", "key=#x"},
      {"key= #x", "key= "},
      {"k#y=a", "k#y=a"},
      {"key #x=\"a", "key "},
      {"[a] # c", "[a] "},
      {"[a]#c", "[a]#c"},
      {"key=\"a # b\" # c", "key=\"a # b\" "},
      {"key=\"a\"#c", "key=\"a\""},
      {"key='a\\'", "key='a\\'"},
      {R"(key="a\"b\\" ;c)", R"(key="a\"b\\" )"},
      {R"(key="a\n")", R"(key="a\n")"},
      {"key=a\"b", "key=a\"b"},
      {"key=\"a\r\n", nullptr},
      {"key=\"a\"x", nullptr},
      {"key=\"a' # b", nullptr},
      {R"(key="a\")", nullptr},
      {"[a=\"b]", nullptr},
  };
  for (const auto& [line, content] : kCases) {
    SCOPED_TRACE(line);
    const std::optional<std::size_t> length = content_length(line);
    ASSERT_EQ(length.has_value(), content != nullptr);
    EXPECT_EQ(line.substr(0, length.value_or(0)), content == nullptr ? "" : content);
  }
}

TEST(Unquote, ResolvesEscapesOfDoubleQuotesOnly) {
  const std::pair<const char*, const char*> cases[] = {{R"("a\"b\\c\d")", R"(a"b\c\d)"},
                                                       {R"('a\\b"c')", R"(a\\b"c)"},
                                                       {"it's \"so\"", "it's \"so\""}};
  SecretString text("of the value before");
  for (const auto& [value, expected] : cases) {
    unquote(value, text);
    EXPECT_EQ(text, expected);
  }
}

TEST(SectionName, EndsAtTheLastBracket) {
  EXPECT_EQ(section_name("[ a]b ]"), "a]b");
  EXPECT_EQ(section_name("[ ]"), "");
  EXPECT_EQ(section_name("["), std::nullopt);
  EXPECT_EQ(section_name("[a] b"), std::nullopt);
  EXPECT_EQ(section_name("a]"), std::nullopt);
}

}  // namespace
}  // namespace orv
