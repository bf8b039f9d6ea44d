#include "common/compress.h"

#include <lz4.h>
#include <string.h>
#include <zstd.h>

#include <algorithm>
#include <limits>

namespace orv {
namespace {

const char* chars(const unsigned char* bytes) { return reinterpret_cast<const char*>(bytes); }
char* chars(unsigned char* bytes) { return reinterpret_cast<char*>(bytes); }

// lz4 counts in int, and refuses to compress a size of -1.
int lz4_size(std::size_t size) {
  return size > static_cast<std::size_t>(std::numeric_limits<int>::max()) ? -1
                                                                          : static_cast<int>(size);
}

// lz4 takes an int; a larger buffer is clamped.
int lz4_capacity(std::size_t size) {
  return static_cast<int>(
      std::min(size, static_cast<std::size_t>(std::numeric_limits<int>::max())));
}

std::size_t compress_zstd(int level, std::span<const unsigned char> source,
                          std::span<unsigned char> destination) {
  const std::size_t size =
      ZSTD_compress(destination.data(), destination.size(), source.data(), source.size(), level);
  return ZSTD_isError(size) != 0 ? 0 : size;
}

std::size_t compress_lz4(std::span<const unsigned char> source,
                         std::span<unsigned char> destination) {
  const int size = LZ4_compress_default(chars(source.data()), chars(destination.data()),
                                        lz4_size(source.size()), lz4_capacity(destination.size()));
  return size <= 0 ? 0 : static_cast<std::size_t>(size);
}

}  // namespace

std::size_t compress_bound(Codec codec, std::size_t size) {
  switch (codec) {
    case Codec::None: break;
    case Codec::Zstd: return ZSTD_compressBound(size);
    case Codec::Lz4: return static_cast<std::size_t>(LZ4_compressBound(lz4_size(size)));
  }
  return size;
}

std::size_t compress(Codec codec, int level, std::span<const unsigned char> source,
                     std::span<unsigned char> destination) {
  std::size_t size = 0;
  if (codec == Codec::Zstd) size = compress_zstd(level, source, destination);
  if (codec == Codec::Lz4) size = compress_lz4(source, destination);
  return size < source.size() ? size : 0;
}

ErrorCode decompress(Codec codec, std::span<const unsigned char> source,
                     std::span<unsigned char> destination, std::size_t* produced) {
  // The source may be damaged: each way checks that the result fits before anything is written
  // beyond it, and reports what it cannot unpack.
  std::size_t size = 0;
  switch (codec) {
    case Codec::None:
      if (source.size() > destination.size()) return ErrorCode::Invalid;
      if (!source.empty()) ::memcpy(destination.data(), source.data(), source.size());
      size = source.size();
      break;
    case Codec::Zstd:
      size = ZSTD_decompress(destination.data(), destination.size(), source.data(), source.size());
      if (ZSTD_isError(size) != 0) return ErrorCode::Corrupt;
      break;
    case Codec::Lz4: {
      if (lz4_size(source.size()) < 0) return ErrorCode::Corrupt;
      const int got =
          LZ4_decompress_safe(chars(source.data()), chars(destination.data()),
                              lz4_size(source.size()), lz4_capacity(destination.size()));
      if (got < 0) return ErrorCode::Corrupt;
      size = static_cast<std::size_t>(got);
      break;
    }
    default: return ErrorCode::Invalid;
  }
  if (produced != nullptr) *produced = size;
  return ErrorCode::Ok;
}

}  // namespace orv
