#include "netproc/client_limits.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace orv {
namespace {

ClientAddress client(const char* ipv6) {
  Ipv6Bytes bytes{};
  EXPECT_EQ(::inet_pton(AF_INET6, ipv6, bytes.data()), 1) << ipv6;
  return client_address(bytes);
}

TEST(ClientAddress, CountsIpv6ByNetworkAndShowsMappedAddressesAsIpv4) {
  EXPECT_EQ(client("::ffff:192.0.2.7").text, "192.0.2.7");
  EXPECT_EQ(client("2001:db8::1").text, "2001:db8::1");
  EXPECT_EQ(client("2001:db8::1").key, client("2001:db8::ffff:1").key);
  EXPECT_NE(client("2001:db8::1").key, client("2001:db8:0:1::1").key);
  EXPECT_NE(client("::ffff:192.0.2.7").key, client("::ffff:192.0.2.8").key);
}

TEST(ClientLimits, LeaveHalfOfThePlacesToOthers) {
  const Ipv6Bytes a = client("::ffff:192.0.2.1").key, b = client("::ffff:192.0.2.2").key;
  ClientLimits limits;
  limits.set_max_clients(3);
  EXPECT_EQ(limits.admit(a), Admission::Accepted);
  EXPECT_EQ(limits.admit(a), Admission::ShareUsed);
  EXPECT_EQ(limits.admit(b), Admission::Accepted);
  EXPECT_EQ(limits.admit(client("::2").key), Admission::Accepted);
  EXPECT_EQ(limits.admit(client("2001:db8::").key), Admission::Full);
  limits.leave(a);
  EXPECT_EQ(limits.admit(a), Admission::Accepted);
}

TEST(ClientLimits, BlockForAGrowingTimeAfterRepeatedFailures) {
  const Ipv6Bytes key = client("::ffff:192.0.2.1").key;
  ClientLimits limits;
  std::int64_t now = 1000;
  const auto fail_often = [&] {
    for (std::uint32_t i = 1; i < kAuthFailuresAllowed; ++i) {
      EXPECT_EQ(limits.auth_failed(key, now), 0);
    }
    EXPECT_EQ(limits.blocked_for(key, now), 0);
    return limits.auth_failed(key, now);
  };
  for (std::int64_t block = kFirstBlock; block < kMaxBlock * 4; block *= 2) {
    EXPECT_EQ(fail_often(), std::min(block, kMaxBlock));
    EXPECT_EQ(limits.blocked_for(key, now + 1), std::min(block, kMaxBlock) - 1);
    now += kMaxBlock;
  }
  now += kAuthMemory + 1;
  EXPECT_EQ(fail_often(), kFirstBlock);
  now += kMaxBlock;
  for (int i = 0; i < 50; ++i, now += kAuthWindow / 4) {  // slower than the window allows
    EXPECT_EQ(limits.auth_failed(key, now), 0);
  }
}

TEST(ClientLimits, ForgetTheLongestQuietClientFirst) {
  ClientLimits limits;
  Ipv6Bytes key{};
  for (std::uint32_t i = 0; i < 2 * kMaxAuthRecords; ++i) {
    key[0] = static_cast<unsigned char>(i);
    key[1] = static_cast<unsigned char>(i >> 8);
    for (std::uint32_t n = 0; n < kAuthFailuresAllowed; ++n)
      limits.auth_failed(key, 1000 + i / 100);
  }
  EXPECT_EQ(limits.auth_records(), kMaxAuthRecords);
  EXPECT_GT(limits.blocked_for(key, 1100), 0);
  EXPECT_EQ(limits.blocked_for(Ipv6Bytes{}, 1001), 0);
}

}  // namespace
}  // namespace orv
