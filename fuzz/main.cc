// A fuzzer program: libFuzzer's entry point over the one target that the build names.
#include <cstddef>
#include <cstdint>

#include "fuzz/targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orv::fuzz::ORV_FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
  return 0;
}
