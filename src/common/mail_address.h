// The one test of a mail address, used by the configuration file, the API and both ends of the link
// to the network process.
#ifndef ORV_COMMON_MAIL_ADDRESS_H_
#define ORV_COMMON_MAIL_ADDRESS_H_

#include <cstddef>
#include <string_view>

namespace orv {

inline constexpr std::size_t kMaxMailAddress = 255;  // bytes
inline constexpr std::size_t kMaxRecipients = 16;

// A plain address: 1..255 bytes, each above space and not DEL, none of <>,;\"() in it, and exactly
// one "@" that is neither the first nor the last byte. Bytes above 127 are accepted.
[[nodiscard]] bool check_mail_address(std::string_view text);

}  // namespace orv

#endif  // ORV_COMMON_MAIL_ADDRESS_H_
