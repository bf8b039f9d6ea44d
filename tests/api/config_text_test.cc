#include "api/config_text.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <vector>

#include "config/config.h"

namespace orv {
namespace {

std::string edited(std::string_view text, const std::vector<KeyEdit>& edits,
                   std::string_view section = "a") {
  return std::string(set_keys(text, section, edits).value_or("(refused)"));
}

TEST(ConfigText, ChangesTheLinesOfTheKeysAndNothingElse) {
  // clang-format off
  const struct { std::string text; std::vector<KeyEdit> edits; std::string expected; } cases[] = {
      {"", {{"k", "v"}}, "[a]\nk=v\n"},
      {"[b]\nk=1\n", {{"k", "v"}, {"l", "w"}}, "[b]\nk=1\n\n[a]\nk=v\nl=w\n"},
      {"[a] # c\n\n[b]\n", {{"k", "v"}}, "[a] # c\nk=v\n\n[b]\n"},
      {" [ a ]\r\nx=1\r\n# t\r\n", {{"k", "v"}}, " [ a ]\r\nx=1\r\nk=v\r\n# t\r\n"},
      {"[a]\nx=1", {{"k", "v"}, {"l", "w"}}, "[a]\nx=1\nk=v\nl=w\n"},
      {"[a]\n k =  1 \t; c\nk=2\n[b]\nk=3\n", {{"k", "v"}}, "[a]\nk=v \t; c\nk=2\n[b]\nk=3\n"},
      {"[a]\nk=1\r\n[a]\nk=2", {{"k", "v"}}, "[a]\nk=v\r\n[a]\nk=2"},
      {"[a]\nk='1'#c\n", {{"k", "v"}}, "[a]\nk=v #c\n"},
      {"[a]\nk='1'#c\n", {{"k", "#"}}, "[a]\nk='#'#c\n"},
      {"[a]\nk=   # none\n", {{"k", "v"}}, "[a]\nk=v   # none\n"},
      {"[a]\n#k=1\n\"k\"=1\n", {{"k", "v"}}, "[a]\n#k=1\n\"k\"=1\nk=v\n"},
      {"[a]\nk=1 # c\nx=2", {{"k", std::nullopt}, {"y", "3"}}, "[a]\nx=2\ny=3\n"},
      {"[a]\nk=x\n", {{"k", R"(it's "a\b")"}}, "[a]\nk=it's \"a\\b\"\n"},
      {"[a]\nk=x\n", {{"k", R"('"a\b")"}}, "[a]\nk=\"'\\\"a\\\\b\\\"\"\n"},
      {"[a]\nk=x\f\t\v\r # c\r\n", {{"k", "#"}}, "[a]\nk='#' \t   # c\r\n"},
      {"[a]\nk=x\v\r\n", {{"k", "y"}, {"l", "#"}}, "[a]\nk=y\v\r\nl='#'\r\n"},
      {"[a]\nk=x\f", {{"k", "#"}}, "[a]\nk='#' "},
      {"[a]\nk=x\n", {{"k", "a;b#"}}, "[a]\nk=a;b#\n"},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(edited(c.text, c.edits), c.expected) << c.text;
}

TEST(ConfigText, RefusesWhatTheFileCannotHold) {
  for (const char* key : {"", "a b", "a=b", "#a", "a[", "a]", "a\tb", "a\n"}) {
    EXPECT_EQ(edited("[a]\n", {{"k", "v"}, {key, "v"}}), "(refused)") << key;
  }
  for (const std::string& value : {std::string(), std::string("v "), std::string(" v"),
                                   std::string("a\nb"), std::string(1024, 'v')}) {
    EXPECT_EQ(edited("[a]\n", {{"k", SecretString(value)}}), "(refused)") << value;
  }
  for (const char* section : {"", "a]", "[a", " a", "a\n"}) {
    EXPECT_EQ(edited("[a]\n", {{"k", "v"}}, section), "(refused)") << section;
  }
}

TEST(ConfigText, RemovesASectionUpToTheNextHeader) {
  const std::string text = "# top\n[a]\nk=1\n# tail of a\n[b] ; c\nk=2\n[a]\nk=3";
  EXPECT_EQ(remove_section(text, "a"), "# top\n[b] ; c\nk=2\n[a]\nk=3");
  EXPECT_EQ(remove_section(text, "b"), "# top\n[a]\nk=1\n# tail of a\n[a]\nk=3");
  EXPECT_EQ(remove_section("[a]\nk=1", "a"), "");
  EXPECT_EQ(remove_section(text, "k"), std::nullopt);
}

// Any allowed value reads back from any kind of line as it was set, and setting it leaves no trace
// once it is replaced.
TEST(ConfigText, EveryValueReadsBackAsItWasSet) {
  static constexpr const char* kOldLines[] = {"",
                                              "profile=old",
                                              " profile = 'old'#note\n",
                                              "profile=old\t;note\r\n",
                                              "profile=#old\nenabled=yes # note\n",
                                              "profile=\"o # \\\"ld\" ; note\n[z]\nonce=3\n"};
  static constexpr const char* kPieces[] = {"a", "\"", "'", "#", ";", " ", "\\",
                                            "=", "[",  "]", ",", "%", "ü", "x y"};
  std::mt19937 random(20261121);  // the same sample every time
  int tried = 0;
  while (tried < 3000) {
    std::string value;
    for (std::size_t i = 1 + random() % 10; i > 0; --i) value += kPieces[random() % 14];
    if (!check_stored_value(value)) continue;
    ++tried;
    const std::string old_line = kOldLines[random() % std::size(kOldLines)];
    const std::string text = "# top\n\n[a] # [b]\nonce=1\n" + old_line;
    const std::string set = edited(text, {{"profile", SecretString(value)}});
    Config config;
    std::array<char, kConfigMessageSize> err{};
    ASSERT_EQ(config_parse(set, "cfg", config, err), 0) << err.data() << " in\n" << set;
    ASSERT_EQ(config.jobs[0].profile.view(), value) << set;
    ASSERT_EQ(edited(set, {{"profile", "p"}}), edited(text, {{"profile", "p"}})) << value;
  }
}

}  // namespace
}  // namespace orv
