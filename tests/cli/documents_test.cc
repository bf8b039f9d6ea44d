// The manual pages, the completion, the example and the usage text know every option and every key
// that the program's tables know.
#include <gtest/gtest.h>

#include <span>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/usage.h"
#include "common/log.h"
#include "config/job_command.h"
#include "config/key_tables.h"
#include "plan/command_table.h"
#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using test::read_file;

std::string document(const std::string& name) {
  std::string text = read_file(std::string(ORV_SOURCE_DIR) + "/" + name);
  EXPECT_FALSE(text.empty()) << name;
  return text;
}

// The name as a word of its own: "--log" is not found in "--log-path".
bool has_word(std::string_view text, std::string_view word) {
  constexpr std::string_view kWordBytes = "abcdefghijklmnopqrstuvwxyz-";
  for (std::size_t at = text.find(word); at != std::string_view::npos;
       at = text.find(word, at + 1)) {
    const std::string_view behind = text.substr(at + word.size(), 1);
    if (behind.empty() || kWordBytes.find(behind[0]) == std::string_view::npos) return true;
  }
  return false;
}

// Usage text, manual page and completion know the names of commands and options.
template <typename Commands>
void expect_known(const std::string& program, void (*print)(), const Commands& commands,
                  std::span<const OptionRow> common, const std::vector<const char*>& more) {
  testing::internal::CaptureStdout();
  print();
  const std::string usage = testing::internal::GetCapturedStdout();
  const std::string page = document("docs/" + program + ".8");
  const std::string completion = document("packaging/completion/" + program);
  const auto everywhere = [&](std::string_view word) {
    EXPECT_TRUE(has_word(usage, word)) << "usage text: " << word;
    EXPECT_TRUE(has_word(page, word)) << "manual page: " << word;
    EXPECT_TRUE(has_word(completion, word)) << "completion: " << word;
  };
  for (const auto& command : commands) {
    everywhere(command.name);
    for (const OptionRow& option : command.options) everywhere(option.name);
  }
  for (const OptionRow& option : common) everywhere(option.name);
  for (const char* option : more) everywhere(option);
}

TEST(Documents, KnowEveryCommandAndOption) {
  expect_known("orv_sched", print_usage, command_table(), kRunlogOptions,
               {"--help", "--version", "--selftest"});
  expect_known("orv_plan", print_plan_usage, plan_commands(), kCommonOptions, {});
}

TEST(Documents, KnowEveryKeyAndJobCommand) {
  const std::string page = document("docs/orv_sched.cfg.5");
  const std::string example = document("examples/orv_sched.cfg");
  for (const SectionKind kind :
       {SectionKind::Sched, SectionKind::Mail, SectionKind::Api, SectionKind::Job}) {
    for (const std::string_view key : section_keys(kind)) {
      EXPECT_TRUE(contains(page, std::string(key) + "=")) << "manual page: " << key;
      EXPECT_TRUE(has_word(example, key)) << "example: " << key;
    }
  }
  for (const JobCommandRow& row : job_commands()) {
    EXPECT_TRUE(has_word(page, row.name)) << "manual page: " << row.name;
    EXPECT_TRUE(contains(page, row.tool)) << "manual page: " << row.tool;
  }
}

}  // namespace
}  // namespace orv
