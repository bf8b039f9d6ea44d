#include "common/selftest.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string_view>

#include "common/compress.h"
#include "common/digest.h"
#include "common/message.h"
#include "common/version.h"

namespace orv {
namespace {

constexpr std::size_t kSampleSize = 262144;  // bytes
constexpr int kZstdLevel = 3;
constexpr std::string_view kSha256OfAbc =  // FIPS 180-2, appendix B.1
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr std::uint32_t kCrcCheckValue = 0xE3069283;

using Buffer = std::unique_ptr<unsigned char[]>;
Buffer allocate(std::size_t size) { return Buffer(new (std::nothrow) unsigned char[size]); }

int round_trip(Codec codec, std::span<const unsigned char> sample, const char* failure,
               std::span<char> err) {
  const std::size_t bound = compress_bound(codec, sample.size());
  const Buffer packed = allocate(bound);
  const Buffer back = allocate(sample.size());
  if (!packed || !back) return fail(err, "out of memory");
  const std::size_t size = compress(codec, kZstdLevel, sample, {packed.get(), bound});
  if (size == 0 || size >= sample.size()) return fail(err, "%s", failure);
  std::size_t produced = 0;
  const ErrorCode rc =
      decompress(codec, {packed.get(), size}, {back.get(), sample.size()}, &produced);
  const bool same = rc == ErrorCode::Ok && produced == sample.size() &&
                    std::equal(sample.begin(), sample.end(), back.get());
  return same ? 0 : fail(err, "%s", failure);
}

}  // namespace

int selftest(std::span<char> err) {
  if (!(to_hex(sha256("abc")) == kSha256OfAbc)) {
    return fail(err, "SHA-256 gives a wrong result");
  }
  if (crc32c(0, "123456789") != kCrcCheckValue) {
    return fail(err, "CRC32C gives a wrong result");
  }
  const Buffer sample = allocate(kSampleSize);
  if (!sample) return fail(err, "out of memory");
  // Repetitive enough to shrink, varied enough to use the compressors' tables.
  for (std::size_t i = 0; i < kSampleSize; ++i) {
    sample[i] = static_cast<unsigned char>((7 * i % 256) ^ ((i >> 5) % 256));
  }
  const std::span<const unsigned char> bytes(sample.get(), kSampleSize);
  if (round_trip(Codec::Zstd, bytes, "zstd round trip failed", err) != 0) return -1;
  return round_trip(Codec::Lz4, bytes, "lz4 round trip failed", err);
}

int version_and_selftest(const ArgList& args, const char* program) {
  if (option_present(args, "--version")) {
    std::printf("%s %s\n", program, kVersion);
    return 0;
  }
  if (!option_present(args, "--selftest")) return -1;
  std::array<char, 256> err{};
  if (selftest(err) != 0) {
    std::fprintf(stderr, "%s: selftest failed: %s\n", program, err.data());
    return 1;
  }
  std::printf("%s %s: selftest ok\n", program, kVersion);
  return 0;
}

}  // namespace orv
