#include "api/leftovers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>

#include "support/support.h"

namespace orv {
namespace {

TEST(Leftovers, GoWhenTheirProcessIsGone) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  const std::string gone = std::to_string(child);
  const std::string alive = std::to_string(::getpid());
  test::TempDir dir;
  constexpr std::array kStems = {"cfg.api-tmp.", "cfg-history/copy.tmp.", "tokens.tmp.", "crt.tmp.",
                                 "key.tmp."};
  for (const char* stem : kStems) {
    for (const std::string& pid : {gone, alive, gone + "x"}) dir.write(stem + pid, "secret");
  }
  remove_config_leftovers(dir.file("cfg"));
  remove_tokens_leftovers(dir.file("tokens"));
  remove_pair_leftovers(dir.file("crt"), dir.file("key"));
  for (const char* stem : kStems) {
    EXPECT_FALSE(test::exists(dir.file(stem + gone))) << stem;
    EXPECT_TRUE(test::exists(dir.file(stem + alive))) << stem;
    EXPECT_TRUE(test::exists(dir.file(stem + gone + "x"))) << stem;
  }
}

}  // namespace
}  // namespace orv
