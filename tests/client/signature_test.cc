// The published test vectors of the API's signatures, and the tokens that sign.
#include "client/signature.h"

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

#include "client/token.h"
#include "support/support.h"

namespace orv {
namespace {

using test::TempDir;

constexpr const char* kToken = "backup.AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";
constexpr const char* kNonce = "000102030405060708090a0b0c0d0e0f";

TEST(Authorization, IsThatOfThePublishedVectors) {
  const ClientTokenPtr token = parse_token(kToken);
  ASSERT_NE(token, nullptr);
  EXPECT_EQ(authorization(*token, {"GET", "/api/v1/jobs", "offset=50&limit=50", "", ""}, 1767225600,
                          kNonce),
            "ORV-HMAC-SHA256 key=backup, ts=1767225600, nonce=000102030405060708090a0b0c0d0e0f, "
            "sig=74f151b34a170b0c34fd271999a1ab69c0bdbccd3fc0971781059b43f1fd2593");
  EXPECT_TRUE(
      authorization(*token,
                    {"PUT", "/api/v1/settings/sched", "", R"({"sched":{"poll_interval":15}})",
                     "\"73300871f44c168e7c949de2c750e60c2c9bb8ff530017c5a267234e9cb4db8e\""},
                    1767225600, "f0e1d2c3b4a5968778695a4b3c2d1e0f")
          .ends_with("65957c99bf617c6ab4339b4da9a7e253e664402e1d087a137c2cd7bb5f8df1d6"));
  EXPECT_EQ(authorization(*token, {"GET", std::string(4096, '/'), "", "", ""}, 1, kNonce), "");
}

TEST(ReplySignature, IsThatOfThePublishedVectorAndOfNothingElse) {
  const ClientTokenPtr token = parse_token(kToken);
  ASSERT_NE(token, nullptr);
  const std::string body = R"({"error":{"code":"not_found","message":"no job named 'nightly'"}})";
  const std::string sig = "6147f6f7828add0e5ba85e256c861714fe8e49df0a5a2f661e6d27b3440357df";
  EXPECT_TRUE(is_reply_signature(*token, kNonce, 404, body, sig));
  EXPECT_FALSE(is_reply_signature(*token, kNonce, 200, body, sig));
  EXPECT_FALSE(is_reply_signature(*token, kNonce, 404, body + " ", sig));
  EXPECT_FALSE(is_reply_signature(*token, "f0e1d2c3b4a5968778695a4b3c2d1e0f", 404, body, sig));
  EXPECT_FALSE(is_reply_signature(*token, kNonce, 404, body, sig.substr(0, 63)));
}

TEST(Nonce, Is32HexadecimalDigitsAndNeverTheSame) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string nonce = new_nonce();
    EXPECT_EQ(nonce.size(), kNonceSize);
    EXPECT_EQ(nonce.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_TRUE(seen.insert(nonce).second);
  }
}

TEST(Token, IsANameAndASecretOf43Characters) {
  const std::string secret(43, 'x');
  const std::string name(64, 'n');
  for (const std::string& good :
       {"a." + secret, " \n a-_9." + secret + "\r\n", name + "." + secret}) {
    EXPECT_NE(parse_token(good), nullptr) << good;
  }
  for (const std::string& bad :
       {std::string(), secret, "." + secret, name + "n." + secret, "a." + secret + "x",
        "a." + secret.substr(1), "a b." + secret, "a." + secret.substr(1) + "="}) {
    EXPECT_EQ(parse_token(bad), nullptr) << bad;
  }
}

TEST(TokenFile, MustBeItsOwnersAlone) {
  const TempDir dir;
  const std::string good = std::string(kToken) + "\n";
  const struct {
    unsigned mode;
    std::string content, message;  // of the refusal, after the file's name; empty: read
  } cases[] = {
      {0600, good, ""},
      {0400, good, ""},
      {0640, good, " is open to group or others (chmod 600 "},
      {0604, good, " is open to group or others (chmod 600 "},
      {0600, "hush", " does not hold a token <name>.<secret>"},
      {0600, good + std::string(2000, ' '), ": File too large"},
  };
  for (const auto& c : cases) {
    const std::string path = dir.write("token", c.content, c.mode);
    std::array<char, 1024> err{};
    const ClientTokenPtr token = read_token_file(path, err);
    EXPECT_EQ(token != nullptr, c.message.empty()) << err.data();
    EXPECT_TRUE(test::contains(err.data(), c.message)) << err.data();
    EXPECT_FALSE(test::contains(err.data(), "hush"));
    if (token != nullptr) {
      EXPECT_EQ(token->name.view(), "backup");
    }
  }
  std::array<char, 1024> err{};
  EXPECT_EQ(read_token_file(dir.path(), err), nullptr);
  EXPECT_EQ(read_token_file(dir.file("missing"), err), nullptr);
  EXPECT_TRUE(test::contains(err.data(), ": No such file or directory")) << err.data();
}

}  // namespace
}  // namespace orv
