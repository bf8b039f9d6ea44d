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
  const std::string name65(65, 'n');
  // clang-format off
  const struct {
    AuthResult result;
    std::vector<std::string> headers;
  } cases[] = {
      {AuthResult::NoCredentials, {""}},
      {AuthResult::Malformed,
       {"Basic d2F0Y2g6eA==", "bearer watch." + secret, "Bearer watch", "Bearer ." + secret,
        "Bearer " + name65 + "." + secret, "ORV-HMAC-SHA256 ", good + " ", good + ", x=1",
        good.substr(0, good.size() - 1), with("key=backup, ", ""), with(", ts", ",ts"),
        with("backup", ""), with("backup", "back.up"), with("backup", name65), with("0a0b", "0A0B"),
        with("0a0b", "0a0"), with("sig=7", "sig=A"), with("1767225600", "0123"),
        with("1767225600", "-1"), with("1767225600", std::string(24, '1'))}},
      {AuthResult::UnknownToken,
       {"Bearer " + name65.substr(1) + "." + secret, "Bearer Watch." + secret,
        with("backup", "nobody")}},
      {AuthResult::WrongSecret,
       {"Bearer watch." + secret + " ", "Bearer watch." + secret.substr(1),
        "Bearer watch.B" + secret.substr(1), "Bearer backup.B" + secret.substr(1),
        with("sig=7", "sig=8"), with("1767225600", "1767225601")}},
      {AuthResult::AdminMustSign, {"Bearer backup." + secret}},
      {AuthResult::Ok, {"Bearer watch." + secret, good}},
      {AuthResult::NonceUsed, {good}},
  };
  // clang-format on
  for (const auto& c : cases) {
    for (const std::string& header : c.headers) {
      EXPECT_EQ(check(header), c.result) << header;
      EXPECT_EQ(out_.token != nullptr, c.result == AuthResult::Ok);
    }
  }
}

TEST_F(Authentication, TheWindowIsInclusiveAndARefusalKeepsTheNonce) {
  for (const std::string& ts :
       {std::to_string(kNow - 301), std::to_string(kNow + 301), std::string("0"),
        std::string("18446744075476777216"),  // kNow + 2^64
        std::string(23, '9')})
    EXPECT_EQ(check_signed(ts, kNonce, kNow), AuthResult::OutsideWindow) << ts;
  EXPECT_EQ(check_signed(std::to_string(kNow - 300), kNonce, kNow), AuthResult::Ok);
  EXPECT_EQ(check_signed(std::to_string(kNow + 300), std::string(32, 'a'), kNow), AuthResult::Ok);
  // A wrong signature is reported before a stale time.
  EXPECT_EQ(check(signed_header("1", kNonce, kQuerySignature)), AuthResult::WrongSecret);
}

std::string nonce_of(std::uint64_t n) {
  char text[kNonceLength + 1];
  std::snprintf(text, sizeof text, "%032llx", static_cast<unsigned long long>(n));
  return text;
}

// The cache against the plainest form of its rule: a row of slots that is searched from end to end,
// over runs of requests with repeated nonces and a clock that also jumps back.
TEST(Nonces, TheIndexDecidesAsASearchOfTheWholeRingWould) {
  struct Slot {
    std::uint64_t nonce = 0;
    std::int64_t accepted = 0;
  };
  std::vector<Slot> slots(4096);
  std::size_t position = 0;
  const auto expected = [&](std::uint64_t nonce, std::int64_t now) {
    for (const Slot& slot : slots)
      if (slot.nonce == nonce && now - slot.accepted < 600) return AuthResult::NonceUsed;
    Slot& slot = slots[position];
    if (slot.nonce != 0 && now - slot.accepted < 600) return AuthResult::TooManyRequests;
    slot = {nonce, now};
    position = (position + 1) % slots.size();
    return AuthResult::Ok;
  };
  NonceCache nonces;
  std::minstd_rand random(20260101);
  std::int64_t now = 1000000;
  for (int i = 0; i < 20000; ++i) {
    if (random() % 8 == 0) ++now;
    if (random() % 2000 == 0) now += random() % 2 == 0 ? 700 : -400;
    const std::uint64_t nonce = 1 + random() % 9000;
    const AuthResult want = expected(nonce, now);
    ASSERT_EQ(nonces.accept(nonce_of(nonce), now), want) << i;
  }
}

}  // namespace
}  // namespace orv
