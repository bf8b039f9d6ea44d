// Who may take how much of the API: places for connections, a share of them per client, and the
// penalty for clients that keep failing to authenticate. A client is an IPv4 address or an IPv6
// /64, because a whole /64 is usually one host's to choose from. Pure; memory is bounded.
#ifndef ORV_NETPROC_CLIENT_LIMITS_H_
#define ORV_NETPROC_CLIENT_LIMITS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>

#include "common/fixed_text.h"

namespace orv {

inline constexpr std::uint32_t kAuthFailuresAllowed = 5;  // within kAuthWindow, then a block
inline constexpr std::int64_t kAuthWindow = 60;           // seconds
inline constexpr std::int64_t kFirstBlock = 30;           // seconds; doubles with every block
inline constexpr std::int64_t kMaxBlock = 3600;           // seconds
inline constexpr std::int64_t kAuthMemory = 7200;     // seconds without a failure, then forgotten
inline constexpr std::size_t kMaxAuthRecords = 4096;  // clients; the one quiet longest is evicted

using Ipv6Bytes = std::array<unsigned char, 16>;  // IPv4 as ::ffff:a.b.c.d

struct ClientAddress {
  FixedText<63> text;  // as people write it, IPv4-mapped addresses as IPv4
  Ipv6Bytes key{};     // what the limits count by
};
[[nodiscard]] ClientAddress client_address(const Ipv6Bytes& bytes);

enum class Admission { Accepted, ShareUsed, Full };

class ClientLimits {
 public:
  // At most `max_clients` connections (1 or more), half of them (at least one) per client.
  void set_max_clients(std::uint32_t max_clients);

  // Accepted: a place is taken until leave() gives it back.
  [[nodiscard]] Admission admit(const Ipv6Bytes& key);
  void leave(const Ipv6Bytes& key);

  // Counts a failed authentication at `now` (seconds of any steady clock). Returns the length of
  // the block that begins with it, 0 when none does.
  std::int64_t auth_failed(const Ipv6Bytes& key, std::int64_t now);
  // Seconds until the client is served again, 0 when it is not blocked.
  [[nodiscard]] std::int64_t blocked_for(const Ipv6Bytes& key, std::int64_t now) const;
  [[nodiscard]] std::size_t auth_records() const { return failures_.size(); }

 private:
  struct Failures {
    Ipv6Bytes key{};
    std::uint32_t count = 0;  // in the current window
    std::int64_t window_start = 0;
    std::int64_t last = 0;
    std::int64_t block = 0;  // length of the last block
    std::int64_t blocked_until = 0;
  };
  // The client's record, made when it has none and moved to the end of the list. Makes room first.
  Failures& failures_of(const Ipv6Bytes& key, std::int64_t now);

  std::uint32_t max_clients_ = 0;
  std::uint32_t share_ = 0;  // places that one client may take
  std::uint32_t connections_ = 0;
  std::map<Ipv6Bytes, std::uint32_t> per_client_;  // places taken; no row for those without any
  std::list<Failures> failures_;  // by the time of the last failure, the oldest first
  std::map<Ipv6Bytes, std::list<Failures>::iterator> failures_by_key_;
};

}  // namespace orv

#endif  // ORV_NETPROC_CLIENT_LIMITS_H_
