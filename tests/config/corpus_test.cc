// Replays the fuzzer's inputs through the fuzzer's own code.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>

#include "support/support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace orv {
namespace {

TEST(ConfigFuzzCorpus, GoesThroughWithoutAFault) {
  int inputs = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(ORV_SOURCE_DIR "/fuzz/corpus/config")) {
    SCOPED_TRACE(entry.path());
    const std::string input = test::read_file(entry.path());
    EXPECT_EQ(
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()),
        0);
    ++inputs;
  }
  EXPECT_GT(inputs, 10);
}

}  // namespace
}  // namespace orv
