// Replays the corpora: what a fuzzer once found, and inputs that reach every branch it should see.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/targets.h"
#include "support/support.h"

namespace orv {
namespace {

TEST(FuzzCorpus, GoesThroughWithoutAFault) {
  const struct {
    const char* name;
    void (*run)(std::string_view input);
  } targets[] = {
      {"auth", fuzz::auth},       {"certificate", fuzz::certificate},
      {"config", fuzz::config},   {"config_text", fuzz::config_text},
      {"ipc", fuzz::ipc},         {"job_log", fuzz::job_log},
      {"json", fuzz::json},       {"queue", fuzz::queue},
      {"request", fuzz::request},
#ifdef ORV_HAVE_NETPROC
      {"http", fuzz::http},       {"mail", fuzz::mail},
      {"smtp", fuzz::smtp},
#endif
  };
  for (const auto& target : targets) {
    int inputs = 0;
    const auto directory = std::filesystem::path(ORV_SOURCE_DIR) / "fuzz/corpus" / target.name;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      SCOPED_TRACE(entry.path());
      // A copy without a NUL behind it: the sanitizer then sees a read past the end.
      const std::string text = test::read_file(entry.path());
      const std::vector<char> input(text.begin(), text.end());
      target.run({input.data(), input.size()});
      ++inputs;
    }
    EXPECT_GT(inputs, 4) << target.name;
  }
}

}  // namespace
}  // namespace orv
