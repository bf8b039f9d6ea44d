#include "netproc/client_limits.h"

#include <arpa/inet.h>

#include <algorithm>

namespace orv {

ClientAddress client_address(const Ipv6Bytes& bytes) {
  static constexpr std::array<unsigned char, 12> kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255};
  static constexpr std::size_t kPrefix = 8;  // bytes of a /64
  ClientAddress out;
  char text[INET6_ADDRSTRLEN] = "";
  const bool is_v4 = std::equal(kMapped.begin(), kMapped.end(), bytes.begin());
  // Neither call can fail: the families are known and the buffer is long enough for both.
  (void)::inet_ntop(is_v4 ? AF_INET : AF_INET6, bytes.data() + (is_v4 ? kMapped.size() : 0), text,
                    sizeof text);
  out.text.set_truncated(text);
  std::copy_n(bytes.begin(), is_v4 ? bytes.size() : kPrefix, out.key.begin());
  return out;
}

void ClientLimits::set_max_clients(std::uint32_t max_clients) {
  max_clients_ = max_clients;
  share_ = std::max(1U, max_clients / 2);
}

Admission ClientLimits::admit(const Ipv6Bytes& key) {
  // The share first: for a client that has it, no room need be made.
  const auto known = per_client_.find(key);
  if (known != per_client_.end() && known->second >= share_) return Admission::ShareUsed;
  if (connections_ >= max_clients_) return Admission::Full;
  ++per_client_[key];
  ++connections_;
  return Admission::Accepted;
}

void ClientLimits::leave(const Ipv6Bytes& key) {
  const auto known = per_client_.find(key);
  if (known == per_client_.end()) return;
  if (--known->second == 0) per_client_.erase(known);
  --connections_;
}

ClientLimits::Failures& ClientLimits::failures_of(const Ipv6Bytes& key, std::int64_t now) {
  const auto known = failures_by_key_.find(key);
  if (known != failures_by_key_.end()) {
    // To the end of the list, which thereby stays in the order of the last failure.
    failures_.splice(failures_.end(), failures_, known->second);
    if (now - known->second->last > kAuthMemory) *known->second = Failures{.key = key};
    return *known->second;
  }
  // Room for the new one: the oldest go, and with them all that are forgotten by now.
  while (!failures_.empty() &&
         (failures_.size() >= kMaxAuthRecords || now - failures_.front().last > kAuthMemory)) {
    failures_by_key_.erase(failures_.front().key);
    failures_.pop_front();
  }
  failures_.push_back(Failures{.key = key});
  failures_by_key_[key] = std::prev(failures_.end());
  return failures_.back();
}

std::int64_t ClientLimits::auth_failed(const Ipv6Bytes& key, std::int64_t now) {
  Failures& record = failures_of(key, now);
  if (record.count == 0 || now - record.window_start >= kAuthWindow) {
    record.window_start = now;
    record.count = 0;
  }
  record.last = now;
  if (++record.count < kAuthFailuresAllowed) return 0;
  // A client that goes on after its block gets one twice as long.
  record.block = record.block == 0 ? kFirstBlock : std::min(record.block * 2, kMaxBlock);
  record.blocked_until = now + record.block;
  record.count = 0;
  return record.block;
}

std::int64_t ClientLimits::blocked_for(const Ipv6Bytes& key, std::int64_t now) const {
  const auto known = failures_by_key_.find(key);
  if (known == failures_by_key_.end()) return 0;
  return std::max<std::int64_t>(0, known->second->blocked_until - now);
}

}  // namespace orv
