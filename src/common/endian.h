// Little-endian numbers in bytes that reach the disk or a socket, on any host and any alignment.
#ifndef ORV_COMMON_ENDIAN_H_
#define ORV_COMMON_ENDIAN_H_

#include <cstdint>

namespace orv {

[[nodiscard]] inline std::uint16_t load_le16(const unsigned char* p) {
  return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}
[[nodiscard]] inline std::uint32_t load_le32(const unsigned char* p) {
  return static_cast<std::uint32_t>(load_le16(p)) | static_cast<std::uint32_t>(load_le16(p + 2))
                                                        << 16;
}
inline void store_le16(unsigned char* p, std::uint16_t value) {
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
}
inline void store_le32(unsigned char* p, std::uint32_t value) {
  store_le16(p, static_cast<std::uint16_t>(value));
  store_le16(p + 2, static_cast<std::uint16_t>(value >> 16));
}

}  // namespace orv

#endif  // ORV_COMMON_ENDIAN_H_
