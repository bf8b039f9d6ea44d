// The suite's compression layer over zstd and lz4.
#ifndef ORV_COMMON_COMPRESS_H_
#define ORV_COMMON_COMPRESS_H_

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/status.h"

namespace orv {

enum class Codec : std::uint32_t { None = 0, Zstd = 1, Lz4 = 2 };

// The most bytes that compressing `size` bytes can take; `size` itself for None and unknown codecs.
[[nodiscard]] std::size_t compress_bound(Codec codec, std::size_t size);

// Bytes written to `destination`; 0 when compression failed or gained nothing (which look the same
// to the caller), and for None. lz4 has no level.
[[nodiscard]] std::size_t compress(Codec codec, int level, std::span<const unsigned char> source,
                                   std::span<unsigned char> destination);

// Ok with the number of bytes in `produced` (which may be null); Invalid for an unknown codec, or
// when None does not fit the destination; Corrupt when the data is damaged or does not fit.
[[nodiscard]] ErrorCode decompress(Codec codec, std::span<const unsigned char> source,
                                   std::span<unsigned char> destination, std::size_t* produced);

}  // namespace orv

#endif  // ORV_COMMON_COMPRESS_H_
