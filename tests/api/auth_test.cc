#include "api/auth.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/support.h"

namespace orv {
namespace {

// The vectors of docs/sched-api.txt, which were computed with another program.
constexpr std::string_view kSecret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";
constexpr std::string_view kNonce = "000102030405060708090a0b0c0d0e0f";
constexpr std::string_view kQuerySignature =
    "74f151b34a170b0c34fd271999a1ab69c0bdbccd3fc0971781059b43f1fd2593";
constexpr std::string_view kChangeSignature =
    "65957c99bf617c6ab4339b4da9a7e253e664402e1d087a137c2cd7bb5f8df1d6";
constexpr std::string_view kReplySignature =
    "6147f6f7828add0e5ba85e256c861714fe8e49df0a5a2f661e6d27b3440357df";
constexpr std::int64_t kNow = 1767225600;

std::string signed_header(std::string_view ts, std::string_view nonce, std::string_view signature) {
  return "ORV-HMAC-SHA256 key=backup, ts=" + std::string(ts) + ", nonce=" + std::string(nonce) +
         ", sig=" + std::string(signature);
}

class Authentication : public testing::Test {
 protected:
  void SetUp() override {
    add("backup", TokenRole::Admin);
    add("watch", TokenRole::Read);
    EXPECT_TRUE(request_.method.set("GET") && request_.path.set("/api/v1/jobs") &&
                request_.query.set("offset=50&limit=50"));
  }
  void add(const char* name, TokenRole role) {
    auto token = std::make_unique<ApiToken>();
    EXPECT_TRUE(token->name.set(name) && token->secret.set(kSecret));
    token->role = role;
    store_.tokens.push_back(std::move(token));
  }
  AuthResult check(std::string_view header, std::int64_t now = kNow) {
    EXPECT_TRUE(request_.authorization.set(header));
    out_ = {};
    return authenticate(store_, nonces_, now, request_, out_);
  }
  // A request signed at `ts`, which arrives at `now`.
  AuthResult check_signed(std::string_view ts, std::string_view nonce, std::int64_t now) {
    std::string text;
    EXPECT_TRUE(canonical_request(request_, ts, nonce, text));
    return check(signed_header(ts, nonce, hmac_sha256_hex(kSecret, text).view()), now);
  }
  TokenStore store_;
  NonceCache nonces_;
  ApiRequest request_;
  Authenticated out_;
};

TEST_F(Authentication, AgreesWithTheVectorsOfTheReference) {
  EXPECT_EQ(check(signed_header("1767225600", kNonce, kQuerySignature)), AuthResult::Ok);
  EXPECT_TRUE(out_.is_signed);
  EXPECT_EQ(out_.nonce, kNonce);
  EXPECT_EQ(out_.token, find_token(store_, "backup"));
  EXPECT_EQ(sign_response(kSecret, kNonce, 404,
                          R"({"error":{"code":"not_found","message":"no job named 'nightly'"}})"),
            kReplySignature);

  EXPECT_TRUE(request_.method.set("PUT") && request_.path.set("/api/v1/settings/sched") &&
              request_.query.set("") &&
              request_.if_match.set(
                  "\"73300871f44c168e7c949de2c750e60c2c9bb8ff530017c5a267234e9cb4db8e\""));
  request_.body = R"({"sched":{"poll_interval":15}})";
  EXPECT_EQ(
      check(signed_header("1767225600", "f0e1d2c3b4a5968778695a4b3c2d1e0f", kChangeSignature)),
      AuthResult::Ok);

  const std::string reference = test::read_file(ORV_SOURCE_DIR "/docs/sched-api.txt");
  for (const std::string_view signature : {kQuerySignature, kChangeSignature, kReplySignature})
    EXPECT_TRUE(test::contains(reference, signature)) << signature;
}

TEST_F(Authentication, ChecksTheHeader) {
  const std::string secret(kSecret);
  const std::string good = signed_header("1767225600", kNonce, kQuerySignature);
  const auto with = [&](std::string_view from, const std::string& to) {
    std::string header = good;
    return header.replace(header.find(from), from.size(), to);
  };
  const std::string hex63(63, 'a');
  const struct {
    std::string header;
    AuthResult result;
  } cases[] = {
      {"", AuthResult::NoCredentials},
      {"Basic d2F0Y2g6eA==", AuthResult::Malformed},
      {"bearer watch." + secret, AuthResult::Malformed},
      {"Bearer watch." + secret, AuthResult::Ok},
      {"Bearer watch", AuthResult::Malformed},
      {"Bearer ." + secret, AuthResult::Malformed},
      {"Bearer " + std::string(65, 'n') + "." + secret, AuthResult::Malformed},
      {"Bearer " + std::string(64, 'n') + "." + secret, AuthResult::UnknownToken},
      {"Bearer Watch." + secret, AuthResult::UnknownToken},
      {"Bearer watch." + secret + " ", AuthResult::WrongSecret},
      {"Bearer watch." + secret.substr(1), AuthResult::WrongSecret},
      {"Bearer watch.B" + secret.substr(1), AuthResult::WrongSecret},
      {"Bearer backup.B" + secret.substr(1), AuthResult::WrongSecret},
      {"Bearer backup." + secret, AuthResult::AdminMustSign},
      {"ORV-HMAC-SHA256 ", AuthResult::Malformed},
      {good + " ", AuthResult::Malformed},
      {good + ", x=1", AuthResult::Malformed},
      {good.substr(0, good.size() - 1), AuthResult::Malformed},
      {with("key=backup, ", ""), AuthResult::Malformed},
      {with(", ts", ",ts"), AuthResult::Malformed},
      {with("backup", ""), AuthResult::Malformed},
      {with("backup", "back.up"), AuthResult::Malformed},
      {with("backup", std::string(65, 'n')), AuthResult::Malformed},
      {with("backup", "nobody"), AuthResult::UnknownToken},
      {with("0a0b", "0A0B"), AuthResult::Malformed},
      {with("0a0b", "0a0"), AuthResult::Malformed},
      {with("sig=7", "sig=A"), AuthResult::Malformed},
      {with("sig=7", "sig=8"), AuthResult::WrongSecret},
      {with("1767225600", "0123"), AuthResult::Malformed},
      {with("1767225600", "-1"), AuthResult::Malformed},
      {with("1767225600", std::string(24, '1')), AuthResult::Malformed},
      {with("1767225600", "1767225601"), AuthResult::WrongSecret},
      {good, AuthResult::Ok},
      {good, AuthResult::NonceUsed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.header);
    EXPECT_EQ(check(c.header), c.result);
    EXPECT_EQ(out_.token != nullptr, c.result == AuthResult::Ok);
  }
  EXPECT_EQ(check("Bearer watch." + secret), AuthResult::Ok);
  EXPECT_FALSE(out_.is_signed);
}

TEST_F(Authentication, TheWindowIsInclusiveAndARefusalKeepsTheNonce) {
  const struct {
    std::string ts;
    AuthResult result;
  } cases[] = {
      {std::to_string(kNow - 301), AuthResult::OutsideWindow},
      {std::to_string(kNow + 301), AuthResult::OutsideWindow},
      {"0", AuthResult::OutsideWindow},
      {"9223372036854775807", AuthResult::OutsideWindow},
      {"18446744075476777216", AuthResult::OutsideWindow},     // kNow + 2^64
      {"99999999999999999999999", AuthResult::OutsideWindow},  // 23 digits
      {std::to_string(kNow - 300), AuthResult::Ok},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ts);
    EXPECT_EQ(check_signed(c.ts, kNonce, kNow), c.result);
  }
  EXPECT_EQ(check_signed(std::to_string(kNow + 300), std::string(32, 'a'), kNow), AuthResult::Ok);
  // A wrong signature is reported before a stale time.
  EXPECT_EQ(check(signed_header("1", kNonce, kQuerySignature)), AuthResult::WrongSecret);
}

TEST(CanonicalText, HasALimit) {
  std::string text;
  ApiRequest request;
  // "ORV1", seven line feeds and the digest of the body take 75 bytes.
  EXPECT_TRUE(canonical_request(request, std::string(4020, '1'), "", text));
  EXPECT_FALSE(canonical_request(request, std::string(4021, '1'), "", text));
}

std::string nonce_of(std::uint64_t n) {
  char text[kNonceLength + 1];
  std::snprintf(text, sizeof text, "%032llx", static_cast<unsigned long long>(n));
  return text;
}

TEST(Nonces, TheRingRefusesTheOneTooMany) {
  NonceCache nonces;
  for (std::uint64_t i = 0; i < kNonceSlots; ++i)
    ASSERT_EQ(nonces.accept(nonce_of(i), 1000), AuthResult::Ok) << i;
  EXPECT_EQ(nonces.accept(nonce_of(7), 1599), AuthResult::NonceUsed);
  EXPECT_EQ(nonces.accept(nonce_of(9999), 1599), AuthResult::TooManyRequests);
  EXPECT_EQ(nonces.accept(nonce_of(9999), 900), AuthResult::TooManyRequests);
  EXPECT_EQ(nonces.accept(nonce_of(7), 1600), AuthResult::Ok);
  EXPECT_EQ(nonces.accept(nonce_of(7), 1600), AuthResult::NonceUsed);
}

// The cache against the plainest form of its rule: a row of slots that is searched from end to end,
// over runs of requests with repeated nonces and a clock that also jumps back.
TEST(Nonces, TheIndexDecidesAsASearchOfTheWholeRingWould) {
  struct Slot {
    std::uint64_t nonce = 0;
    std::int64_t accepted = 0;
  };
  std::vector<Slot> slots(kNonceSlots);
  std::size_t position = 0;
  const auto expected = [&](std::uint64_t nonce, std::int64_t now) {
    for (const Slot& slot : slots)
      if (slot.nonce == nonce && now - slot.accepted < kNonceLifetime) return AuthResult::NonceUsed;
    Slot& slot = slots[position];
    if (slot.nonce != 0 && now - slot.accepted < kNonceLifetime) return AuthResult::TooManyRequests;
    slot = {nonce, now};
    position = (position + 1) % kNonceSlots;
    return AuthResult::Ok;
  };
  NonceCache nonces;
  std::minstd_rand random(20260101);
  std::int64_t now = 1000000;
  int seen[9] = {};
  for (int i = 0; i < 20000; ++i) {
    if (random() % 8 == 0) ++now;
    if (random() % 2000 == 0) now += random() % 2 == 0 ? 700 : -400;
    const std::uint64_t nonce = 1 + random() % 9000;
    const AuthResult want = expected(nonce, now);
    ++seen[static_cast<std::size_t>(want)];
    ASSERT_EQ(nonces.accept(nonce_of(nonce), now), want) << i;
  }
  EXPECT_GT(position, 0U);
  for (const AuthResult result :
       {AuthResult::Ok, AuthResult::NonceUsed, AuthResult::TooManyRequests})
    EXPECT_GT(seen[static_cast<std::size_t>(result)], 100);
}

}  // namespace
}  // namespace orv
