#include "api/line_diff.h"

#include <gtest/gtest.h>

namespace orv {
namespace {

TEST(LineDiff, ShowsWhatDiffersAndHidesPasswords) {
  // clang-format off
  static constexpr struct { const char *before, *after, *diff; } kCases[] = {
      {"", "", ""},
      {"a\nb\n", "a\r\nb", ""},
      {"a\nb\nc\n", "a\nc\n", "-    b\n"},
      {"a\nc\n", "a\nb\nc\nd", "+2: b\n+4: d\n"},
      {"a\nx\nc\ny\n", "b\nx\nc\n\nz\n", "-    a\n+1: b\n-    y\n+4: \n+5: z\n"},
      {"smtp-password=old\n", " smtp-password = new\n", "-    smtp-password=***\n+1: smtp-password=***\n"},
      {"# smtp-password=old\n", "smtp-passwords=x\n", "-    #smtp-password=***\n+1: smtp-passwords=x\n"},
  };
  // clang-format on
  for (const auto& c : kCases) EXPECT_EQ(line_diff(c.before, c.after), c.diff) << c.before;
}

TEST(LineDiff, StaysWithinItsLimits) {
  std::string text;
  for (std::size_t i = 0; i < kMaxDiffLines; ++i) text += "schedule=0 1 * * * long enough\n";
  const std::string other = "x\n" + text.substr(0, text.find('\n') + 1);
  EXPECT_EQ(line_diff(text, other).size(), kMaxDiffSize);
  EXPECT_EQ(line_diff(text, text + "one more\n"), "(file too long for a line diff)");
}

}  // namespace
}  // namespace orv
