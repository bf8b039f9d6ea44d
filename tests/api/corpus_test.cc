// Replays the fuzzers' inputs through the fuzzers' own code.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/support.h"

// LLVMFuzzerTestOneInput() of the three fuzzers, renamed by the build.
extern "C" int json_fuzz_one(const std::uint8_t* data, std::size_t size);
extern "C" int auth_fuzz_one(const std::uint8_t* data, std::size_t size);
extern "C" int config_text_fuzz_one(const std::uint8_t* data, std::size_t size);

namespace orv {
namespace {

TEST(FuzzCorpus, GoesThroughWithoutAFault) {
  const struct {
    const char* name;
    int (*run)(const std::uint8_t* data, std::size_t size);
  } fuzzers[] = {
      {"json", json_fuzz_one}, {"auth", auth_fuzz_one}, {"config_text", config_text_fuzz_one}};
  for (const auto& fuzzer : fuzzers) {
    int inputs = 0;
    const auto directory = std::filesystem::path(ORV_SOURCE_DIR) / "fuzz/corpus" / fuzzer.name;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      SCOPED_TRACE(entry.path());
      const std::string input = test::read_file(entry.path());
      EXPECT_EQ(fuzzer.run(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()), 0);
      ++inputs;
    }
    EXPECT_GT(inputs, 4) << fuzzer.name;
  }
}

}  // namespace
}  // namespace orv
