// The address that the API listens on, as [api] listen= gives it.
#ifndef ORV_CONFIG_LISTEN_ADDRESS_H_
#define ORV_CONFIG_LISTEN_ADDRESS_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/fixed_text.h"

namespace orv {

// A numeric address and port to listen on.
inline constexpr std::size_t kMaxListenAddress = 127;  // bytes
struct ListenAddress {
  FixedText<kMaxListenAddress> host;  // without brackets
  std::uint32_t port = 0;             // 1..65535
};
// "<address>:<port>", "[<ipv6>]:<port>" or "<port>" (then 0.0.0.0). False: `out` as it was.
[[nodiscard]] bool parse_listen(std::string_view text, ListenAddress& out);

}  // namespace orv

#endif  // ORV_CONFIG_LISTEN_ADDRESS_H_
